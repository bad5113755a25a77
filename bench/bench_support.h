// Benchmarks run against the module as the host loads it.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "telvo/loader.h"

namespace kelvara_bench
{

// Loads the built module once per benchmark binary and keeps it loaded.
inline telvo::LoadedModule& LoadModuleOnce()
{
  static telvo::LoadedModule* module = [] {
    const char* env = std::getenv("KELVARA_MODULE");
    std::string why;
    std::unique_ptr<telvo::LoadedModule> loaded = telvo::LoadedModule::Load(env != nullptr ? env : KELVARA_MODULE_PATH, why);
    if (!loaded)
    {
      std::fprintf(stderr, "cannot load the module: %s\n", why.c_str());
      std::exit(2);
    }
    return loaded.release();
  }();
  return *module;
}

} // namespace kelvara_bench
