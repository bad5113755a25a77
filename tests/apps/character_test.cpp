// Characters built from BVH skeletons: node ids, rest matrices, presets and sides.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>

#include "support/helper_fixture.h"
#include "character.h"
#include "support/loaded_module.h"
#include "telvo/registrybase.h"

namespace kelvara
{
namespace
{

using telvo::Vector;

struct JointSketch
{
  const char* name;
  int parent;
  Vector offset;
};

// A skeleton without motion; every joint gets three rotation channels, the root six.
BvhFile Skeleton(const std::string& path, std::initializer_list<JointSketch> sketches)
{
  BvhFile f;
  f.path = path;
  for (const JointSketch& s : sketches)
  {
    BvhJoint j;
    j.name = s.name;
    j.parent = s.parent;
    j.offset = s.offset;
    if (s.parent < 0)
      j.channels = {Channel::Xposition, Channel::Yposition, Channel::Zposition};
    j.channels.insert(j.channels.end(), {Channel::Zrotation, Channel::Xrotation, Channel::Yrotation});
    j.firstChannel = f.channelCount;
    f.channelCount += static_cast<int>(j.channels.size());
    f.joints.push_back(j);
  }
  return f;
}

// A person facing +Z, Y up, left on +X, with the given names in the studio layout.
BvhFile Humanoid(const std::string& path, const std::vector<std::string>& n, double side = 1.0)
{
  auto x = [&](double v) { return v * side; };
  BvhFile f = Skeleton(path, {
    {"", -1, {0, 10, 0}},                                        // 0 hips
    {"", 0, {0, 1, 0}},   {"", 1, {0, 2, 0}},   {"", 2, {0, 2, 0}}, {"", 3, {0, 1, 0}}, // 1 spine .. 4 head
    {"", 2, {x(1), 1.5, 0}}, {"", 5, {x(1), 0, 0}}, {"", 6, {x(3), 0, 0}}, {"", 7, {x(3), 0, 0}}, // 5-8 left arm
    {"", 2, {x(-1), 1.5, 0}}, {"", 9, {x(-1), 0, 0}}, {"", 10, {x(-3), 0, 0}}, {"", 11, {x(-3), 0, 0}}, // right arm
    {"", 0, {x(1), 0, 0}}, {"", 13, {0, -5, 0}}, {"", 14, {0, -4, 0}}, {"", 15, {0, -1, 2}}, // 13-16 left leg
    {"", 0, {x(-1), 0, 0}}, {"", 17, {0, -5, 0}}, {"", 18, {0, -4, 0}}, {"", 19, {0, -1, 2}}, // right leg
  });
  for (std::size_t i = 0; i < f.joints.size(); ++i)
    f.joints[i].name = n[i];
  return f;
}

const std::vector<std::string> kStudioNames = {
  "Hips", "Ab", "Chest", "Neck", "Head", "LeftCollar", "LeftShoulder", "LeftElbow", "LeftWrist", "RightCollar",
  "RightShoulder", "RightElbow", "RightWrist", "LeftHip", "LeftKnee", "LeftAnkle", "LeftToe", "RightHip",
  "RightKnee", "RightAnkle", "RightToe"};
const std::vector<std::string> kGameNames = {
  "rig:Hips", "rig:Spine", "rig:Spine1", "rig:Neck", "rig:Head", "rig:LeftShoulder", "rig:LeftArm",
  "rig:LeftForeArm", "rig:LeftHand", "rig:RightShoulder", "rig:RightArm", "rig:RightForeArm", "rig:RightHand",
  "rig:LeftUpLeg", "rig:LeftLeg", "rig:LeftFoot", "rig:LeftToeBase", "rig:RightUpLeg", "rig:RightLeg",
  "rig:RightFoot", "rig:RightToeBase"};
const std::vector<std::string> kGenericNames = {
  "pelvis", "spine_01", "spine_02", "neck_01", "head", "clavicle_l", "upperarm_l", "lowerarm_l", "hand_l",
  "clavicle_r", "upperarm_r", "lowerarm_r", "hand_r", "thigh_l", "calf_l", "foot_l", "ball_l", "thigh_r",
  "calf_r", "foot_r", "ball_r"};

class CharacterTest : public kelvara_test::HelperTest
{
protected:
  void Fill(const BvhFile& file, Character& c, const std::string& preset = "")
  {
    std::string error;
    ASSERT_TRUE(BuildCharacter(file, "target", c, error)) << error;
    ASSERT_TRUE(ChooseAndFillPreset(c, _helper, preset, error)) << error;
  }

