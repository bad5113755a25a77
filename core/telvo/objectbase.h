// The object model: interfaces, reference-counted objects, classes and copy-on-write.
//
// Interfaces are C++ abstract classes; their virtual tables are the method tables, with the
// methods in the order the interface declares them. Every interface derives virtually from
// ObjectInterface, so an object that implements several interfaces has one reference count and
// one ToString. Callers find an interface of an object by its interface id (QueryInterface) and
// always call through it, so a method that a class replaces is honoured by every caller.
//
// A class is a class id plus its components. The C++ realisation: an instance is one C++ object
// (the class's implementation type) whose components are parts of it; the class record's nine
// lifecycle operations construct, destroy and copy that object, and its bind operation checks that
// every interface the class declares is found by its key. Components are located by their
// implementation name (FindComponent), which is how a class reaches an inherited implementation
// and how serialisation reaches each component's members.
#pragma once

#include <cstring>
#include <mutex>
#include <span>
#include <type_traits>

#include "telvo/errorbase.h"
#include "telvo/string.h"

namespace telvo
{

class ObjectInterface;
class ClassInfo;
class DataDescriber;
struct DataType;

using InterfaceInfoFn = const struct InterfaceInfo& (*)();

// What the registry knows of an interface: its id, its declared name, the header that declares
// it, its methods in method-table order and its base interfaces.
struct InterfaceInfo
{
  const char* id;
  const char* name;
  const char* header;
  std::span<const char* const> methods;
  std::span<const InterfaceInfoFn> bases;

  Bool Is(const InterfaceInfo& other) const { return this == &other || std::strcmp(id, other.id) == 0; }
};

template <typename... INTERFACES>
struct InterfaceList
{
  static constexpr InterfaceInfoFn infos[sizeof...(INTERFACES) + 1] = {&INTERFACES::GetInterfaceInfo..., nullptr};
  static constexpr Int count = sizeof...(INTERFACES);
};

// Declares GetInterfaceInfo() inside an interface class. The interface must also declare
// `using Bases = InterfaceList<...>;` listing its direct base interfaces.
#define TELVO_INTERFACE_INFO(ID, NAME, HEADER, ...)                                                 \
  static const ::telvo::InterfaceInfo& GetInterfaceInfo()                                           \
  {                                                                                                 \
    static constexpr const char* methods[] = {__VA_ARGS__};                                         \
    static const ::telvo::InterfaceInfo info{ID, NAME, HEADER, methods,                             \
                                             std::span<const ::telvo::InterfaceInfoFn>(            \
                                               Bases::infos, static_cast<std::size_t>(Bases::count))}; \
    return info;                                                                                    \
  }

// The root interface of every object: reference counting, interface lookup and text.
class TELVO_API ObjectInterface
{
public:
  using Bases = InterfaceList<>;
  TELVO_INTERFACE_INFO("net.telvo.interface.object", "telvo.ObjectInterface", "telvo/objectbase.h",
                       "ToString")

  // Text dump of the object; never fails (pieces that cannot be built are dropped).
  virtual String ToString(const FormatStatement* formatStatement = nullptr) const;

  // The interface of this object with the given id, or nullptr when it has none.
  virtual void* QueryInterface(const InterfaceInfo& iface) const = 0;

  // The component with the given implementation name, or nullptr.
  void* FindComponent(const char* implementationName) const;

  const ClassInfo* GetClass() const { return _class; }
  Int GetReferenceCount() const { return _refCount.load(std::memory_order_acquire); }
  void AddReference() const { _refCount.fetch_add(1, std::memory_order_relaxed); }
  // Frees the object through its class when the last reference goes.
  void RemoveReference() const;

protected:
  ObjectInterface() = default;
  virtual ~ObjectInterface() = default;
  ObjectInterface(const ObjectInterface&) = delete;
  ObjectInterface& operator=(const ObjectInterface&) = delete;

private:
  friend class ClassInfo;
  mutable std::atomic<Int> _refCount{0};
  const ClassInfo* _class = nullptr;
  void* _instance = nullptr;
};

// The I interface of an object, or nullptr.
template <typename I>
I* QueryInterface(const ObjectInterface* object)
{
  if (object == nullptr)
    return nullptr;
  return static_cast<I*>(object->QueryInterface(I::GetInterfaceInfo()));
}

template <typename I>
class StrongRef;
template <typename I>
class CowRef;
using ObjectRef = StrongRef<ObjectInterface>;

// A shared reference: null or one counted object, mutable through any holder. Objects that are
// meant to be shared and changed in place (hierarchy nodes, services) travel as StrongRef.
template <typename I>
class StrongRef
{
public:
  StrongRef() = default;
  StrongRef(std::nullptr_t) {}
  // Takes a new reference to p.
  explicit StrongRef(I* p) : _p(p) { Acquire(); }
  StrongRef(const StrongRef& other) : _p(other._p) { Acquire(); }
  StrongRef(StrongRef&& other) noexcept : _p(std::exchange(other._p, nullptr)) {}
  template <typename J, typename = std::enable_if_t<std::is_convertible_v<J*, I*>>>
  StrongRef(const StrongRef<J>& other) : _p(other.GetPointer())
  {
    Acquire();
  }
  ~StrongRef() { Release(); }

