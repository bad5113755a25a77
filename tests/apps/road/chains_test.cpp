// Chains of different lengths: the joints between two mapped joints share the bend, the end keeps
// its world rotation. Checked with the plain quaternion formulas.
#include "road/chains.h"

#include <gtest/gtest.h>

#include <cmath>

#include "anim/pose.h"
#include "support/quaternion.h"

namespace kelvara
{
namespace
{

using kelvara_test::Quat;

Quat ToQuat(const Quaternion& q)
{
  return {q.w, q.x, q.y, q.z};
}

// Degrees of the rotation q (0 to 180).
double Degrees(const Quat& q)
{
  return 2.0 * std::atan2(std::sqrt(q.x * q.x + q.y * q.y + q.z * q.z), std::abs(q.w)) * 180.0 / M_PI;
}

double Diff(const Quat& a, const Quat& b)
{
  return Degrees(kelvara_test::Conjugate(a) * b);
}

// root -> top -> m1 -> m2 -> m3 -> end -> tip, one unit apart along Y; rest rotations as given.
Skeleton Spine(const std::vector<Quaternion>& rest)
{
  Skeleton s;
  const char* names[] = {"root", "top", "m1", "m2", "m3", "end", "tip"};
  for (int j = 0; j < 7; ++j)
  {
    Joint& joint = s.joints.emplace_back();
    joint.name = names[j];
    joint.parent = j - 1;
    joint.translation = j == 0 ? telvo::Vector() : telvo::Vector(0, 1, 0);
    joint.rotation = rest[static_cast<std::size_t>(j)];
  }
  return s;
}

// One frame: every joint at its rest rotation but top and end, which the transfer drove.
Clip Frame(const Skeleton& s, const Quaternion& top, const Quaternion& end)
{
  Clip c;
  c.frameCount = 1;
  c.frameTime = 1.0 / 30.0;
  c.jointCount = static_cast<int>(s.joints.size());
  for (const Joint& j : s.joints)
    c.rotations.push_back(j.rotation);
  c.rotations[1] = top;
  c.rotations[5] = end;
  c.rootTranslation = {telvo::Vector()};
  return c;
}

std::vector<Quat> WorldRotations(const Skeleton& s, const Clip& c)
{
  std::vector<Quat> world;
  for (std::size_t j = 0; j < s.joints.size(); ++j)
  {
    const Quat local = ToQuat(c.rotations[j]);
    world.push_back(s.joints[j].parent < 0 ? local : world[static_cast<std::size_t>(s.joints[j].parent)] * local);
  }
  return world;
}

const std::vector<bool> kMapped = {true, true, false, false, false, true, true};

TEST(Chains, FiveJointsAgainstTwoShareTheBendAndTheEndKeepsItsWorldRotation)
{
  const Skeleton straight = Spine(std::vector<Quaternion>(7));
  const std::vector<JointChain> chains = FindChains(straight, kMapped);
  ASSERT_EQ(chains.size(), 1u);
  EXPECT_EQ(chains[0].top, 1);
  EXPECT_EQ(chains[0].between, (std::vector<int>{2, 3, 4}));
  EXPECT_EQ(chains[0].end, 5);

  // The transfer put the spine's whole 60 degree bend about Z on the end joint.
  const Quaternion top = AxisAngle({0, 1, 0}, 0.3);
  Clip clip = Frame(straight, top, AxisAngle({0, 0, 1}, M_PI / 3.0));
  const std::vector<Quat> before = WorldRotations(straight, clip);
  SpreadChains(chains, RestWorld(straight), clip, 0, clip.frameCount);
  const std::vector<Quat> after = WorldRotations(straight, clip);
  EXPECT_LT(Diff(before[5], after[5]), 1e-9);
  EXPECT_LT(Diff(before[6], after[6]), 1e-9);
  EXPECT_LT(Diff(before[1], after[1]), 1e-9);
  // Four joints turn 15 degrees each about the same axis: a smooth curve, not a kink.
  for (int j = 2; j <= 5; ++j)
  {
    const Quat local = ToQuat(clip.rotations[static_cast<std::size_t>(j)]);
    EXPECT_NEAR(Degrees(local), 15.0, 1e-9) << j;
    EXPECT_NEAR(std::abs(local.z) / std::sin(7.5 * M_PI / 180.0), 1.0, 1e-9) << j;
  }
}

TEST(Chains, ARestThatIsBentStaysTheStartingPoint)
{
  // The rest curls the chain 10 degrees per joint about X; the frame adds 40 degrees about Z at
  // the end. Without the frame's bend nothing moves; with it every joint takes a quarter.
  std::vector<Quaternion> rest(7);
  for (int j = 2; j <= 5; ++j)
    rest[static_cast<std::size_t>(j)] = AxisAngle({1, 0, 0}, 10.0 * M_PI / 180.0);
  const Skeleton curled = Spine(rest);
  const std::vector<JointChain> chains = FindChains(curled, kMapped);
  Clip still = Frame(curled, Quaternion(), rest[5]);
  const Clip unchanged = still;
  SpreadChains(chains, RestWorld(curled), still, 0, still.frameCount);
  for (std::size_t j = 0; j < 7; ++j)
    EXPECT_LT(Diff(ToQuat(still.rotations[j]), ToQuat(unchanged.rotations[j])), 1e-9) << j;

  // The end's world rotation: rest chain (30 degrees about X up to m3), then its own local.
  const Quaternion endLocal = AxisAngle({0, 0, 1}, 40.0 * M_PI / 180.0) * rest[5];
  Clip bent = Frame(curled, Quaternion(), endLocal);
  const std::vector<Quat> before = WorldRotations(curled, bent);
  SpreadChains(chains, RestWorld(curled), bent, 0, bent.frameCount);
  const std::vector<Quat> after = WorldRotations(curled, bent);
  EXPECT_LT(Diff(before[5], after[5]), 1e-9);
  // Each joint's world rotation is its rest one turned by a growing share of the bend.
  const std::vector<Quat> restWorld = WorldRotations(curled, Frame(curled, Quaternion(), rest[5]));
  for (int j = 2; j <= 5; ++j)
  {
    const double share = 40.0 * (j - 1) / 4.0;
    EXPECT_NEAR(Diff(restWorld[static_cast<std::size_t>(j)], after[static_cast<std::size_t>(j)]), share, 1e-6) << j;
  }
}

TEST(Chains, OnlySinglePathsBetweenMappedJointsAreChains)
{
  // m2 gets a second mapped child: m1 and m2 would bend for two ends at once.
  Skeleton forked = Spine(std::vector<Quaternion>(7));
  Joint& arm = forked.joints.emplace_back();
  arm.name = "arm";
  arm.parent = 3;
  arm.translation = {1, 0, 0};
  std::vector<bool> mapped = kMapped;
  mapped.push_back(true);
  const std::vector<JointChain> chains = FindChains(forked, mapped);
  // Only m3 lies on a single path (m2 -> m3 -> end), but m2 is not mapped: no chain at all.
  EXPECT_TRUE(chains.empty());

  // Nothing mapped above the joints in between: they are not between two mapped joints.
  std::vector<bool> noTop = kMapped;
  noTop[0] = noTop[1] = false;
  EXPECT_TRUE(FindChains(Spine(std::vector<Quaternion>(7)), noTop).empty());
  // Every joint mapped: nothing in between.
  EXPECT_TRUE(FindChains(Spine(std::vector<Quaternion>(7)), std::vector<bool>(7, true)).empty());
}

} // namespace
} // namespace kelvara
