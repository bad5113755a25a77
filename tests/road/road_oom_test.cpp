// The host's whole road (kelvara retarget on a small clip) with the N-th allocation failing, for
// every N until none fails, of the framework's allocator and of the host's operator new (BVH and
// glb output). A failed run ends with an out-of-memory message and no output, or, where the failure
// cost only something optional (a help text of the option parser), writes exactly the output of a
// run without failure; either way it holds no allocation afterwards and leaves no temporary file.
// This binary replaces the global operator new, so it is kept apart from the other tests.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <string>
#include <vector>

#include "cli/command_line.h"
#include "demo/demo.h"
#include "io/bvh/bvh_file.h"
#include "support/run_app.h"
#include "telvo/registrybase.h"
#include "telvo/system.h"

namespace
{

std::atomic<long> g_live{0};
std::atomic<long> g_count{0};
std::atomic<long> g_failAt{0}; // 0: never
std::atomic<bool> g_failed{false};

} // namespace

// The array forms of the standard library call these.
void* operator new(std::size_t size)
{
  if (g_count.fetch_add(1) + 1 == g_failAt.load())
  {
    g_failed = true;
    throw std::bad_alloc();
  }
  void* p = std::malloc(size == 0 ? 1 : size);
  if (p == nullptr)
    throw std::bad_alloc();
  ++g_live;
  return p;
}

void operator delete(void* p) noexcept
{
  if (p == nullptr)
    return;
  --g_live;
  std::free(p);
}

void operator delete(void* p, std::size_t) noexcept
{
  operator delete(p);
}

namespace
{

namespace fs = std::filesystem;

// Plain data, so that a child process can send it whole; the run's standard error is in stderr.txt.
struct RoadRun
{
  int status = -1;
  bool hit = false;    // the armed allocation failed
  int killedBy = 0;    // the signal that ended a run in a child process, -1 for an unknown end
  long hostLeaked = 0; // blocks the run left alive
  long frameworkLeaked = 0;
};

// Makes allocation n (0: none) of the host's operator new, or else of the framework's allocator, fail.
void Arm(bool host, int n)
{
  g_failed = false;
  g_count = 0;
  g_failAt = host ? n : 0;
  telvo::Allocator::FailNthAllocation(host ? 0 : n);
}

class RoadOutOfMemory : public ::testing::Test
{
protected:
  void SetUp() override
  {
    _dir = fs::temp_directory_path() / ("kelvara_road_oom_" + std::to_string(getpid()));
    fs::create_directories(_dir);
    std::string error;
    ASSERT_TRUE(kelvara::WriteBvh((_dir / "walk.bvh").string(), kelvara::MakeDemoSource(3), error)) << error;
    ASSERT_TRUE(kelvara::WriteBvh((_dir / "target.bvh").string(), kelvara::MakeDemoTarget(), error)) << error;
    setenv("KELVARA_MODULE", KELVARA_MODULE_PATH, 1);
  }
  void TearDown() override { fs::remove_all(_dir); }