  StrongRef& operator=(const StrongRef& other)
  {
    if (_p != other._p)
    {
      I* old = _p;
      _p = other._p;
      Acquire();
      if (old != nullptr)
        AsObject(old)->RemoveReference();
    }
    return *this;
  }
  StrongRef& operator=(StrongRef&& other) noexcept
  {
    if (this != &other)
    {
      Release();
      _p = std::exchange(other._p, nullptr);
    }
    return *this;
  }
  StrongRef& operator=(std::nullptr_t)
  {
    Release();
    return *this;
  }

  I* GetPointer() const { return _p; }
  I* operator->() const { return _p; }
  I& operator*() const { return *_p; }
  explicit operator bool() const { return _p != nullptr; }
  Bool IsSameObject(const StrongRef& other) const { return _p == other._p; }
  friend Bool operator==(const StrongRef& a, const StrongRef& b) { return a._p == b._p; }
  friend Bool operator==(const StrongRef& a, std::nullptr_t) { return a._p == nullptr; }

  void Reset() { Release(); }

  // Views the referenced object as interface J (null when it lacks J).
  template <typename J>
  StrongRef<J> As() const
  {
    return StrongRef<J>(QueryInterface<J>(AsObject(_p)));
  }

private:
  static const ObjectInterface* AsObject(const I* p) { return p; }
  void Acquire() const
  {
    if (_p != nullptr)
      AsObject(_p)->AddReference();
  }
  void Release()
  {
    if (_p != nullptr)
      AsObject(std::exchange(_p, nullptr))->RemoveReference();
  }

  I* _p = nullptr;
};

// A copy-on-write reference: null or one counted object, read-only through the reference.
// Mutation goes through MakeWritable(), which first makes a private copy when the object is
// shared with other holders and re-points this reference to it.
template <typename I>
class CowRef
{
public:
  CowRef() = default;
  CowRef(std::nullptr_t) {}
  explicit CowRef(I* p) : _ref(p) {}
  explicit CowRef(StrongRef<I> ref) : _ref(std::move(ref)) {}

  const I* GetPointer() const { return _ref.GetPointer(); }
  const I* operator->() const { return _ref.GetPointer(); }
  const I& operator*() const { return *_ref.GetPointer(); }
  explicit operator bool() const { return static_cast<bool>(_ref); }
  Bool IsSameObject(const CowRef& other) const { return _ref == other._ref; }
  friend Bool operator==(const CowRef& a, std::nullptr_t) { return a._ref == nullptr; }
  void Reset() { _ref.Reset(); }
  const StrongRef<I>& GetStrongRef() const { return _ref; }

  // A writable object of this reference's own: the object itself when this reference is its only
  // holder, otherwise a private copy made with the class's copy operation. A null reference has
  // nothing to make writable (NullptrError). Copy failures are returned (OutOfMemoryError).
  Result<I*> MakeWritable();

private:
  StrongRef<I> _ref;
};

// The nine lifecycle operations of a class record, in their fixed order.
struct LifecycleOperations
{
  void (*construct)(void* instance);                   // every field to its empty value
  void (*destruct)(void* instance);                    // fields released, last declared first
  Result<void> (*initialize)(void* instance);          // hook: nothing, success
  void (*finalize)(void* instance);                    // hook: nothing
  Result<void> (*copy)(void* dst, const void* src);    // dst shares src's fields
  Bool (*bind)(const ObjectInterface* object, const ClassInfo& cls); // interfaces found by key
  Result<void> (*activate)(void* instance);            // hook: nothing, success
  void (*deactivate)(void* instance);                  // hook: nothing
  Result<void> (*describe)(DataDescriber& describer);  // member description for serialisation
};

// A component of a class: its implementation name, where it lies in an instance, and the
// description of its members.
struct ComponentInfo
{
  const char* implementationName;
  void* (*locate)(void* instance);
  Result<void> (*describe)(DataDescriber& describer);
};

// A reference to a registered data type, bound by name on first use and exactly once.
class TELVO_API DataTypeReference
{
public:
  constexpr explicit DataTypeReference(const char* name) : _name(name) {}
  const char* GetName() const { return _name; }
  // The registered type, or nullptr when no type of that name is registered.
  const DataType* Get() const;

private:
  const char* _name;
  mutable std::once_flag _once;
  mutable const DataType* _type = nullptr;
};

// A class record: what a module registers for each implementation class.
class TELVO_API ClassInfo
{
public:
  const char* classId;
  LifecycleOperations operations;
  const DataTypeReference* dataType;
  const char* implementationName;
  const char* baseClassId; // the class this one is built on, or nullptr
  std::span<const ComponentInfo> components;
  std::span<const InterfaceInfoFn> interfaces;
  std::size_t instanceSize;
  std::size_t instanceAlignment;
  ObjectInterface* (*toObject)(void* instance);

