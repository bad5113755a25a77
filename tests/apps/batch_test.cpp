// Batches through the built kelvara command: a broken clip among good ones, outputs identical to
// single-clip runs whatever the number of threads, the report's clips and the summary.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <nlohmann/json.hpp>

#include "batch.h"
#include "bvh.h"
#include "demo.h"

namespace kelvara
{
namespace
{

namespace fs = std::filesystem;

const char* const kCmuClip = "/usr/share/assimp/models/BVH/01_01.bvh";

std::string Slurp(const fs::path& path)
{
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

struct Outcome
{
  int status = -1;
  std::string out;
  std::string err;
};

class BatchTest : public ::testing::Test
{
protected:
  void SetUp() override
  {
    _dir = fs::temp_directory_path() / ("kelvara_batch_" + std::to_string(getpid()) + "_" +
                                        ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(_dir);
    fs::create_directories(_dir);
    std::string error;
    ASSERT_TRUE(WriteBvh((_dir / "target.bvh").string(), MakeDemoTarget(), error)) << error;
  }
  void TearDown() override { fs::remove_all(_dir); }

  Outcome Kelvara(const std::string& args)
  {
    const std::string command = "cd '" + _dir.string() + "' && '" KELVARA_APP_PATH "' " + args +
                                " >stdout.txt 2>stderr.txt </dev/null";
    Outcome run;
    const int raw = std::system(command.c_str());
    run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    run.out = Slurp(_dir / "stdout.txt");
    run.err = Slurp(_dir / "stderr.txt");
    return run;
  }

  fs::path _dir;
};

TEST_F(BatchTest, BrokenClipIsReportedAndTheOthersAreWritten)
{
  std::string text;
  std::string error;
  ASSERT_TRUE(WriteBvhToString(MakeDemoSource(40), text, error)) << error;
  std::ofstream(_dir / "a.bvh") << text;
  std::ofstream(_dir / "c.bvh") << text;
  // Cut inside the hierarchy: the reader names the line where the file ends.
  std::ofstream(_dir / "b.bvh") << text.substr(0, 200);

  const Outcome run = Kelvara("retarget a.bvh b.bvh c.bvh --target target.bvh -o out --jobs 2 --report r.json");
  EXPECT_EQ(run.status, 2) << run.err;
  EXPECT_TRUE(fs::exists(_dir / "out/a.bvh"));
  EXPECT_TRUE(fs::exists(_dir / "out/c.bvh"));
  EXPECT_FALSE(fs::exists(_dir / "out/b.bvh"));
  EXPECT_NE(run.err.find("kelvara: b.bvh:"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("expected"), std::string::npos) << run.err;
  // Standard error is no terminal here: a plain line per written clip.
  EXPECT_NE(run.err.find("a.bvh -> out/a.bvh: 40 frames"), std::string::npos) << run.err;
  EXPECT_NE(run.out.find("summary: 3 clips, 2 written, 1 failed; 80 frames in"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("  failed: b.bvh\n"), std::string::npos) << run.out;
  // The table names every clip; the broken one with its message.
  EXPECT_NE(run.out.find(" failed: b.bvh:"), std::string::npos) << run.out;

  const nlohmann::json report = nlohmann::json::parse(Slurp(_dir / "r.json"));
  ASSERT_EQ(report["clips"].size(), 3u);
  EXPECT_EQ(report["clips"][1]["status"], "failed");
  const nlohmann::json& a = report["clips"][0];
  EXPECT_EQ(a["status"], "ok");
  EXPECT_EQ(a["frames"], 40);
  EXPECT_EQ(a["pairs"].size(), 21u);
  EXPECT_EQ(a["unpairedSourceJoints"], nlohmann::json::array({"LowerBack"}));
  EXPECT_TRUE(a["unpairedTargetJoints"].empty());
  EXPECT_EQ(a["sourceCharacter"]["filledBodyParts"], 21);
  EXPECT_EQ(a["sourceCharacter"]["candidates"].size(), 4u);
  EXPECT_TRUE(a["rootScaleAuto"].get<bool>());
  EXPECT_EQ(a["footSliding"]["source"].size(), 4u);
  EXPECT_EQ(a["footSliding"]["target"].size(), 4u);
  // The legs keep their rest directions (both straight down); the arms differ by the target's
  // A-pose (45 degrees below the source's T-pose) in every frame.
  for (const nlohmann::json& bone : a["bones"])
  {
    const std::string joint = bone["targetJoint"];
    if (joint == "thigh_l" || joint == "calf_r")
    {
      EXPECT_LT(bone["maxAngleDegrees"].get<double>(), 1e-4) << bone;
    }
    if (joint == "upperarm_l")
    {
      EXPECT_NEAR(bone["meanAngleDegrees"].get<double>(), 45.0, 1e-4) << bone;
      EXPECT_NEAR(bone["maxAngleDegrees"].get<double>(), 45.0, 1e-4) << bone;
    }
  }
  EXPECT_EQ(report["clips"][2], [&] {
    nlohmann::json c = a;
    c["source"] = "c.bvh";
    c["output"] = "out/c.bvh";
    return c;
  }());

  // Two sources of one name would write one file.
  fs::create_directories(_dir / "other");
  fs::copy_file(_dir / "a.bvh", _dir / "other/a.bvh");
  const Outcome clash = Kelvara("retarget a.bvh other/a.bvh --target target.bvh -o out2");
  EXPECT_EQ(clash.status, 2);
  EXPECT_NE(clash.err.find("expected sources of distinct names"), std::string::npos) << clash.err;
  EXPECT_FALSE(fs::exists(_dir / "out2"));
}

// One thread or two, the batch writes what a single-clip run writes, byte for byte.
TEST_F(BatchTest, OutputsEqualSingleClipRunsAtAnyThreadCount)
{
  if (!fs::exists(kCmuClip))
    GTEST_SKIP() << kCmuClip << " is not installed";
  for (const char* name : {"x.bvh", "y.bvh", "z.bvh"})
    fs::copy_file(kCmuClip, _dir / name);
  const Outcome single = Kelvara("retarget x.bvh --target target.bvh -o single.bvh --report single.json -q");
  ASSERT_EQ(single.status, 0) << single.err;
  const std::string expected = Slurp(_dir / "single.bvh");
  ASSERT_FALSE(expected.empty());

  const Outcome two = Kelvara("retarget x.bvh y.bvh z.bvh --target target.bvh -o two --jobs 2 -q");
  ASSERT_EQ(two.status, 0) << two.err;
  EXPECT_NE(two.out.find("summary: 3 clips, 3 written, 0 failed; 8256 frames"), std::string::npos) << two.out;
  for (const char* name : {"x.bvh", "y.bvh", "z.bvh"})
    EXPECT_TRUE(Slurp(_dir / "two" / name) == expected) << name;
  const Outcome one = Kelvara("retarget x.bvh y.bvh --target target.bvh -o one --jobs 1 -q");
  ASSERT_EQ(one.status, 0) << one.err;
  EXPECT_TRUE(Slurp(_dir / "one/y.bvh") == expected);

  // The single-clip report describes the same clip as a batch would.
  const nlohmann::json report = nlohmann::json::parse(Slurp(_dir / "single.json"));
  ASSERT_EQ(report["clips"].size(), 1u);
  EXPECT_EQ(report["clips"][0]["sourceCharacter"]["preset"], "cmu");
  EXPECT_EQ(report["clips"][0]["frames"], 2752);
  EXPECT_FALSE(report["clips"][0]["bones"].empty());
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
