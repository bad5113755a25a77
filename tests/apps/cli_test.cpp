// The kelvara command as a user runs it: exit codes, messages, files left behind.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>

#include "bvh.h"

namespace
{

namespace fs = std::filesystem;

const char* const kCmuClip = "/usr/share/assimp/models/BVH/01_01.bvh";

const char* const kGood = "HIERARCHY\n"
                          "ROOT Hips\n"
                          "{\n"
                          "  OFFSET 0 0 0\n"
                          "  CHANNELS 6 Xposition Yposition Zposition Zrotation Xrotation Yrotation\n"
                          "  JOINT Spine\n"
                          "  {\n"
                          "    OFFSET 0 1 0\n"
                          "    CHANNELS 3 Zrotation Xrotation Yrotation\n"
                          "    End Site\n"
                          "    {\n"
                          "      OFFSET 0 1 0\n"
                          "    }\n"
                          "  }\n"
                          "}\n"
                          "MOTION\n"
                          "Frames: 2\n"
                          "Frame Time: 0.5\n"
                          "0 0 0 0 0 0 0 0 0\n"
                          "1 1 1 1 1 1 1 1 1\n";

struct Outcome
{
  int status = -1;
  std::string out;
  std::string err;
};

std::string Slurp(const fs::path& path)
{
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

class CliTest : public ::testing::Test
{
protected:
  void SetUp() override
  {
    _dir = fs::temp_directory_path() / ("kelvara_cli_" + std::to_string(getpid()) + "_" +
                                        ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(_dir);
    fs::create_directories(_dir);
  }
  void TearDown() override { fs::remove_all(_dir); }

  fs::path Write(const std::string& name, const std::string& text)
  {
    std::ofstream(_dir / name, std::ios::binary) << text;
    return _dir / name;
  }

  Outcome Kelvara(const std::string& args)
  {
    const fs::path out = _dir / "stdout.txt";
    const fs::path err = _dir / "stderr.txt";
    const std::string command = "cd '" + _dir.string() + "' && '" KELVARA_APP_PATH "' " + args + " >'" +
                                out.string() + "' 2>'" + err.string() + "'";
    Outcome run;
    const int raw = std::system(command.c_str());
    run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    run.out = Slurp(out);
    run.err = Slurp(err);
    fs::remove(out);
    fs::remove(err);
    return run;
  }

  // Files in the folder besides the inputs: an output or a temporary left behind.
  int CountFilesExcept(std::initializer_list<std::string> inputs)
  {
    int n = 0;
    for (const auto& entry : fs::directory_iterator(_dir))
    {
      bool input = false;
      for (const std::string& i : inputs)
        input = input || entry.path().filename() == i;
      n += input ? 0 : 1;
    }
    return n;
  }

  fs::path _dir;
};

TEST_F(CliTest, UsageAndModules)
{
  Outcome none = Kelvara("");
  EXPECT_EQ(none.status, 2);
  EXPECT_NE(none.err.find("retarget"), std::string::npos);

  Outcome help = Kelvara("--help");
  EXPECT_EQ(help.status, 0);
  for (const char* word : {"modules", "retarget", "inspect", "demo", "KELVARA_MODULE"})
    EXPECT_NE(help.out.find(word), std::string::npos) << word;

  Outcome retargetHelp = Kelvara("retarget --help");
  EXPECT_EQ(retargetHelp.status, 0);
  for (const char* word : {"--target", "--map", "--preset", "--root-scale", "--no-root-motion", "--timings"})
    EXPECT_NE(retargetHelp.out.find(word), std::string::npos) << word;

  Outcome unknown = Kelvara("frobnicate");
  EXPECT_EQ(unknown.status, 2);
  EXPECT_NE(unknown.err.find("kelvara: unknown command 'frobnicate'"), std::string::npos);

  Outcome modules = Kelvara("modules");
  EXPECT_EQ(modules.status, 0) << modules.err;
  EXPECT_NE(modules.out.find("Module net.telvo.kelvara"), std::string::npos);
  EXPECT_NE(modules.out.find("Withdrawn at unload, in order:"), std::string::npos);
  Outcome twoModules = Kelvara("modules a b");
  EXPECT_EQ(twoModules.status, 2);
  EXPECT_NE(twoModules.err.find("expected at most one module path, found 2 arguments"), std::string::npos);

  Outcome missingTarget = Kelvara("retarget a.bvh -o out.bvh");
  EXPECT_EQ(missingTarget.status, 2);
}

// Each bad file ends with its FILE:LINE message, status 2 and nothing written.
TEST_F(CliTest, BadInputLeavesNoOutput)
{
  const std::string good = kGood;
  auto replaced = [&](const std::string& from, const std::string& to) {
    std::string text = good;
    text.replace(text.rfind(from), from.size(), to);
    return text;
  };
  struct Case
  {
    const char* name;
    std::string text;
    const char* message;
  };
  const Case cases[] = {
    {"truncated.bvh", good.substr(0, 150), "truncated.bvh:9: expected"},
    {"count.bvh", replaced("1 1 1 1 1 1 1 1 1\n", "1 1 1 1 1 1 1 1\n"), "count.bvh:20: expected 9 numbers, found 8"},
    {"channel.bvh", replaced("Xrotation Yrotation\n  JOINT", "Xrotation Wrotation\n  JOINT"),
     "channel.bvh:5: expected a channel name, found 'Wrotation'"},
    {"number.bvh", replaced("1 1 1 1 1 1 1 1 1\n", "1 1 1 1 1 1 1 1 x1\n"), "number.bvh:20: expected a number, found 'x1'"},
    {"frames.bvh", replaced("Frames: 2\n", ""), "frames.bvh:17: expected 'Frames:'"},
  };
  Write("good.bvh", good);
  for (const Case& c : cases)
  {
    Write(c.name, c.text);
    for (const std::string& args : {std::string("retarget ") + c.name + " --target good.bvh -o out.bvh",
                                    std::string("retarget good.bvh --target ") + c.name + " -o out.bvh"})
    {
      Outcome run = Kelvara(args);
      EXPECT_EQ(run.status, 2) << args;
      EXPECT_NE(run.err.find(c.message), std::string::npos) << args << "\n" << run.err;
      EXPECT_EQ(CountFilesExcept({"good.bvh", c.name}), 0) << args;
    }
    fs::remove(_dir / c.name);
  }

  Write("bad.json", "{\n  \"Spine\": \"Spine\",\n  \"Hips\" \"Hips\"\n}\n");
  Outcome badJson = Kelvara("retarget good.bvh --target good.bvh -o out.bvh --map bad.json");
  EXPECT_EQ(badJson.status, 2);
  EXPECT_NE(badJson.err.find("bad.json:3: expected a JSON object of joint names, found invalid JSON"),
            std::string::npos)
    << badJson.err;
  Write("unknown.json", "{\n  \"Spine\": \"Spine\",\n  \"Hips\": \"Pelvis\"\n}\n");
  Outcome unknownJoint = Kelvara("retarget good.bvh --target good.bvh -o out.bvh --map unknown.json");
  EXPECT_EQ(unknownJoint.status, 2);
  EXPECT_NE(unknownJoint.err.find("unknown.json:3: expected a joint of good.bvh, found \"Pelvis\""), std::string::npos)
    << unknownJoint.err;
  Outcome badScale = Kelvara("retarget good.bvh --target good.bvh -o out.bvh --root-scale -1");
  EXPECT_EQ(badScale.status, 2);
  Outcome badPreset = Kelvara("retarget good.bvh --target good.bvh -o out.bvh --preset nosuch");
  EXPECT_EQ(badPreset.status, 2);
  EXPECT_NE(badPreset.err.find("expected a preset name (game, cmu, studio, generic), found \"nosuch\""),
            std::string::npos);
  EXPECT_EQ(CountFilesExcept({"good.bvh", "bad.json", "unknown.json"}), 0);
}

TEST_F(CliTest, DemoWritesTheTargetSkeletonWithTheWalk)
{
  Outcome demo = Kelvara("demo");
  ASSERT_EQ(demo.status, 0) << demo.err;
  EXPECT_NE(demo.out.find("pelvis"), std::string::npos);
  EXPECT_NE(demo.out.find("21 of 21 target joints driven"), std::string::npos) << demo.out;
  kelvara::BvhFile out;
  std::string error;
  ASSERT_TRUE(kelvara::ReadBvh((_dir / "demo_out.bvh").string(), out, error)) << error;
  EXPECT_EQ(out.joints.size(), 21u);
  EXPECT_EQ(out.frameCount, 240);

  Outcome other = Kelvara("demo -o walk.bvh --frames 10");
  ASSERT_EQ(other.status, 0) << other.err;
  ASSERT_TRUE(kelvara::ReadBvh((_dir / "walk.bvh").string(), out, error)) << error;
  EXPECT_EQ(out.frameCount, 10);
}

TEST_F(CliTest, RetargetOutputLoadsInAnotherReader)
{
  if (!fs::exists(kCmuClip))
    GTEST_SKIP() << kCmuClip << " is not installed";
  ASSERT_EQ(Kelvara("demo -o target.bvh --frames 1").status, 0);
  Outcome run = Kelvara(std::string("retarget ") + kCmuClip + " --target target.bvh -o out.bvh --timings");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.err.find("timings: reading"), std::string::npos);
  EXPECT_NE(run.out.find("preset cmu, 21 of 21"), std::string::npos) << run.out;

  Outcome inspect = Kelvara(std::string("inspect ") + kCmuClip);
  ASSERT_EQ(inspect.status, 0);
  EXPECT_NE(inspect.out.find("frames: 2752"), std::string::npos);
  EXPECT_NE(inspect.out.find("preset: cmu (21 of 21 body parts filled)"), std::string::npos);
  EXPECT_TRUE(std::regex_search(inspect.out, std::regex("Left upper arm +LeftArm\n")));

  if (!fs::exists("/usr/bin/assimp"))
    GTEST_SKIP() << "assimp is not installed";
  // 21 joints and 5 end sites are nodes; every joint is an animation channel; the animation
  // lasts one tick less than the frames.
  const std::string info = "cd '" + _dir.string() + "' && timeout 120 assimp info out.bvh > info.txt 2>&1";
  ASSERT_EQ(std::system(info.c_str()), 0);
  const std::string text = Slurp(_dir / "info.txt");
  EXPECT_TRUE(std::regex_search(text, std::regex("Nodes: +26\n"))) << text;
  EXPECT_TRUE(std::regex_search(text, std::regex("Animation Channels: +21\n"))) << text;
  EXPECT_NE(text.find("└╴hand_r"), std::string::npos);
  const std::string dump = "cd '" + _dir.string() + "' && timeout 120 assimp dump out.bvh out.assxml > /dev/null 2>&1";
  ASSERT_EQ(std::system(dump.c_str()), 0);
  EXPECT_NE(Slurp(_dir / "out.assxml").find("duration=\"2.751000e+03\""), std::string::npos);
}

} // namespace

namespace
{

// A character saved once and given as the target retargets byte for byte like its BVH file, and
// the preview of the result is a picture.
TEST_F(CliTest, SavedTargetRetargetsLikeItsBvhAndPreviews)
{
  if (!fs::exists(kCmuClip))
    GTEST_SKIP() << kCmuClip << " is not installed";
  ASSERT_EQ(Kelvara("demo -o target.bvh --frames 2").status, 0);
  Outcome saved = Kelvara("character target.bvh -o target.json");
  ASSERT_EQ(saved.status, 0) << saved.err;
  EXPECT_NE(saved.out.find("21 of 21 body parts filled"), std::string::npos) << saved.out;

  ASSERT_EQ(Kelvara(std::string("retarget ") + kCmuClip + " --target target.bvh -o from_bvh.bvh -q").status, 0);
  Outcome fromJson = Kelvara(std::string("retarget ") + kCmuClip + " --target target.json -o from_json.bvh -q");
  ASSERT_EQ(fromJson.status, 0) << fromJson.err;
  EXPECT_EQ(Slurp(_dir / "from_json.bvh"), Slurp(_dir / "from_bvh.bvh"));

  // The source's character saved once stands for the clip's skeleton just as well.
  ASSERT_EQ(Kelvara(std::string("character ") + kCmuClip + " -o source.json").status, 0);
  Outcome savedSource = Kelvara(std::string("retarget ") + kCmuClip +
                                " --source-character source.json --target target.bvh -o from_saved_source.bvh -q");
  ASSERT_EQ(savedSource.status, 0) << savedSource.err;
  EXPECT_EQ(Slurp(_dir / "from_saved_source.bvh"), Slurp(_dir / "from_bvh.bvh"));
  Outcome wrongClip = Kelvara("retarget target.bvh --source-character source.json --target target.bvh -o never.bvh");
  EXPECT_EQ(wrongClip.status, 2);
  EXPECT_NE(wrongClip.err.find("expected the 31 joints of the saved character"), std::string::npos) << wrongClip.err;

  Outcome preview = Kelvara(std::string("preview ") + kCmuClip + " from_json.bvh --frames 0,100 -o p.png --panel-size 100");
  ASSERT_EQ(preview.status, 0) << preview.err;
  EXPECT_GT(fs::file_size(_dir / "p.png"), 1000u);

  // A broken saved character is refused with its path and nothing is written.
  Write("broken.json", "{\"format\": \"kelvara character\", \"version\": 1, \"preset\": \"cmu\", \"skeleton\": 3}");
  Outcome broken = Kelvara(std::string("retarget ") + kCmuClip + " --target broken.json -o never.bvh");
  EXPECT_EQ(broken.status, 2);
  EXPECT_NE(broken.err.find("broken.json: /skeleton: expected a non-empty array of joints, found 3"), std::string::npos)
    << broken.err;
  EXPECT_FALSE(fs::exists(_dir / "never.bvh"));
}

} // namespace
