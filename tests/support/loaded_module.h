// The module as the host loads it: opened once per test binary with the real loader.
#pragma once

#include <string>

#include "telvo/loader.h"

namespace kelvara_test
{

// Loads the built module on first use and keeps it loaded until the test binary exits.
// Fails the calling test when the module cannot be loaded.
telvo::LoadedModule& LoadedModuleForTests();

// Path of the built module file.
std::string ModulePath();

} // namespace kelvara_test
