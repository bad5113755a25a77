// The kelvara command as a user runs it: exit codes, messages, files left behind.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "support/run_app.h"

namespace
{

namespace fs = std::filesystem;

using kelvara_test::ReadWholeFile;

const std::string kCmuClip = "/usr/share/assimp/models/BVH/01_01.bvh";

class CliTest : public kelvara_test::AppFolderTest
{
protected:
  void Write(const std::string& name, const std::string& text) { std::ofstream(_dir / name, std::ios::binary) << text; }
};

TEST_F(CliTest, AnswersWithStatusAndMessageAndFailuresWriteNothing)
{
  Write("good.bvh", "HIERARCHY ROOT Hips { OFFSET 0 0 0 CHANNELS 6 Xposition Yposition Zposition Zrotation Xrotation "
                    "Yrotation JOINT Spine { OFFSET 0 1 0 CHANNELS 3 Zrotation Xrotation Yrotation End Site { OFFSET "
                    "0 1 0 } } }\nMOTION\nFrames: 2\nFrame Time: 0.5\n0 0 0 0 0 0 0 0 0\n1 1 1 1 1 1 1 1 1\n");
  Write("empty.bvh", "");
  Write("noroot.bvh", "HIERARCHY\nMOTION\n");
  Write("bad.json", "{\n  \"Spine\": \"Spine\",\n  \"Hips\" \"Hips\"\n}\n");
  Write("unknown.json", "{\n  \"Spine\": \"Spine\",\n  \"Hips\": \"Pelvis\"\n}\n");
  const std::string retarget = "retarget good.bvh --target good.bvh -o out.bvh ";
  // Texts are looked for on standard output when the status is 0, else on standard error.
  const std::tuple<std::string, int, std::vector<std::string>> cases[] = {
    {"", 2, {"retarget"}},
    {"--help", 0, {"modules", "retarget", "inspect", "demo", "KELVARA_MODULE"}},
    {"retarget --help", 0, {"--target", "--map", "--preset", "--root-scale", "--no-root-motion", "--timings"}},
    {"frobnicate", 2, {"kelvara: unknown command 'frobnicate'"}},
    {"modules", 0, {"Module net.telvo.kelvara", "Withdrawn at unload, in order:"}},
    {"modules a b", 2, {"expected at most one module path, found 2 arguments"}},
    {"retarget good.bvh -o out.bvh", 2, {}},
    {"retarget empty.bvh --target good.bvh -o out.bvh", 2, {"empty.bvh:1: expected 'HIERARCHY', found end of file"}},
    {"retarget good.bvh --target noroot.bvh -o out.bvh", 2, {"noroot.bvh:2: expected ROOT, found 'MOTION'"}},
    {retarget + "--map bad.json", 2, {"bad.json:3: expected a JSON object of joint names, found invalid JSON"}},
    {retarget + "--map unknown.json", 2, {"unknown.json:3: expected a joint of good.bvh, found \"Pelvis\""}},
    {retarget + "--root-scale -1", 2, {}},
    {retarget + "--preset nosuch", 2, {"expected a preset name (game, cmu, studio, generic), found \"nosuch\""}},
  };
  for (const auto& [args, status, texts] : cases)
  {
    SCOPED_TRACE(args);
    const kelvara_test::AppOutcome run = Kelvara(args);
    EXPECT_EQ(run.status, status) << run.err;
    for (const std::string& text : texts)
      EXPECT_NE((status == 0 ? run.out : run.err).find(text), std::string::npos) << text << "\n" << run.err;
    for (const auto& entry : fs::directory_iterator(_dir))
      EXPECT_EQ(entry.path().filename().string().find("out.bvh"), std::string::npos) << entry.path();
  }
}

TEST_F(CliTest, CmuClipRetargetsAndInspects)
{
  if (!fs::exists(kCmuClip))
    GTEST_SKIP() << kCmuClip << " is not installed";
  ASSERT_EQ(Kelvara("demo -o target.bvh --frames 1").status, 0);
  const kelvara_test::AppOutcome run = Kelvara("retarget " + kCmuClip + " --target target.bvh -o out.bvh --timings");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.err.find("timings: reading"), std::string::npos);
  EXPECT_NE(run.out.find("preset cmu, 21 of 21"), std::string::npos) << run.out;
  const kelvara_test::AppOutcome inspect = Kelvara("inspect " + kCmuClip);
  ASSERT_EQ(inspect.status, 0);
  EXPECT_NE(inspect.out.find("frames: 2752"), std::string::npos);
  EXPECT_NE(inspect.out.find("preset: cmu (21 of 21 body parts filled)"), std::string::npos);
  EXPECT_TRUE(std::regex_search(inspect.out, std::regex("Left upper arm +LeftArm\n")));
}

// A saved character stands for its BVH file byte for byte, as target and as source.
TEST_F(CliTest, SavedCharactersRetargetLikeTheirBvh)
{
  if (!fs::exists(kCmuClip))
    GTEST_SKIP() << kCmuClip << " is not installed";
  ASSERT_EQ(Kelvara("demo -o target.bvh --frames 2").status, 0);
  const kelvara_test::AppOutcome saved = Kelvara("character target.bvh -o target.json");
  ASSERT_EQ(saved.status, 0) << saved.err;
  EXPECT_NE(saved.out.find("21 of 21 body parts filled"), std::string::npos) << saved.out;
  ASSERT_EQ(Kelvara("character " + kCmuClip + " -o source.json").status, 0);
  ASSERT_EQ(Kelvara("retarget " + kCmuClip + " --target target.bvh -o from_bvh.bvh -q").status, 0);
  for (const char* args : {"--target target.json -o from_json.bvh",
                           "--source-character source.json --target target.bvh -o from_json.bvh"})
  {
    const kelvara_test::AppOutcome run = Kelvara("retarget " + kCmuClip + " -q " + args);
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(ReadWholeFile(_dir / "from_json.bvh"), ReadWholeFile(_dir / "from_bvh.bvh")) << args;
    fs::remove(_dir / "from_json.bvh");
  }

  // A saved source for another skeleton, and a broken saved target, are refused.
  Write("broken.json", "{\"format\": \"kelvara character\", \"version\": 1, \"preset\": \"cmu\", \"skeleton\": 3}");
  const std::pair<std::string, std::string> refused[] = {
    {"target.bvh --source-character source.json --target target.bvh",
     "expected the 31 joints of the saved character"},
    {kCmuClip + " --target broken.json", "broken.json: /skeleton: expected a non-empty array of joints, found 3"},
  };
  for (const auto& [args, message] : refused)
  {
    const kelvara_test::AppOutcome run = Kelvara("retarget " + args + " -o never.bvh");
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find(message), std::string::npos) << run.err;
    EXPECT_FALSE(fs::exists(_dir / "never.bvh"));
  }
}

} // namespace
