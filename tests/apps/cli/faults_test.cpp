// What a user finds after a run that could not finish: killed at any moment, or writing into a
// folder that is read-only or full. The output path holds the old file or the complete new one,
// never a part of it, and the messages say what went wrong where.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>

#include "demo/demo.h"
#include "io/bvh/bvh_file.h"
#include "support/run_app.h"

namespace kelvara
{
namespace
{

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using kelvara_test::ReadWholeFile;

class OutputFaults : public kelvara_test::AppFolderTest
{
protected:
  void WriteInputs(int frames)
  {
    std::string error;
    ASSERT_TRUE(WriteBvh((_dir / "walk.bvh").string(), MakeDemoSource(frames), error)) << error;
    ASSERT_TRUE(WriteBvh((_dir / "target.bvh").string(), MakeDemoTarget(), error)) << error;
  }

  // Whether process pid has a file of this test's folder open for writing that has no name yet
  // or a temporary one: the output being written.
  bool Writing(pid_t pid) const
  {
    std::error_code ec;
    for (const fs::directory_entry& fd : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ec))
    {
      const std::string target = fs::read_symlink(fd.path(), ec).string();
      if (target.rfind(_dir.string(), 0) == 0 &&
          (target.find("(deleted)") != std::string::npos || target.find(".tmp-") != std::string::npos))
        return true;
    }
    return false;
  }
};

// Half the kills land anywhere in the run, half while the output is being written; after each,
// out.bvh is the old file or exactly the complete new one, and a temporary left beside it (killed
// between naming and renaming) is complete too.
TEST_F(OutputFaults, KilledAtAnyMomentLeavesTheOldOrTheCompleteNewOutput)
{
  WriteInputs(12000);
  const Clock::time_point start = Clock::now();
  const kelvara_test::AppOutcome reference = Kelvara("retarget walk.bvh --target target.bvh -o new.bvh -q --timings");
  ASSERT_EQ(reference.status, 0);
  const auto whole = Clock::now() - start;
  double writingMs = 0.0;
  const std::size_t at = reference.err.find("writing ");
  ASSERT_TRUE(at != std::string::npos && std::sscanf(reference.err.c_str() + at, "writing %lf ms", &writingMs) == 1)
    << reference.err;
  const std::string complete = ReadWholeFile(_dir / "new.bvh");
  ASSERT_GT(complete.size(), 4u << 20);
  const std::string old = "the previous output\n";

  std::mt19937 random(20261123);
  int killedWhileWriting = 0;
  for (int trial = 0; trial < 12; ++trial)
  {
    std::ofstream(_dir / "out.bvh", std::ios::trunc) << old;
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0)
    {
      if (chdir(_dir.c_str()) == 0 && freopen("/dev/null", "w", stdout) && freopen("/dev/null", "w", stderr))
        execl(KELVARA_APP_PATH, "kelvara", "retarget", "walk.bvh", "--target", "target.bvh", "-o", "out.bvh", "-q",
              static_cast<char*>(nullptr));
      _exit(127);
    }
    if (trial % 2 == 0)
      std::this_thread::sleep_for(std::uniform_real_distribution<double>(0.0, 1.1)(random) * whole);
    else
    {
      // Wait for the write to begin, then let it run a random part of its course.
      while (!Writing(pid) && waitpid(pid, nullptr, WNOHANG) == 0)
        std::this_thread::sleep_for(std::chrono::microseconds(100));
      killedWhileWriting += Writing(pid) ? 1 : 0;
      std::this_thread::sleep_for(std::uniform_real_distribution<double>(0.0, 1.3)(random) *
                                  std::chrono::duration<double, std::milli>(writingMs));
    }
    kill(pid, SIGKILL);
    ASSERT_EQ(waitpid(pid, nullptr, 0), pid);

    SCOPED_TRACE("trial " + std::to_string(trial));
    const std::string now = ReadWholeFile(_dir / "out.bvh");
    EXPECT_TRUE(now == old || now == complete) << now.size() << " bytes";
    for (const fs::directory_entry& e : fs::directory_iterator(_dir))
      if (e.path().filename().string().find(".tmp-") != std::string::npos)
      {
        EXPECT_EQ(ReadWholeFile(e.path()), complete) << e.path();
        fs::remove(e.path());
      }
  }
  EXPECT_GT(killedWhileWriting, 0) << "no kill landed while the output was being written";
}

TEST_F(OutputFaults, ReadOnlyOrFullFolderGivesAClearErrorAndLeavesNothing)
{
  WriteInputs(400); // an output of about 200 kB
  // Both writers, the BVH one and the glTF one, go through the same refusal.
  auto expectRefused = [&](const std::string& folder, const std::string& launcher, const std::string& why) {
    for (const char* name : {"out.bvh", "out.glb"})
    {
      SCOPED_TRACE(folder + "/" + name);
      const std::string out = folder + "/" + name;
      const kelvara_test::AppOutcome run = Kelvara("retarget walk.bvh --target target.bvh -o " + out + " -q", launcher);
      EXPECT_EQ(run.status, 1);
      EXPECT_NE(run.err.find("kelvara: cannot write '" + out + "': " + why), std::string::npos) << run.err;
      EXPECT_TRUE(fs::is_empty(_dir / folder));
    }
  };

  // Root may write anywhere: the run then drops to an ordinary user.
  fs::create_directory(_dir / "locked");
  fs::permissions(_dir / "locked", fs::perms(0555));
  expectRefused("locked", geteuid() == 0 ? "setpriv --reuid=65534 --regid=65534 --clear-groups" : "",
                "cannot create a file in 'locked': Permission denied");

  // A file-size limit stands for a full disk everywhere; a real full file system where the test
  // may mount one.
  fs::create_directory(_dir / "limited");
  expectRefused("limited", "trap '' XFSZ; ulimit -f 64;", "File too large");
  fs::create_directory(_dir / "full");
  if (mount("tmpfs", (_dir / "full").c_str(), "tmpfs", 0, "size=64k") == 0)
  {
    expectRefused("full", "", "No space left on device");
    umount((_dir / "full").c_str());
  }
  else
    std::printf("no tmpfs could be mounted: the full file system case is left out\n");
}

} // namespace
} // namespace kelvara
