// The whole road through every format, checked by readers we did not write: the Khronos
// validator passes every glTF written, three.js plays the written animation, and the world
// rotations it shows are the tool's own, or those of independent quaternion arithmetic.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "anim/pose.h"
#include "io/bvh/bvh_file.h"
#include "io/gltf/gltf_document.h"
#include "road/clip_run.h"
#include "support/gltf_check.h"
#include "support/gltf_text.h"
#include "support/loaded_module.h"
#include "support/quaternion.h"
#include "support/run_app.h"

namespace kelvara
{
namespace
{

namespace fs = std::filesystem;
using kelvara_test::Quat;

const std::string kModels = "/usr/share/assimp/models/";
const std::string kWalk = kModels + "BVH/01_01.bvh";
constexpr double kToleranceDegrees = 0.01;

// Per node, the world rotation at each frame as [x, y, z, w], for check_gltf.mjs.
struct Expected
{
  std::string animation;
  std::vector<double> times;
  std::map<int, std::vector<Quat>> nodes;

  void Write(const fs::path& path) const
  {
    nlohmann::json out = {{"animation", animation}, {"times", times}, {"toleranceDegrees", kToleranceDegrees}};
    out["nodes"] = nlohmann::json::array();
    for (const auto& [node, rotations] : nodes)
    {
      nlohmann::json list = nlohmann::json::array();
      for (const Quat& q : rotations)
        list.push_back({q.x, q.y, q.z, q.w});
      out["nodes"].push_back({{"node", node}, {"rotations", list}});
    }
    std::ofstream(path) << out.dump();
  }
};

Quat FromRotation(const telvo::Matrix& m)
{
  const Quaternion q = FromMatrix(m);
  return {q.w, q.x, q.y, q.z};
}

class FormatsRoadTest : public kelvara_test::AppFolderTest
{
protected:
  // Retargets source onto target in this process, as the command does, writing out.
  ClipRun Retarget(const std::string& source, const std::string& target, const std::string& out,
                   RoadOptions options = {})
  {
    kelvara_test::LoadedModuleForTests();
    options.targetPath = target;
    ClipRun run;
    run.sourcePath = source;
    run.outputPath = (_dir / out).string();
    Road road(options);
    Problem problem;
    EXPECT_TRUE(road.Setup(problem)) << problem.message;
    EXPECT_TRUE(RunClip(road, run)) << run.problem.message;
    _target = road.Target();
    _driven = run.side != nullptr ? DrivenJoints(run.side->prepared) : std::vector<bool>();
    run.side = nullptr; // the road is gone
    return run;
  }

  // three.js plays out's animation; each driven joint's world rotation must be the tool's own.
  void ExpectThreeJsAgrees(const ClipRun& run)
  {
    kelvara_test::ExpectValidGltf(run.outputPath);
    Expected expected;
    expected.animation = run.writtenAnimation;
    WorldPose pose;
    for (int f = 0; f < run.output.frameCount; ++f)
    {
      expected.times.push_back(f * run.output.frameTime);
      ASSERT_TRUE(pose.Evaluate(_target.skeleton, &run.output, f));
      for (std::size_t j = 0; j < _target.skeleton.joints.size(); ++j)
        if (_driven[j])
          expected.nodes[_target.gltf->nodeOfJoint[j]].push_back(FromRotation(pose[j]));
    }
    ASSERT_FALSE(expected.nodes.empty());
    expected.Write(_dir / "expected.json");
    const kelvara_test::CheckOutcome check =
      kelvara_test::RunGltfCheck(_dir, "rotations '" + run.outputPath + "' '" + (_dir / "expected.json").string() + "'");
    EXPECT_EQ(check.status, 0) << check.result.dump() << check.err;
  }

