// The kelvara command as a user runs it: exit codes, messages, files left behind.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "support/run_app.h"

namespace
{

namespace fs = std::filesystem;

const std::string kCmuClip = "/usr/share/assimp/models/BVH/01_01.bvh";

// Runs of blanks and line feeds as one space, so that texts survive the help formatter's wrapping.
std::string Squeezed(const std::string& text)
{
  return std::regex_replace(text, std::regex("\\s+"), " ");
}

class CliTest : public kelvara_test::AppFolderTest
{
protected:
  void Write(const std::string& name, const std::string& text) { std::ofstream(_dir / name, std::ios::binary) << text; }

  // Names of the files in the test's folder other than the captured output streams.
  std::set<std::string> Files() const
  {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(_dir))
      if (const std::string name = entry.path().filename().string(); name != "stdout.txt" && name != "stderr.txt")
        names.insert(name);
    return names;
  }
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
  Write("walk.xyz", "not a motion file\n");
  const std::set<std::string> inputs = Files();
  const std::string retarget = "retarget good.bvh --target good.bvh -o out.bvh ";
  // The formats read and written, as the overview and the retarget command's help name them.
  const std::string read = "BVH (.bvh), glTF (.gltf, .glb), saved characters (.json), and through assimp FBX (.fbx), "
                           "Collada (.dae, .zae), DirectX (.x)";
  const std::string written = "BVH (.bvh), glTF (.glb, .gltf)";
  // Texts are looked for, squeezed, on standard output when the status is 0, else on standard error.
  const std::tuple<std::string, int, std::vector<std::string>> cases[] = {
    {"", 2, {"retarget"}},
    {"--help",
     0,
     {"modules", "retarget", "inspect", "demo", "character", "preview", "KELVARA_MODULE", "Reads " + read,
      "Writes " + written + "."}},
    {"retarget --help",
     0,
     {"--target", "--map", "--preset", "--root-scale", "--no-root-motion", "--timings", "--skeleton-root",
      "--source-skeleton-root", "--animation", "--output-format", "--replace-animations", "--keep-rest",
      "--no-plant-feet", "give the motion (" + read,
      "File to write, by its extension: " + written + ".", "Format of a batch's outputs: bvh, glb or gltf"}},
    {"frobnicate", 2, {"kelvara: unknown command 'frobnicate'"}},
    {"modules", 0, {"Module net.telvo.kelvara", "Withdrawn at unload, in order:"}},
    {"modules a b", 2, {"expected at most one module path, found 2 arguments"}},
    {"retarget good.bvh -o out.bvh", 2, {}},
    {"retarget empty.bvh --target good.bvh -o out.bvh", 2, {"empty.bvh:1: expected 'HIERARCHY', found end of file"}},
    {"retarget empty.bvh --target good.bvh -o out.glb", 2, {"empty.bvh:1: expected 'HIERARCHY', found end of file"}},
    {"retarget good.bvh --target noroot.bvh -o out.bvh", 2, {"noroot.bvh:2: expected ROOT, found 'MOTION'"}},
    {"retarget missing.bvh --target good.bvh -o out.gltf", 2, {"cannot read 'missing.bvh': No such file or directory"}},
    {"retarget walk.xyz --target good.bvh -o out.bvh",
     2,
     {"walk.xyz: expected a file of a format kelvara reads (BVH (.bvh), glTF (.gltf, .glb)", "found extension '.xyz'"}},
    {"retarget good.bvh --target good.bvh -o out.txt",
     2,
     {"out.txt: expected an output of a format kelvara writes (" + written + "), found extension '.txt'"}},
    // The message names the option given, not a file the user never wrote.
    {"retarget good.bvh good.bvh --target good.bvh -o outdir --output-format fbx", 2, {"--output-format", "fbx"}},
    {retarget + "--map bad.json", 2, {"bad.json:3: expected a JSON object of joint names, found invalid JSON"}},
    {retarget + "--map unknown.json", 2, {"unknown.json:3: expected a joint of good.bvh, found \"Pelvis\""}},
    {retarget + "--map absent.json", 2, {"absent.json: cannot be read"}},
    {retarget + "--root-scale -1", 2, {"expected auto or a positive number for --root-scale, found \"-1\""}},
    {retarget + "--preset nosuch", 2, {"expected a preset name (game, cmu, studio, generic), found \"nosuch\""}},
  };
  for (const auto& [args, status, texts] : cases)
  {
    SCOPED_TRACE(args);
    const kelvara_test::AppOutcome run = Kelvara(args);
    EXPECT_EQ(run.status, status) << run.err;
    const std::string stream = Squeezed(status == 0 ? run.out : run.err);
    for (const std::string& text : texts)
      EXPECT_NE(stream.find(text), std::string::npos) << text << "\n" << stream;
    EXPECT_EQ(Files(), inputs);
  }
}

