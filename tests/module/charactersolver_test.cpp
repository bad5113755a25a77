#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "support/loaded_module.h"
#include "support/oom_sweep.h"
#include "support/poses.h"
#include "support/quaternion.h"
#include "telvo/charactersolver.h"

using namespace telvo;
using namespace kelvara_test; // quaternion arithmetic, poses

namespace
{

Uuid MakeId(int n)
{
  return TaggedUuid(n, 0x5a);
}

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
  CharacterPose Extract(const CharacterSolverConfiguration& configuration,
                        const std::vector<CharacterNodeTransform>& current)
  {
    return Value(_solver->ExtractGlobalDeltaPose(configuration, MakePose(current)));
  }

  LoadedModule& _module = LoadedModuleForTests();
  CharacterSolver _solver = Value(CreateObject<CharacterSolver>("net.telvo.animation.class.charactersolver"));
};

TEST_F(CharacterSolverTest, DeltaIsEachJointsGlobalRotationChangeAtItsCurrentPosition)
{
  // A branch: 0 root, 1 under 0, 2 and 3 under 1; each joint's rest rotation and offset relative to its parent.
  const int parents[4] = {-1, 0, 1, 1};
  const Quat restLocal[4] = {AxisAngle(0, 1, 0, 30), AxisAngle(1, 0, 1, -50), AxisAngle(0, 0, 1, 75),
                             AxisAngle(1, 2, 3, 120)};
  const Vector offsets[4] = {{0.5, 1.0, -0.25}, {0.0, 2.0, 0.0}, {1.5, 0.0, 0.25}, {-1.0, 0.5, 0.0}};
  // Global rotations and matrices with local rotations `local`, by quaternions.
  auto globals = [&](const Quat(&local)[4], Quat(&rotation)[4], Matrix(&matrix)[4]) {
    for (int i = 0; i < 4; ++i)
    {
      rotation[i] = parents[i] < 0 ? local[i] : rotation[parents[i]] * local[i];
      matrix[i] = parents[i] < 0 ? Place(local[i], offsets[i]) : Mul(matrix[parents[i]], Place(local[i], offsets[i]));
    }
  };
  Quat restRotation[4];
  Matrix restGlobal[4];
  globals(restLocal, restRotation, restGlobal);
  std::vector<CharacterNodeTransform> rest;
  for (int i = 0; i < 4; ++i)
    rest.push_back(MakeTransform(MakeId(i), restGlobal[i], parents[i] < 0 ? Matrix{} : restGlobal[parents[i]]));
  CharacterSolverConfiguration configuration = MakeConfiguration(MakePose(rest));
  const std::string restText = Text(configuration->GetSourceCharacter().GetValue()->GetSkeletonRestPose()->ToString());

  // At rest, then with joint 1 turned by 40 degrees about its parent.
  for (const Quat& turn : {Quat{}, AxisAngle(1, 1, 0, 40)})
  {
    Quat local[4] = {restLocal[0], turn * restLocal[1], restLocal[2], restLocal[3]};
    Quat rotation[4];
    Matrix animated[4];
    globals(local, rotation, animated);
    // Fed with the rest parent's matrix, listed in reverse order: lookups go by id.
    std::vector<CharacterNodeTransform> current;
    for (int i = 3; i >= 0; --i)
      current.push_back(MakeTransform(MakeId(i), animated[i], rest[i]->GetParentGlobalMatrix()));
    CharacterPose deltas = Extract(configuration, current);
    ASSERT_EQ(deltas->GetNodeTransformCount(), 4);
    for (int i = 0; i < 4; ++i)
    {
      SCOPED_TRACE(i);
      const CharacterNodeTransform& delta = deltas->GetNodeTransformArray()[i];
      EXPECT_TRUE(delta->GetUuid() == MakeId(i)) << "the rest pose's order";
      EXPECT_FALSE(delta.IsSameObject(rest[i]));
      EXPECT_EQ(delta->GetParentGlobalMatrix(), rest[i]->GetParentGlobalMatrix());
      EXPECT_LT(AxesDiff(delta->GetGlobalMatrix(), rotation[i] * Conjugate(restRotation[i])), 1e-12);
      EXPECT_LT(MaxDiff(delta->GetGlobalMatrix().off, animated[i].off), 1e-12);
    }
  }
  EXPECT_EQ(Text(configuration->GetSourceCharacter().GetValue()->GetSkeletonRestPose()->ToString()), restText);
}

