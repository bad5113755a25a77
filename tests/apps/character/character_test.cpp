// Characters built from skeletons: node ids, rest matrices, presets and sides.
#include "character/character.h"

#include <gtest/gtest.h>

#include <set>
#include <sstream>

#include "support/helper_fixture.h"
#include "support/quaternion.h"

namespace kelvara
{
namespace
{

using kelvara_test::MaxDiff;
using kelvara_test::Quat;
using telvo::Vector;

// Blank-separated names, and per joint its parent and rest translation.
Skeleton MakeSkeleton(const std::string& names, std::initializer_list<std::pair<int, Vector>> layout)
{
  Skeleton s;
  s.path = "test.bvh";
  std::istringstream in(names);
  for (const auto& [parent, translation] : layout)
  {
    Joint& j = s.joints.emplace_back();
    in >> j.name;
    j.parent = parent;
    j.translation = translation;
  }
  return s;
}

// A person facing +Z, Y up, its left on +X (on -X for side -1), joints in the body parts' order.
Skeleton Humanoid(const std::string& names, double side = 1.0)
{
  return MakeSkeleton(names, {{-1, {0, 10, 0}}, {0, {0, 1, 0}}, {1, {0, 2, 0}}, {2, {0, 2, 0}}, {3, {0, 1, 0}},
                          {2, {side, 1.5, 0}}, {5, {side, 0, 0}}, {6, {3 * side, 0, 0}}, {7, {3 * side, 0, 0}},
                          {2, {-side, 1.5, 0}}, {9, {-side, 0, 0}}, {10, {-3 * side, 0, 0}}, {11, {-3 * side, 0, 0}},
                          {0, {side, 0, 0}}, {13, {0, -5, 0}}, {14, {0, -4, 0}}, {15, {0, -1, 2}},
                          {0, {-side, 0, 0}}, {17, {0, -5, 0}}, {18, {0, -4, 0}}, {19, {0, -1, 2}}});
}

const char* const kStudioNames = "Hips Ab Chest Neck Head LeftCollar LeftShoulder LeftElbow LeftWrist RightCollar "
                                 "RightShoulder RightElbow RightWrist LeftHip LeftKnee LeftAnkle LeftToe RightHip "
                                 "RightKnee RightAnkle RightToe";
const char* const kGenericNames = "pelvis spine_01 spine_02 neck_01 head clavicle_l upperarm_l lowerarm_l hand_l "
                                  "clavicle_r upperarm_r lowerarm_r hand_r thigh_l calf_l foot_l ball_l thigh_r "
                                  "calf_r foot_r ball_r";

class CharacterTest : public kelvara_test::HelperTest
{
protected:
  void Fill(const Skeleton& skeleton, Character& c, const std::string& preset = "")
  {
    std::string error;
    ASSERT_TRUE(BuildCharacter(skeleton, "target", c, error)) << error;
    ASSERT_TRUE(ChooseAndFillPreset(c, _helper, preset, error)) << error;
  }

