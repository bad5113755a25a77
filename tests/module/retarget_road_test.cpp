// The retargeting road end to end as the host drives it: two characters with different names, bone lengths and
// rest orientations; body parts filled by keywords and associated; then per frame extract, translate and apply
// down the target chain. The expected rotations are worked out with quaternions, apart from the matrix code.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/helper_fixture.h"
#include "support/poses.h"
#include "support/quaternion.h"
#include "telvo/charactersolver.h"

using namespace telvo;
using namespace kelvara_test; // quaternion arithmetic, poses

namespace
{

// A four-joint chain (hips, spine, arm, hand): names, rest local rotations and offsets.
struct Character
{
  int firstId;
  const char* names[4];
  Quat restLocal[4];
  Vector restOffset[4];

  // Global rotations and positions with the given local rotations, as a scene graph works them out.
  std::vector<std::pair<Quat, Vector>> Globals(const Quat (&local)[4]) const
  {
    std::vector<std::pair<Quat, Vector>> globals{{local[0], restOffset[0]}};
    for (int i = 1; i < 4; ++i)
      globals.push_back(
        {globals[i - 1].first * local[i], globals[i - 1].second + Rotate(globals[i - 1].first, restOffset[i])});
    return globals;
  }
  Matrix RestGlobal(int i) const
  {
    return i < 0 ? Matrix{} : Place(Globals(restLocal)[i].first, Globals(restLocal)[i].second);
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

Uuid MakeId(int n)
{
  return TaggedUuid(n, 0x77);
}

CharacterDefinition BuildDefinition(const Character& c, const KelvaraHelperRef& helper)
{
  const char* identifiers[4] = {"Hips", "Spine", "LeftArm", "LeftHand"};
  const BaseArray<String> keywords[4] = {Strings({"hips", "pelvis"}), Strings({"spine"}),
                                         Strings({"left&&arm", "upperarm&&_l"}), Strings({"hand"})};
  CharacterTreeRef nodes[4];
  CharacterBodyPartRef parts[4];
  std::vector<CharacterNodeTransform> rest;
  for (int i = 0; i < 4; ++i)
  {
    nodes[i] = Value(CharacterTreeInterface::CreateTree(MakeId(c.firstId + i), MakeString(c.names[i]), true));
    parts[i] = Value(CharacterBodyPartInterface::CreateBodyPart(Id(identifiers[i]), MakeString(identifiers[i])));
    EXPECT_TRUE(parts[i]->SetSkeletonKeywords(keywords[i]).IsOk());
    EXPECT_TRUE(i == 0 || nodes[i - 1]->InsertChildLast(ObjectRef(nodes[i])).IsOk());
    EXPECT_TRUE(i == 0 || parts[i - 1]->InsertChildLast(ObjectRef(parts[i])).IsOk());
    rest.push_back(MakeTransform(MakeId(c.firstId + i), c.RestGlobal(i), c.RestGlobal(i - 1)));
  }
  // The arm must not take the hand, whose name also holds "left".
  EXPECT_TRUE(parts[2]->SetSkeletonDiscardKeywords(Strings({"hand"})).IsOk());
  EXPECT_TRUE(helper->FillBodyPart(nodes[0], parts[0]).IsOk());
  CharacterDefinition definition =
    Value(CreateObject<CharacterDefinition>("net.telvo.animation.class.characterdefinition"));
  CharacterDefinitionInterface* writable = definition.MakeWritable().GetValue();
  EXPECT_TRUE(writable->SetSkeletonTree(nodes[0]).IsOk());
  EXPECT_TRUE(writable->SetBodyPartTree(parts[0]).IsOk());
  EXPECT_TRUE(writable->SetSkeletonRestPose(MakePose(rest)).IsOk());
  return definition;
}

class RetargetRoadTest : public HelperTest
{
protected:
  void SetUp() override
  {
    HelperTest::SetUp();
    _solver = Value(CreateObject<CharacterSolver>("net.telvo.animation.class.charactersolver"));
    _configuration =
      Value(CreateObject<CharacterSolverConfiguration>("net.telvo.animation.class.charactersolverconfiguration"));
    CharacterDefinition source = BuildDefinition(kSource, _helper), target = BuildDefinition(kTarget, _helper);
    AssociationCounters counters;
    _association =
      Value(_helper->AssociateBodyPartsByIdentifier(source->GetBodyPartTree(), target->GetBodyPartTree(), counters));
    EXPECT_EQ(counters.associatedNodePairs, 4) << "the keywords picked one joint per body part in both characters";
    ASSERT_TRUE(_configuration.MakeWritable().GetValue()->Setup(source, target, _association).IsOk());
  }

  CharacterSolver _solver;
  CharacterSolverConfiguration _configuration;
  CharacterAssociation _association;
};

TEST_F(RetargetRoadTest, TargetJointsFollowTheSourceJointsGlobalRotationChangeKeepingTheirBoneLengths)
{
  for (int frame = 0; frame < 6; ++frame)
  {
    // Every source joint turns about its own axis; the host feeds each joint with its rest parent's matrix.
    const Quat turns[4] = {AxisAngle(0, 1, 0, 15.0 * frame), AxisAngle(1, 0, 1, 20.0 * frame),
                           AxisAngle(0, 1, 1, -25.0 * frame), AxisAngle(1, 0, 0, 30.0 * frame)};
    Quat local[4];
    for (int i = 0; i < 4; ++i)
      local[i] = turns[i] * kSource.restLocal[i];
    const auto animated = kSource.Globals(local);
    std::vector<CharacterNodeTransform> current;
    for (int i = 0; i < 4; ++i)
      current.push_back(MakeTransform(MakeId(kSource.firstId + i), Place(animated[i].first, animated[i].second),
                                      kSource.RestGlobal(i - 1)));
    CharacterPose deltas = Value(_helper->TranslateSrcToDestID(
      _association, Value(_solver->ExtractGlobalDeltaPose(_configuration, MakePose(current)))));

    // Down the target chain, parents first: each joint at its rest global rotation, placed under its parent's
    // new matrix. Its new global rotation must be the source joint's global rotation change applied to its rest.
    Matrix parent;
    for (int i = 0; i < 4; ++i)
    {
      SCOPED_TRACE("frame " + std::to_string(frame) + ", joint " + std::to_string(i));
      const Quat targetRest = kTarget.Globals(kTarget.restLocal)[i].first;
      const Matrix global = Place(targetRest, (parent * Place(Quat{}, kTarget.restOffset[i])).off);
      CharacterNodeTransform delta = Value(deltas->GetNodeTransformByID(MakeId(kTarget.firstId + i)));
      ASSERT_TRUE(delta);
      const Matrix result =
        _solver->ApplyGlobalRotationDelta(MakeTransform(MakeId(kTarget.firstId + i), global, parent), delta,
                                          _configuration->GetApplyTranslationFromRoot());
      parent = parent * result;
      EXPECT_LT(
        AxesDiff(parent, animated[i].first * Conjugate(kSource.Globals(kSource.restLocal)[i].first) * targetRest),
        1e-9);
      EXPECT_LT(MaxDiff(result.off, kTarget.restOffset[i]), 1e-9);
    }
  }
}

} // namespace