  // kelvara retarget in this process with allocation n armed to fail. Blocks left alive are counted
  // right around the command, so that the test's own strings do not count; the registry's journal
  // keeps every registration for the life of the process, so it is emptied before each count.
  RoadRun Run(int n = 0, bool host = false)
  {
    std::vector<std::string> words = {"kelvara", "retarget", (_dir / "walk.bvh").string(), "--target",
                                      (_dir / "target.bvh").string(), "-o", _out.string(), "-q"};
    std::vector<char*> argv;
    for (std::string& w : words)
      argv.push_back(w.data());
    std::fflush(stdout);
    std::fflush(stderr);
    const int saved[2] = {dup(1), dup(2)};
    const int sink = open("/dev/null", O_WRONLY);
    const int errFile = open((_dir / "stderr.txt").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(sink, 1);
    dup2(errFile, 2);
    RoadRun run;
    telvo::Registry::Get().ClearJournal();
    const long hostLive = g_live.load();
    const telvo::Int frameworkLive = telvo::Allocator::GetLiveCount();
    Arm(host, n);
    run.status = kelvara::RunCommandLine(static_cast<int>(argv.size()), argv.data());
    run.hit = host ? g_failed.load() : telvo::Allocator::FailureDelivered();
    Arm(host, 0);
    telvo::Registry::Get().ClearJournal();
    run.hostLeaked = g_live.load() - hostLive;
    run.frameworkLeaked = static_cast<long>(telvo::Allocator::GetLiveCount() - frameworkLive);
    std::fflush(stdout);
    std::fflush(stderr);
    dup2(saved[0], 1);
    dup2(saved[1], 2);
    for (int fd : {saved[0], saved[1], sink, errFile})
      close(fd);
    return run;
  }

  // The same in a child process, so that a library ending the process ends only that run.
  RoadRun RunInChild(int n, bool host)
  {
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    std::fflush(stdout);
    std::fflush(stderr);
    const pid_t pid = fork();
    if (pid == 0)
    {
      const RoadRun run = Run(n, host);
      _exit(write(fds[1], &run, sizeof(run)) == static_cast<ssize_t>(sizeof(run)) ? 0 : 1);
    }
    close(fds[1]);
    RoadRun run;
    const bool received = read(fds[0], &run, sizeof(run)) == static_cast<ssize_t>(sizeof(run));
    close(fds[0]);
    int raw = 0;
    EXPECT_EQ(waitpid(pid, &raw, 0), pid);
    if (!received)
    {
      // Only a failing allocation makes the road end its process.
      run.hit = true;
      run.killedBy = WIFSIGNALED(raw) ? WTERMSIG(raw) : -1;
    }
    return run;
  }

  // Fails allocation n = 1, 2, ... until a run in which none failed. isolated: each run in a process
  // of its own, which a library may end (its answer to memory running out) if it leaves no output.
  void Sweep(const std::string& output, bool host, bool isolated = false)
  {
    _out = _dir / output;
    // A run without failure first: state made once on first use is no leak of the first counted run.
    ASSERT_EQ(Run().status, 0) << kelvara_test::ReadWholeFile(_dir / "stderr.txt");
    const std::string expected = kelvara_test::ReadWholeFile(_out);
    ASSERT_FALSE(expected.empty());
    fs::remove(_out);
    int absorbed = 0, killed = 0;
    // ROAD_START=N begins at the N-th allocation: one failing run, reproduced under a debugger.
    const char* start = std::getenv("ROAD_START");
    for (int n = start != nullptr ? std::max(1, std::atoi(start)) : 1; n < 200000; ++n)
    {
      const RoadRun run = isolated ? RunInChild(n, host) : Run(n, host);
      const std::string err = kelvara_test::ReadWholeFile(_dir / "stderr.txt");
      if (!run.hit)
      {
        EXPECT_EQ(run.status, 0) << "allocation " << n << ": " << err;
        EXPECT_TRUE(fs::exists(_out));
        EXPECT_GT(n - 1, 100);
        std::printf("%s allocations failed one at a time, %s output: %d runs, %d of them absorbed, %d ended by a "
                    "library\n",
                    host ? "host" : "framework", output.c_str(), n - 1, absorbed, killed);
        return;
      }
      SCOPED_TRACE("allocation " + std::to_string(n) + " failed");
      if (run.killedBy != 0)
      {
        ++killed;
        EXPECT_FALSE(fs::exists(_out)) << "signal " << run.killedBy << ": " << err;
      }
      else if (run.status == 0)
      {
        ++absorbed;
        EXPECT_TRUE(kelvara_test::ReadWholeFile(_out) == expected);
        fs::remove(_out);
      }
      else
      {
        EXPECT_NE(err.find("ut of memory"), std::string::npos) << err;
        EXPECT_FALSE(fs::exists(_out));
      }
      EXPECT_EQ(run.hostLeaked, 0);
      EXPECT_EQ(run.frameworkLeaked, 0);
      for (const fs::directory_entry& e : fs::directory_iterator(_dir))
        EXPECT_EQ(e.path().filename().string().rfind("." + output, 0), std::string::npos) << e.path();
      if (::testing::Test::HasFailure())
        return;
    }
    ADD_FAILURE() << "the road never succeeded";
  }

  fs::path _dir;
  fs::path _out; // the output of the runs
};

TEST_F(RoadOutOfMemory, FrameworkAllocations)
{
  Sweep("out.bvh", false);
}

TEST_F(RoadOutOfMemory, HostAllocations)
{
  Sweep("out.bvh", true);
}

// The glTF serialiser ends the process on some failing allocations: each run gets a process of its
// own. The module's memory is all taken before writing begins, so the framework sweep covers this.
TEST_F(RoadOutOfMemory, HostAllocationsWritingGlb)
{
  Sweep("out.glb", true, true);
}

} // namespace
