#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "support/loaded_module.h"
#include "support/oom_sweep.h"
#include "support/poses.h"
#include "support/quaternion.h"
#include "telvo/characterassociation.h"
#include "telvo/charactersolver.h"
#include "telvo/kelvarahelper.h"

using namespace telvo;

namespace
{

using namespace kelvara_test; // quaternion arithmetic, poses

Uuid MakeId(int n)
{
  return TaggedUuid(n, 0x5a);
}

CharacterSolverConfiguration MakeConfiguration(const CharacterPose& restPose)
{
  CharacterDefinition source =
    CreateObject<CharacterDefinition>("net.telvo.animation.class.characterdefinition").GetValue();
  if (restPose)
  {
    EXPECT_TRUE(source.MakeWritable().GetValue()->SetSkeletonRestPose(restPose).IsOk());
  }
  CharacterSolverConfiguration configuration =
    CreateObject<CharacterSolverConfiguration>("net.telvo.animation.class.charactersolverconfiguration").GetValue();
  EXPECT_TRUE(configuration.MakeWritable().GetValue()->SetSourceCharacter(source).IsOk());
  return configuration;
}

// A chain of joints: each joint's rest matrix relative to its parent, and its parent's index.
struct Joint
{
  int parent;
  Quat restRotation;
  Vector restOffset;
};

// Four joints with rotated rest offsets and a branch: 0 root, 1 under 0, 2 under 1, 3 under 1.
std::vector<Joint> SampleRig()
{
  return {{-1, AxisAngle(0, 1, 0, 30), {0.5, 1.0, -0.25}},
          {0, AxisAngle(1, 0, 1, -50), {0.0, 2.0, 0.0}},
          {1, AxisAngle(0, 0, 1, 75), {1.5, 0.0, 0.25}},
          {1, AxisAngle(1, 2, 3, 120), {-1.0, 0.5, 0.0}}};
}

// Global matrices of the rig with every joint's local rotation replaced by local[i].
std::vector<Matrix> Globals(const std::vector<Joint>& rig, const std::vector<Quat>& local)
{
  std::vector<Matrix> globals;
  for (size_t i = 0; i < rig.size(); ++i)
  {
    const Matrix localMatrix = Place(local[i], rig[i].restOffset);
    globals.push_back(rig[i].parent < 0 ? localMatrix : Mul(globals[rig[i].parent], localMatrix));
  }
  return globals;
}

std::vector<Quat> RestLocals(const std::vector<Joint>& rig)
{
  std::vector<Quat> local;
  for (const Joint& j : rig)
    local.push_back(j.restRotation);
  return local;
}

Matrix ParentOf(const std::vector<Joint>& rig, const std::vector<Matrix>& globals, size_t i)
{
  return rig[i].parent < 0 ? Matrix{} : globals[rig[i].parent];
}

class CharacterSolverTest : public ::testing::Test
{
protected:
  void SetUp() override
  {
    kelvara_test::LoadedModuleForTests();
    _solver = CreateObject<CharacterSolver>("net.telvo.animation.class.charactersolver").GetValue();
    _rig = SampleRig();
    _restGlobals = Globals(_rig, RestLocals(_rig));
    std::vector<CharacterNodeTransform> rest;
    for (size_t i = 0; i < _rig.size(); ++i)
      rest.push_back(MakeTransform(MakeId(static_cast<int>(i)), _restGlobals[i], ParentOf(_rig, _restGlobals, i)));
    _restPose = MakePose(rest);
    _configuration = MakeConfiguration(_restPose);
  }

  // A current pose of the rig: each joint's animated global matrix with its rest parent's global
  // matrix, listed in reverse order (lookups go by id).
  CharacterPose CurrentPose(const std::vector<Quat>& local) const
  {
    const std::vector<Matrix> globals = Globals(_rig, local);
    std::vector<CharacterNodeTransform> current;
    for (size_t i = _rig.size(); i-- > 0;)
      current.push_back(MakeTransform(MakeId(static_cast<int>(i)), globals[i], ParentOf(_rig, _restGlobals, i)));
    return MakePose(current);
  }

