// The host's whole road (kelvara retarget on a small clip: reading, characters, pairing, the
// module frame by frame, writing) with the N-th allocation failing, for every N until no
// allocation fails: once for the framework's allocator (the module's and the framework's memory)
// and once for the host's own (operator new), the latter for a BVH and for a glb output. A run
// whose allocation failed either ends with a clear out-of-memory message and no output file, or,
// where the failure only cost something optional (a help text of the option parser), writes
// exactly the output of a run without failure. Either way it holds no allocation afterwards and
// leaves no temporary file beside the output.
//
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
#include <functional>
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
  bool hit = false;     // the armed allocation failed
  int killedBy = 0;     // the signal that ended a run in a child process, -1 for an unknown end
  long hostLeaked = 0;  // blocks the run left alive
  telvo::Int frameworkLeaked = 0;
};

// How to make the N-th allocation of one allocator fail, and whether it did.
struct Arming
{
  std::function<void(int)> arm;
  std::function<void()> disarm;
  std::function<bool()> failed;
};

const Arming kFramework = {[](int n) { telvo::Allocator::FailNthAllocation(n); },
                           [] { telvo::Allocator::FailNthAllocation(0); },
                           [] { return telvo::Allocator::FailureDelivered(); }};

const Arming kHost = {[](int n) {
                        g_failed = false;
                        g_count = 0;
                        g_failAt = n;
                      },
                      [] { g_failAt = 0; }, [] { return g_failed.load(); }};

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
  void TearDown() override
  {
    EndChild();
    fs::remove_all(_dir);
  }

  // Chooses the output of the runs (its format by its extension), and makes the output of a run
  // without failure.
  void Prepare(const std::string& output)
  {
    _output = output;
    // State made once on first use (stdio buffers, the interning table, locale caches) is not a
    // leak of the first counted run.
    const RoadRun first = Road();
    ASSERT_EQ(first.status, 0) << first.err;
    _expected = kelvara_test::ReadWholeFile(Output());
    ASSERT_FALSE(_expected.empty());
    fs::remove(Output());
  }

  fs::path Output() const { return _dir / _output; }

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

  // One run of the road with allocation n armed to fail: whether it failed, and the blocks the
  // run left alive. Counted right around the command, so that the test's own strings do not
  // count; the registry's journal keeps every registration and withdrawal for the life of the
  // process, so it is emptied before each count.
  RoadRun RunArmed(int n, const Arming& arming)
  {
    long hostLive = 0;
    telvo::Int frameworkLive = 0;
    bool hit = false;
    RoadRun run = Road(
      [&] {
        telvo::Registry::Get().ClearJournal();
        hostLive = g_live.load();
        frameworkLive = telvo::Allocator::GetLiveCount();
        arming.arm(n);
      },
      [&] {
        hit = arming.failed();
        arming.disarm();
        telvo::Registry::Get().ClearJournal();
        hostLive = g_live.load() - hostLive;
        frameworkLive = telvo::Allocator::GetLiveCount() - frameworkLive;
      });
    run.hit = hit;
    run.hostLeaked = hostLive;
    run.frameworkLeaked = frameworkLive;
    return run;
  }

  // The same in a child process, so that a run that a library aborts ends only that process. The
  // child runs one allocation number after the other as the parent sends them, and is replaced
  // when it dies.
  RoadRun RunArmedInChild(int n, const Arming& arming)
  {
    if (_child <= 0)
      StartChild(arming);
    long record[4] = {};
    const bool sent = write(_toChild, &n, sizeof(n)) == static_cast<ssize_t>(sizeof(n));
    const bool received = sent && read(_fromChild, record, sizeof(record)) == static_cast<ssize_t>(sizeof(record));
    RoadRun run;
    run.err = kelvara_test::ReadWholeFile(_dir / "stderr.txt");
    if (!received)
    {
      // Only a failing allocation makes the road end this way.
      const int raw = EndChild();
      run.killedBy = WIFSIGNALED(raw) ? WTERMSIG(raw) : -1;
      run.hit = true;
      return run;
    }
    run.status = static_cast<int>(record[0]);
    run.hit = record[1] != 0;
    run.hostLeaked = record[2];
    run.frameworkLeaked = record[3];
    return run;
  }

  void StartChild(const Arming& arming)
  {
    int toChild[2];
    int fromChild[2];
    ASSERT_EQ(pipe(toChild), 0);
    ASSERT_EQ(pipe(fromChild), 0);
    std::fflush(stdout);
    std::fflush(stderr);
    _child = fork();
    if (_child == 0)
    {
      close(toChild[1]);
      close(fromChild[0]);
      for (int n = 0; read(toChild[0], &n, sizeof(n)) == static_cast<ssize_t>(sizeof(n));)
      {
        const RoadRun run = RunArmed(n, arming);
        const long record[4] = {run.status, run.hit ? 1 : 0, run.hostLeaked, static_cast<long>(run.frameworkLeaked)};
        if (write(fromChild[1], record, sizeof(record)) != static_cast<ssize_t>(sizeof(record)))
          break;
      }
      _exit(0);
    }
    close(toChild[0]);
    close(fromChild[1]);
    _toChild = toChild[1];
    _fromChild = fromChild[0];
  }

  // Closes the child's pipes and returns its wait status.
  int EndChild()
  {
    if (_child <= 0)
      return 0;
    close(_toChild);
    close(_fromChild);
    int raw = 0;
    EXPECT_EQ(waitpid(_child, &raw, 0), _child);
    _child = 0;
    return raw;
  }

  // Runs the road failing allocation n = 1, 2, ... until a run in which none failed; with
  // isolated, each run in a child process. Returns the number of failing runs.
  // isolated: each run in a process of its own, and a run that ends the process (a library's
  // answer to memory running out) is allowed; it must still leave nothing behind.
  int Sweep(const Arming& arming, const char* what, bool isolated = false)
  {
    int killed = 0;
    std::string firstKilled;
    auto expectNoneKilled = [&] {
      if (isolated)
      {
        _killed = killed;
        return;
      }
      EXPECT_EQ(killed, 0) << what << ": " << killed << " runs were killed instead of reporting the failure, the "
                           << "first by " << firstKilled;
    };
    // ROAD_START=N begins at the N-th allocation: one failing run, reproduced under a debugger.
    const char* start = std::getenv("ROAD_START");
    for (int n = start != nullptr ? std::max(1, std::atoi(start)) : 1; n < 200000; ++n)
    {
      const RoadRun run = isolated ? RunArmedInChild(n, arming) : RunArmed(n, arming);
      if (!run.hit)
      {
        EXPECT_EQ(run.status, 0) << what << " allocation " << n << ": " << run.err;
        EXPECT_TRUE(fs::exists(Output()));
        expectNoneKilled();
        return n - 1;
      }
      SCOPED_TRACE(std::string(what) + " allocation " + std::to_string(n) + " failed");
      if (run.killedBy != 0)
      {
        // Counted and reported once at the end, so that the sweep still checks every later run.
        if (killed++ == 0)
          firstKilled =
            "signal " + std::to_string(run.killedBy) + " at allocation " + std::to_string(n) + ": " + run.err;
        EXPECT_FALSE(fs::exists(Output()));
      }
      else if (run.status == 0)
      {
        ++_absorbed;
        const std::string written = kelvara_test::ReadWholeFile(Output());
        EXPECT_TRUE(written == _expected) << "the output of a run without failure has " << _expected.size()
                                          << " bytes; this run wrote " << written.size() << " other bytes";
        fs::remove(Output());
      }
      else
      {
        EXPECT_NE(run.err.find("ut of memory"), std::string::npos) << run.err;
        EXPECT_FALSE(fs::exists(Output()));
      }
      EXPECT_EQ(run.hostLeaked, 0);
      EXPECT_EQ(run.frameworkLeaked, 0);
      for (const fs::directory_entry& e : fs::directory_iterator(_dir))
        EXPECT_EQ(e.path().filename().string().rfind("." + _output, 0), std::string::npos) << e.path();
      if (::testing::Test::HasFailure())
      {
        expectNoneKilled();
        return -1;
      }
    }
    ADD_FAILURE() << what << ": the road never succeeded";
    return -1;
  }

  pid_t _child = 0; // the process of isolated runs, while one is running
  int _toChild = -1;
  int _fromChild = -1;
  fs::path _dir;
  std::string _output;   // in _dir
  std::string _expected; // the output of a run without failure
  int _absorbed = 0;     // runs that succeeded although an allocation failed
  int _killed = 0;       // isolated runs that ended their process
};

