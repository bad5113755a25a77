// What every unit of the module shares: its global module record and the steps every factory
// and class record takes. Private to the module.
#pragma once

#include "telvo/dataserialize.h"
#include "telvo/datatypelib.h"
#include "telvo/module.h"
#include "telvo/objectbase.h"
#include "telvo/registrybase.h"

// The framework's global module record of this module (exported), and the storage for the
// framework's spin-wait delegate (exported); both are defined in the module unit.
extern "C" telvo::ModuleRecord g_telvo;
extern "C" telvo::CpuYieldDelegate g_CpuYieldDelegate;

namespace telvo::kelvara
{

// The headers every class unit declares first, in this order.
#define KELVARA_COMMON_HEADERS                                                                           \
  "telvo/system.h", "telvo/datatypelib.h", "telvo/registrybase.h", "telvo/string.h", "telvo/objectbase.h", \
    "telvo/errorbase.h", "telvo/datatype.h"
// ... and last.
#define KELVARA_TRAILING_HEADERS "telvo/array.h", "telvo/dataserialize.h"

// Steps 1 and 2 of every factory: resolve the class through the registry the loader gave the
// module (null-return error, reason 0, when it is not available) and create an instance (its
// error as it stands).
template <typename REF>
Result<REF> NewInstance(const char* classId)
{
  return CreateObject<REF>(classId, g_telvo.registry);
}

// A writable reference for a factory's next setter: null-return error, reason 1, when none can
// be had.
template <typename I>
Result<I*> WritableForFactory(CowRef<I>& ref)
{
  Result<I*> writable = ref.MakeWritable();
  if (writable.IsError())
    return NullReturnError(1);
  return writable;
}

template <typename I>
Result<I*> WritableForFactory(StrongRef<I>& ref)
{
  if (!ref)
    return NullReturnError(1);
  return ref.GetPointer();
}

// The class record of an implementation type IMPL whose components are listed in COMPONENTS.
template <typename IMPL>
constexpr ClassInfo MakeClassInfo(const char* classId, const DataTypeReference* dataType,
                                  const char* implementationName, const char* baseClassId,
                                  std::span<const ComponentInfo> components,
                                  std::span<const InterfaceInfoFn> interfaces)
{
  return ClassInfo{classId,     MakeLifecycleOperations<IMPL>(), dataType,     implementationName, baseClassId,
                   components,  interfaces,                       sizeof(IMPL), alignof(IMPL),      &IMPL::ToObject};
}

// The component of IMPL that is IMPL itself.
template <typename IMPL>
constexpr ComponentInfo OwnComponent(const char* implementationName)
{
  return ComponentInfo{implementationName, [](void* instance) -> void* { return static_cast<IMPL*>(instance); },
                       &IMPL::DescribeIO};
}

// A component PART that IMPL derives from.
template <typename IMPL, typename PART>
constexpr ComponentInfo PartComponent(const char* implementationName)
{
  return ComponentInfo{implementationName,
                       [](void* instance) -> void* { return static_cast<PART*>(static_cast<IMPL*>(instance)); },
                       &PART::DescribeIO};
}

} // namespace telvo::kelvara

namespace telvo::kelvara
{

// label + value + "\n" as one piece of a ToString text: the label goes in front of the value's
// own text. OutOfMemoryError when the piece cannot be built (the caller then drops it).
inline Result<String> MakeLine(std::string_view label, String value)
{
  TELVO_TRY(value.Insert(0, label));
  TELVO_TRY(value.Append(std::string_view("\n")));
  return value;
}

// Appends a piece to a ToString result: a piece that could not be built is dropped, and a failed
// append resets the result to the empty string (ToString goes on with the next piece).
inline void AppendPiece(String& result, const Result<String>& piece)
{
  if (piece.IsError())
    return;
  if (result.Append(piece.GetValue()).IsError())
    result = String();
}

// Appends the line label + text for the text of a value (Uuid, InternedId, Bool) that prints
// something whenever it holds something: an empty text of a non-empty value found no memory, and
// the line is dropped rather than printed without its value.
inline void AppendHandleLine(String& result, std::string_view label, String text, Bool valueEmpty)
{
  if (text.IsEmpty() && !valueEmpty)
    return;
  AppendPiece(result, MakeLine(label, std::move(text)));
}

inline void AppendPiece(String& result, std::string_view text)
{
  if (result.Append(text).IsError())
    result = String();
}

} // namespace telvo::kelvara