TEST_F(CharacterSolverTest, MotionFromTheParentAloneIsRemovedAndSingularOrMissingMatricesReadAsIdentity)
{
  // Node 1 is carried rigidly by its moving parent; node 2 has a singular rest parent, node 3 a singular rest
  // global; node 4 is absent from the current pose.
  const Matrix restParent = Place(AxisAngle(0, 1, 0, 20), {1, 2, 3}), local = Place(AxisAngle(1, 0, 0, 65), {0, 1, 0});
  const Matrix movedParent = Place(AxisAngle(1, 2, 0, -80), {4, -1, 2});
  Matrix singular;
  singular.v1 = singular.v2 = singular.v3 = Vector{};
  singular.off = {5, 0, 0};
  const Quat q = AxisAngle(0, 0, 1, 33), restQ4 = AxisAngle(0, 1, 1, 45);
  const Matrix currentParent = Place(Quat{}, {1, 2, 3}), parent4 = Place(AxisAngle(1, 0, 0, 90), {0, 1, 0});
  CharacterPose deltas =
    Extract(MakeConfiguration(MakePose({MakeTransform(MakeId(1), Mul(restParent, local), restParent),
                                        MakeTransform(MakeId(2), Place(Quat{}, {9, 9, 9}), singular),
                                        MakeTransform(MakeId(3), singular, Matrix{}),
                                        MakeTransform(MakeId(4), Place(restQ4, {0, 0, 1}), parent4)})),
            {MakeTransform(MakeId(1), Mul(movedParent, local), movedParent),
             MakeTransform(MakeId(2), Place(q, {4, 4, 4}), currentParent),
             MakeTransform(MakeId(3), Place(q, {4, 4, 4}), Matrix{})});
  ASSERT_EQ(deltas->GetNodeTransformCount(), 4);
  // Node 2: Pr^-1 = I, so C = Pc^-1 * Gc. Node 3: rot(Gr)^-1 = I. Node 4: C = Pr, the delta rot(Pr) * rot(Gr)^-1.
  const std::vector<std::pair<Quat, Vector>> expected{{Quat{}, Mul(restParent, local).off},
                                                      {q, {3, 2, 1}},
                                                      {q, {4, 4, 4}},
                                                      {AxisAngle(1, 0, 0, 90) * Conjugate(restQ4), {0, 1, 0}}};
  for (int i = 0; i < 4; ++i)
  {
    SCOPED_TRACE(i + 1);
    EXPECT_LT(AxesDiff(deltas->GetNodeTransformArray()[i]->GetGlobalMatrix(), expected[i].first), 1e-12);
    EXPECT_LT(MaxDiff(deltas->GetNodeTransformArray()[i]->GetGlobalMatrix().off, expected[i].second), 1e-12);
  }
}

TEST_F(CharacterSolverTest, MissingObjectsAreNullPointerErrors)
{
  const CharacterPose current = MakePose({MakeTransform(MakeId(1), Matrix{})});
  const std::vector<std::pair<CharacterSolverConfiguration, CharacterPose>> cases{
    {CharacterSolverConfiguration(), current},
    {Value(CreateObject<CharacterSolverConfiguration>("net.telvo.animation.class.charactersolverconfiguration")),
     current},
    {MakeConfiguration(CharacterPose()), current},
    {MakeConfiguration(MakePose({})), CharacterPose()}};
  for (const auto& [configuration, pose] : cases)
  {
    Result<CharacterPose> r = _solver->ExtractGlobalDeltaPose(configuration, pose);
    EXPECT_TRUE(r.IsError() && r.GetError().IsClass(NullptrError));
  }
}

