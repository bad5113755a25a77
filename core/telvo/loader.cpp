#include "telvo/loader.h"

#include <dlfcn.h>

#include <cstring>
#include <new>
#include <thread>

namespace telvo
{

namespace
{
void YieldCpu()
{
  std::this_thread::yield();
}
} // namespace

std::unique_ptr<LoadedModule> LoadedModule::Load(const std::string& path, std::string& why)
{
  std::unique_ptr<LoadedModule> module(new LoadedModule());
  module->_path = path;
  module->_handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (module->_handle == nullptr)
  {
    const char* error = dlerror();
    why = error != nullptr ? error : ("cannot open " + path);
    return nullptr;
  }
  module->_record = static_cast<ModuleRecord*>(dlsym(module->_handle, "g_telvo"));
  if (module->_record == nullptr)
  {
    why = path + ": not a module (no g_telvo record)";
    dlclose(std::exchange(module->_handle, nullptr));
    return nullptr;
  }
  if (module->_record->version != kModuleRecordVersion || module->_record->overflow)
  {
    why = path + ": the module record is of another version or overflowed";
    dlclose(std::exchange(module->_handle, nullptr));
    return nullptr;
  }
  if (auto* delegate = static_cast<CpuYieldDelegate*>(dlsym(module->_handle, "g_CpuYieldDelegate")))
    *delegate = &YieldCpu;

  // The registries' own containers may run out of memory part-way; every registration is all
  // or nothing, so what was made is exactly what Unload withdraws.
  Bool ok = false;
  try
  {
    ok = module->Process(why) && module->BringUp(why);
  }
  catch (const std::bad_alloc&)
  {
    why = "out of memory while registering " + path;
  }
  if (!ok)
  {
    module->Unload();
    return nullptr;
  }
  module->_record->registry = &Registry::Get();
  return module;
}

LoadedModule::~LoadedModule()
{
  Unload();
}

Bool LoadedModule::Process(std::string& why)
{
  const ModuleRecord& record = *_record;
  // Registrations made before the module unit announces the id still belong to the module.
  for (Int i = 0; i < record.count; ++i)
    if (record.announcements[i].kind == AnnouncementKind::Module)
      _moduleId = record.announcements[i].name;
  if (_moduleId.empty())
  {
    why = _path + ": the module announces no module id";
    return false;
  }
  const char* owner = _moduleId.c_str();
  Registry& registry = Registry::Get();
  // Room for every action first: a registration made must never miss its place in _done.
  _done.reserve(static_cast<std::size_t>(record.count));
  for (Int i = 0; i < record.count; ++i)
  {
    const Announcement& a = record.announcements[i];
    Bool ok = true;
    switch (a.kind)
    {
      case AnnouncementKind::Module:
        if (registry.HasModule(a.name))
          continue; // a second announcement of the id is a no-op
        ok = registry.RegisterModule(a.name, why);
        break;
      case AnnouncementKind::Unit:
        registry.RegisterUnit(a.name, owner);
        break;
      case AnnouncementKind::Header:
        registry.RegisterHeader(a.name, owner);
        break;
      case AnnouncementKind::Interface:
        ok = registry.RegisterInterface((*static_cast<const InterfaceInfoFn*>(a.payload))(), owner, why);
        break;
      case AnnouncementKind::Class:
        ok = registry.RegisterClass(*static_cast<const ClassInfo*>(a.payload), owner, why);
        break;
      case AnnouncementKind::DataType:
        ok = registry.RegisterDataType(*static_cast<const DataType*>(a.payload), owner, why);
        break;
      case AnnouncementKind::Implementation:
        ok = registry.RegisterImplementation(*static_cast<const ImplementationInfo*>(a.payload), owner, why);
        break;
      case AnnouncementKind::Dependencies:
        registry.InstallDependencies(owner, static_cast<const DependencyList*>(a.payload)->frameworkIds);
        break;
      case AnnouncementKind::CleanUp:
        registry.RecordCleanUp(a.name, owner);
        break;
    }
    if (!ok)
    {
      why = _path + ": " + why;
      return false;
    }
    _done.push_back(Action{a.kind, a.name, a.payload});
  }
  return true;
}

Bool LoadedModule::BringUp(std::string& why)
{
  Registry& registry = Registry::Get();
  // Headers bind to the framework's entity for them: a framework header or an interface header.
  for (const Action& action : _done)
  {
    if (action.kind != AnnouncementKind::Header)
      continue;
    Bool known = registry.HasHeader(action.name);
    for (const std::string& id : registry.List(RegistryKind::Interface))
      if (const InterfaceInfo* info = registry.FindInterface(id); info != nullptr && std::strcmp(info->header, action.name) == 0)
        known = true;
    if (!known)
    {
      why = _path + ": unknown header " + action.name;
      return false;
    }
  }
  // Classes: the class they are built on and the interfaces they implement must be known.
  for (const Action& action : _done)
  {
    if (action.kind != AnnouncementKind::Class)
      continue;
    const ClassInfo& cls = *static_cast<const ClassInfo*>(action.payload);
    if (cls.baseClassId != nullptr && registry.FindClass(cls.baseClassId) == nullptr)
    {
      why = _path + ": class " + cls.classId + " is built on unknown class " + cls.baseClassId;
      return false;
    }
    for (InterfaceInfoFn info : cls.interfaces)
    {
      if (registry.FindInterface(info().id) == nullptr)
      {
        why = _path + ": class " + cls.classId + " implements unknown interface " + info().id;
        return false;
      }
    }
  }
  return true;
}

void LoadedModule::Unload()
{
  if (_handle == nullptr)
    return;
  Registry& registry = Registry::Get();
  const char* owner = _moduleId.c_str();
  for (auto it = _done.rbegin(); it != _done.rend(); ++it)
  {
    switch (it->kind)
    {
      case AnnouncementKind::Module:
        registry.WithdrawModule(it->name);
        break;
      case AnnouncementKind::Unit:
        registry.WithdrawUnit(it->name, owner);
        break;
      case AnnouncementKind::Header:
        registry.WithdrawHeader(it->name, owner);
        break;
      case AnnouncementKind::Interface:
        registry.WithdrawInterface((*static_cast<const InterfaceInfoFn*>(it->payload))(), owner);
        break;
      case AnnouncementKind::Class:
        registry.WithdrawClass(*static_cast<const ClassInfo*>(it->payload), owner);
        break;
      case AnnouncementKind::DataType:
        registry.WithdrawDataType(*static_cast<const DataType*>(it->payload), owner);
        break;
      case AnnouncementKind::Implementation:
        registry.WithdrawImplementation(*static_cast<const ImplementationInfo*>(it->payload), owner);
        break;
      case AnnouncementKind::Dependencies:
        registry.ReleaseDependencies(owner);
        break;
      case AnnouncementKind::CleanUp:
        static_cast<const CleanUpEntry*>(it->payload)->run();
        registry.RecordCleanUpDone(it->name, owner);
        break;
    }
  }
  _done.clear();
  if (_record != nullptr)
    _record->registry = nullptr;
  dlclose(std::exchange(_handle, nullptr));
  _record = nullptr;
}

} // namespace telvo