  AnimationFile _target;
  std::vector<bool> _driven;
};

TEST_F(FormatsRoadTest, BvhWalkOntoConvertedCharactersPlaysInThreeJs)
{
  // DirectX and FBX characters through assimp, each written as a GLB holding the whole character.
  for (const std::string& character : {kModels + "X/BCN_Epileptic.X", kModels + "FBX/animation_with_skeleton.fbx"})
  {
    SCOPED_TRACE(character);
    const ClipRun run = Retarget(kWalk, character, "walk.glb");
    ASSERT_EQ(run.output.frameCount, 2752);
    EXPECT_EQ(run.writtenAnimation, "01_01");
    if (std::count(_driven.begin(), _driven.end(), true) == 0)
      kelvara_test::ExpectValidGltf(run.outputPath); // no joint pairs up: nothing to compare
    else
      ExpectThreeJsAgrees(run);
  }
  // Collada, written by assimp's own exporter from another DirectX character.
  const fs::path dae = _dir / "wuson.dae";
  ASSERT_EQ(std::system(("assimp export '" + kModels + "X/Testwuson.X' '" + dae.string() +
                         "' -fcollada >/dev/null 2>&1")
                          .c_str()),
            0);
  ExpectThreeJsAgrees(Retarget(kWalk, dae.string(), "walk_dae.gltf"));
}

TEST_F(FormatsRoadTest, GltfAnimationOntoGltfAndBvhCharacters)
{
  // The walk on the DirectX character becomes a glTF source for the demo's character.
  const ClipRun first = Retarget(kWalk, kModels + "X/BCN_Epileptic.X", "bcn.glb");
  ASSERT_EQ(Kelvara("demo --frames 10 -o demo.bvh").status, 0);
  RoadOptions options;
  options.animation = "01_01";
  const ClipRun second = Retarget(first.outputPath, (_dir / "demo.glb").string(), "demo_walk.glb", options);
  EXPECT_EQ(second.output.frameCount, first.output.frameCount);
  ExpectThreeJsAgrees(second);

  // And onto a BVH skeleton: the output is that skeleton's file, with the glTF's frames.
  const ClipRun third = Retarget(first.outputPath, kModels + "BVH/Boxing_Toes.bvh", "boxing.bvh", options);
  BvhFile written;
  std::string error;
  ASSERT_TRUE(ReadBvh(third.outputPath, written, error)) << error;
  EXPECT_EQ(written.joints.size(), 21u);
  EXPECT_EQ(written.frameCount, first.output.frameCount);
  EXPECT_TRUE(written.warnings.empty());
}

// A character authored Z up in centimetres, joints named as the walk's, two of them with a rest
// rotation of their own.
struct ZUpCentimetres
{
  Quat armature = kelvara_test::AxisAngle(1, 0, 0, -90);
  struct Node
  {
    const char* name;
    int parent; // index into nodes, -1 for the hips
    telvo::Vector offset;
    Quat rotation;
  };
  std::vector<Node> nodes = {
    {"Hips", -1, {0, 0, 95}, {}},
    {"LeftUpLeg", 0, {9, 0, -5}, {}},
    {"LeftLeg", 1, {0, 0, -44}, {}},
    {"LeftFoot", 2, {0, 0, -42}, {}},
    {"LeftToeBase", 3, {0, -12, -8}, {}},
    {"RightUpLeg", 0, {-9, 0, -5}, {}},
    {"RightLeg", 5, {0, 0, -44}, {}},
    {"RightFoot", 6, {0, 0, -42}, {}},
    {"RightToeBase", 7, {0, -12, -8}, {}},
    {"Spine", 0, {0, 0, 12}, kelvara_test::AxisAngle(0, 0, 1, 20)},
    {"Spine1", 9, {0, 0, 20}, {}},
    {"Neck", 10, {0, 0, 22}, {}},
    {"Head", 11, {0, 0, 10}, {}},
    {"LeftShoulder", 10, {4, 0, 18}, {}},
    {"LeftArm", 13, {14, 0, 0}, kelvara_test::AxisAngle(0, 1, 0, 35)},
    {"LeftForeArm", 14, {27, 0, 0}, {}},
    {"LeftHand", 15, {24, 0, 0}, {}},
    {"RightShoulder", 10, {-4, 0, 18}, {}},
    {"RightArm", 17, {-14, 0, 0}, {}},
    {"RightForeArm", 18, {-27, 0, 0}, {}},
    {"RightHand", 19, {-24, 0, 0}, {}},
  };

