// The retargeting road end to end, driven through the loaded module as the host drives it: two
// characters with different names, bone lengths and rest orientations; body parts filled by
// keywords and associated; a configuration; then per frame extract, translate and apply down the
// target chain. The expected rotations are worked out with quaternions, apart from the matrix code.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <utility>
#include <vector>

#include "support/loaded_module.h"
#include "support/poses.h"
#include "support/quaternion.h"
#include "telvo/charactersolver.h"
#include "telvo/kelvarahelper.h"

using namespace telvo;

namespace
{

using namespace kelvara_test; // quaternion arithmetic, poses

// Angle in degrees between the rotation q and the axes of m.
double AngleBetween(const Quat& q, const Matrix& m)
{
  const Matrix e = Place(q, {});
  const double trace = Dot(e.v1, m.v1) + Dot(e.v2, m.v2) + Dot(e.v3, m.v3);
  return std::acos(std::clamp((trace - 1.0) / 2.0, -1.0, 1.0)) * 180.0 / M_PI;
}

// A global matrix from its parent's and a local one, rotations and offsets handled separately
// with quaternions: what a scene graph does.
struct Frame
{
  Quat rotation;
  Vector position;
};

Frame Child(const Frame& parent, const Quat& localRotation, const Vector& localOffset)
{
  return {parent.rotation * localRotation, parent.position + Rotate(parent.rotation, localOffset)};
}

Uuid MakeId(int n)
{
  return TaggedUuid(n, 0x77);
}

// A four-joint chain (hips, spine, arm, hand): names, rest local rotations and rest offsets.
struct Character
{
  int firstId;
  const char* names[4];
  Quat restLocal[4];
  Vector restOffset[4];

