// glTF files checked by readers we did not write: the Khronos validator and three.js's
// GLTFLoader, run under node by tests/js/check_gltf.mjs.
#pragma once

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include <nlohmann/json.hpp>

#include "support/run_app.h"

namespace kelvara_test
{

struct CheckOutcome
{
  int status = -1;
  nlohmann::json result; // what the script printed
  std::string err;
};

// Runs `node check_gltf.mjs ARGS` (paths quoted by the caller) with stdout and stderr in folder.
inline CheckOutcome RunGltfCheck(const std::filesystem::path& folder, const std::string& args)
{
  const std::filesystem::path out = folder / "check_out.txt";
  const std::filesystem::path err = folder / "check_err.txt";
  const std::string command = std::string("'") + KELVARA_NODE + "' '" + KELVARA_GLTF_CHECK + "' " + args + " >'" +
                              out.string() + "' 2>'" + err.string() + "' </dev/null";
  CheckOutcome outcome;
  const int raw = std::system(command.c_str());
  outcome.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  outcome.err = ReadWholeFile(err);
  outcome.result = nlohmann::json::parse(ReadWholeFile(out), nullptr, false);
  return outcome;
}

// The validator's verdict on file: no errors is what every file we write must get.
inline void ExpectValidGltf(const std::filesystem::path& file)
{
  const CheckOutcome check = RunGltfCheck(file.parent_path(), "validate '" + file.string() + "'");
  ASSERT_EQ(check.status, 0) << check.err;
  ASSERT_TRUE(check.result.is_object()) << check.err;
  EXPECT_EQ(check.result.value("errors", -1), 0) << file << ": " << check.result.dump(1);
}

} // namespace kelvara_test
