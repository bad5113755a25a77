#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/helper_fixture.h"
#include "support/oom_sweep.h"
#include "support/poses.h"
#include "support/quaternion.h"
#include "telvo/charactersolver.h"

using namespace telvo;
using namespace kelvara_test; // quaternion arithmetic, poses, node ids

namespace
{

CharacterSolverConfiguration MakeConfiguration(const CharacterPose& restPose)
{
  CharacterDefinition source =
    Value(CreateObject<CharacterDefinition>("net.telvo.animation.class.characterdefinition"));
  EXPECT_TRUE(!restPose || source.MakeWritable().GetValue()->SetSkeletonRestPose(restPose).IsOk());
  CharacterSolverConfiguration configuration =
    Value(CreateObject<CharacterSolverConfiguration>("net.telvo.animation.class.charactersolverconfiguration"));
  EXPECT_TRUE(configuration.MakeWritable().GetValue()->SetSourceCharacter(source).IsOk());
  return configuration;
}

class CharacterSolverTest : public ::testing::Test
{
protected:
  LoadedModule& _module = LoadedModuleForTests();
  CharacterSolver _solver = Value(CreateObject<CharacterSolver>("net.telvo.animation.class.charactersolver"));
};

TEST_F(CharacterSolverTest, DeltaIsEachNodesGlobalRotationChangeAndAFailedExtractionChangesNothing)
{
  std::vector<CharacterNodeTransform> rest;
  for (int i = 0; i < 4; ++i)
    rest.push_back(MakeTransform(NodeId(i), Place(AxisAngle(i, 1, 2 - i, 30.0 * i - 50), {0.5 * i, 1, -0.25}),
                                 Place(AxisAngle(1, i, 0, 20.0 * i), {0, 1.0 * i, 2})));
  const CharacterPose restPose = MakePose(rest);
  const std::string restText = Text(restPose->ToString());
  CharacterSolverConfiguration configuration = MakeConfiguration(restPose);
  // At rest, then turned: node i by 40i degrees about (1,1,i) in global space.
  std::vector<CharacterNodeTransform> current;
  for (double degrees : {0.0, 40.0})
  {
    // Fed with the rest parent's matrix, listed in reverse order: lookups go by id.
    current.clear();
    for (int i = 3; i >= 0; --i)
      current.push_back(
        MakeTransform(NodeId(i), Place(AxisAngle(1, 1, i, degrees * i), {1.0 * i, 2, 3}) * rest[i]->GetGlobalMatrix(),
                      rest[i]->GetParentGlobalMatrix()));
    CharacterPose deltas = Value(_solver->ExtractGlobalDeltaPose(configuration, MakePose(current)));
    ASSERT_EQ(deltas->GetNodeTransformCount(), 4);
    for (int i = 0; i < 4; ++i)
    {
      SCOPED_TRACE(i);
      const CharacterNodeTransform& delta = deltas->GetNodeTransformArray()[i];
      EXPECT_TRUE(delta->GetUuid() == NodeId(i)) << "the rest pose's order";
      EXPECT_FALSE(delta.IsSameObject(rest[i]));
      EXPECT_EQ(delta->GetParentGlobalMatrix(), rest[i]->GetParentGlobalMatrix());
      EXPECT_LT(AxesDiff(delta->GetGlobalMatrix(), AxisAngle(1, 1, i, degrees * i)), 1e-12);
      EXPECT_LT(MaxDiff(delta->GetGlobalMatrix().off, current[3 - i]->GetGlobalMatrix().off), 1e-12);
    }
  }
  EXPECT_EQ(Text(restPose->ToString()), restText);
  const CharacterPose currentPose = MakePose(current);
  EXPECT_GT(SweepOutOfMemory([] { return 0; },
                             [&](int) { return _solver->ExtractGlobalDeltaPose(configuration, currentPose); },
                             [&](int) { return Text(restPose->ToString()) + Text(currentPose->ToString()); }),
            0);
}

TEST_F(CharacterSolverTest, MotionFromTheParentAloneIsRemovedAndSingularOrMissingMatricesReadAsIdentity)
{
  // Node 1 moves only with its parent; nodes 2 and 3 have singular rest matrices; node 4 is not in the current pose.
  const Matrix restParent = Place(AxisAngle(0, 1, 0, 20), {1, 2, 3}), local = Place(AxisAngle(1, 0, 0, 65), {0, 1, 0});
  const Matrix movedParent = Place(AxisAngle(1, 2, 0, -80), {4, -1, 2});
  const Matrix singular{{5, 0, 0}, {}, {}, {}};
  const Quat q = AxisAngle(0, 0, 1, 33), restQ4 = AxisAngle(0, 1, 1, 45);
  const Matrix currentParent = Place(Quat{}, {1, 2, 3}), parent4 = Place(AxisAngle(1, 0, 0, 90), {0, 1, 0});
  const CharacterSolverConfiguration configuration = MakeConfiguration(MakePose(
    {MakeTransform(NodeId(1), Mul(restParent, local), restParent),
     MakeTransform(NodeId(2), Place(Quat{}, {9, 9, 9}), singular), MakeTransform(NodeId(3), singular, Matrix{}),
     MakeTransform(NodeId(4), Place(restQ4, {0, 0, 1}), parent4)}));
  CharacterPose deltas = Value(_solver->ExtractGlobalDeltaPose(
    configuration, MakePose({MakeTransform(NodeId(1), Mul(movedParent, local), movedParent),
                             MakeTransform(NodeId(2), Place(q, {4, 4, 4}), currentParent),
                             MakeTransform(NodeId(3), Place(q, {4, 4, 4}), Matrix{})})));
  ASSERT_EQ(deltas->GetNodeTransformCount(), 4);
  // Node 2: Pr^-1 = I, so C = Pc^-1 * Gc. Node 3: rot(Gr)^-1 = I. Node 4: C = Pr, the delta rot(Pr) * rot(Gr)^-1.
  const std::vector<std::pair<Quat, Vector>> expected{{Quat{}, Mul(restParent, local).off},
                                                      {q, {3, 2, 1}},
                                                      {q, {4, 4, 4}},
                                                      {AxisAngle(1, 0, 0, 90) * Conjugate(restQ4), {0, 1, 0}}};
  for (int i = 0; i < 4; ++i)
  {
    const Matrix delta = deltas->GetNodeTransformArray()[i]->GetGlobalMatrix();
    EXPECT_LT(std::max(AxesDiff(delta, expected[i].first), MaxDiff(delta.off, expected[i].second)), 1e-12) << i + 1;
  }
}

TEST_F(CharacterSolverTest, MissingObjectsAreNullPointerErrors)
{
  const CharacterPose current = MakePose({MakeTransform(NodeId(1), Matrix{})});
  const std::vector<std::pair<CharacterSolverConfiguration, CharacterPose>> cases{
    {CharacterSolverConfiguration(), current},
    {Value(CreateObject<CharacterSolverConfiguration>("net.telvo.animation.class.charactersolverconfiguration")),
     current},
    {MakeConfiguration(CharacterPose()), current},
    {MakeConfiguration(MakePose({})), CharacterPose()}};
  for (const auto& [configuration, pose] : cases)
    ExpectError(_solver->ExtractGlobalDeltaPose(configuration, pose), NullptrError);
}

TEST_F(CharacterSolverTest, ApplyRotatesInGlobalSpaceAndReturnsTheLocalMatrix)
{
  const Quat qg = AxisAngle(1, -1, 2, 70), qd = AxisAngle(0, 1, 0, -35);
  const Matrix parent = Place(AxisAngle(3, 1, 0, 50), {1, -2, 0.5});
  const Vector at = {2, 3, 4}, step = {0.25, -0.5, 1};
  CharacterNodeTransform node = MakeTransform(NodeId(1), Place(qg, at), parent), none;
  CharacterNodeTransform translate = MakeTransform(NodeId(2), Place(Quat{}, step));
  CharacterNodeTransform rotate = MakeTransform(NodeId(3), Place(qd, step));
  // The delta turns the node in global space, its offset moves it only when asked; null reads as identity.
  const std::vector<std::tuple<CharacterNodeTransform, CharacterNodeTransform, bool, Matrix>> cases{
    {node, none, false, Place(qg, at)},        {node, translate, true, Place(qg, at + step)},
    {node, rotate, false, Place(qd * qg, at)}, {node, rotate, true, Place(qd * qg, at + step)},
    {none, rotate, false, Place(qd, {})},      {none, rotate, true, Place(qd, step)}};
  for (const auto& [n, delta, applyTranslation, expectedGlobal] : cases)
  {
    const Matrix local = _solver->ApplyGlobalRotationDelta(n, delta, applyTranslation);
    EXPECT_LT(MaxDiff(n ? Mul(parent, local) : local, expectedGlobal), 1e-12) << testing::PrintToString(local.off);
  }
}

} // namespace