  std::string Text() const
  {
    kelvara_test::GltfText g;
    g.json["scenes"] = {{{"nodes", {0}}}};
    g.json["nodes"] = {{{"name", "Armature"},
                        {"rotation", {armature.x, armature.y, armature.z, armature.w}},
                        {"scale", {0.01, 0.01, 0.01}},
                        {"children", {1}}}};
    nlohmann::json joints = nlohmann::json::array();
    for (std::size_t i = 0; i < nodes.size(); ++i)
    {
      const Node& n = nodes[i];
      g.json["nodes"].push_back({{"name", n.name},
                                 {"translation", {n.offset.x, n.offset.y, n.offset.z}},
                                 {"rotation", {n.rotation.x, n.rotation.y, n.rotation.z, n.rotation.w}}});
      if (n.parent >= 0)
        g.json["nodes"][static_cast<std::size_t>(n.parent) + 1]["children"].push_back(i + 1);
      joints.push_back(i + 1);
    }
    g.json["skins"] = {{{"joints", joints}}};
    return g.Text();
  }

  // World rest rotation of each joint, by the plain product down from the armature.
  std::vector<Quat> RestWorld() const
  {
    std::vector<Quat> world;
    for (const Node& n : nodes)
      world.push_back((n.parent < 0 ? armature : world[static_cast<std::size_t>(n.parent)]) * n.rotation);
    return world;
  }
};

// World rotations of every joint of a BVH file at frame, composed from its channels with the
// tests' own quaternions: the first channel listed is the outermost rotation.
std::vector<Quat> BvhWorld(const BvhFile& file, int frame)
{
  std::vector<Quat> world;
  const double* row = file.motion.data() + static_cast<std::size_t>(frame) * static_cast<std::size_t>(file.channelCount);
  for (const BvhJoint& joint : file.joints)
  {
    Quat local;
    for (std::size_t c = 0; c < joint.channels.size(); ++c)
    {
      const double v = row[joint.firstChannel + static_cast<int>(c)];
      switch (joint.channels[c])
      {
      case Channel::Xrotation:
        local = local * kelvara_test::AxisAngle(1, 0, 0, v);
        break;
      case Channel::Yrotation:
        local = local * kelvara_test::AxisAngle(0, 1, 0, v);
        break;
      case Channel::Zrotation:
        local = local * kelvara_test::AxisAngle(0, 0, 1, v);
        break;
      default:
        break;
      }
    }
    world.push_back(joint.parent < 0 ? local : world[static_cast<std::size_t>(joint.parent)] * local);
  }
  return world;
}

TEST_F(FormatsRoadTest, ZUpCentimetreCharacterTurnsAsTheWalkDoes)
{
  // A joint's world rotation is its source joint's turn since rest applied to its own world
  // rest rotation; the walk's rest has no rotation, so that is G_source(f) * G_target(rest). That
  // is the raw transfer: the target's own rest, the feet not planted.
  const ZUpCentimetres character;
  std::ofstream(_dir / "zup.gltf") << character.Text();
  const kelvara_test::AppOutcome run =
    Kelvara("retarget '" + kWalk + "' --target zup.gltf -o zup_walk.glb --keep-rest --no-plant-feet");
  ASSERT_EQ(run.status, 0) << run.err;
  kelvara_test::ExpectValidGltf(_dir / "zup_walk.glb");
  // Which source joint drives which is the tool's choice, read from its mapping table.
  std::map<std::string, std::string> sourceOf;
  std::istringstream lines(run.out);
  for (std::string line; std::getline(lines, line);)
  {
    std::istringstream words(line);
    std::string target, arrow, source;
    if (words >> target >> arrow >> source && arrow == "<-")
      sourceOf[target] = source;
  }

  BvhFile walk;
  std::string error;
  ASSERT_TRUE(ReadBvh(kWalk, walk, error)) << error;
  const std::vector<Quat> rest = character.RestWorld();
  Expected expected;
  expected.animation = "01_01";
  for (int f = 0; f < walk.frameCount; f += 7)
  {
    expected.times.push_back(f * walk.frameTime);
    const std::vector<Quat> source = BvhWorld(walk, f);
    for (std::size_t j = 0; j < character.nodes.size(); ++j)
    {
      int s = -1;
      for (std::size_t k = 0; k < walk.joints.size(); ++k)
        if (walk.joints[k].name == sourceOf[character.nodes[j].name])
          s = static_cast<int>(k);
      ASSERT_GE(s, 0) << character.nodes[j].name << " is not driven";
      expected.nodes[static_cast<int>(j) + 1].push_back(source[static_cast<std::size_t>(s)] * rest[j]);
    }
  }
  expected.Write(_dir / "expected.json");
  const kelvara_test::CheckOutcome check =
    kelvara_test::RunGltfCheck(_dir, "rotations '" + (_dir / "zup_walk.glb").string() + "' '" +
                                       (_dir / "expected.json").string() + "'");
  EXPECT_EQ(check.status, 0) << check.result.dump() << check.err;
}

// The reader's refusals and their messages are the glTF and assimp tests'; here, that the
// command turns one into exit status 2 and writes nothing.
TEST_F(FormatsRoadTest, BrokenCharactersAreRefusedAndNothingIsWritten)
{
  nlohmann::json cycle = nlohmann::json::parse(ZUpCentimetres().Text());
  cycle["nodes"][5]["children"] = {1};
  std::ofstream(_dir / "cycle.gltf") << cycle.dump();
  const kelvara_test::AppOutcome run = Kelvara("retarget '" + kWalk + "' --target cycle.gltf -o out.glb -q");
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.err.rfind("kelvara: cycle.gltf: ", 0), 0u) << run.err;
  EXPECT_FALSE(fs::exists(_dir / "out.glb"));
  const kelvara_test::AppOutcome spider =
    Kelvara("retarget '" + kWalk + "' --target '" + kModels + "FBX/spider.fbx' -o out.glb -q");
  EXPECT_EQ(spider.status, 2);
  EXPECT_NE(spider.err.find("spider.fbx: expected a skin or an animated node hierarchy"), std::string::npos);
  EXPECT_FALSE(fs::exists(_dir / "out.glb"));
  const kelvara_test::AppOutcome format = Kelvara("retarget '" + kWalk + "' --target cycle.gltf -o out.fbx -q");
  EXPECT_EQ(format.status, 2);
  EXPECT_NE(format.err.find("expected an output of a format kelvara writes"), std::string::npos);
}

TEST_F(FormatsRoadTest, ExportersBvhWithAnExtraFrameLineIsReadWithAWarning)
{
  const kelvara_test::AppOutcome run =
    Kelvara("retarget '" + kModels + "BVH/Boxing_Toes.bvh' --target '" + kWalk + "' -o boxing.bvh -q");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.err.find("kelvara: warning: " + kModels + "BVH/Boxing_Toes.bvh:"), std::string::npos) << run.err;
  BvhFile written;
  std::string error;
  ASSERT_TRUE(ReadBvh((_dir / "boxing.bvh").string(), written, error)) << error;
  EXPECT_EQ(written.frameCount, 3069);
}

TEST_F(FormatsRoadTest, BatchOntoAGltfCharacterWritesGlbs)
{
  const ZUpCentimetres character;
  std::ofstream(_dir / "zup.gltf") << character.Text();
  const kelvara_test::AppOutcome run = Kelvara("retarget '" + kWalk + "' '" + kModels +
                                               "BVH/01_03.bvh' --target zup.gltf -o clips --jobs 2 -q");
  ASSERT_EQ(run.status, 0) << run.err;
  for (const char* name : {"01_01.gltf", "01_03.gltf"})
    kelvara_test::ExpectValidGltf(_dir / "clips" / name);
}

} // namespace
} // namespace kelvara
