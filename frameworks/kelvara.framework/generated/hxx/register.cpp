// The module unit: the module's identity, its framework dependencies and its clean-up.
#include "impl/kelvara_module.h"

extern "C" {
// The only two symbols the module exports.
__attribute__((visibility("default"))) telvo::ModuleRecord g_telvo;
__attribute__((visibility("default"))) telvo::CpuYieldDelegate g_CpuYieldDelegate;
}

namespace telvo::kelvara
{

namespace
{

constexpr const char* kUnitName = "register";
constexpr const char* kModuleId = "net.telvo.kelvara";

// The frameworks the module depends on, in this order; the interfaces of the module's classes are
// declared by the last one.
constexpr const char* kDependencies[] = {
  "net.telvo.animation_base_private.framework",
  "net.telvo.core.framework",
  "net.telvo.math.framework",
  "net.telvo.telvo.framework",
  "net.telvo.misc.framework",
  "net.telvo.kelvara.framework",
};
constexpr DependencyList kDependencyList{kDependencies};

// The module's own view of its installed dependencies, cleared at unload.
const char* g_installedDependencies[std::size(kDependencies)];

void ReleaseDependencies()
{
  // Last installed first: the kelvara framework first, animation_base_private last.
  if (g_telvo.registry != nullptr)
    g_telvo.registry->ReleaseDependencies(kModuleId);
  for (std::size_t i = std::size(g_installedDependencies); i > 0; --i)
    g_installedDependencies[i - 1] = nullptr;
}
constexpr CleanUpEntry kCleanUp{&ReleaseDependencies};

struct ModuleAnnouncer
{
  ModuleAnnouncer()
  {
    if (!g_telvo.moduleAnnounced)
    {
      g_telvo.moduleAnnounced = true;
      Announce(g_telvo, AnnouncementKind::Module, kModuleId, nullptr, kUnitName);
    }
    Announce(g_telvo, AnnouncementKind::Unit, kUnitName, nullptr, kUnitName);
    Announce(g_telvo, AnnouncementKind::CleanUp, "dependencies of net.telvo.kelvara", &kCleanUp, kUnitName);
    for (std::size_t i = 0; i < std::size(kDependencies); ++i)
      g_installedDependencies[i] = kDependencies[i];
    Announce(g_telvo, AnnouncementKind::Dependencies, kModuleId, &kDependencyList, kUnitName);
  }
};
const ModuleAnnouncer g_moduleAnnouncer;

} // namespace

} // namespace telvo::kelvara