// Rest matching and planted feet are what every command does unless told otherwise: the same
// bytes as asking for them, in single runs and batches, in the report and in the demo.
TEST_F(CliTest, DefaultsMatchTheRestAndPlantTheFeetInEveryCommand)
{
  ASSERT_EQ(Kelvara("demo --write-target target.bvh").status, 0);
  fs::copy_file(kCmuClip, _dir / "walk.bvh");
  const std::string retarget = "retarget walk.bvh --target target.bvh -q -o ";
  ASSERT_EQ(Kelvara(retarget + "default.bvh --report report.json").status, 0);
  ASSERT_EQ(Kelvara(retarget + "asked.bvh --match-rest --plant-feet").status, 0);
  ASSERT_EQ(Kelvara(retarget + "kept.bvh --keep-rest").status, 0);
  ASSERT_EQ(Kelvara(retarget + "free.bvh --no-plant-feet").status, 0);
  ASSERT_EQ(Kelvara("retarget walk.bvh target.bvh --target target.bvh -q -o batch").status, 0);
  const std::string planted = kelvara_test::ReadWholeFile(_dir / "default.bvh");
  EXPECT_EQ(planted, kelvara_test::ReadWholeFile(_dir / "asked.bvh"));
  EXPECT_EQ(planted, kelvara_test::ReadWholeFile(_dir / "batch/walk.bvh"));
  EXPECT_NE(planted, kelvara_test::ReadWholeFile(_dir / "kept.bvh"));
  EXPECT_NE(planted, kelvara_test::ReadWholeFile(_dir / "free.bvh"));

  const std::string report = kelvara_test::ReadWholeFile(_dir / "report.json");
  EXPECT_NE(report.find("\"matchRest\": true"), std::string::npos);
  EXPECT_NE(report.find("\"plantFeet\": true"), std::string::npos);
  EXPECT_NE(report.find("\"planted\": true"), std::string::npos);

  const kelvara_test::AppOutcome demo = Kelvara("demo --frames 120");
  EXPECT_NE(demo.out.find("feet planted during the walk's ground contacts"), std::string::npos) << demo.out;
  EXPECT_NE(demo.out.find("the matched one was written"), std::string::npos) << demo.out;
}

// A captured clip retargets, written as BVH or glTF, and inspects; saved characters that do not fit
// are refused.
TEST_F(CliTest, CmuClipRetargetsInspectsAndMisfitSavedCharactersAreRefused)
{
  if (!fs::exists(kCmuClip))
    GTEST_SKIP() << kCmuClip << " is not installed";
  ASSERT_EQ(Kelvara("demo --write-target target.bvh").status, 0);
  const kelvara_test::AppOutcome run = Kelvara("retarget " + kCmuClip + " --target target.bvh -o out.bvh --timings");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.err.find("timings: reading"), std::string::npos);
  EXPECT_NE(run.out.find("source " + kCmuClip + ": 31 joints, 2752 frames of"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("preset cmu, 21 of 21"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("wrote out.bvh: 21 joints, 2752 frames of"), std::string::npos) << run.out;

  const kelvara_test::AppOutcome inspect = Kelvara("inspect " + kCmuClip);
  ASSERT_EQ(inspect.status, 0) << inspect.err;
  EXPECT_EQ(inspect.out.rfind(kCmuClip + " (BVH)\njoints (31):\n", 0), 0u) << inspect.out;
  EXPECT_TRUE(std::regex_search(inspect.out, std::regex("\n  Hips +offset \\(0, 0, 0\\)  \\[Xposition Yposition "
                                                        "Zposition Zrotation Yrotation Xrotation\\]  = Hips\n")))
    << inspect.out;
  EXPECT_NE(inspect.out.find("\nunit: not stated by the file\nanimation: 01_01\nframes: 2752\n"), std::string::npos);
  EXPECT_NE(inspect.out.find("preset: cmu (21 of 21 body parts filled)"), std::string::npos);
  EXPECT_TRUE(std::regex_search(inspect.out, std::regex("Left upper arm +LeftArm\n")));
  // A BVH rest has no rotation or scale to show.
  EXPECT_TRUE(inspect.out.find("rotation (") == std::string::npos && inspect.out.find("scale (") == std::string::npos);

  // The same clip written as glTF reads back with the target's joints and every frame.
  const kelvara_test::AppOutcome glb = Kelvara("retarget " + kCmuClip + " --target target.bvh -o out.glb -q");
  ASSERT_EQ(glb.status, 0) << glb.err;
  EXPECT_NE(glb.out.find("wrote out.glb: 21 joints, 2752 frames of"), std::string::npos) << glb.out;
  const kelvara_test::AppOutcome written = Kelvara("inspect out.glb");
  ASSERT_EQ(written.status, 0) << written.err;
  EXPECT_EQ(written.out.rfind("out.glb (GLB)\njoints (21):\n", 0), 0u) << written.out;
  EXPECT_NE(written.out.find("\nframes: 2752\n"), std::string::npos) << written.out;
  EXPECT_EQ(written.out.find("  ["), std::string::npos) << "channels shown for a glTF file";

  const kelvara_test::AppOutcome saved = Kelvara("character target.bvh -o target.json");
  ASSERT_EQ(saved.status, 0) << saved.err;
  EXPECT_NE(saved.out.find("saved target.json: 21 joints, preset "), std::string::npos) << saved.out;
  EXPECT_NE(saved.out.find(", 21 of 21 body parts filled"), std::string::npos) << saved.out;
  ASSERT_EQ(Kelvara("character " + kCmuClip + " -o source.json").status, 0);
  // A saved source for another skeleton, a broken saved target, and a saved character given as
  // the motion are refused.
  Write("broken.json", "{\"format\": \"kelvara character\", \"version\": 1, \"preset\": \"cmu\", \"skeleton\": 3}");
  const std::pair<std::string, std::string> refused[] = {
    {"target.bvh --source-character source.json --target target.bvh",
     "target.bvh: expected the 31 joints of source.json, found 21"},
    {kCmuClip + " --target broken.json", "broken.json: /skeleton: expected a non-empty array of joints, found 3"},
    {"source.json --target target.bvh", "source.json: expected an animation to retarget, found none"},
  };
  for (const auto& [args, message] : refused)
  {
    SCOPED_TRACE(args);
    const kelvara_test::AppOutcome refusal = Kelvara("retarget " + args + " -o never.bvh");
    EXPECT_EQ(refusal.status, 2);
    EXPECT_NE(refusal.err.find(message), std::string::npos) << refusal.err;
    EXPECT_FALSE(fs::exists(_dir / "never.bvh"));
  }
}

} // namespace
