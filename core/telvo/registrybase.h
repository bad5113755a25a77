// The registries: one per process, shared by the host and every module.
//
// They record, in order, every framework, module, unit, header, interface, class, data type,
// implementation and dependency announced, and withdraw them in reverse order when a module
// unloads. The journal keeps every registration and withdrawal for whoever wants to show it.
// Registration happens on the loading thread; lookups may come from any thread.
#pragma once

#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "telvo/datatype.h"
#include "telvo/objectbase.h"

namespace telvo
{

// An implementation registered under its name, with its static creation entry (the class's
// Create... function, stored untyped: the interface header casts it back) and its member
// description.
struct ImplementationInfo
{
  const char* name;
  const ClassInfo* classInfo;
  void (*createEntry)();
  Result<void> (*describe)(DataDescriber& describer);
};

enum class RegistryKind
{
  Framework,
  Module,
  Unit,
  Header,
  Interface,
  Class,
  DataType,
  Implementation,
  Dependency,
  CleanUp,
};

TELVO_API const char* RegistryKindName(RegistryKind kind);

struct RegistryEvent
{
  Bool registered; // false: withdrawn
  RegistryKind kind;
  std::string name;
  std::string owner; // the module (or framework) that made the registration
};

class TELVO_API Registry
{
public:
  static Registry& Get();

  // Lookups; nullptr when nothing of that name is registered (or the class is hidden).
  const ClassInfo* FindClass(std::string_view classId) const;
  const ImplementationInfo* FindImplementation(std::string_view name) const;
  const DataType* FindDataType(std::string_view name) const;
  const InterfaceInfo* FindInterface(std::string_view id) const;
  Bool HasHeader(std::string_view id) const;
  Bool HasModule(std::string_view id) const;
  Int GetFrameworkUseCount(std::string_view id) const;

  // Registrations. Each returns false (and says why) when the name is taken or unknown.
  Bool RegisterModule(const char* id, std::string& why);
  void RegisterUnit(const char* id, const char* owner);
  void RegisterHeader(const char* id, const char* owner);
  Bool RegisterInterface(const InterfaceInfo& info, const char* owner, std::string& why);
  Bool RegisterClass(const ClassInfo& info, const char* owner, std::string& why);
  Bool RegisterDataType(const DataType& type, const char* owner, std::string& why);
  Bool RegisterImplementation(const ImplementationInfo& info, const char* owner, std::string& why);
  // Acquires a framework for a module: creates it on first use, counts its users.
  void AcquireFramework(const char* id, const char* owner);
  // Installs a module's dependency list. Installing a list when one is already installed for
  // that module is a deliberate fatal trap: the process stops at once.
  void InstallDependencies(const char* moduleId, std::span<const char* const> frameworkIds);
  const std::vector<std::string>* GetDependencies(std::string_view moduleId) const;
  void RecordCleanUp(const char* name, const char* owner);

  // Withdrawals, the reverse of the registrations above.
  void WithdrawModule(const char* id);
  void WithdrawUnit(const char* id, const char* owner);
  void WithdrawHeader(const char* id, const char* owner);
  void WithdrawInterface(const InterfaceInfo& info, const char* owner);
  void WithdrawClass(const ClassInfo& info, const char* owner);
  void WithdrawDataType(const DataType& type, const char* owner);
  void WithdrawImplementation(const ImplementationInfo& info, const char* owner);
  // Releases a module's dependency list, last installed first, clearing each entry.
  void ReleaseDependencies(const char* moduleId);
  void RecordCleanUpDone(const char* name, const char* owner);

  // Registered entries of a kind, in registration order (names).
  std::vector<std::string> List(RegistryKind kind) const;
  std::vector<RegistryEvent> GetJournal() const;
  void ClearJournal();

  // Makes FindClass and FindImplementation miss a class while hidden; for tests of what happens
  // when a class is not available.
  void SetClassHidden(std::string_view classId, Bool hidden);

private:
  // What a registration records, made before the tables change (it may throw), committed after.
  struct PendingRecord
  {
    RegistryEvent event;
    std::string orderName;
  };

  Registry();
  PendingRecord Prepare(RegistryKind kind, std::string_view name, std::string_view owner);
  void Commit(PendingRecord&& record) noexcept;
  void Record(Bool registered, RegistryKind kind, std::string_view name, std::string_view owner);
  void JournalWithdrawal(RegistryKind kind, std::string_view name, std::string_view owner) noexcept;
  void Erase(RegistryKind kind, std::string_view name);

  struct Framework
  {
    Int users = 0;
  };

  mutable std::shared_mutex _mutex;
  std::unordered_map<std::string_view, const ClassInfo*> _classes;
  std::unordered_map<std::string_view, const ImplementationInfo*> _implementations;
  std::unordered_map<std::string_view, const DataType*> _dataTypes;
  std::unordered_map<std::string_view, const InterfaceInfo*> _interfaces;
  std::unordered_map<std::string, Int> _headers;
  std::unordered_map<std::string, Framework> _frameworks;
  std::unordered_map<std::string, std::vector<std::string>> _dependencies;
  std::vector<std::string> _modules;
  std::vector<std::pair<RegistryKind, std::string>> _order; // registered entries, in order
  std::vector<std::string> _hidden;
  std::vector<RegistryEvent> _journal;
};

} // namespace telvo

namespace telvo
{

// Calls the static creation entry registered for an implementation, typed as F (the interface
// header's Create... signature). When the implementation is not available the framework's
// null-return error for reason 0 is returned.
template <typename F, typename... ARGS>
auto CallCreateEntry(const char* implementationName, ARGS&&... args)
{
  using R = decltype(std::declval<F*>()(std::forward<ARGS>(args)...));
  const ImplementationInfo* implementation = Registry::Get().FindImplementation(implementationName);
  if (implementation == nullptr || implementation->createEntry == nullptr)
    return R(NullReturnError(0));
  return reinterpret_cast<F*>(implementation->createEntry)(std::forward<ARGS>(args)...);
}

// Calls the member description registered for an implementation.
inline Result<void> CallDescribeEntry(const char* implementationName, DataDescriber& describer)
{
  const ImplementationInfo* implementation = Registry::Get().FindImplementation(implementationName);
  if (implementation == nullptr || implementation->describe == nullptr)
    return NullReturnError(0);
  return implementation->describe(describer);
}

} // namespace telvo

namespace telvo
{

// Creates an object of a class by its class id, viewed through the reference type REF
// (StrongRef<I> or CowRef<I>). A class that is not available gives the null-return error for
// reason 0; an error of the creation is returned as it stands.
template <typename REF>
Result<REF> CreateObject(const char* classId, const Registry* registry = &Registry::Get())
{
  const ClassInfo* cls = registry != nullptr ? registry->FindClass(classId) : nullptr;
  if (cls == nullptr)
    return NullReturnError(0);
  Result<ObjectRef> created = cls->CreateInstance();
  if (created.IsError())
    return created.GetError();
  using I = std::remove_cv_t<std::remove_pointer_t<decltype(std::declval<REF>().GetPointer())>>;
  I* object = QueryInterface<I>(created.GetValue().GetPointer());
  if (object == nullptr)
    return NullReturnError(0);
  return REF(object);
}

} // namespace telvo
