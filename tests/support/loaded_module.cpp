#include "support/loaded_module.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

namespace kelvara_test
{

std::string ModulePath()
{
  if (const char* path = std::getenv("KELVARA_MODULE"))
    return path;
  return KELVARA_MODULE_PATH;
}

telvo::LoadedModule& LoadedModuleForTests()
{
  // Never unloaded: objects that tests keep in statics must not outlive the code.
  static telvo::LoadedModule* module = [] {
    std::string why;
    std::unique_ptr<telvo::LoadedModule> loaded = telvo::LoadedModule::Load(ModulePath(), why);
    if (!loaded)
    {
      ADD_FAILURE() << "cannot load the module: " << why;
      std::abort();
    }
    return loaded.release();
  }();
  return *module;
}

} // namespace kelvara_test