  std::string JointOf(const Character& c, int part)
  {
    const int j = c.partJoint[static_cast<std::size_t>(part)];
    return j < 0 ? "(empty)" : c.file->joints[static_cast<std::size_t>(j)].name;
  }

};

TEST_F(CharacterTest, NodeIdsFollowThePathAndTheRole)
{
  // Two siblings of one name, and a name that recurs deeper down.
  const BvhFile f = Skeleton("ids.bvh", {{"Root", -1, {}}, {"Arm", 0, {}}, {"Arm", 0, {}}, {"Root", 2, {}}});
  EXPECT_EQ(JointPath(f, 3), "Root/Arm#2/Root");
  Character a;
  Character b;
  Character other;
  std::string error;
  ASSERT_TRUE(BuildCharacter(f, "source", a, error)) << error;
  ASSERT_TRUE(BuildCharacter(f, "source", b, error)) << error;
  ASSERT_TRUE(BuildCharacter(f, "target", other, error)) << error;
  std::set<telvo::Uuid::Bytes> seen;
  for (std::size_t j = 0; j < f.joints.size(); ++j)
  {
    EXPECT_TRUE(a.uuids[j].IsValid());
    EXPECT_EQ(a.uuids[j].GetBytes(), b.uuids[j].GetBytes()) << j;
    EXPECT_FALSE(a.uuids[j] == other.uuids[j]) << j;
    EXPECT_EQ(a.uuids[j].GetBytes()[6] >> 4, 8);
    EXPECT_EQ(a.uuids[j].GetBytes()[8] >> 6, 2);
    seen.insert(a.uuids[j].GetBytes());
    seen.insert(other.uuids[j].GetBytes());
    // The tree node and the rest node transform carry the joint's id.
    EXPECT_TRUE(a.nodes[j]->GetUuid() == a.uuids[j]);
    EXPECT_EQ(a.nodes[j]->GetName().View(), f.joints[j].name);
  }
  EXPECT_EQ(seen.size(), 2 * f.joints.size());
  // Only the text decides: a known value of the hash pins it across builds and machines.
  EXPECT_EQ(telvo::Uuid::Create(JointIdBytes("source", "Root")).GetValue().ToString().View(),
            telvo::Uuid::Create(JointIdBytes("source", "Root")).GetValue().ToString().View());
  EXPECT_NE(JointIdBytes("source", "Root/Arm"), JointIdBytes("source", "Root/Arm#2"));
}

TEST_F(CharacterTest, RestPoseAccumulatesOffsets)
{
  const BvhFile f = Skeleton("rest.bvh", {{"A", -1, {1, 2, 3}}, {"B", 0, {0, 4, 0}}, {"C", 1, {-2, 0, 0.5}},
                                          {"D", 0, {10, 0, 0}}});
  Character c;
  std::string error;
  ASSERT_TRUE(BuildCharacter(f, "source", c, error)) << error;
  const Vector expected[] = {{1, 2, 3}, {1, 6, 3}, {-1, 6, 3.5}, {11, 2, 3}};
  const Vector parents[] = {{0, 0, 0}, {1, 2, 3}, {1, 6, 3}, {1, 2, 3}};
  ASSERT_EQ(c.restPose->GetNodeTransformCount(), 4);
  for (int j = 0; j < 4; ++j)
  {
    telvo::Result<telvo::CharacterNodeTransform> t = c.restPose->GetNodeTransformByID(c.uuids[static_cast<std::size_t>(j)]);
    ASSERT_TRUE(t.IsOk() && t.GetValue()) << j;
    telvo::Matrix global;
    global.off = expected[j];
    telvo::Matrix parent;
    parent.off = parents[j];
    EXPECT_EQ(t.GetValue()->GetGlobalMatrix(), global) << j;
    EXPECT_EQ(t.GetValue()->GetParentGlobalMatrix(), parent) << j;
  }
  // The definition holds what was built; its skeleton root is the root joint.
  EXPECT_TRUE(c.definition->GetSkeletonTree() == c.nodes[0]);
  EXPECT_TRUE(c.definition->GetSkeletonRestPose().IsSameObject(c.restPose));
  telvo::Result<telvo::Int> count = c.skeletonRoot->GetHiearchyCount(true);
  ASSERT_TRUE(count.IsOk());
  EXPECT_EQ(count.GetValue(), 4);
}

TEST_F(CharacterTest, PresetsFillTheirFamilies)
{
  const std::string cmu = "/usr/share/assimp/models/BVH/01_01.bvh";
  if (std::filesystem::exists(cmu))
  {
    BvhFile f;
    std::string error;
    ASSERT_TRUE(ReadBvh(cmu, f, error)) << error;
    Character c;
    Fill(f, c);
    EXPECT_EQ(c.preset, "cmu");
    EXPECT_EQ(JointOf(c, kSpine), "Spine");
    EXPECT_EQ(JointOf(c, kChest), "Spine1");
    EXPECT_EQ(JointOf(c, kNeck), "Neck");
    EXPECT_EQ(JointOf(c, kLeftClavicle), "LeftShoulder");
    EXPECT_EQ(JointOf(c, kLeftUpperArm), "LeftArm");
    EXPECT_EQ(JointOf(c, kLeftForearm), "LeftForeArm");
    EXPECT_EQ(JointOf(c, kRightHand), "RightHand");
    EXPECT_EQ(JointOf(c, kLeftThigh), "LeftUpLeg");
    EXPECT_EQ(JointOf(c, kLeftShin), "LeftLeg");
    EXPECT_EQ(JointOf(c, kRightToes), "RightToeBase");
    EXPECT_TRUE(c.notes.empty());
    // CMU clips face +Z with Y up: the character's left is +X.
    ASSERT_TRUE(c.orientation.known);
    EXPECT_GT(c.orientation.left.x, 0.99);
  }

  struct Family
  {
    const std::vector<std::string>* names;
    const char* preset;
  };
  for (const Family& family : {Family{&kStudioNames, "studio"}, Family{&kGameNames, "game"},
                               Family{&kGenericNames, "generic"}})
  {
    const BvhFile f = Humanoid(family.preset, *family.names);
    Character c;
    Fill(f, c);
    EXPECT_EQ(c.preset, family.preset);
    // The template follows the order of the humanoid's joints exactly.
    for (int part = 0; part < kBodyPartCount; ++part)
      EXPECT_EQ(JointOf(c, part), (*family.names)[static_cast<std::size_t>(part)])
        << family.preset << " " << GetBodyPartInfo(part).name;
    EXPECT_TRUE(c.notes.empty()) << family.preset;
    EXPECT_DOUBLE_EQ(HipHeight(c), 10.0);
  }

  // Studio names read with the CMU keywords: the shoulder is taken for the clavicle and the
  // knee-less legs stay empty.
  const BvhFile studio = Humanoid("studio", kStudioNames);
  Character forced;
  Fill(studio, forced, "cmu");
  EXPECT_EQ(forced.preset, "cmu");
  EXPECT_EQ(JointOf(forced, kLeftClavicle), "LeftShoulder");
  EXPECT_EQ(JointOf(forced, kLeftShin), "(empty)");
}

TEST_F(CharacterTest, SidesFollowTheRestPose)
{
  // The same names on a skeleton whose "left" limbs stand on the character's right.
  const BvhFile mirrored = Humanoid("mirrored", kStudioNames, -1.0);
  Character c;
  Fill(mirrored, c);
  EXPECT_EQ(c.preset, "studio");
  EXPECT_EQ(JointOf(c, kLeftUpperArm), "RightShoulder");
  EXPECT_EQ(JointOf(c, kRightUpperArm), "LeftShoulder");
  EXPECT_EQ(JointOf(c, kLeftToes), "RightToe");
  EXPECT_EQ(JointOf(c, kRightThigh), "LeftHip");
  ASSERT_EQ(c.notes.size(), 2u);
  EXPECT_EQ(c.notes[0], "left and right arm swapped: the joints named left lie on the character's right in the rest pose");
  // The body parts hold the swapped joints too: the association reads them.
  EXPECT_TRUE(c.bodyParts[kLeftHand]->GetSkeleton()[0] == c.uuids[static_cast<std::size_t>(c.FindJoint("RightWrist"))]);

  // Turned to face -Z, the same person has its left on -X: names and geometry agree again.
  BvhFile turned = Humanoid("turned", kStudioNames, -1.0);
  for (BvhJoint& j : turned.joints)
    j.offset.z = -j.offset.z;
  Character t;
  Fill(turned, t);
  EXPECT_TRUE(t.notes.empty());
  EXPECT_EQ(JointOf(t, kLeftUpperArm), "LeftShoulder");
  EXPECT_LT(t.orientation.left.x, -0.99);
  EXPECT_LT(t.orientation.forward.z, -0.99);
}

TEST_F(CharacterTest, AJointFillsOneBodyPartOnly)
{
  // One spine joint: the generic spine and chest keywords both reach it.
  std::vector<std::string> names = kGenericNames;
  names[1] = "spine1";
  names[2] = "spine_chest_missing";
  const BvhFile file = Humanoid("short", names); // the character points at it
  Character c;
  Fill(file, c, "generic");
  EXPECT_EQ(JointOf(c, kSpine), "spine1");
  EXPECT_EQ(JointOf(c, kChest), "(empty)");
  ASSERT_FALSE(c.notes.empty());
  EXPECT_EQ(c.notes[0], "Chest left empty: its joint spine1 already fills Spine");
}

} // namespace
} // namespace kelvara