TEST_F(CharacterSolverTest, ApplyRotatesInGlobalSpaceAndReturnsTheLocalMatrix)
{
  const Quat qg = AxisAngle(1, -1, 2, 70), qd = AxisAngle(0, 1, 0, -35);
  const Matrix parent = Place(AxisAngle(3, 1, 0, 50), {1, -2, 0.5});
  const Vector at = {2, 3, 4}, step = {0.25, -0.5, 1};
  CharacterNodeTransform node = MakeTransform(MakeId(1), Place(qg, at), parent), none;
  CharacterNodeTransform translate = MakeTransform(MakeId(2), Place(Quat{}, step)),
                         rotate = MakeTransform(MakeId(3), Place(qd, step));
  struct Case
  {
    const CharacterNodeTransform& node;
    const CharacterNodeTransform& delta;
    bool applyTranslation;
    Matrix expectedGlobal;
  };
  // The delta rotation comes after the node's own, in global space; its offset moves the node, unrotated, only
  // when asked. A null node or delta reads as identity matrices.
  const std::vector<Case> cases{{node, none, false, Place(qg, at)},
                                {node, translate, false, Place(qg, at)},
                                {node, translate, true, Place(qg, at + step)},
                                {node, rotate, false, Place(qd * qg, at)},
                                {node, rotate, true, Place(qd * qg, at + step)},
                                {none, rotate, false, Place(qd, {})},
                                {none, rotate, true, Place(qd, step)}};
  for (size_t i = 0; i < cases.size(); ++i)
  {
    const Case& c = cases[i];
    const Matrix local = _solver->ApplyGlobalRotationDelta(c.node, c.delta, c.applyTranslation);
    EXPECT_LT(MaxDiff(c.node ? Mul(parent, local) : local, c.expectedGlobal), 1e-12) << i;
  }
}

TEST(MatrixInverseTest, ProductWithTheInverseIsTheIdentity)
{
  std::mt19937 random(11);
  std::uniform_real_distribution<double> component(-2.0, 2.0);
  for (int tested = 0; tested < 2000;)
  {
    Matrix m;
    m.off = {component(random) * 10, component(random) * 10, component(random) * 10};
    m.v1 = {component(random), component(random), component(random)};
    m.v2 = {component(random), component(random), component(random)};
    m.v3 = {component(random), component(random), component(random)};
    if (std::abs(Dot(m.v3, Cross(m.v1, m.v2))) < 0.2)
      continue; // keep the conditioning within what 1e-9 can promise
    ++tested;
    EXPECT_LT(MaxDiff(Mul(m, Inverse(m)), Matrix{}), 1e-9);
    EXPECT_LT(MaxDiff(Mul(Inverse(m), m), Matrix{}), 1e-9);
  }
  // Determinant exactly 0 (two equal axes): identity, offset dropped too. NaN takes the regular path.
  Matrix flat;
  flat.v2 = flat.v1;
  flat.off = {1, 2, 3};
  EXPECT_EQ(Inverse(flat), Matrix{});
  Matrix nan;
  nan.v1.x = std::nan("");
  EXPECT_TRUE(std::isnan(Inverse(nan).v1.x));
}

TEST_F(CharacterSolverTest, ExtractionFailsCleanlyWithOneAllocationPerNodeAndApplyNeverAllocates)
{
  auto failingRuns = [&](int n) {
    std::vector<CharacterNodeTransform> rest, current;
    for (int i = 0; i < n; ++i)
    {
      rest.push_back(MakeTransform(MakeId(i), Place(AxisAngle(1, 0, 0, i), {0, double(i), 0})));
      current.push_back(MakeTransform(MakeId(i), Place(AxisAngle(0, 1, 0, i), {0, double(i), 0})));
    }
    CharacterSolverConfiguration configuration = MakeConfiguration(MakePose(rest));
    CharacterPose currentPose = MakePose(current);
    return SweepOutOfMemory(
      [] { return 0; }, [&](int) { return _solver->ExtractGlobalDeltaPose(configuration, currentPose); },
      [&](int) {
        return Text(configuration->GetSourceCharacter().GetValue()->GetSkeletonRestPose()->ToString()) +
               Text(currentPose->ToString());
      });
  };
  const int four = failingRuns(4);
  EXPECT_GT(four, 0);
  EXPECT_EQ(failingRuns(12) - four, 8);

  CharacterNodeTransform node = MakeTransform(MakeId(1), Place(AxisAngle(1, 0, 0, 10), {1, 2, 3}));
  const Int live = Allocator::GetLiveCount();
  Allocator::FailNthAllocation(1);
  (void)_solver->ApplyGlobalRotationDelta(node, node, true);
  EXPECT_FALSE(Allocator::FailureDelivered());
  Allocator::FailNthAllocation(0);
  EXPECT_EQ(Allocator::GetLiveCount(), live);
}

} // namespace