  // Creates a new instance with every field empty; its reference count is 1.
  Result<ObjectRef> CreateInstance() const;
  // Creates a new instance and copies src into it with the copy operation.
  Result<ObjectRef> CloneInstance(const ObjectInterface& src) const;

  // Used by ObjectInterface::RemoveReference.
  void DestroyInstance(const ObjectInterface* object) const;
};

// Builds the class record operations for an implementation type T. T provides a default
// constructor that leaves every field empty, `Result<void> CopyFrom(const T&)` and
// `static Result<void> DescribeIO(DataDescriber&)`; T derives from its interfaces.
template <typename T>
constexpr LifecycleOperations MakeLifecycleOperations()
{
  return LifecycleOperations{
    [](void* instance) { new (instance) T(); },
    [](void* instance) { static_cast<T*>(instance)->~T(); },
    [](void*) -> Result<void> { return OK(); },
    [](void*) {},
    [](void* dst, const void* src) -> Result<void> {
      return static_cast<T*>(dst)->CopyFrom(*static_cast<const T*>(src));
    },
    [](const ObjectInterface* object, const ClassInfo& cls) -> Bool {
      for (InterfaceInfoFn info : cls.interfaces)
        if (object->QueryInterface(info()) == nullptr)
          return false;
      return true;
    },
    [](void*) -> Result<void> { return OK(); },
    [](void*) {},
    &T::DescribeIO,
  };
}

namespace object_detail
{
// A base of an implementation is an interface, or a component that implements one and names it
// as its InterfaceType.
template <typename T, typename = void>
struct InterfaceOf
{
  using type = T;
};
template <typename T>
struct InterfaceOf<T, std::void_t<typename T::InterfaceType>>
{
  using type = typename T::InterfaceType;
};

template <typename SELF, typename I>
void* QueryOne(const SELF* self, const InterfaceInfo& iface);

template <typename SELF, typename... BASES>
void* QueryBases([[maybe_unused]] const SELF* self, [[maybe_unused]] const InterfaceInfo& iface,
                 InterfaceList<BASES...>*)
{
  void* found = nullptr;
  ((found = found != nullptr ? found : QueryOne<SELF, BASES>(self, iface)), ...);
  return found;
}

template <typename SELF, typename BASE>
void* QueryOne(const SELF* self, const InterfaceInfo& iface)
{
  using I = typename InterfaceOf<BASE>::type;
  if (I::GetInterfaceInfo().Is(iface))
    return static_cast<I*>(const_cast<SELF*>(self));
  return QueryBases<SELF>(self, iface, static_cast<typename I::Bases*>(nullptr));
}
} // namespace object_detail

// Base of implementation types: derives from the class's interfaces (or from components that
// implement them) and answers QueryInterface for them and for all their bases.
template <typename SELF, typename... INTERFACES>
class ObjectImpl : public INTERFACES...
{
public:
  void* QueryInterface(const InterfaceInfo& iface) const override
  {
    const SELF* self = static_cast<const SELF*>(this);
    void* found = nullptr;
    ((found = found != nullptr ? found : object_detail::QueryOne<SELF, INTERFACES>(self, iface)), ...);
    return found;
  }

  static ObjectInterface* ToObject(void* instance)
  {
    return static_cast<ObjectInterface*>(static_cast<SELF*>(instance));
  }
};

} // namespace telvo

#include "telvo/objectbase_inl.h"
