#include "telvo/registrybase.h"

#include <algorithm>
#include <mutex>

#include "telvo/datatypelib.h"
#include "telvo/hierarchyobject.h"
#include "telvo/observerobject.h"

namespace telvo
{

namespace
{
constexpr const char* kCoreFramework = "net.telvo.core.framework";

// The headers of the framework layer; a module's units declare the ones they use.
constexpr const char* kCoreHeaders[] = {
  "telvo/system.h",          "telvo/datatypelib.h",    "telvo/registrybase.h", "telvo/string.h",
  "telvo/objectbase.h",      "telvo/errorbase.h",      "telvo/datatype.h",     "telvo/uuid.h",
  "telvo/internedid.h",      "telvo/array.h",          "telvo/hashmap.h",      "telvo/matrix.h",
  "telvo/dataserialize.h",   "telvo/observerobject.h", "telvo/hierarchyobject.h",
  "telvo/module.h",
};

const DataType* const kCoreDataTypes[] = {&g_boolType,   &g_intType,        &g_float64Type, &g_stringType,
                                          &g_uuidType,   &g_internedIdType, &g_matrixType};
} // namespace

const char* RegistryKindName(RegistryKind kind)
{
  switch (kind)
  {
    case RegistryKind::Framework: return "framework";
    case RegistryKind::Module: return "module";
    case RegistryKind::Unit: return "unit";
    case RegistryKind::Header: return "header";
    case RegistryKind::Interface: return "interface";
    case RegistryKind::Class: return "class";
    case RegistryKind::DataType: return "datatype";
    case RegistryKind::Implementation: return "implementation";
    case RegistryKind::Dependency: return "dependency";
    case RegistryKind::CleanUp: return "cleanup";
  }
  return "?";
}

Registry& Registry::Get()
{
  static Registry registry;
  return registry;
}

Registry::Registry()
{
  std::string why;
  AcquireFramework(kCoreFramework, kCoreFramework);
  for (const char* header : kCoreHeaders)
    RegisterHeader(header, kCoreFramework);
  for (const DataType* type : kCoreDataTypes)
    RegisterDataType(*type, kCoreFramework, why);
  RegisterInterface(ObjectInterface::GetInterfaceInfo(), kCoreFramework, why);
  RegisterInterface(ObserverObjectInterface::GetInterfaceInfo(), kCoreFramework, why);
  RegisterInterface(HierarchyObjectInterface::GetInterfaceInfo(), kCoreFramework, why);
}

// Memory of the registry's own containers can run out part-way through a module's load. Each
// registration therefore makes everything it needs first (Prepare, which may throw), then changes
// the tables, and only then commits its records, which cannot throw; a withdrawal never throws.
Registry::PendingRecord Registry::Prepare(RegistryKind kind, std::string_view name, std::string_view owner)
{
  PendingRecord record{RegistryEvent{true, kind, std::string(name), std::string(owner)}, std::string(name)};
  _journal.reserve(_journal.size() + 1);
  _order.reserve(_order.size() + 1);
  return record;
}

void Registry::Commit(PendingRecord&& record) noexcept
{
  _order.emplace_back(record.event.kind, std::move(record.orderName));
  _journal.push_back(std::move(record.event));
}

void Registry::Record(Bool registered, RegistryKind kind, std::string_view name, std::string_view owner)
{
  if (registered)
  {
    Commit(Prepare(kind, name, owner));
    return;
  }
  Erase(kind, name);
  JournalWithdrawal(kind, name, owner);
}

void Registry::JournalWithdrawal(RegistryKind kind, std::string_view name, std::string_view owner) noexcept
{
  // The journal only reports; a withdrawal goes ahead when its line cannot be written.
  try
  {
    _journal.push_back(RegistryEvent{false, kind, std::string(name), std::string(owner)});
  }
  catch (const std::bad_alloc&)
  {
  }
}

void Registry::Erase(RegistryKind kind, std::string_view name)
{
  for (auto it = _order.rbegin(); it != _order.rend(); ++it)
  {
    if (it->first == kind && it->second == name)
    {
      _order.erase(std::next(it).base());
      return;
    }
  }
}

const ClassInfo* Registry::FindClass(std::string_view classId) const
{
  std::shared_lock lock(_mutex);
  if (!_hidden.empty() && std::find(_hidden.begin(), _hidden.end(), classId) != _hidden.end())
    return nullptr;
  auto it = _classes.find(classId);
  return it == _classes.end() ? nullptr : it->second;
}

const ImplementationInfo* Registry::FindImplementation(std::string_view name) const
{
  std::shared_lock lock(_mutex);
  auto it = _implementations.find(name);
  if (it == _implementations.end())
    return nullptr;
  if (!_hidden.empty() && std::find(_hidden.begin(), _hidden.end(), it->second->classInfo->classId) != _hidden.end())
    return nullptr;
  return it->second;
}

const DataType* Registry::FindDataType(std::string_view name) const
{
  std::shared_lock lock(_mutex);
  auto it = _dataTypes.find(name);
  return it == _dataTypes.end() ? nullptr : it->second;
}

const InterfaceInfo* Registry::FindInterface(std::string_view id) const
{
  std::shared_lock lock(_mutex);
  auto it = _interfaces.find(id);
  return it == _interfaces.end() ? nullptr : it->second;
}

Bool Registry::HasHeader(std::string_view id) const
{
  std::shared_lock lock(_mutex);
  auto it = _headers.find(std::string(id));
  return it != _headers.end() && it->second > 0;
}

Bool Registry::HasModule(std::string_view id) const
{
  std::shared_lock lock(_mutex);
  return std::find(_modules.begin(), _modules.end(), id) != _modules.end();
}

Int Registry::GetFrameworkUseCount(std::string_view id) const
{
  std::shared_lock lock(_mutex);
  auto it = _frameworks.find(std::string(id));
  return it == _frameworks.end() ? 0 : it->second.users;
}

Bool Registry::RegisterModule(const char* id, std::string& why)
{
  std::unique_lock lock(_mutex);
  if (std::find(_modules.begin(), _modules.end(), id) != _modules.end())
  {
    why = std::string("module ") + id + " is already registered";
    return false;
  }
  PendingRecord record = Prepare(RegistryKind::Module, id, id);
  _modules.emplace_back(id);
  Commit(std::move(record));
  return true;
}

void Registry::RegisterUnit(const char* id, const char* owner)
{
  std::unique_lock lock(_mutex);
  Record(true, RegistryKind::Unit, id, owner);
}

void Registry::RegisterHeader(const char* id, const char* owner)
{
  std::unique_lock lock(_mutex);
  PendingRecord record = Prepare(RegistryKind::Header, id, owner);
  ++_headers[id];
  Commit(std::move(record));
}

Bool Registry::RegisterInterface(const InterfaceInfo& info, const char* owner, std::string& why)
{
  std::unique_lock lock(_mutex);
  PendingRecord record = Prepare(RegistryKind::Interface, info.id, owner);
  if (!_interfaces.emplace(info.id, &info).second)
  {
    why = std::string("interface ") + info.id + " is already registered";
    return false;
  }
  Commit(std::move(record));
  return true;
}

Bool Registry::RegisterClass(const ClassInfo& info, const char* owner, std::string& why)
{
  std::unique_lock lock(_mutex);
  PendingRecord record = Prepare(RegistryKind::Class, info.classId, owner);
  if (!_classes.emplace(info.classId, &info).second)
  {
    why = std::string("class ") + info.classId + " is already registered";
    return false;
  }
  Commit(std::move(record));
  return true;
}

Bool Registry::RegisterDataType(const DataType& type, const char* owner, std::string& why)
{
  std::unique_lock lock(_mutex);
  PendingRecord record = Prepare(RegistryKind::DataType, type.name, owner);
  if (!_dataTypes.emplace(type.name, &type).second)
  {
    why = std::string("data type ") + type.name + " is already registered";
    return false;
  }
  Commit(std::move(record));
  return true;
}

Bool Registry::RegisterImplementation(const ImplementationInfo& info, const char* owner, std::string& why)
{
  std::unique_lock lock(_mutex);
  PendingRecord record = Prepare(RegistryKind::Implementation, info.name, owner);
  if (!_implementations.emplace(info.name, &info).second)
  {
    why = std::string("implementation ") + info.name + " is already registered";
    return false;
  }
  Commit(std::move(record));
  return true;
}

void Registry::AcquireFramework(const char* id, const char* owner)
{
  // Called from the constructor too: no lock needed there, and the mutex is not recursive.
  RegistryEvent event{true, RegistryKind::Framework, id, owner};
  _journal.reserve(_journal.size() + 1);
  Framework& framework = _frameworks[id];
  if (framework.users++ == 0)
    _journal.push_back(std::move(event));
}

void Registry::InstallDependencies(const char* moduleId, std::span<const char* const> frameworkIds)
{
  std::unique_lock lock(_mutex);
  auto [it, inserted] = _dependencies.try_emplace(moduleId);
  if (!inserted)
    FatalError("the dependency list of a module was installed twice");
  // All or nothing: a list cut short by memory would never be released and would trap the next
  // load of the module.
  try
  {
    for (const char* id : frameworkIds)
    {
      PendingRecord record = Prepare(RegistryKind::Dependency, id, moduleId);
      it->second.emplace_back(id);
      try
      {
        AcquireFramework(id, moduleId);
      }
      catch (...)
      {
        it->second.pop_back();
        throw;
      }
      Commit(std::move(record));
    }
  }
  catch (...)
  {
    lock.unlock();
    ReleaseDependencies(moduleId);
    throw;
  }
}

const std::vector<std::string>* Registry::GetDependencies(std::string_view moduleId) const
{
  std::shared_lock lock(_mutex);
  auto it = _dependencies.find(std::string(moduleId));
  return it == _dependencies.end() ? nullptr : &it->second;
}

void Registry::RecordCleanUp(const char* name, const char* owner)
{
  std::unique_lock lock(_mutex);
  Record(true, RegistryKind::CleanUp, name, owner);
}

void Registry::WithdrawModule(const char* id)
{
  std::unique_lock lock(_mutex);
  auto it = std::find(_modules.begin(), _modules.end(), id);
  if (it != _modules.end())
    _modules.erase(it);
  Record(false, RegistryKind::Module, id, id);
}

void Registry::WithdrawUnit(const char* id, const char* owner)
{
  std::unique_lock lock(_mutex);
  Record(false, RegistryKind::Unit, id, owner);
}

void Registry::WithdrawHeader(const char* id, const char* owner)
{
  std::unique_lock lock(_mutex);
  // Searched by view: a key made from id could need memory, and withdrawing must not.
  auto it = std::find_if(_headers.begin(), _headers.end(), [id](const auto& entry) { return entry.first == id; });
  if (it != _headers.end() && --it->second == 0)
    _headers.erase(it);
  Record(false, RegistryKind::Header, id, owner);
}

void Registry::WithdrawInterface(const InterfaceInfo& info, const char* owner)
{
  std::unique_lock lock(_mutex);
  _interfaces.erase(info.id);
  Record(false, RegistryKind::Interface, info.id, owner);
}

void Registry::WithdrawClass(const ClassInfo& info, const char* owner)
{
  std::unique_lock lock(_mutex);
  _classes.erase(info.classId);
  Record(false, RegistryKind::Class, info.classId, owner);
}

void Registry::WithdrawDataType(const DataType& type, const char* owner)
{
  std::unique_lock lock(_mutex);
  _dataTypes.erase(type.name);
  Record(false, RegistryKind::DataType, type.name, owner);
}

void Registry::WithdrawImplementation(const ImplementationInfo& info, const char* owner)
{
  std::unique_lock lock(_mutex);
  _implementations.erase(info.name);
  Record(false, RegistryKind::Implementation, info.name, owner);
}

void Registry::ReleaseDependencies(const char* moduleId)
{
  std::unique_lock lock(_mutex);
  auto it = std::find_if(_dependencies.begin(), _dependencies.end(),
                         [moduleId](const auto& entry) { return entry.first == moduleId; });
  if (it == _dependencies.end())
    return;
  std::vector<std::string>& ids = it->second;
  while (!ids.empty())
  {
    std::string id = std::move(ids.back());
    ids.pop_back();
    Record(false, RegistryKind::Dependency, id, moduleId);
    auto framework = _frameworks.find(id);
    if (framework != _frameworks.end() && --framework->second.users == 0)
    {
      _frameworks.erase(framework);
      JournalWithdrawal(RegistryKind::Framework, id, moduleId);
    }
  }
  _dependencies.erase(it);
}

void Registry::RecordCleanUpDone(const char* name, const char* owner)
{
  std::unique_lock lock(_mutex);
  Record(false, RegistryKind::CleanUp, name, owner);
}

std::vector<std::string> Registry::List(RegistryKind kind) const
{
  std::shared_lock lock(_mutex);
  std::vector<std::string> names;
  for (const auto& [k, name] : _order)
    if (k == kind)
      names.push_back(name);
  return names;
}

std::vector<RegistryEvent> Registry::GetJournal() const
{
  std::shared_lock lock(_mutex);
  return _journal;
}

void Registry::ClearJournal()
{
  std::unique_lock lock(_mutex);
  _journal.clear();
}

void Registry::SetClassHidden(std::string_view classId, Bool hidden)
{
  std::unique_lock lock(_mutex);
  auto it = std::find(_hidden.begin(), _hidden.end(), classId);
  if (hidden && it == _hidden.end())
    _hidden.emplace_back(classId);
  else if (!hidden && it != _hidden.end())
    _hidden.erase(it);
}

} // namespace telvo
