// The host's skeleton: joint paths, comparisons, validation, world poses and the quaternion
// conversions they rest on.
#include "anim/skeleton.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "anim/pose.h"
#include "anim/quaternion.h"
#include "support/quaternion.h"

namespace kelvara
{
namespace
{

using kelvara_test::Quat;
using telvo::Matrix;
using telvo::Vector;

Joint MakeJoint(const std::string& name, int parent, const Vector& translation = {})
{
  Joint joint;
  joint.name = name;
  joint.parent = parent;
  joint.translation = translation;
  return joint;
}

Skeleton MakeSkeleton(const std::string& path, std::vector<Joint> joints)
{
  Skeleton skeleton;
  skeleton.path = path;
  skeleton.joints = std::move(joints);
  return skeleton;
}

Quat Independent(const Quaternion& q)
{
  return {q.w, q.x, q.y, q.z};
}

TEST(Skeleton, JointPathsNameEveryJointOnceFromItsRoot)
{
  // Same-named siblings are told apart by their order; same names elsewhere in the tree are not.
  const Skeleton s = MakeSkeleton("p.bvh", {MakeJoint("Hips", -1), MakeJoint("Leg", 0), MakeJoint("Leg", 0),
                                            MakeJoint("Foot", 2), MakeJoint("Foot", 1), MakeJoint("Leg", 0),
                                            MakeJoint("Hips", -1), MakeJoint("Leg", 6), MakeJoint("Leg", 7)});
  EXPECT_EQ(JointPaths(s), (std::vector<std::string>{"Hips", "Hips/Leg", "Hips/Leg#2", "Hips/Leg#2/Foot",
                                                     "Hips/Leg/Foot", "Hips/Leg#3", "Hips#2", "Hips#2/Leg",
                                                     "Hips#2/Leg/Leg"}));
  EXPECT_EQ(JointDepths(s), (std::vector<int>{0, 1, 1, 2, 2, 1, 0, 1, 2}));

  // A long chain and a wide fan of one name.
  Skeleton chain = MakeSkeleton("chain.bvh", {MakeJoint("a", -1)});
  for (int i = 1; i < 300; ++i)
    chain.joints.push_back(MakeJoint(i % 2 ? "b" : "a", i - 1));
  std::string deepest = "a";
  for (int i = 1; i < 300; ++i)
    deepest += i % 2 ? "/b" : "/a";
  EXPECT_EQ(JointPaths(chain).back(), deepest);
  EXPECT_EQ(JointDepths(chain).back(), 299);
  Skeleton fan = MakeSkeleton("fan.bvh", {MakeJoint("root", -1)});
  for (int i = 0; i < 5000; ++i)
    fan.joints.push_back(MakeJoint("finger", 0));
  const std::vector<std::string> fanPaths = JointPaths(fan);
  EXPECT_EQ(fanPaths[1], "root/finger");
  EXPECT_EQ(fanPaths.back(), "root/finger#5000");
}

TEST(Skeleton, SameSkeletonComparesWhatMovesAndNamesTheFirstDifference)
{
  Skeleton a = MakeSkeleton("a.bvh", {MakeJoint("Hips", -1, {0, 9, 0}), MakeJoint("Spine", 0, {0, 1, 0}),
                                      MakeJoint("Leg", 0, {1, -1, 0})});
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
  const std::pair<std::function<void(Skeleton&)>, std::string> cases[] = {
    {[](Skeleton& s) { s.joints[2].translation.y = -1.0000001; }, leg},
    {[](Skeleton& s) { s.joints[2].parent = 1; }, leg},
    {[](Skeleton& s) { s.joints[2].rotation = AxisAngle({0, 1, 0}, 1e-9); }, leg},
    {[](Skeleton& s) { s.joints[2].scale = {1, 1, 1.5}; }, leg},
    {[](Skeleton& s) { s.joints[1].name = "Chest"; },
     "b.bvh:9: expected joint 'Spine' of a.bvh, found 'Chest' with another parent or rest transform"},
    // A joint that is not from a text file has no line to name.
    {[](Skeleton& s) {
       s.joints[1].name = "Chest";
       s.joints[1].line = 0;
     },
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
  const Skeleton good = MakeSkeleton("s.bvh", {MakeJoint("Hips", -1), MakeJoint("Spine", 0), MakeJoint("Head", 1)});
  std::string error;
  EXPECT_TRUE(ValidateSkeleton(good, error)) << error;
  // Rotations within 1e-6 of unit length pass: file rounding must not refuse a rig.
  Skeleton rounded = good;
  rounded.joints[1].rotation = {1.0 + 5e-7, 0, 0, 0};
  EXPECT_TRUE(ValidateSkeleton(rounded, error)) << error;

  const std::string spine = "s.bvh: joint 1 ('Spine'): ";
  const std::pair<std::function<void(Skeleton&)>, std::string> cases[] = {
    {[](Skeleton& s) { s.joints.clear(); }, "s.bvh: expected 1 to 10000 joints, found 0"},
    {[](Skeleton& s) { s.joints.resize(10001, MakeJoint("j", -1)); }, "s.bvh: expected 1 to 10000 joints, found 10001"},
    {[](Skeleton& s) { s.joints[1].name.clear(); }, "s.bvh: joint 1 (''): expected a name, found none"},
    {[](Skeleton& s) { s.joints[1].parent = 1; }, spine + "expected an earlier joint as parent, found 1"},
    {[](Skeleton& s) { s.joints[1].parent = 2; }, spine + "expected an earlier joint as parent, found 2"},
    {[](Skeleton& s) { s.joints[1].parent = -2; }, spine + "expected an earlier joint as parent, found -2"},
    {[](Skeleton& s) { s.joints[1].translation.z = std::nan(""); }, spine + "expected finite numbers"},
    {[](Skeleton& s) { s.joints[1].endSite.x = HUGE_VAL; }, spine + "expected finite numbers"},
    {[](Skeleton& s) { s.joints[1].scale.y = -HUGE_VAL; }, spine + "expected finite numbers"},
    {[](Skeleton& s) { s.joints[1].rotation.x = std::nan(""); }, spine + "expected finite numbers"},
    {[](Skeleton& s) { s.joints[1].rotation = {1, 1, 0, 0}; }, spine + "expected a unit rotation"},
    {[](Skeleton& s) { s.joints[1].rotation = {1.0 + 2e-6, 0, 0, 0}; }, spine + "expected a unit rotation"},
    {[](Skeleton& s) { s.joints[1].scale = {1, 0, 1}; }, spine + "expected a scale without zeros"},
    {[](Skeleton& s) { s.sceneTransform.v3 = {0, 0, 0}; }, "s.bvh: expected a scene transform that can be inverted"},
    {[](Skeleton& s) { s.sceneTransform.v2 = s.sceneTransform.v1; },
     "s.bvh: expected a scene transform that can be inverted"},
    {[](Skeleton& s) { s.sceneTransform.off.y = std::nan(""); },
     "s.bvh: expected a scene transform that can be inverted"},
  };
  for (const auto& [spoil, message] : cases)
  {
    Skeleton bad = good;
    spoil(bad);
    EXPECT_FALSE(ValidateSkeleton(bad, error));
    EXPECT_EQ(error, message);
  }
}

TEST(WorldPose, ScaledSceneAndRestRotationsMatchIndependentArithmetic)
{
  // A Z-up rig in centimetres: its armature turns Z up into Y up, scales by 0.01 and stands aside.
  const Quat sceneTurn = kelvara_test::AxisAngle(1, 0, 0, -90);
  const double sceneScale = 0.01;
  const Vector sceneOffset{0.5, 0, -2};
  Skeleton s = MakeSkeleton("rig.glb", {MakeJoint("hips", -1, {0, 3, 95}), MakeJoint("spine", 0, {0, 0, 12}),
                                        MakeJoint("arm", 1, {15, -2, 30})});
  s.sceneTransform = kelvara_test::Place(sceneTurn, sceneOffset);
  s.sceneTransform.v1 = s.sceneTransform.v1 * sceneScale;
  s.sceneTransform.v2 = s.sceneTransform.v2 * sceneScale;
  s.sceneTransform.v3 = s.sceneTransform.v3 * sceneScale;
  const Quaternion rest[] = {AxisAngle({0, 0, 1}, 0.3), AxisAngle(telvo::Normalized({1, 1, 0}), -0.8),
                             AxisAngle({0, 1, 0}, 1.9)};
  const double scales[] = {2.0, 1.0, 0.75};
  for (std::size_t i = 0; i < 3; ++i)
  {
    s.joints[i].rotation = rest[i];
    s.joints[i].scale = {scales[i], scales[i], scales[i]};
  }
  s.joints[2].hasEndSite = true;
  s.joints[2].endSite = {0, 20, 0};

  Clip clip = RestClip(s, 2, 0.04);
  const Quaternion moved[] = {Normalized({0.3, -0.5, 0.7, 0.1}), Normalized({-0.2, 0.1, 0.9, 0.4}),
                              Normalized({0.8, 0.0, -0.3, 0.5})};
  for (std::size_t i = 0; i < 3; ++i)
    clip.rotations[3 + i] = moved[i];
  clip.rootTranslation[1] = {-10, 40, 80};

  // Each joint's world rotation is the scene's and the chain's; its offset from the parent is the
  // local translation turned by the parent and stretched by every scale above it.
  auto expect = [&](const WorldPose& pose, const Quaternion* rotations, const Vector& rootTranslation) {
    Quat turn = sceneTurn;
    Vector position = sceneOffset;
    double scale = sceneScale;
    for (std::size_t i = 0; i < 3; ++i)
    {
      const Vector local = i == 0 ? rootTranslation : s.joints[i].translation;
      position = position + kelvara_test::Rotate(turn, local * scale);
      turn = turn * Independent(rotations[i]);
      scale *= scales[i];
      EXPECT_LT(kelvara_test::MaxDiff(pose[i], kelvara_test::Place(turn, position)), 1e-12) << "joint " << i;
    }
    const Vector end = position + kelvara_test::Rotate(turn, s.joints[2].endSite * scale);
    EXPECT_LT(kelvara_test::MaxDiff(pose.EndSite(s, 2), end), 1e-12);
    EXPECT_EQ(pose.EndSite(s, 1), pose[1].off) << "a joint without an end site stands for it";
  };
  WorldPose pose;
  ASSERT_TRUE(pose.Evaluate(s, nullptr, kRestFrame));
  expect(pose, rest, s.joints[0].translation);
  EXPECT_EQ(RestWorld(s), pose.Matrices());
  ASSERT_TRUE(pose.Evaluate(s, &clip, 0));
  expect(pose, rest, s.joints[0].translation);
  ASSERT_TRUE(pose.Evaluate(s, &clip, 1));
  expect(pose, moved, clip.rootTranslation[1]);

  // Frames outside the clip, or a clip of another skeleton, leave the pose empty.
  EXPECT_FALSE(pose.Evaluate(s, &clip, 2));
  EXPECT_EQ(pose.Size(), 0u);
  EXPECT_FALSE(pose.Evaluate(s, &clip, -2));
  Skeleton shorter = s;
  shorter.joints.pop_back();
  EXPECT_FALSE(pose.Evaluate(shorter, &clip, 0));
  EXPECT_EQ(pose.Size(), 0u);
}

TEST(Quaternion, MatrixConversionsRoundTripOnRandomRotations)
{
  // Rotations from the whole sphere, plus half turns and near half turns, where the trace is
  // about -1 and the conversion must take another diagonal element as its pivot.
  std::mt19937_64 rng(23);
  std::normal_distribution<double> gauss;
  std::vector<Quaternion> rotations;
  for (int i = 0; i < 20000; ++i)
    rotations.push_back(Normalized({gauss(rng), gauss(rng), gauss(rng), gauss(rng)}));
  for (int i = 0; i < 2000; ++i)
    rotations.push_back(Normalized({i % 2 ? 0.0 : 1e-9 * gauss(rng), gauss(rng), gauss(rng), gauss(rng)}));
  rotations.push_back({0, 1, 0, 0});
  rotations.push_back({0, 0, 0, 1});
  rotations.push_back({});

  // A few units in the last place per product and square root (the worst seen is under 1e-15);
  // 1e-14 leaves a margin of ten, and a wrong sign or pivot is off by order one.
  const double tolerance = 1e-14;
  for (const Quaternion& q : rotations)
  {
    const Matrix m = ToMatrix(q);
    // The matrix turns the axes as the quaternion does by the plain formula q v q*.
    ASSERT_LT(kelvara_test::AxesDiff(m, Independent(q)), tolerance);
    EXPECT_EQ(m.off, Vector{});
    // Back to the same rotation, in its w >= 0 form; a uniform scale of the matrix is ignored.
    for (double scale : {1.0, 0.01, 250.0})
    {
      Matrix scaled = m;
      scaled.v1 = scaled.v1 * scale;
      scaled.v2 = scaled.v2 * scale;
      scaled.v3 = scaled.v3 * scale;
      const Quaternion back = FromMatrix(scaled);
      ASSERT_GE(back.w, 0.0);
      const double sign = q.w < 0.0 || (q.w == 0.0 && Dot(back, q) < 0.0) ? -1.0 : 1.0;
      ASSERT_LT(std::max({std::fabs(back.w - sign * q.w), std::fabs(back.x - sign * q.x),
                          std::fabs(back.y - sign * q.y), std::fabs(back.z - sign * q.z)}),
                tolerance)
        << q.w << " " << q.x << " " << q.y << " " << q.z << " scale " << scale;
    }
  }
}

} // namespace
} // namespace kelvara
