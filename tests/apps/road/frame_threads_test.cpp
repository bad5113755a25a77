// Speed must not change what is written: one clip's frames on any number of threads, and clips
// in a batch on any number of jobs, give the bytes of a run on one thread.
#include "road/frame_threads.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>

#include "demo/demo.h"
#include "io/bvh/bvh_file.h"
#include "io/shares.h"
#include "support/run_app.h"

namespace kelvara
{
namespace
{

using kelvara_test::ReadWholeFile;

const std::string kClips = "/usr/share/assimp/models/BVH/";

class FrameThreadsTest : public kelvara_test::AppFolderTest
{
protected:
  void SetUp() override
  {
    AppFolderTest::SetUp();
    std::string error;
    ASSERT_TRUE(WriteBvh((_dir / "target.bvh").string(), MakeDemoTarget(), error)) << error;
    for (const char* clip : {"01_01.bvh", "01_03.bvh"})
      if (!std::filesystem::exists(kClips + clip))
        GTEST_SKIP() << kClips << clip << " is not installed (scripts/setup installs it)";
  }

  // The bytes kelvara writes for args with -o FILE.
  std::string Written(const std::string& args, const std::string& file)
  {
    const kelvara_test::AppOutcome run = Kelvara(args + " -o " + file + " -q");
    EXPECT_EQ(run.status, 0) << args << "\n" << run.err;
    return ReadWholeFile(_dir / file);
  }
};

TEST(FrameThreads, ThreadsOnlyWhereEachHasFramesEnough)
{
  EXPECT_EQ(FrameThreads(10000, 4), 4);
  EXPECT_EQ(FrameThreads(3 * kMinFramesPerThread - 1, 4), 2);
  EXPECT_EQ(FrameThreads(kMinFramesPerThread - 1, 4), 1);
  EXPECT_EQ(FrameThreads(0, 4), 1);
  EXPECT_EQ(FrameThreads(100000, 0), CoreCount());
}

// The CMU clips wrap their Euler angles often: every seam between threads' frames falls where
// the continuity of the angles must carry across it.
TEST_F(FrameThreadsTest, AnyNumberOfThreadsWritesTheBytesOfOne)
{
  for (const char* clip : {"01_01.bvh", "01_03.bvh"})
  {
    const std::string source = "retarget " + kClips + clip + " --target target.bvh";
    const std::string one = Written(source + " --threads 1", "one.bvh");
    ASSERT_GT(one.size(), 100000u);
    for (const char* threads : {"2", "3", "7"})
      EXPECT_TRUE(Written(source + " --threads " + threads, "many.bvh") == one) << clip << " on " << threads;
    EXPECT_TRUE(Written(source, "cores.bvh") == one) << clip << " on every core";
    EXPECT_TRUE(Written(source + " --threads 1", "one.glb") == Written(source + " --threads 5", "many.glb")) << clip;
  }
}

TEST_F(FrameThreadsTest, BatchesWriteTheSameWhateverTheJobsAndThreads)
{
  for (const char* clip : {"01_01.bvh", "01_03.bvh"})
    std::filesystem::copy_file(kClips + clip, _dir / clip);
  const std::string batch = "retarget 01_01.bvh 01_03.bvh --target target.bvh -q -o ";
  ASSERT_EQ(Kelvara(batch + "one --jobs 1 --threads 1").status, 0);
  ASSERT_EQ(Kelvara(batch + "two --jobs 2").status, 0);
  ASSERT_EQ(Kelvara(batch + "mixed --jobs 2 --threads 3").status, 0);
  for (const char* out : {"01_01.bvh", "01_03.bvh"})
  {
    const std::string one = ReadWholeFile(_dir / "one" / out);
    ASSERT_FALSE(one.empty()) << out;
    EXPECT_TRUE(ReadWholeFile(_dir / "two" / out) == one) << out;
    EXPECT_TRUE(ReadWholeFile(_dir / "mixed" / out) == one) << out;
    EXPECT_TRUE(Written("retarget " + std::string(out) + " --target target.bvh --threads 1", "single.bvh") == one);
  }
}

} // namespace
} // namespace kelvara
