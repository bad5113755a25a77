#include "io/bvh/euler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "support/quaternion.h"

namespace kelvara
{
namespace
{

using kelvara_test::MaxDiff;
using telvo::Matrix;
using telvo::Vector;

constexpr Channel kRot[3] = {Channel::Xrotation, Channel::Yrotation, Channel::Zrotation};

// Runs body for each of the six orders of three distinct axes, traced by name ("ZXY").
template <typename Body>
void ForEachOrder(Body body)
{
  int axes[3] = {0, 1, 2};
  do
  {
    const std::vector<Channel> order = {kRot[axes[0]], kRot[axes[1]], kRot[axes[2]]};
    SCOPED_TRACE(std::string(1, "XYZ"[axes[0]]) + "XYZ"[axes[1]] + "XYZ"[axes[2]]);
    body(order);
  } while (std::next_permutation(axes, axes + 3));
}

TEST(Euler, AxesAreRightHandedAndFirstChannelIsOutermost)
{
  EXPECT_LT(MaxDiff(AxisRotation(0, M_PI / 2), Matrix{{}, {1, 0, 0}, {0, 0, 1}, {0, -1, 0}}), 1e-15);
  EXPECT_LT(MaxDiff(AxisRotation(1, M_PI / 2), Matrix{{}, {0, 0, -1}, {0, 1, 0}, {1, 0, 0}}), 1e-15);
  EXPECT_LT(MaxDiff(AxisRotation(2, M_PI / 2), Matrix{{}, {0, 1, 0}, {-1, 0, 0}, {0, 0, 1}}), 1e-15);
  // "Zrotation Xrotation" is Rz * Rx: Rx takes Y to Z, which Rz leaves alone (Rx * Rz gives -X).
  const double quarters[] = {90, 90};
  const Matrix zx = RotationFromChannels({Channel::Zrotation, Channel::Xrotation}, quarters);
  const Vector y = TransformDirection(zx, {0, 1, 0});
  EXPECT_LT(std::fabs(y.x) + std::fabs(y.z - 1), 1e-15);
  // Many whole turns do not cost precision.
  const double turns[] = {36030.0, 30.0};
  EXPECT_LT(MaxDiff(RotationFromChannels({kRot[2]}, turns), RotationFromChannels({kRot[2]}, turns + 1)), 1e-15);
  // A single rotation channel gives its angle back, turned whole turns towards the previous one.
  double single[1];
  ChannelsFromRotation({kRot[1]}, RotationFromChannels({kRot[1]}, turns + 1), turns, single);
  EXPECT_NEAR(single[0], 36030.0, 1e-9);

  // Position channels are skipped both ways, whatever their place in the list.
  const std::vector<Channel> mixed = {Channel::Xposition, Channel::Zrotation, Channel::Yposition,
                                      Channel::Xrotation, Channel::Zposition, Channel::Yrotation};
  const double values[] = {1, 20, 2, -30, 3, 40};
  const double plain[] = {20, -30, 40};
  const Matrix r = RotationFromChannels(mixed, values);
  EXPECT_EQ(r, RotationFromChannels({Channel::Zrotation, Channel::Xrotation, Channel::Yrotation}, plain));
  EXPECT_EQ(RotationFromChannels({Channel::Xposition}, values), Matrix{});
  double out[] = {-7, 0, -8, 0, -9, 0};
  ChannelsFromRotation(mixed, r, nullptr, out);
  for (int i = 0; i < 6; i += 2)
  {
    EXPECT_EQ(out[i], -7 - i / 2);
    EXPECT_NEAR(out[i + 1], values[i + 1], 1e-9);
  }
}

TEST(Euler, DecomposeRecomposesAndStaysNearThePreviousFrame)
{
  std::mt19937 rng(11);
  std::uniform_real_distribution<double> degrees(-180, 180);
  // Middle angles at, near and beyond gimbal lock; exact locks keep the previous last angle.
  const double middles[] = {90.0, -90.0, 270.0, 89.99, 90.0 - 1e-9, -90.0 + 1e-7};
  ForEachOrder([&](const std::vector<Channel>& order) {
    for (int n = 0; n < 3000; ++n)
    {
      const bool locked = n % 4 == 0;
      const double angles[3] = {degrees(rng), locked ? middles[n / 4 % 6] : degrees(rng), degrees(rng)};
      const Matrix r = RotationFromChannels(order, angles);
      double out[3];
      ChannelsFromRotation(order, r, nullptr, out);
      ASSERT_LT(MaxDiff(RotationFromChannels(order, out), r), 1e-9) << angles[1];
      // Without a previous frame: the principal solution.
      EXPECT_TRUE(std::fabs(out[0]) <= 180 && std::fabs(out[1]) <= 90 + 1e-9 && std::fabs(out[2]) <= 180)
        << out[0] << " " << out[1] << " " << out[2];

      // Any previous frame: the same rotation, no angle more than half a turn from its previous value.
      const double previous[3] = {4 * degrees(rng), 4 * degrees(rng), 4 * degrees(rng)};
      ChannelsFromRotation(order, r, previous, out);
      ASSERT_LT(MaxDiff(RotationFromChannels(order, out), r), 1e-9) << angles[1];
      for (int q = 0; q < 3; ++q)
        EXPECT_LE(std::fabs(out[q] - previous[q]), 180.0 + 1e-9);

      // Solved once without a previous frame and chosen from this one: the same values, to the
      // bit, unless the solution is one only the previous frame settles (an exact lock).
      const EulerAngles solved = AnglesFromRotation(order, r, nullptr);
      double chosen[3];
      ChannelsFromAngles(order, solved.dependsOnPrevious ? AnglesFromRotation(order, r, previous) : solved, previous,
                         chosen);
      for (int q = 0; q < 3; ++q)
        ASSERT_EQ(chosen[q], out[q]);
      if (!locked || n / 4 % 6 < 3)
      {
        EXPECT_EQ(solved.dependsOnPrevious, locked);
      }

      // The very angles that built it come back (away from the numerically soft near-locks).
      ChannelsFromRotation(order, r, angles, out);
      const bool soft = locked && n / 4 % 6 >= 4;
      for (int q = 0; q < 3; ++q)
        ASSERT_TRUE(soft || std::fabs(out[q] - angles[q]) < 1e-6) << out[q] << " for " << angles[q];
    }
  });
}

TEST(Euler, SpinningSequencesStayContinuous)
{
  // Three turns about the outermost axis, 2 degrees a frame, tumbling on the side: the first
  // angle keeps counting past 180 and 360 in small steps.
  ForEachOrder([](const std::vector<Channel>& order) {
    double last[3];
    ChannelsFromRotation(order, Matrix{}, nullptr, last);
    for (int f = 1; f <= 540; ++f)
    {
      const Matrix r = AxisRotation(ChannelAxis(order[0]), f * M_PI / 90) *
                       AxisRotation(ChannelAxis(order[1]), 0.3 * std::sin(f * 0.05));
      double out[3];
      ChannelsFromRotation(order, r, last, out);
      for (int q = 0; q < 3; ++q)
        ASSERT_LT(std::fabs(out[q] - std::exchange(last[q], out[q])), 5.0) << f;
    }
    EXPECT_NEAR(last[0], 1080.0, 1e-6);
  });
}

} // namespace
} // namespace kelvara
