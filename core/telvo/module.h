// The global module record and how a module announces itself.
//
// A module has no entry point. Its static initialisers only append announcements to its own
// record, g_telvo (exported by the module), in the order they run; they allocate nothing and
// call nothing of the framework. After dlopen the loader (loader.h) finds g_telvo, fills in the
// framework's registry, and processes the announcements into the registries in that order. At
// unload it withdraws every registration in reverse order.
#pragma once

#include <initializer_list>
#include <span>

#include "telvo/registrybase.h"

namespace telvo
{

enum class AnnouncementKind : Int32
{
  Module,         // name: module id
  Unit,           // name: unit id, e.g. "source/impl/characternodeinfo_impl"
  Header,         // name: header id, e.g. "telvo/string.h"
  Interface,      // payload: const InterfaceInfoFn*
  Class,          // payload: const ClassInfo*
  DataType,       // payload: const DataType*
  Implementation, // payload: const ImplementationInfo*
  Dependencies,   // payload: const DependencyList*
  CleanUp,        // name: what it cleans; payload: const CleanUpEntry*
};

struct DependencyList
{
  std::span<const char* const> frameworkIds;
};

struct CleanUpEntry
{
  void (*run)();
};

struct Announcement
{
  AnnouncementKind kind;
  const char* name;
  const void* payload;
  const char* unit;
};

constexpr Int kMaxAnnouncements = 512;
constexpr UInt32 kModuleRecordVersion = 1;

// The framework's global module record, one in each module.
struct ModuleRecord
{
  UInt32 version;
  Bool moduleAnnounced; // guard: the module id is announced once
  Bool overflow;        // more announcements than the record holds: the loader refuses the module
  Registry* registry;   // filled by the loader after dlopen
  Int count;
  Announcement announcements[kMaxAnnouncements];
};

// Appends one announcement; used only from static initialisers.
inline void Announce(ModuleRecord& record, AnnouncementKind kind, const char* name, const void* payload,
                     const char* unit)
{
  record.version = kModuleRecordVersion;
  if (record.count >= kMaxAnnouncements)
  {
    record.overflow = true;
    return;
  }
  record.announcements[record.count++] = Announcement{kind, name, payload, unit};
}

// Announces one class unit in the fixed order: the unit, the headers it uses, its class record,
// its implementation. Each registration is withdrawn again at unload, in reverse order.
struct UnitAnnouncer
{
  UnitAnnouncer(ModuleRecord& record, const char* unit, std::initializer_list<const char*> headers,
                const ClassInfo* classInfo, const ImplementationInfo* implementation)
  {
    Announce(record, AnnouncementKind::Unit, unit, nullptr, unit);
    for (const char* header : headers)
      Announce(record, AnnouncementKind::Header, header, nullptr, unit);
    if (classInfo != nullptr)
      Announce(record, AnnouncementKind::Class, classInfo->classId, classInfo, unit);
    if (implementation != nullptr)
      Announce(record, AnnouncementKind::Implementation, implementation->name, implementation, unit);
  }
};

// The delegate the framework calls while spinning; modules only provide its storage.
using CpuYieldDelegate = void (*)();

} // namespace telvo
