// The serialisation describer. A class describes its serialised members to a describer, one
// declaration per member (key, data type, flags, and how to reach the member in a component);
// measuring, writing and reading are all built on the same declarations.
#pragma once

#include "telvo/datatype.h"
#include "telvo/errorbase.h"
#include "telvo/objectbase.h"

namespace telvo
{

// Declaration flags.
constexpr UInt DESCRIBEFLAGS_NONE = 0;
constexpr UInt DESCRIBEFLAGS_MAP = 0x400;   // a map member, declared twice: key type, then value type
constexpr UInt DESCRIBEFLAGS_ARRAY = 0x800; // a BaseArray member, declared with its element type

// Reaches a member: given the component (located in an instance through ComponentInfo), the
// address of the member. For an array member the address of the BaseArray; for a map member the
// address of the HashMap.
using MemberAccess = void* (*)(void* component);

class TELVO_API DataDescriber
{
public:
  virtual ~DataDescriber() = default;
  // Called before the members of each component are declared (DescribeClass), so that a
  // describer applied to an instance knows where the following accessors apply.
  virtual void EnterComponent(const ComponentInfo& component) { (void)component; }
  virtual Result<void> DeclareMember(const char* key, const DataType& type, UInt flags, MemberAccess access) = 0;
};

// Resolves the type (on first use) and declares the member; an unknown type is an
// UnexpectedError and nothing is declared.
TELVO_API Result<void> DeclareMember(DataDescriber& describer, const char* key, const DataTypeReference& type,
                                     UInt flags, MemberAccess access);

// Describes every component of an object's class, in component order.
TELVO_API Result<void> DescribeClass(const ClassInfo& cls, DataDescriber& describer);

} // namespace telvo
