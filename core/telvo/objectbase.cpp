#include "telvo/objectbase.h"

#include <atomic>

#include "telvo/datatypelib.h"
#include "telvo/registrybase.h"

namespace telvo
{

namespace
{
constexpr const char* kUnitName = "telvo/objectbase";
}

String ObjectInterface::ToString(const FormatStatement*) const
{
  Result<String> text = String::Create(_class != nullptr ? _class->implementationName : "");
  return text.IsOk() ? text.GetValue() : String();
}

void* ObjectInterface::FindComponent(const char* implementationName) const
{
  if (_class == nullptr)
    return nullptr;
  for (const ComponentInfo& component : _class->components)
    if (std::strcmp(component.implementationName, implementationName) == 0)
      return component.locate(_instance);
  return nullptr;
}

void ObjectInterface::RemoveReference() const
{
  if (_refCount.fetch_sub(1, std::memory_order_acq_rel) == 1)
    _class->DestroyInstance(this);
}

const DataType* DataTypeReference::Get() const
{
  // Every instance creation asks: once bound, one acquire load answers without call_once's
  // per-call setup. A name that found no type keeps taking the slow path (and answering null).
  if (const DataType* bound = std::atomic_ref<const DataType*>(_type).load(std::memory_order_acquire))
    return bound;
  std::call_once(_once, [this] {
    std::atomic_ref<const DataType*>(_type).store(Registry::Get().FindDataType(_name), std::memory_order_release);
  });
  return std::atomic_ref<const DataType*>(_type).load(std::memory_order_acquire);
}

Result<ObjectRef> ClassInfo::CreateInstance() const
{
  // The allocation entry refuses an instance that would not carry this class's data type.
  if (dataType != nullptr)
  {
    const DataType* type = dataType->Get();
    // The registry's copy of the class id is usually the very same string: no strcmp then.
    if (type == nullptr || type->classId == nullptr ||
        (type->classId != classId && std::strcmp(type->classId, classId) != 0))
      return TELVO_ERROR(UnexpectedError, "The instance does not carry the data type of its class");
  }
  void* memory = Allocator::Alloc(instanceSize);
  if (memory == nullptr)
    return TELVO_OUT_OF_MEMORY();
  operations.construct(memory);
  ObjectInterface* object = toObject(memory);
  object->_class = this;
  object->_instance = memory;
  if (!operations.bind(object, *this))
  {
    operations.destruct(memory);
    Allocator::Free(memory);
    return TELVO_ERROR(UnexpectedError, "The class's method tables cannot be bound");
  }
  Result<void> initialized = operations.initialize(memory);
  if (initialized.IsError())
  {
    operations.destruct(memory);
    Allocator::Free(memory);
    return initialized.GetError();
  }
  return ObjectRef(object);
}

Result<ObjectRef> ClassInfo::CloneInstance(const ObjectInterface& src) const
{
  Result<ObjectRef> created = CreateInstance();
  if (created.IsError())
    return created;
  Result<void> copied = operations.copy(created.GetValue()->_instance, src._instance);
  if (copied.IsError())
    return copied.GetError(); // the half-made copy is released with `created`
  return created;
}

void ClassInfo::DestroyInstance(const ObjectInterface* object) const
{
  void* memory = object->_instance;
  operations.finalize(memory);
  operations.destruct(memory);
  Allocator::Free(memory);
}

} // namespace telvo