  CharacterPose Extract(const CharacterPose& current) const
  {
    Result<CharacterPose> deltas = _solver->ExtractGlobalDeltaPose(_configuration, current);
    EXPECT_TRUE(deltas.IsOk()) << (deltas.IsError() ? deltas.GetError().GetMessage() : "");
    return deltas.GetValue();
  }

  CharacterSolver _solver;
  std::vector<Joint> _rig;
  std::vector<Matrix> _restGlobals;
  CharacterPose _restPose;
  CharacterSolverConfiguration _configuration;
};

TEST_F(CharacterSolverTest, RestPoseGivesIdentityAxesAtTheRestPositionsAndStaysUntouched)
{
  const std::string restText(_restPose->ToString().View());
  CharacterPose deltas = Extract(CurrentPose(RestLocals(_rig)));

  const BaseArray<CharacterNodeTransform>& result = deltas->GetNodeTransformArray();
  const BaseArray<CharacterNodeTransform>& rest = _restPose->GetNodeTransformArray();
  ASSERT_EQ(result.GetCount(), 4);
  for (Int i = 0; i < 4; ++i)
  {
    SCOPED_TRACE(i);
    // Same node, same order, a private object; the rest parent's matrix is kept.
    EXPECT_TRUE(result[i]->GetUuid() == MakeId(static_cast<int>(i)));
    EXPECT_FALSE(result[i].IsSameObject(rest[i]));
    EXPECT_EQ(result[i]->GetParentGlobalMatrix(), rest[i]->GetParentGlobalMatrix());
    EXPECT_LT(AxesDiff(result[i]->GetGlobalMatrix(), Quat{}), 1e-12);
    EXPECT_LT(MaxDiff(result[i]->GetGlobalMatrix().off, _restGlobals[i].off), 1e-12);
  }
  EXPECT_FALSE(deltas.IsSameObject(_restPose));
  EXPECT_EQ(std::string(_restPose->ToString().View()), restText);
}

TEST_F(CharacterSolverTest, DeltaIsTheJointsOwnGlobalRotationChange)
{
  // Joint 1 turns by 40 degrees about its parent, the rest stay at their rest local rotations.
  std::vector<Quat> local = RestLocals(_rig);
  const Quat turn = AxisAngle(1, 1, 0, 40);
  local[1] = turn * local[1];
  const std::vector<Matrix> animated = Globals(_rig, local);
  CharacterPose deltas = Extract(CurrentPose(local));

  // With the rest parent fed, every joint's delta is G(frame) * G(rest)^-1 in quaternions:
  // rest globals have rotation q_rest, animated ones q_anim.
  std::vector<Quat> restQ, animQ;
  for (size_t i = 0; i < _rig.size(); ++i)
  {
    restQ.push_back(_rig[i].parent < 0 ? _rig[i].restRotation : restQ[_rig[i].parent] * _rig[i].restRotation);
    animQ.push_back(_rig[i].parent < 0 ? local[i] : animQ[_rig[i].parent] * local[i]);
  }
  for (Int i = 0; i < 4; ++i)
  {
    SCOPED_TRACE(i);
    const Matrix& delta = deltas->GetNodeTransformArray()[i]->GetGlobalMatrix();
    EXPECT_LT(AxesDiff(delta, animQ[i] * Conjugate(restQ[i])), 1e-12);
    EXPECT_LT(MaxDiff(delta.off, animated[i].off), 1e-12);
  }
}

TEST_F(CharacterSolverTest, MotionThatComesFromTheParentAloneIsRemoved)
{
  // Fed with the current parent instead of the rest parent, a joint carried rigidly by its moving
  // parent has no delta of its own: identity axes at its rest position.
  const Matrix restParent = Place(AxisAngle(0, 1, 0, 20), {1, 2, 3});
  const Matrix local = Place(AxisAngle(1, 0, 0, 65), {0, 1.5, 0});
  const Matrix movedParent = Place(AxisAngle(1, 2, 0, -80), {4, -1, 2});
  CharacterPose rest = MakePose({MakeTransform(MakeId(7), Mul(restParent, local), restParent)});
  CharacterPose current = MakePose({MakeTransform(MakeId(7), Mul(movedParent, local), movedParent)});
  _configuration = MakeConfiguration(rest);
  const Matrix delta = Extract(current)->GetNodeTransformArray()[0]->GetGlobalMatrix();
  EXPECT_LT(AxesDiff(delta, Quat{}), 1e-12);
  EXPECT_LT(MaxDiff(delta.off, Mul(restParent, local).off), 1e-12);
}

TEST_F(CharacterSolverTest, ExactlySingularMatricesInvertToIdentityAndMissingNodesReadAsIdentity)
{
  Matrix singular;
  singular.v1 = singular.v2 = singular.v3 = Vector{};
  singular.off = {5, 0, 0};
  const Quat q = AxisAngle(0, 0, 1, 33);
  Matrix currentParent;
  currentParent.off = {1, 2, 3};
  const Matrix restGlobal = Place(Quat{}, {9, 9, 9});
  const Matrix restParent2 = Place(AxisAngle(1, 0, 0, 90), {0, 1, 0});
  const Quat restQ2 = AxisAngle(0, 1, 1, 45);

  // Node 1: singular rest parent; node 2: singular rest global; node 3: absent from the current pose.
  CharacterPose rest = MakePose({MakeTransform(MakeId(1), restGlobal, singular),
                                 MakeTransform(MakeId(2), singular, Matrix{}),
                                 MakeTransform(MakeId(3), Place(restQ2, {0, 0, 1}), restParent2)});
  CharacterPose current = MakePose({MakeTransform(MakeId(1), Place(q, {4, 4, 4}), currentParent),
                                    MakeTransform(MakeId(2), Place(q, {4, 4, 4}), Matrix{})});
  _configuration = MakeConfiguration(rest);
  CharacterPose deltas = Extract(current);
  ASSERT_TRUE(deltas);
  const BaseArray<CharacterNodeTransform>& d = deltas->GetNodeTransformArray();
  ASSERT_EQ(d.GetCount(), 3);

  // Pr^-1 = I, so C = Pc^-1 * Gc: the rotation q, shifted back by the parent's offset.
  EXPECT_LT(AxesDiff(d[0]->GetGlobalMatrix(), q), 1e-12);
  EXPECT_LT(MaxDiff(d[0]->GetGlobalMatrix().off, {3, 2, 1}), 1e-12);
  // rot(Gr)^-1 = I: the delta is C's own rotation.
  EXPECT_LT(AxesDiff(d[1]->GetGlobalMatrix(), q), 1e-12);
  EXPECT_LT(MaxDiff(d[1]->GetGlobalMatrix().off, {4, 4, 4}), 1e-12);
  // Identity current matrices: C = Pr, delta = rot(Pr) * rot(Gr)^-1 at Pr's position.
  EXPECT_LT(AxesDiff(d[2]->GetGlobalMatrix(), AxisAngle(1, 0, 0, 90) * Conjugate(restQ2)), 1e-12);
  EXPECT_LT(MaxDiff(d[2]->GetGlobalMatrix().off, {0, 1, 0}), 1e-12);
}

TEST_F(CharacterSolverTest, MissingObjectsAreNullPointerErrors)
{
  CharacterPose current = CurrentPose(RestLocals(_rig));
  auto expectNull = [&](const CharacterSolverConfiguration& configuration, const CharacterPose& pose) {
    Result<CharacterPose> r = _solver->ExtractGlobalDeltaPose(configuration, pose);
    ASSERT_TRUE(r.IsError());
    EXPECT_TRUE(r.GetError().IsClass(NullptrError));
    EXPECT_FALSE(r.GetValue());
  };
  expectNull(CharacterSolverConfiguration(), current);
  expectNull(CreateObject<CharacterSolverConfiguration>("net.telvo.animation.class.charactersolverconfiguration")
               .GetValue(),
             current);
  expectNull(MakeConfiguration(CharacterPose()), current);
  expectNull(_configuration, CharacterPose());
}

TEST_F(CharacterSolverTest, ApplyRotatesInGlobalSpaceAndReturnsTheLocalMatrix)
{
  const Quat qg = AxisAngle(1, -1, 2, 70);
  const Quat qd = AxisAngle(0, 1, 0, -35);
  const Matrix parent = Place(AxisAngle(3, 1, 0, 50), {1, -2, 0.5});
  const Matrix global = Place(qg, {2, 3, 4});
  CharacterNodeTransform node = MakeTransform(MakeId(1), global, parent);
  Matrix deltaMatrix;
  deltaMatrix.off = {0.25, -0.5, 1};
  CharacterNodeTransform translateOnly = MakeTransform(MakeId(2), deltaMatrix, Matrix{});
  CharacterNodeTransform rotate = MakeTransform(MakeId(3), Place(qd, {0.25, -0.5, 1}), Matrix{});

  // Identity delta: the node's current local matrix, P * local = G.
  EXPECT_LT(MaxDiff(Mul(parent, _solver->ApplyGlobalRotationDelta(node, CharacterNodeTransform(), false)), global),
            1e-12);
  EXPECT_LT(MaxDiff(Mul(parent, _solver->ApplyGlobalRotationDelta(node, translateOnly, false)), global), 1e-12);
  // The delta's offset moves the node, unrotated, only when asked.
  Matrix moved = global;
  moved.off = global.off + deltaMatrix.off;
  EXPECT_LT(MaxDiff(Mul(parent, _solver->ApplyGlobalRotationDelta(node, translateOnly, true)), moved), 1e-12);
  // The delta rotation comes after the node's own, in global space.
  Matrix turned = Mul(parent, _solver->ApplyGlobalRotationDelta(node, rotate, false));
  EXPECT_LT(AxesDiff(turned, qd * qg), 1e-12);
  EXPECT_LT(MaxDiff(turned.off, global.off), 1e-12);
  turned = Mul(parent, _solver->ApplyGlobalRotationDelta(node, rotate, true));
  EXPECT_LT(AxesDiff(turned, qd * qg), 1e-12);
  EXPECT_LT(MaxDiff(turned.off, moved.off), 1e-12);
  // A null node reads as identity matrices: the delta itself (rotation only, or with its offset).
  EXPECT_LT(MaxDiff(_solver->ApplyGlobalRotationDelta(CharacterNodeTransform(), rotate, false), Place(qd, {})), 1e-12);
  EXPECT_LT(MaxDiff(_solver->ApplyGlobalRotationDelta(CharacterNodeTransform(), rotate, true),
                    Place(qd, {0.25, -0.5, 1})),
            1e-12);
}

TEST_F(CharacterSolverTest, RetargetingOntoAnIdenticalCopyGivesTheSourceLocalMatrices)
{
  // The copy has the same rest pose under other ids; the association maps id i to id 100 + i.
  CharacterAssociation association =
    CreateObject<CharacterAssociation>("net.telvo.animation.class.characterassociation").GetValue();
  for (int i = 0; i < 4; ++i)
    ASSERT_TRUE(association.MakeWritable().GetValue()->AssociateUuid(MakeId(i), MakeId(100 + i)).IsOk());
  KelvaraHelperRef helper = CreateObject<KelvaraHelperRef>("net.telvo.animation.class.kelvarahelper").GetValue();

  std::mt19937 random(7);
  std::uniform_real_distribution<double> angle(-170.0, 170.0), axis(-1.0, 1.0);
  for (int frame = 0; frame < 20; ++frame)
  {
    SCOPED_TRACE(frame);
    std::vector<Quat> local;
    for (int i = 0; i < 4; ++i)
      local.push_back(AxisAngle(axis(random), axis(random), axis(random) + 2.5, angle(random)));
    const std::vector<Matrix> animated = Globals(_rig, local);

    CharacterPose deltas =
      helper->TranslateSrcToDestID(association, Extract(CurrentPose(local))).GetValue();
    ASSERT_EQ(deltas->GetNodeTransformCount(), 4);

    // Down the copy, parents first: each joint at its rest rotation, placed by its parent's new
    // global matrix, with that matrix as parent.
    std::vector<Matrix> newGlobals(4);
    for (size_t i = 0; i < 4; ++i)
    {
      const Matrix parent = _rig[i].parent < 0 ? Matrix{} : newGlobals[_rig[i].parent];
      Matrix placed = _restGlobals[i];
      placed.off = Mul(parent, Place(Quat{}, _rig[i].restOffset)).off;
      CharacterNodeTransform node = MakeTransform(MakeId(100 + static_cast<int>(i)), placed, parent);
      CharacterNodeTransform delta = deltas->GetNodeTransformByID(MakeId(100 + static_cast<int>(i))).GetValue();
      const Matrix result = _solver->ApplyGlobalRotationDelta(node, delta, false);
      newGlobals[i] = Mul(parent, result);
      EXPECT_LT(MaxDiff(result, Place(local[i], _rig[i].restOffset)), 1e-9) << i;
      EXPECT_LT(MaxDiff(newGlobals[i], animated[i]), 1e-9) << i;
    }
  }
}

TEST(MatrixInverseTest, ProductWithTheInverseIsTheIdentity)
{
  std::mt19937 random(11);
  std::uniform_real_distribution<double> component(-2.0, 2.0);
  int tested = 0;
  while (tested < 2000)
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

// Counts the allocations of one extraction of a chain of n nodes (the sweep's failing runs).
int ExtractionAllocations(const CharacterSolver& solver, int n)
{
  std::vector<CharacterNodeTransform> rest, current;
  for (int i = 0; i < n; ++i)
  {
    rest.push_back(MakeTransform(MakeId(i), Place(AxisAngle(1, 0, 0, i), {0, double(i), 0}), Matrix{}));
    current.push_back(MakeTransform(MakeId(i), Place(AxisAngle(0, 1, 0, i), {0, double(i), 0}), Matrix{}));
  }
  CharacterPose restPose = MakePose(rest);
  CharacterPose currentPose = MakePose(current);
  CharacterSolverConfiguration configuration = MakeConfiguration(restPose);
  auto text = [](const CharacterPose& p) { return std::string(p->ToString().View()); };
  return kelvara_test::SweepOutOfMemory(
    [] { return 0; }, [&](int) { return solver->ExtractGlobalDeltaPose(configuration, currentPose); },
    [&](int) { return text(restPose) + text(currentPose); });
}

TEST_F(CharacterSolverTest, OutOfMemoryLeavesEverythingAsItWasAndApplyNeverAllocates)
{
  // Every failing run is an OutOfMemoryError with both poses unchanged and nothing leaked; per
  // node the extraction makes exactly one allocation, the node's private copy.
  const int four = ExtractionAllocations(_solver, 4);
  const int twelve = ExtractionAllocations(_solver, 12);
  EXPECT_GT(four, 0);
  EXPECT_EQ(twelve - four, 8);

  CharacterNodeTransform node = MakeTransform(MakeId(1), Place(AxisAngle(1, 0, 0, 10), {1, 2, 3}), Matrix{});
  EXPECT_EQ(kelvara_test::SweepAllocationFailures(
              [] { return 0; },
              [&](int) {
                (void)_solver->ApplyGlobalRotationDelta(node, node, true);
                return Result<void>();
              },
              [](int, const Result<void>&, bool failed) { EXPECT_FALSE(failed); }),
            0);
}

} // namespace
