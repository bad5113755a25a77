// The retargeting road as the host drives it, between characters with different names, bone lengths and rest
// orientations. The expected rotations are worked out with quaternions, apart from the matrix code.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/helper_fixture.h"
#include "support/poses.h"
#include "support/quaternion.h"
#include "telvo/charactersolver.h"

using namespace telvo;
using namespace kelvara_test; // quaternion arithmetic, poses, character builders

namespace
{

// A four-joint chain (hips, spine, arm, hand): its nodes' first id, names, rest local rotations and offsets.
struct Character
{
  int id;
  const char* names[4];
  Quat restLocal[4];
  Vector offset[4];

  // Joint i's global rotation and position with the given local rotations, as a scene graph works them out.
  std::pair<Quat, Vector> Global(const Quat (&local)[4], int i) const
  {
    if (i == 0)
      return {local[0], offset[0]};
    const auto [rotation, position] = Global(local, i - 1);
    return {rotation * local[i], position + Rotate(rotation, offset[i])};
  }
  Matrix GlobalMatrix(const Quat (&local)[4], int i) const
  {
    return i < 0 ? Matrix{} : Place(Global(local, i).first, Global(local, i).second);
  }
};

// The target's rest offsets point along other axes, so its rest rotations differ from the source's by large angles.
const Character kSource{
  1,
  {"Hips", "Spine", "LeftArm", "LeftHand"},
  {AxisAngle(0, 1, 0, 10), AxisAngle(1, 0, 0, -15), AxisAngle(0, 0, 1, 80), AxisAngle(0, 1, 0, 20)},
  {{0, 1.0, 0}, {0, 0.5, 0}, {0.2, 0.45, 0}, {0, 0.3, 0}}};
const Character kTarget{
  101,
  {"pelvis", "spine_01", "upperarm_l", "hand_l"},
  {AxisAngle(1, 0, 0, -90), AxisAngle(0, 0, 1, 35), AxisAngle(0, 1, 0, -60), AxisAngle(1, 1, 0, 45)},
  {{0, 0.9, 0.1}, {0.7, 0, 0}, {0, 0, 0.3}, {0.25, 0.1, 0}}};

CharacterDefinition BuildDefinition(const Character& c, const KelvaraHelperRef& helper)
{
  CharacterTreeRef skeleton =
    MakeNode(c.id, c.names[0],
             {MakeNode(c.id + 1, c.names[1], {MakeNode(c.id + 2, c.names[2], {MakeNode(c.id + 3, c.names[3])})})});
  // The arm must not take the hand, whose name also holds "left".
  CharacterBodyPartRef parts =
    MakeBodyPart("Hips", {"hips", "pelvis"}, {}, {},
                 {MakeBodyPart("Spine", {"spine"}, {}, {},
                               {MakeBodyPart("LeftArm", {"left&&arm", "upperarm&&_l"}, {"hand"}, {},
                                             {MakeBodyPart("LeftHand", {"hand"})})})});
  EXPECT_TRUE(helper->FillBodyPart(skeleton, parts).IsOk());
  std::vector<CharacterNodeTransform> rest;
  for (int i = 0; i < 4; ++i)
    rest.push_back(MakeTransform(NodeId(c.id + i), c.GlobalMatrix(c.restLocal, i), c.GlobalMatrix(c.restLocal, i - 1)));
  CharacterDefinition definition =
    Value(CreateObject<CharacterDefinition>("net.telvo.animation.class.characterdefinition"));
  CharacterDefinitionInterface* writable = definition.MakeWritable().GetValue();
  EXPECT_TRUE(writable->SetSkeletonTree(skeleton).IsOk());
  EXPECT_TRUE(writable->SetBodyPartTree(parts).IsOk());
  EXPECT_TRUE(writable->SetSkeletonRestPose(MakePose(rest)).IsOk());
  return definition;
}

using RetargetRoadTest = HelperTest;

TEST_F(RetargetRoadTest, TargetJointsFollowTheSourceJointsGlobalRotationChangeKeepingTheirBoneLengths)
{
  CharacterSolver solver = Value(CreateObject<CharacterSolver>("net.telvo.animation.class.charactersolver"));
  CharacterSolverConfiguration configuration =
    Value(CreateObject<CharacterSolverConfiguration>("net.telvo.animation.class.charactersolverconfiguration"));
  CharacterDefinition source = BuildDefinition(kSource, _helper), target = BuildDefinition(kTarget, _helper);
  AssociationCounters counters;
  const CharacterAssociation association =
    Value(_helper->AssociateBodyPartsByIdentifier(source->GetBodyPartTree(), target->GetBodyPartTree(), counters));
  EXPECT_EQ(counters.associatedNodePairs, 4) << "the keywords picked one joint per body part in both characters";
  ASSERT_TRUE(configuration.MakeWritable().GetValue()->Setup(source, target, association).IsOk());

  for (int frame = 0; frame < 6; ++frame)
  {
    // Every source joint turns about its own axis; the host feeds each joint with its rest parent's matrix.
    Quat local[4];
    std::vector<CharacterNodeTransform> current;
    for (int i = 0; i < 4; ++i)
    {
      local[i] = AxisAngle(i % 2, 1, i, (15.0 + 5 * i) * frame) * kSource.restLocal[i];
      current.push_back(MakeTransform(NodeId(kSource.id + i), kSource.GlobalMatrix(local, i),
                                      kSource.GlobalMatrix(kSource.restLocal, i - 1)));
    }
    CharacterPose deltas = Value(_helper->TranslateSrcToDestID(
      association, Value(solver->ExtractGlobalDeltaPose(configuration, MakePose(current)))));

    // Down the target chain: each joint at its rest global rotation, placed under its parent's new matrix.
    Matrix parent;
    for (int i = 0; i < 4; ++i)
    {
      SCOPED_TRACE("frame " + std::to_string(frame) + ", joint " + std::to_string(i));
      const Quat targetRest = kTarget.Global(kTarget.restLocal, i).first;
      const Matrix global = Place(targetRest, (parent * Place(Quat{}, kTarget.offset[i])).off);
      CharacterNodeTransform delta = Value(deltas->GetNodeTransformByID(NodeId(kTarget.id + i)));
      ASSERT_TRUE(delta);
      const Matrix result = solver->ApplyGlobalRotationDelta(MakeTransform(NodeId(kTarget.id + i), global, parent),
                                                             delta, configuration->GetApplyTranslationFromRoot());
      parent = parent * result;
      const Quat change = kSource.Global(local, i).first * Conjugate(kSource.Global(kSource.restLocal, i).first);
      EXPECT_LT(AxesDiff(parent, change * targetRest), 1e-9);
      EXPECT_LT(MaxDiff(result.off, kTarget.offset[i]), 1e-9);
    }
  }
}

} // namespace
