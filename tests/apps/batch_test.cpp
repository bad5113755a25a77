// Batches through the built kelvara command: a broken clip among good ones, outputs identical to
// single-clip runs whatever the number of threads, the report's clips and the summary.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include <nlohmann/json.hpp>

#include "batch.h"
#include "bvh.h"
#include "demo.h"
#include "support/run_app.h"

namespace kelvara
{
namespace
{

namespace fs = std::filesystem;
using kelvara_test::ReadWholeFile;

using BatchTest = kelvara_test::AppFolderTest;

TEST_F(BatchTest, BrokenClipIsReportedAndTheOthersAreWritten)
{
  std::string text;
  std::string error;
  ASSERT_TRUE(WriteBvh((_dir / "target.bvh").string(), MakeDemoTarget(), error)) << error;
  ASSERT_TRUE(WriteBvhToString(MakeDemoSource(40), text, error)) << error;
  std::ofstream(_dir / "a.bvh") << text;
  std::ofstream(_dir / "c.bvh") << text;
  std::ofstream(_dir / "b.bvh") << text.substr(0, 200);

  const kelvara_test::AppOutcome run =
    Kelvara("retarget a.bvh b.bvh c.bvh --target target.bvh -o out --jobs 2 --report r.json");
  EXPECT_EQ(run.status, 2) << run.err;
  EXPECT_TRUE(fs::exists(_dir / "out/a.bvh") && fs::exists(_dir / "out/c.bvh"));
  EXPECT_FALSE(fs::exists(_dir / "out/b.bvh"));
  // Standard error is no terminal here: a plain line per written clip.
  for (const char* line : {"kelvara: b.bvh:", "expected", "a.bvh -> out/a.bvh: 40 frames"})
    EXPECT_NE(run.err.find(line), std::string::npos) << line << "\n" << run.err;
  for (const char* line : {"summary: 3 clips, 2 written, 1 failed; 80 frames", "  failed: b.bvh\n", " failed: b.bvh:"})
    EXPECT_NE(run.out.find(line), std::string::npos) << line << "\n" << run.out;

  const nlohmann::json report = nlohmann::json::parse(ReadWholeFile(_dir / "r.json"));
  ASSERT_EQ(report["clips"].size(), 3u);
  EXPECT_EQ(report["clips"][1]["status"], "failed");
  nlohmann::json a = report["clips"][0];
  EXPECT_EQ(a["status"], "ok");
  EXPECT_EQ(a["frames"], 40);
  EXPECT_EQ(a["pairs"].size(), 21u);
  EXPECT_EQ(a["unpairedSourceJoints"], nlohmann::json::array({"LowerBack"}));
  EXPECT_EQ(a["sourceCharacter"]["filledBodyParts"], 21);
  a["source"] = "c.bvh";
  a["output"] = "out/c.bvh";
  EXPECT_EQ(report["clips"][2], a);

  // Two sources of one name would write one file.
  fs::create_directories(_dir / "other");
  fs::copy_file(_dir / "a.bvh", _dir / "other/a.bvh");
  const kelvara_test::AppOutcome clash = Kelvara("retarget a.bvh other/a.bvh --target target.bvh -o out2");
  EXPECT_EQ(clash.status, 2);
  EXPECT_NE(clash.err.find("expected sources of distinct names"), std::string::npos) << clash.err;
  EXPECT_FALSE(fs::exists(_dir / "out2"));
}

TEST_F(BatchTest, OutputsEqualSingleClipRunsAtAnyThreadCount)
{
  const char* const clip = "/usr/share/assimp/models/BVH/01_01.bvh";
  if (!fs::exists(clip))
    GTEST_SKIP() << clip << " is not installed";
  std::string error;
  ASSERT_TRUE(WriteBvh((_dir / "target.bvh").string(), MakeDemoTarget(), error)) << error;
  for (const char* name : {"x.bvh", "y.bvh", "z.bvh"})
    fs::copy_file(clip, _dir / name);
  ASSERT_EQ(Kelvara("retarget x.bvh --target target.bvh -o single.bvh -q").status, 0);
  const std::string expected = ReadWholeFile(_dir / "single.bvh");
  ASSERT_FALSE(expected.empty());
  const kelvara_test::AppOutcome two = Kelvara("retarget x.bvh y.bvh z.bvh --target target.bvh -o two --jobs 2 -q");
  ASSERT_EQ(two.status, 0) << two.err;
  EXPECT_NE(two.out.find("summary: 3 clips, 3 written, 0 failed; 8256 frames"), std::string::npos) << two.out;
  for (const char* name : {"x.bvh", "y.bvh", "z.bvh"})
    EXPECT_TRUE(ReadWholeFile(_dir / "two" / name) == expected) << name;
  ASSERT_EQ(Kelvara("retarget x.bvh y.bvh --target target.bvh -o one --jobs 1 -q").status, 0);
  EXPECT_TRUE(ReadWholeFile(_dir / "one/y.bvh") == expected);
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