  std::vector<Frame> Globals(const Quat (&local)[4]) const
  {
    std::vector<Frame> globals;
    for (int i = 0; i < 4; ++i)
      globals.push_back(Child(i == 0 ? Frame{} : globals[i - 1], local[i], restOffset[i]));
    return globals;
  }
  std::vector<Frame> RestGlobals() const { return Globals(restLocal); }
};

// Same body plan, different names, bone lengths and rest orientations: the target's rest offsets
// point along other axes, so its joints' rest rotations differ by large angles from the source's.
const Character kSource{1,
                        {"Hips", "Spine", "LeftArm", "LeftHand"},
                        {AxisAngle(0, 1, 0, 10), AxisAngle(1, 0, 0, -15), AxisAngle(0, 0, 1, 80),
                         AxisAngle(0, 1, 0, 20)},
                        {{0, 1.0, 0}, {0, 0.5, 0}, {0.2, 0.45, 0}, {0, 0.3, 0}}};
const Character kTarget{101,
                        {"pelvis", "spine_01", "upperarm_l", "hand_l"},
                        {AxisAngle(1, 0, 0, -90), AxisAngle(0, 0, 1, 35), AxisAngle(0, 1, 0, -60),
                         AxisAngle(1, 1, 0, 45)},
                        {{0, 0.9, 0.1}, {0.7, 0, 0}, {0, 0, 0.3}, {0.25, 0.1, 0}}};

Matrix ToMatrix(const Frame& f)
{
  return Place(f.rotation, f.position);
}

CharacterTreeRef BuildSkeleton(const Character& c)
{
  CharacterTreeRef nodes[4];
  for (int i = 0; i < 4; ++i)
  {
    nodes[i] = CharacterTreeInterface::CreateTree(MakeId(c.firstId + i), MakeString(c.names[i]), true).GetValue();
    if (i > 0)
    {
      EXPECT_TRUE(nodes[i - 1]->InsertChildLast(ObjectRef(nodes[i])).IsOk());
    }
  }
  return nodes[0];
}

// The same body-part tree with keywords for both characters' naming.
CharacterBodyPartRef BuildBodyParts()
{
  const char* identifiers[4] = {"Hips", "Spine", "LeftArm", "LeftHand"};
  const BaseArray<String> keywords[4] = {Strings({"hips", "pelvis"}), Strings({"spine"}),
                                        Strings({"left&&arm", "upperarm&&_l"}), Strings({"hand"})};
  CharacterBodyPartRef parts[4];
  for (int i = 0; i < 4; ++i)
  {
    parts[i] = CharacterBodyPartInterface::CreateBodyPart(InternedId::Intern(identifiers[i]).GetValue(),
                                                          MakeString(identifiers[i]))
                 .GetValue();
    EXPECT_TRUE(parts[i]->SetSkeletonKeywords(keywords[i]).IsOk());
    if (i > 0)
    {
      EXPECT_TRUE(parts[i - 1]->InsertChildLast(ObjectRef(parts[i])).IsOk());
    }
  }
  // The arm must not take the hand, whose name also holds "left".
  EXPECT_TRUE(parts[2]->SetSkeletonDiscardKeywords(Strings({"hand"})).IsOk());
  return parts[0];
}

CharacterNodeTransform MakeTransform(int id, const Matrix& global, const Matrix& parentGlobal)
{
  return kelvara_test::MakeTransform(MakeId(id), global, parentGlobal);
}

CharacterDefinition BuildDefinition(const Character& c, const KelvaraHelperRef& helper)
{
  CharacterDefinition definition =
    CreateObject<CharacterDefinition>("net.telvo.animation.class.characterdefinition").GetValue();
  CharacterDefinitionInterface* writable = definition.MakeWritable().GetValue();
  EXPECT_TRUE(writable->SetName(MakeString(c.names[0])).IsOk());
  EXPECT_TRUE(writable->SetSkeletonTree(BuildSkeleton(c)).IsOk());
  EXPECT_TRUE(writable->SetBodyPartTree(BuildBodyParts()).IsOk());
  EXPECT_TRUE(helper->FillBodyPart(writable->GetSkeletonTree(), writable->GetBodyPartTree()).IsOk());
  const std::vector<Frame> rest = c.RestGlobals();
  std::vector<CharacterNodeTransform> transforms;
  for (int i = 0; i < 4; ++i)
    transforms.push_back(MakeTransform(c.firstId + i, ToMatrix(rest[i]), i == 0 ? Matrix{} : ToMatrix(rest[i - 1])));
  EXPECT_TRUE(writable->SetSkeletonRestPose(MakePose(transforms)).IsOk());
  return definition;
}

// Source animation: every joint turns about its own axis by a frame-dependent angle.
void AnimatedLocals(int frame, Quat (&local)[4])
{
  const Quat turns[4] = {AxisAngle(0, 1, 0, 15.0 * frame), AxisAngle(1, 0, 1, 20.0 * frame),
                         AxisAngle(0, 1, 1, -25.0 * frame), AxisAngle(1, 0, 0, 30.0 * frame)};
  for (int i = 0; i < 4; ++i)
    local[i] = turns[i] * kSource.restLocal[i];
}

// How the host feeds the road; the defaults are the right way, the others the naive ones.
struct Feeding
{
  bool sourceWithCurrentParent = false;
  bool targetWithMovedGlobal = false;
};

class RetargetRoadTest : public ::testing::Test
{
protected:
  void SetUp() override
  {
    kelvara_test::LoadedModuleForTests();
    _helper = CreateObject<KelvaraHelperRef>("net.telvo.animation.class.kelvarahelper").GetValue();
    _solver = CreateObject<CharacterSolver>("net.telvo.animation.class.charactersolver").GetValue();
    _source = BuildDefinition(kSource, _helper);
    _target = BuildDefinition(kTarget, _helper);
    AssociationCounters counters;
    Result<CharacterAssociation> association =
      _helper->AssociateBodyPartsByIdentifier(_source->GetBodyPartTree(), _target->GetBodyPartTree(), counters);
    ASSERT_TRUE(association.IsOk());
    EXPECT_EQ(counters.visitedSourceBodyParts, 4);
    EXPECT_EQ(counters.associatedNodePairs, 4);
    _configuration =
      CreateObject<CharacterSolverConfiguration>("net.telvo.animation.class.charactersolverconfiguration").GetValue();
    ASSERT_TRUE(_configuration.MakeWritable().GetValue()->Setup(_source, _target, association.GetValue()).IsOk());
    ASSERT_TRUE(_configuration->Validate().IsOk());
  }

  struct Outcome
  {
    Matrix newGlobal[4]; // the target joints' new global matrices
    Matrix local[4];     // what the solver returned for them
  };