  // The joints filling the given body parts (all when none are given), blank-separated.
  static std::string Parts(const Character& c, std::vector<int> parts = {})
  {
    if (parts.empty())
      for (int part = 0; part < kBodyPartCount; ++part)
        parts.push_back(part);
    std::string names;
    for (int part : parts)
    {
      const int j = c.partJoint[static_cast<std::size_t>(part)];
      names += (names.empty() ? "" : " ") + (j < 0 ? "(empty)" : c.skeleton->joints[static_cast<std::size_t>(j)].name);
    }
    return names;
  }
};

TEST_F(CharacterTest, NodeIdsFollowThePathAndTheRoleAndRestPosesAccumulateOffsets)
{
  // Two siblings of one name, and a name that recurs deeper down.
  const Skeleton f =
    MakeSkeleton("Root Arm Arm Root", {{-1, {1, 2, 3}}, {0, {0, 4, 0}}, {0, {-2, 0, 0.5}}, {2, {10, 0, 0}}});
  EXPECT_EQ(JointPaths(f)[3], "Root/Arm#2/Root");
  Character a, b, other;
  std::string error;
  ASSERT_TRUE(BuildCharacter(f, "source", a, error) && BuildCharacter(f, "source", b, error) &&
              BuildCharacter(f, "target", other, error))
    << error;
  const Vector global[] = {{1, 2, 3}, {1, 6, 3}, {-1, 2, 3.5}, {9, 2, 3.5}};
  const Vector parent[] = {{0, 0, 0}, {1, 2, 3}, {1, 2, 3}, {-1, 2, 3.5}};
  ASSERT_EQ(a.restPose->GetNodeTransformCount(), 4);
  std::set<telvo::Uuid::Bytes> seen;
  for (std::size_t j = 0; j < f.joints.size(); ++j)
  {
    // Name-based ids: the same for the same role and path, version 8, variant 10.
    EXPECT_EQ(a.uuids[j].GetBytes(), b.uuids[j].GetBytes()) << j;
    EXPECT_TRUE(a.uuids[j].GetBytes()[6] >> 4 == 8 && a.uuids[j].GetBytes()[8] >> 6 == 2) << j;
    seen.insert({a.uuids[j].GetBytes(), other.uuids[j].GetBytes()});
    EXPECT_TRUE(a.nodes[j]->GetUuid() == a.uuids[j]);
    telvo::Result<telvo::CharacterNodeTransform> t = a.restPose->GetNodeTransformByID(a.uuids[j]);
    ASSERT_TRUE(t.IsOk() && t.GetValue()) << j;
    EXPECT_EQ(t.GetValue()->GetGlobalMatrix(), (telvo::Matrix{global[j], {1, 0, 0}, {0, 1, 0}, {0, 0, 1}})) << j;
    EXPECT_EQ(t.GetValue()->GetParentGlobalMatrix(), (telvo::Matrix{parent[j], {1, 0, 0}, {0, 1, 0}, {0, 0, 1}}));
  }
  EXPECT_EQ(seen.size(), 2 * f.joints.size());
  // The definition holds what was built.
  EXPECT_TRUE(a.definition->GetSkeletonTree() == a.nodes[0]);
  EXPECT_TRUE(a.definition->GetSkeletonRestPose().IsSameObject(a.restPose));

  // Under a scene turning 90 degrees about Y, moving 5 along X and doubling, the root resting turned
  // about Z: rigid world matrices, the root's parent the scene without its scale, the same ids.
  const Quat sceneTurn = kelvara_test::AxisAngle(0, 1, 0, 90);
  const Quat rootTurn = kelvara_test::AxisAngle(0, 0, 1, 90);
  Skeleton placed = f;
  placed.sceneTransform = kelvara_test::Mul(kelvara_test::Place(sceneTurn, {5, 0, 0}),
                                            {{}, {2, 0, 0}, {0, 2, 0}, {0, 0, 2}});
  placed.joints[0].rotation = {rootTurn.w, rootTurn.x, rootTurn.y, rootTurn.z};
  Character p;
  ASSERT_TRUE(BuildCharacter(placed, "source", p, error)) << error;
  // Root: (1,2,3) doubled and turned about Y is (6,4,-2). Arm: (0,4,0) doubled, turned by the
  // root to -X, by the scene to +Z.
  const telvo::Matrix rootGlobal = kelvara_test::Place(sceneTurn * rootTurn, {11, 4, -2});
  const telvo::Matrix expected[][2] = {{rootGlobal, kelvara_test::Place(sceneTurn, {5, 0, 0})},
                                       {kelvara_test::Place(sceneTurn * rootTurn, {11, 4, 6}), rootGlobal}};
  for (std::size_t j = 0; j < 2; ++j)
  {
    EXPECT_TRUE(p.uuids[j] == a.uuids[j]) << j;
    const telvo::CharacterNodeTransform t = p.restPose->GetNodeTransformByID(p.uuids[j]).GetValue();
    ASSERT_TRUE(t) << j;
    EXPECT_LT(MaxDiff(t->GetGlobalMatrix(), expected[j][0]), 1e-12) << j;
    EXPECT_LT(MaxDiff(t->GetParentGlobalMatrix(), expected[j][1]), 1e-12) << j;
    EXPECT_EQ(t->GetGlobalMatrix(), p.restGlobal[j]) << j;
  }
}

// Ids are hashed on from the parent's, so that a chain of thousands of joints costs no more per
// joint than a short one: each must be the id of the joint's whole path all the same.
TEST(CharacterIds, EachJointsIdIsThatOfItsWholePath)
{
  Skeleton s = MakeSkeleton("Root Arm Arm Root Hand Other Arm", {{-1, {0, 0, 0}},
                                                               {0, {0, 1, 0}},
                                                               {0, {0, 1, 0}},
                                                               {2, {0, 1, 0}},
                                                               {3, {0, 1, 0}},
                                                               {-1, {0, 0, 0}},
                                                               {5, {0, 1, 0}}});
  for (int i = 0; i < 300; ++i)
  {
    Joint& link = s.joints.emplace_back();
    link.name = "Link";
    link.parent = static_cast<int>(s.joints.size()) - 2;
  }
  const std::vector<std::string> paths = JointPaths(s);
  ASSERT_EQ(paths[6], "Other/Arm");
  for (const char* role : {"source", "target"})
  {
    const std::vector<telvo::Uuid::Bytes> ids = JointIdsBytes(role, s);
    ASSERT_EQ(ids.size(), s.joints.size());
    for (std::size_t j = 0; j < ids.size(); ++j)
      EXPECT_EQ(ids[j], JointIdBytes(role, paths[j])) << role << " " << paths[j];
  }
}

TEST_F(CharacterTest, PresetsFillTheirFamiliesAndAJointFillsOnePart)
{
  for (const auto& [names, preset] : {std::pair{kStudioNames, "studio"}, std::pair{kGenericNames, "generic"}})
  {
    const Skeleton f = Humanoid(names);
    Character c;
    Fill(f, c);
    EXPECT_EQ(c.preset, preset);
    EXPECT_EQ(Parts(c), names);
    EXPECT_TRUE(c.notes.empty()) << preset;
    EXPECT_DOUBLE_EQ(HipHeight(c), 10.0);
  }
  // Studio names read with the CMU keywords: the shoulder is taken for the clavicle and the
  // knee-less legs stay empty.
  const Skeleton studio = Humanoid(kStudioNames);
  Character forced;
  Fill(studio, forced, "cmu");
  EXPECT_EQ(forced.preset, "cmu");
  EXPECT_EQ(Parts(forced, {kLeftClavicle, kLeftShin}), "LeftShoulder (empty)");

  // One spine joint: the generic spine and chest keywords both reach it, but it fills one part.
  const Skeleton oneSpine = Humanoid(std::string(kGenericNames).replace(7, 17, "spine1 spine_chest_missing"));
  Character generic;
  Fill(oneSpine, generic, "generic");
  EXPECT_EQ(Parts(generic, {kSpine, kChest}), "spine1 (empty)");
  ASSERT_FALSE(generic.notes.empty());
  EXPECT_EQ(generic.notes[0], "Chest left empty: its joint spine1 already fills Spine");
}

TEST_F(CharacterTest, SidesFollowTheRestPose)
{
  // The same names on a skeleton whose "left" limbs stand on the character's right.
  const Skeleton mirrored = Humanoid(kStudioNames, -1.0);
  Character c;
  Fill(mirrored, c);
  EXPECT_EQ(c.preset, "studio");
  EXPECT_EQ(Parts(c, {kLeftUpperArm, kRightUpperArm, kLeftToes, kRightThigh}),
            "RightShoulder LeftShoulder RightToe LeftHip");
  ASSERT_EQ(c.notes.size(), 2u);
  EXPECT_EQ(c.notes[0].rfind("left and right arm swapped", 0), 0u) << c.notes[0];
  // The body parts hold the swapped joints too: the association reads them.
  const std::size_t rightWrist = static_cast<std::size_t>(c.FindJoint("RightWrist"));
  EXPECT_TRUE(c.bodyParts[kLeftHand]->GetSkeleton()[0] == c.uuids[rightWrist]);

  // Turned to face -Z, the same person has its left on -X: names and geometry agree again.
  Skeleton turned = mirrored;
  for (Joint& j : turned.joints)
    j.translation.z = -j.translation.z;
  Character t;
  Fill(turned, t);
  EXPECT_TRUE(t.notes.empty());
  EXPECT_EQ(Parts(t, {kLeftUpperArm}), "LeftShoulder");
  EXPECT_LT(t.orientation.left.x + t.orientation.forward.z, -1.98);
}

} // namespace
} // namespace kelvara