TEST_F(RoadOutOfMemory, FrameworkAllocations)
{
  Prepare("out.bvh");
  const int failing = Sweep(kFramework, "framework");
  EXPECT_GT(failing, 100);
  std::printf("framework allocations failed one at a time: %d runs, %d of them absorbed\n", failing, _absorbed);
}

TEST_F(RoadOutOfMemory, HostAllocations)
{
  Prepare("out.bvh");
  const int failing = Sweep(kHost, "host");
  EXPECT_GT(failing, 100);
  std::printf("host allocations failed one at a time: %d runs, %d of them absorbed\n", failing, _absorbed);
}

// glTF is written through tinygltf, whose serialiser ends the process on some failing
// allocations (an assertion of its JSON library, an exception through a function that may not
// throw): each run gets a process of its own, and such a run must still leave no file behind.
// The module's memory is all taken before writing begins, so the framework sweep above already
// covers this road.
TEST_F(RoadOutOfMemory, HostAllocationsWritingGlb)
{
  Prepare("out.glb");
  const int failing = Sweep(kHost, "host, glb output", true);
  EXPECT_GT(failing, 100);
  std::printf("host allocations failed one at a time, glb output: %d runs, %d of them absorbed, %d ended by the "
              "glTF library\n",
              failing, _absorbed, _killed);
}

} // namespace
