// The host's skeleton: joint paths, comparisons, validation and the quaternion conversions its
// poses rest on. World poses are checked in pose_test.cpp.
#include "anim/skeleton.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "anim/quaternion.h"
#include "support/quaternion.h"

namespace kelvara
{
namespace
{

using telvo::Matrix;
using telvo::Vector;

Joint J(const std::string& name, int parent, const Vector& translation = {})
{
  return {name, parent, translation, {}, {1, 1, 1}, false, {}};
}

// Refusals: each change made to a copy of good, with the message it must give.
using Spoils = std::vector<std::pair<std::function<void(Skeleton&)>, std::string>>;

TEST(Skeleton, JointPathsNameEveryJointOnceFromItsRoot)
{
  // Same-named siblings are told apart by their order; same names elsewhere in the tree are not.
  const Skeleton s{"p.bvh",
                   {J("Hips", -1), J("Leg", 0), J("Leg", 0), J("Foot", 2), J("Foot", 1), J("Leg", 0), J("Hips", -1),
                    J("Leg", 6), J("Leg", 7)},
                   {},
                   0.0};
  EXPECT_EQ(JointPaths(s), (std::vector<std::string>{"Hips", "Hips/Leg", "Hips/Leg#2", "Hips/Leg#2/Foot",
                                                     "Hips/Leg/Foot", "Hips/Leg#3", "Hips#2", "Hips#2/Leg",
                                                     "Hips#2/Leg/Leg"}));
  EXPECT_EQ(JointDepths(s), (std::vector<int>{0, 1, 1, 2, 2, 1, 0, 1, 2}));

  // A wide fan of one name: numbering goes past one digit.
  Skeleton fan{"fan.bvh", {J("root", -1)}, {}, 0.0};
  fan.joints.resize(5001, J("finger", 0));
  const std::vector<std::string> fanPaths = JointPaths(fan);
  EXPECT_EQ(std::tie(fanPaths[1], fanPaths.back()), std::make_tuple("root/finger", "root/finger#5000"));
}

TEST(Skeleton, SameSkeletonComparesWhatMovesAndNamesTheFirstDifference)
{
  const Skeleton a{"a.bvh", {J("Hips", -1, {0, 9, 0}), J("Spine", 0, {0, 1, 0}), J("Leg", 0, {1, -1, 0})}, {}, 0.0};
  Skeleton b = a;
  b.path = "b.bvh";
  for (std::size_t i = 0; i < b.joints.size(); ++i)
    b.joints[i].line = 5 + 4 * static_cast<int>(i);
  // Where the files declare the joints, where the bones end and the unit do not move anything.
  b.joints[2].hasEndSite = true;
  b.joints[2].endSite = {0, -3, 0};
  b.metresPerUnit = 0.01;
  std::string why = "untouched";
  EXPECT_TRUE(SameSkeleton(a, b, &why));
  EXPECT_EQ(why, "untouched");

  const std::string leg = "b.bvh:13: expected joint 'Leg' of a.bvh, found 'Leg' with another parent or rest transform";
  const Spoils cases = {
    {[](Skeleton& s) { s.joints[2].translation.y = -1.0000001; }, leg},
    {[](Skeleton& s) { s.joints[2].parent = 1; }, leg},
    {[](Skeleton& s) { s.joints[2].rotation = AxisAngle({0, 1, 0}, 1e-9); }, leg},
    {[](Skeleton& s) { s.joints[2].scale = {1, 1, 1.5}; }, leg},
    {[](Skeleton& s) { s.joints[1].name = "Chest"; },
     "b.bvh:9: expected joint 'Spine' of a.bvh, found 'Chest' with another parent or rest transform"},
    // A joint that is not from a text file has no line to name.
    {[](Skeleton& s) { s.joints[1] = J("Chest", 0, {0, 1, 0}); },
     "b.bvh: expected joint 'Spine' of a.bvh, found 'Chest' with another parent or rest transform"},
    {[](Skeleton& s) { s.joints.pop_back(); }, "b.bvh: expected the 3 joints of a.bvh, found 2"},
    {[](Skeleton& s) { s.sceneTransform.off.x = 1; },
     "b.bvh: expected the scene transform of a.bvh, found another one"},
  };
  for (const auto& [spoil, message] : cases)
  {
    Skeleton other = b;
    spoil(other);
    EXPECT_FALSE(SameSkeleton(a, other));
    EXPECT_FALSE(SameSkeleton(a, other, &why));
    EXPECT_EQ(why, message);
  }
}

TEST(Skeleton, ValidateRefusesWhatConsumersCannotUse)
{
  const Skeleton good{"s.bvh", {J("Hips", -1), J("Spine", 0), J("Head", 1)}, {}, 0.0};
  std::string error;
  EXPECT_TRUE(ValidateSkeleton(good, error)) << error;
  // Rotations within 1e-6 of unit length pass: file rounding must not refuse a rig.
  Skeleton rounded = good;
  rounded.joints[1].rotation = {1.0 + 5e-7, 0, 0, 0};
  EXPECT_TRUE(ValidateSkeleton(rounded, error)) << error;

  const std::string spine = "s.bvh: joint 1 ('Spine'): ";
  const std::string singular = "s.bvh: expected a scene transform that can be inverted";
  const Spoils cases = {
    {[](Skeleton& s) { s.joints.clear(); }, "s.bvh: expected 1 to 10000 joints, found 0"},
    {[](Skeleton& s) { s.joints.resize(10001, J("j", -1)); }, "s.bvh: expected 1 to 10000 joints, found 10001"},
    {[](Skeleton& s) { s.joints[1].name.clear(); }, "s.bvh: joint 1 (''): expected a name, found none"},
    {[](Skeleton& s) { s.joints[1].parent = 1; }, spine + "expected an earlier joint as parent, found 1"},
    {[](Skeleton& s) { s.joints[1].parent = -2; }, spine + "expected an earlier joint as parent, found -2"},
    {[](Skeleton& s) { s.joints[1].translation.z = std::nan(""); }, spine + "expected finite numbers"},
    {[](Skeleton& s) { s.joints[1].endSite.x = HUGE_VAL; }, spine + "expected finite numbers"},
    {[](Skeleton& s) { s.joints[1].scale.y = -HUGE_VAL; }, spine + "expected finite numbers"},
    {[](Skeleton& s) { s.joints[1].rotation.x = std::nan(""); }, spine + "expected finite numbers"},
    {[](Skeleton& s) { s.joints[1].rotation = {1, 1, 0, 0}; }, spine + "expected a unit rotation"},
    {[](Skeleton& s) { s.joints[1].rotation = {1.0 + 2e-6, 0, 0, 0}; }, spine + "expected a unit rotation"},
    {[](Skeleton& s) { s.joints[1].scale = {1, 0, 1}; }, spine + "expected a scale without zeros"},
    {[](Skeleton& s) { s.sceneTransform.v2 = s.sceneTransform.v1; }, singular},
    {[](Skeleton& s) { s.sceneTransform.off.y = std::nan(""); }, singular},
  };
  for (const auto& [spoil, message] : cases)
  {
    Skeleton bad = good;
    spoil(bad);
    EXPECT_FALSE(ValidateSkeleton(bad, error));
    EXPECT_EQ(error, message);
  }
}

TEST(Quaternion, MatrixConversionsRoundTripOnRandomRotations)
{
  // Rotations from the whole sphere, plus half turns and near half turns, where the trace is
  // about -1 and the conversion must take another diagonal element as its pivot.
  std::mt19937_64 rng(23);
  std::normal_distribution<double> gauss;
  std::vector<Quaternion> rotations = {{0, 1, 0, 0}, {0, 0, 0, 1}, {}};
  for (int i = 0; i < 20000; ++i)
    rotations.push_back(Normalized({gauss(rng), gauss(rng), gauss(rng), gauss(rng)}));
  for (int i = 0; i < 2000; ++i)
    rotations.push_back(Normalized({i % 2 ? 0.0 : 1e-9 * gauss(rng), gauss(rng), gauss(rng), gauss(rng)}));

  // A few units in the last place per product and square root (the worst seen is under 1e-15);
  // 1e-14 leaves a margin of ten, and a wrong sign or pivot is off by order one.
  const double tolerance = 1e-14;
  for (const Quaternion& q : rotations)
  {
    const Matrix m = ToMatrix(q);
    // The matrix turns the axes as the quaternion does by the plain formula q v q*.
    ASSERT_LT(kelvara_test::AxesDiff(m, {q.w, q.x, q.y, q.z}), tolerance);
    EXPECT_EQ(m.off, Vector{});
    // Back to the same rotation, in its w >= 0 form; a uniform scale of the matrix is ignored.
    for (double k : {1.0, 0.01, 250.0})
    {
      const Quaternion back = FromMatrix(kelvara_test::Mul(m, Matrix{{}, {k, 0, 0}, {0, k, 0}, {0, 0, k}}));
      ASSERT_GE(back.w, 0.0);
      const double sign = q.w < 0.0 || (q.w == 0.0 && Dot(back, q) < 0.0) ? -1.0 : 1.0;
      ASSERT_LT(std::max({std::fabs(back.w - sign * q.w), std::fabs(back.x - sign * q.x),
                          std::fabs(back.y - sign * q.y), std::fabs(back.z - sign * q.z)}),
                tolerance)
        << q.w << " " << q.x << " " << q.y << " " << q.z << " scale " << k;
    }
  }
}

} // namespace
} // namespace kelvara
