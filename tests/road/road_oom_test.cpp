// The host's whole road (kelvara retarget on a small clip) with the N-th allocation failing, for
// every N until no allocation fails: once for the framework's allocator (the module's and the
// framework's memory) and once for the host's own (operator new). A run whose allocation failed
// either ends with a clear out-of-memory message and no output file, or, where the failure only
// cost something optional (a help text of the option parser), writes exactly the output of a
// run without failure. Either way it holds no allocation afterwards.
//
// This binary replaces the global operator new, so it is kept apart from the other tests.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include "bvh.h"
#include "commands.h"
#include "demo.h"
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

void* operator new[](std::size_t size)
{
  return operator new(size);
}

void operator delete(void* p) noexcept
{
  if (p == nullptr)
    return;
  --g_live;
  std::free(p);
}

void operator delete[](void* p) noexcept
{
  operator delete(p);
}

void operator delete(void* p, std::size_t) noexcept
{
  operator delete(p);
}

void operator delete[](void* p, std::size_t) noexcept
{
  operator delete(p);
}

namespace
{

namespace fs = std::filesystem;

struct RoadRun
{
  int status = -1;
  std::string err;
};

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
    // State made once on first use (stdio buffers, the interning table, locale caches) is not a
    // leak of the first counted run.
    ASSERT_EQ(Road().status, 0);
    _expected = kelvara_test::ReadWholeFile(Output());
    ASSERT_FALSE(_expected.empty());
    fs::remove(Output());
  }
  void TearDown() override { fs::remove_all(_dir); }

  fs::path Output() const { return _dir / "out.bvh"; }

  // kelvara retarget in this process, its stdout and stderr caught in files.
  RoadRun Road(const std::function<void()>& arm = [] {}, const std::function<void()>& disarm = [] {})
  {
    const std::string walk = (_dir / "walk.bvh").string();
    const std::string target = (_dir / "target.bvh").string();
    const std::string out = Output().string();
    const std::string errPath = (_dir / "stderr.txt").string();
    std::vector<std::string> words = {"kelvara", "retarget", walk, "--target", target, "-o", out, "-q"};
    std::vector<char*> argv;
    for (std::string& w : words)
      argv.push_back(w.data());
    std::fflush(stdout);
    std::fflush(stderr);
    const int savedOut = dup(1);
    const int savedErr = dup(2);
    const int sink = open("/dev/null", O_WRONLY);
    const int errFile = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(sink, 1);
    dup2(errFile, 2);
    RoadRun run;
    arm();
    run.status = kelvara::RunCommandLine(static_cast<int>(argv.size()), argv.data());
    disarm();
    std::fflush(stdout);
    std::fflush(stderr);
    dup2(savedOut, 1);
    dup2(savedErr, 2);
    for (int fd : {savedOut, savedErr, sink, errFile})
      close(fd);
    run.err = kelvara_test::ReadWholeFile(errPath);
    return run;
  }

  // Runs the road failing allocation n = 1, 2, ... through arm(n) until a run succeeds; failed()
  // tells whether the armed failure happened. Returns the number of failing runs.
  template <typename ARM, typename FAILED>
  int Sweep(ARM&& arm, const std::function<void()>& disarm, FAILED&& failed, const char* what)
  {
    // ROAD_START=N begins at the N-th allocation: one failing run, reproduced under a debugger.
    const char* start = std::getenv("ROAD_START");
    for (int n = start != nullptr ? std::max(1, std::atoi(start)) : 1; n < 200000; ++n)
    {
      // Counted right around the command, so that the test's own strings do not count; the
      // registry's journal keeps every registration and withdrawal for the life of the process,
      // so it is emptied before each count.
      long hostLive = 0;
      long hostLiveAfter = 0;
      telvo::Int frameworkLive = 0;
      telvo::Int frameworkLiveAfter = 0;
      bool hit = false;
      const RoadRun run = Road(
        [&] {
          telvo::Registry::Get().ClearJournal();
          hostLive = g_live.load();
          frameworkLive = telvo::Allocator::GetLiveCount();
          arm(n);
        },
        [&] {
          hit = failed();
          disarm();
          telvo::Registry::Get().ClearJournal();
          hostLiveAfter = g_live.load();
          frameworkLiveAfter = telvo::Allocator::GetLiveCount();
        });
      if (!hit)
      {
        EXPECT_EQ(run.status, 0) << what << " allocation " << n << ": " << run.err;
        EXPECT_TRUE(fs::exists(Output()));
        return n - 1;
      }
      SCOPED_TRACE(std::string(what) + " allocation " + std::to_string(n) + " failed");
      if (run.status == 0)
      {
        ++_absorbed;
        EXPECT_EQ(kelvara_test::ReadWholeFile(Output()), _expected);
        fs::remove(Output());
      }
      else
      {
        EXPECT_NE(run.err.find("ut of memory"), std::string::npos) << run.err;
        EXPECT_FALSE(fs::exists(Output()));
      }
      EXPECT_EQ(hostLiveAfter, hostLive);
      EXPECT_EQ(frameworkLiveAfter, frameworkLive);
      for (const fs::directory_entry& e : fs::directory_iterator(_dir))
        EXPECT_EQ(e.path().filename().string().rfind(".out.bvh", 0), std::string::npos) << e.path();
      if (::testing::Test::HasFailure())
        return -1;
    }
    ADD_FAILURE() << what << ": the road never succeeded";
    return -1;
  }

  fs::path _dir;
  std::string _expected; // the output of a run without failure
  int _absorbed = 0;     // runs that succeeded although an allocation failed
};

TEST_F(RoadOutOfMemory, FrameworkAllocations)
{
  const int failing = Sweep([](int n) { telvo::Allocator::FailNthAllocation(n); },
                            [] { telvo::Allocator::FailNthAllocation(0); },
                            [] { return telvo::Allocator::FailureDelivered(); }, "framework");
  EXPECT_GT(failing, 100);
  std::printf("framework allocations failed one at a time: %d runs, %d of them absorbed\n", failing, _absorbed);
}

TEST_F(RoadOutOfMemory, HostAllocations)
{
  const int failing = Sweep(
    [](int n) {
      g_failed = false;
      g_count = 0;
      g_failAt = n;
    },
    [] { g_failAt = 0; }, [] { return g_failed.load(); }, "host");
  EXPECT_GT(failing, 100);
  std::printf("host allocations failed one at a time: %d runs, %d of them absorbed\n", failing, _absorbed);
}

} // namespace
