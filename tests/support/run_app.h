// The kelvara command run as a user runs it, in a folder of the test's own.
#pragma once

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace kelvara_test
{

struct AppOutcome
{
  int status = -1; // exit code; -1 when the process did not exit normally
  std::string out;
  std::string err;
};

inline std::string ReadWholeFile(const std::filesystem::path& path)
{
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// A fresh folder named after the running test, removed when the fixture ends.
class AppFolderTest : public ::testing::Test
{
protected:
  void SetUp() override
  {
    _dir = std::filesystem::temp_directory_path() /
           (std::string("kelvara_") + ::testing::UnitTest::GetInstance()->current_test_info()->test_suite_name() + "_" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::remove_all(_dir);
    std::filesystem::create_directories(_dir);
  }
  void TearDown() override { std::filesystem::remove_all(_dir); }

  // kelvara with args (shell words) in the test's folder, stdin empty; launcher (shell words) goes
  // right before the program, e.g. "exec setpriv --reuid=65534".
  AppOutcome Kelvara(const std::string& args, const std::string& launcher = "") const
  {
    const std::string command = "cd '" + _dir.string() + "' && " + launcher + " '" KELVARA_APP_PATH "' " + args +
                                " >stdout.txt 2>stderr.txt </dev/null";
    AppOutcome run;
    const int raw = std::system(command.c_str());
    run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    run.out = ReadWholeFile(_dir / "stdout.txt");
    run.err = ReadWholeFile(_dir / "stderr.txt");
    return run;
  }

  std::filesystem::path _dir;
};

} // namespace kelvara_test
