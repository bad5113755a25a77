// Template members of the object model that need the complete class record.
#pragma once

namespace telvo
{

namespace object_detail
{
constexpr const char* kUnitName = "telvo/objectbase.h";
}

template <typename I>
Result<I*> CowRef<I>::MakeWritable()
{
  using object_detail::kUnitName;
  I* p = _ref.GetPointer();
  if (p == nullptr)
    return TELVO_NULLPTR_ERROR();
  const ObjectInterface* object = p;
  if (object->GetReferenceCount() == 1)
    return p;
  Result<ObjectRef> clone = object->GetClass()->CloneInstance(*object);
  if (clone.IsError())
    return clone.GetError();
  I* copy = QueryInterface<I>(clone.GetValue().GetPointer());
  _ref = StrongRef<I>(copy);
  return copy;
}

} // namespace telvo