  // One frame of the road as the host drives it.
  Outcome RunFrame(int frame, Feeding feeding = {})
  {
    Quat local[4];
    AnimatedLocals(frame, local);
    const std::vector<Frame> animated = kSource.Globals(local);
    const std::vector<Frame> sourceRest = kSource.RestGlobals();
    std::vector<CharacterNodeTransform> current;
    for (int i = 0; i < 4; ++i)
    {
      const std::vector<Frame>& parents = feeding.sourceWithCurrentParent ? animated : sourceRest;
      current.push_back(MakeTransform(kSource.firstId + i, ToMatrix(animated[i]),
                                      i == 0 ? Matrix{} : ToMatrix(parents[i - 1])));
    }
    Result<CharacterPose> deltas = _solver->ExtractGlobalDeltaPose(_configuration, MakePose(current));
    EXPECT_TRUE(deltas.IsOk());
    Result<CharacterPose> translated =
      _helper->TranslateSrcToDestID(_configuration->GetCharacterAssociation().GetValue(), deltas.GetValue());
    EXPECT_TRUE(translated.IsOk());
    EXPECT_EQ(translated.GetValue()->GetNodeTransformCount(), 4);

    // Down the target chain, parents first.
    Outcome outcome;
    const std::vector<Frame> targetRest = kTarget.RestGlobals();
    for (int i = 0; i < 4; ++i)
    {
      const Matrix parent = i == 0 ? Matrix{} : outcome.newGlobal[i - 1];
      // The joint's rest offset under its parent's new global matrix...
      Matrix global = parent * Place(kTarget.restLocal[i], kTarget.restOffset[i]);
      // ...carrying its rest global rotation (the naive way keeps the moved rotation).
      if (!feeding.targetWithMovedGlobal)
      {
        const Vector position = global.off;
        global = Place(targetRest[i].rotation, position);
      }
      const int id = kTarget.firstId + i;
      Result<CharacterNodeTransform> delta = translated.GetValue()->GetNodeTransformByID(MakeId(id));
      EXPECT_TRUE(delta.IsOk() && delta.GetValue());
      outcome.local[i] = _solver->ApplyGlobalRotationDelta(MakeTransform(id, global, parent), delta.GetValue(),
                                                           _configuration->GetApplyTranslationFromRoot());
      outcome.newGlobal[i] = parent * outcome.local[i];
    }
    return outcome;
  }

  // The target joint's expected new global rotation: the source joint's global rotation change,
  // G_src(frame) * G_src(rest)^-1, applied to the target joint's rest global rotation.
  static Quat Expected(int frame, int joint)
  {
    Quat local[4];
    AnimatedLocals(frame, local);
    const Quat change = kSource.Globals(local)[joint].rotation * Conjugate(kSource.RestGlobals()[joint].rotation);
    return change * kTarget.RestGlobals()[joint].rotation;
  }

  KelvaraHelperRef _helper;
  CharacterSolver _solver;
  CharacterDefinition _source;
  CharacterDefinition _target;
  CharacterSolverConfiguration _configuration;
};

TEST_F(RetargetRoadTest, TargetJointsFollowTheSourceJointsGlobalRotationChange)
{
  // The keywords picked the joint of the same role in both characters.
  const CharacterBodyPartRef arm =
    _target->GetBodyPartTree()->FindBodyPartByID(InternedId::Intern("LeftArm").GetValue()).GetValue();
  ASSERT_EQ(arm->GetSkeleton().GetCount(), 1);
  EXPECT_TRUE(arm->GetSkeleton()[0] == MakeId(103));

  for (int frame = 0; frame < 6; ++frame)
  {
    const Outcome outcome = RunFrame(frame);
    for (int i = 0; i < 4; ++i)
    {
      SCOPED_TRACE("frame " + std::to_string(frame) + ", joint " + std::to_string(i));
      EXPECT_LT(AxesDiff(outcome.newGlobal[i], Expected(frame, i)), 1e-9);
      // The local matrix keeps the joint's rest offset: bone lengths are the target's own.
      EXPECT_LT(MaxDiff(outcome.local[i].off, kTarget.restOffset[i]), 1e-9);
    }
  }
}

TEST_F(RetargetRoadTest, NaiveFeedingDriftsByTensOfDegrees)
{
  // Feeding the source's current parent matrices makes the delta the joint's local change only;
  // feeding the target's moved global rotation applies the parents' change twice. Either way the
  // chain ends tens of degrees away from where the source's motion puts it.
  const int frame = 3;
  auto worst = [&](Feeding feeding) {
    const Outcome outcome = RunFrame(frame, feeding);
    double error = 0.0;
    for (int i = 0; i < 4; ++i)
      error = std::max(error, AngleBetween(Expected(frame, i), outcome.newGlobal[i]));
    return error;
  };
  EXPECT_LT(worst({}), 1e-3);
  EXPECT_GT(worst({.sourceWithCurrentParent = true}), 30.0);
  EXPECT_GT(worst({.targetWithMovedGlobal = true}), 30.0);
  EXPECT_GT(worst({.sourceWithCurrentParent = true, .targetWithMovedGlobal = true}), 30.0);
}

} // namespace
