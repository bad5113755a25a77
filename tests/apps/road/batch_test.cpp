// Batches through the built kelvara command, and how they name their outputs.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include <nlohmann/json.hpp>

#include "batch.h"
#include "bvh.h"
#include "demo.h"
#include "support/run_app.h"

namespace kelvara
{
namespace
{

using kelvara_test::ReadWholeFile;

using BatchTest = kelvara_test::AppFolderTest;

// One thread or two, a batch writes what a single-clip run writes, byte for byte.
TEST_F(BatchTest, BrokenClipIsReportedAndTheOthersAreWrittenAsAlone)
{
  std::string text;
  std::string error;
  ASSERT_TRUE(WriteBvh((_dir / "target.bvh").string(), MakeDemoTarget(), error)) << error;
  ASSERT_TRUE(WriteBvhToString(MakeDemoSource(), text, error)) << error;
  std::ofstream(_dir / "a.bvh") << text;
  std::ofstream(_dir / "c.bvh") << text;
  std::ofstream(_dir / "b.bvh") << text.substr(0, 200);
  ASSERT_EQ(Kelvara("retarget a.bvh --target target.bvh -o single.bvh -q").status, 0);
  const std::string single = ReadWholeFile(_dir / "single.bvh");
  ASSERT_FALSE(single.empty());

  const auto run = Kelvara("retarget a.bvh b.bvh c.bvh --target target.bvh -o out --jobs 2 --report r.json");
  EXPECT_EQ(run.status, 2) << run.err;
  EXPECT_TRUE(ReadWholeFile(_dir / "out/a.bvh") == single && ReadWholeFile(_dir / "out/c.bvh") == single);
  EXPECT_FALSE(std::filesystem::exists(_dir / "out/b.bvh"));
  // Standard error is no terminal here: a plain line per written clip.
  for (const char* line : {"kelvara: b.bvh:", "expected", "a.bvh -> out/a.bvh: 240 frames"})
    EXPECT_NE(run.err.find(line), std::string::npos) << line << "\n" << run.err;
  for (const char* line : {"summary: 3 clips, 2 written, 1 failed; 480 frames", "  failed: b.bvh\n", " failed: b.bvh:"})
    EXPECT_NE(run.out.find(line), std::string::npos) << line << "\n" << run.out;

  // The report keeps the order of the sources, whichever thread finished first.
  const nlohmann::json report = nlohmann::json::parse(ReadWholeFile(_dir / "r.json"));
  ASSERT_EQ(report["clips"].size(), 3u);
  EXPECT_EQ(report["clips"][1]["status"], "failed");
  EXPECT_EQ(report["clips"][2]["source"], "c.bvh");
  // Two sources of one name would write one file: refused before anything is written.
  EXPECT_EQ(Kelvara("retarget a.bvh ./a.bvh --target target.bvh -o out2").status, 2);
  EXPECT_FALSE(std::filesystem::exists(_dir / "out2"));
}

TEST(BatchNames, OutputPathsAndSkeletons)
{
  EXPECT_EQ(BatchOutputPath("out", "clips/walk.fast.bvh"), "out/walk.fast.bvh");
  EXPECT_EQ(BatchOutputPath("out/", "run.BVH"), "out/run.bvh");
  EXPECT_EQ(OutputCollision("out", {"a/walk.bvh", "b/run.bvh"}), "");
  EXPECT_NE(OutputCollision("out", {"a/walk.bvh", "b/run.bvh", "c/walk.bvh"}).find("a/walk.bvh and c/walk.bvh"),
            std::string::npos);
  const BvhFile walk = MakeDemoSource(10);
  BvhFile longer = MakeDemoSource(20);
  EXPECT_TRUE(SameSkeleton(walk, longer));
  longer.joints[3].offset.y += 1e-9;
  EXPECT_FALSE(SameSkeleton(walk, longer));
  EXPECT_FALSE(SameSkeleton(walk, MakeDemoTarget()));
}

} // namespace
} // namespace kelvara
