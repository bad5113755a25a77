#include "rotation.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "bvh.h"

namespace kelvara
{
namespace
{

using telvo::Matrix;
using telvo::Vector;

constexpr Channel kRot[3] = {Channel::Xrotation, Channel::Yrotation, Channel::Zrotation};

// The six orders of three distinct axes, as channel lists.
std::vector<std::vector<Channel>> AllOrders()
{
  std::vector<std::vector<Channel>> orders;
  int axes[3] = {0, 1, 2};
  do
    orders.push_back({kRot[axes[0]], kRot[axes[1]], kRot[axes[2]]});
  while (std::next_permutation(axes, axes + 3));
  return orders;
}

std::string OrderName(const std::vector<Channel>& channels)
{
  std::string s;
  for (Channel c : channels)
    s += std::string(ChannelName(c)).substr(0, 1);
  return s;
}

double MaxDifference(const Matrix& a, const Matrix& b)
{
  const Vector* pa[] = {&a.off, &a.v1, &a.v2, &a.v3};
  const Vector* pb[] = {&b.off, &b.v1, &b.v2, &b.v3};
  double d = 0.0;
  for (int i = 0; i < 4; ++i)
    d = std::max({d, std::fabs(pa[i]->x - pb[i]->x), std::fabs(pa[i]->y - pb[i]->y), std::fabs(pa[i]->z - pb[i]->z)});
  return d;
}

Matrix RandomRotation(std::mt19937& rng)
{
  std::uniform_real_distribution<double> angle(-M_PI, M_PI);
  return AxisRotation(2, angle(rng)) * AxisRotation(1, angle(rng)) * AxisRotation(0, angle(rng));
}

TEST(Rotation, AxesAreRightHandedAndFirstChannelIsOutermost)
{
  const double quarter = M_PI / 2;
  EXPECT_LT(MaxDifference(AxisRotation(2, quarter), Matrix{{}, {0, 1, 0}, {-1, 0, 0}, {0, 0, 1}}), 1e-15);
  EXPECT_LT(MaxDifference(AxisRotation(0, quarter), Matrix{{}, {1, 0, 0}, {0, 0, 1}, {0, -1, 0}}), 1e-15);
  EXPECT_LT(MaxDifference(AxisRotation(1, quarter), Matrix{{}, {0, 0, -1}, {0, 1, 0}, {1, 0, 0}}), 1e-15);

  // "Zrotation Xrotation" means Rz * Rx: X is applied to a point first. Y goes to Z, and Z
  // stays under Rz; the other order would give -X.
  const double values[] = {90, 90};
  const Matrix r = RotationFromChannels({Channel::Zrotation, Channel::Xrotation}, values);
  const Vector y = TransformDirection(r, {0, 1, 0});
  EXPECT_NEAR(y.x, 0, 1e-15);
  EXPECT_NEAR(y.z, 1, 1e-15);

  // Position channels are skipped, whatever their place in the list.
  const double mixed[] = {5, 30, 6, -40, 7};
  const double plain[] = {30, -40};
  EXPECT_EQ(RotationFromChannels({Channel::Xposition, Channel::Yrotation, Channel::Zposition, Channel::Xrotation,
                                  Channel::Yposition},
                                 mixed),
            RotationFromChannels({Channel::Yrotation, Channel::Xrotation}, plain));
  EXPECT_EQ(RotationFromChannels({Channel::Xposition}, mixed), Matrix{});

  // Many whole turns do not cost precision.
  const double turns[] = {36000 + 30.0};
  const double once[] = {30.0};
  EXPECT_LT(MaxDifference(RotationFromChannels({Channel::Zrotation}, turns), RotationFromChannels({Channel::Zrotation}, once)),
            1e-15);
}

TEST(Rotation, DecomposeRecomposesEveryOrder)
{
  std::mt19937 rng(11);
  std::uniform_real_distribution<double> degrees(-720, 720);
  for (const std::vector<Channel>& order : AllOrders())
  {
    SCOPED_TRACE(OrderName(order));
    for (int n = 0; n < 2000; ++n)
    {
      const Matrix r = RandomRotation(rng);
      double out[3];
      ChannelsFromRotation(order, r, nullptr, out);
      ASSERT_LT(MaxDifference(RotationFromChannels(order, out), r), 1e-9) << n;
      // Without a previous frame: the principal solution.
      EXPECT_GE(out[1], -90.0);
      EXPECT_LE(out[1], 90.0);
      EXPECT_LE(std::fabs(out[0]), 180.0);
      EXPECT_LE(std::fabs(out[2]), 180.0);

      // With any previous frame the result is still the same rotation, and no angle is more
      // than half a turn away from its previous value.
      const double previous[3] = {degrees(rng), degrees(rng), degrees(rng)};
      double near[3];
      ChannelsFromRotation(order, r, previous, near);
      ASSERT_LT(MaxDifference(RotationFromChannels(order, near), r), 1e-9) << n;
      for (int q = 0; q < 3; ++q)
        EXPECT_LE(std::fabs(near[q] - previous[q]), 180.0 + 1e-9);
    }
  }
}

TEST(Rotation, GimbalLockIsExactAndKeepsTheLastAngle)
{
  std::mt19937 rng(5);
  std::uniform_real_distribution<double> degrees(-180, 180);
  const double middles[] = {90.0, -90.0, 90.0 - 1e-9, -90.0 + 1e-7, 89.99, 270.0};
  for (const std::vector<Channel>& order : AllOrders())
  {
    SCOPED_TRACE(OrderName(order));
    for (double middle : middles)
      for (int n = 0; n < 200; ++n)
      {
        const double angles[3] = {degrees(rng), middle, degrees(rng)};
        const Matrix r = RotationFromChannels(order, angles);
        double out[3];
        ChannelsFromRotation(order, r, nullptr, out);
        ASSERT_LT(MaxDifference(RotationFromChannels(order, out), r), 1e-9) << middle;
        ASSERT_TRUE(std::isfinite(out[0]) && std::isfinite(out[1]) && std::isfinite(out[2]));

        // Continuing from the very angles that built it gives them back (the last angle is
        // not free to wander when the first and last axes coincide).
        double again[3];
        ChannelsFromRotation(order, r, angles, again);
        ASSERT_LT(MaxDifference(RotationFromChannels(order, again), r), 1e-9) << middle;
        if (std::fabs(middle) == 90.0)
        {
          EXPECT_NEAR(again[0], angles[0], 1e-6);
          EXPECT_NEAR(again[2], angles[2], 1e-6);
        }
      }
  }
}

// Largest change of any angle between consecutive frames of a decoded sequence.
double LargestStep(const std::vector<Channel>& order, const std::vector<Matrix>& frames, double* last)
{
  double previous[3];
  ChannelsFromRotation(order, frames[0], nullptr, previous);
  double step = 0.0;
  for (std::size_t f = 1; f < frames.size(); ++f)
  {
    double out[3];
    ChannelsFromRotation(order, frames[f], previous, out);
    EXPECT_LT(MaxDifference(RotationFromChannels(order, out), frames[f]), 1e-9);
    for (int q = 0; q < 3; ++q)
    {
      step = std::max(step, std::fabs(out[q] - previous[q]));
      previous[q] = out[q];
    }
  }
  std::copy(previous, previous + 3, last);
  return step;
}

TEST(Rotation, SpinningSequencesStayContinuous)
{
  for (const std::vector<Channel>& order : AllOrders())
  {
    SCOPED_TRACE(OrderName(order));
    const int first = ChannelAxis(order[0]);
    const int middle = ChannelAxis(order[1]);
    // Three turns about the outermost axis at 2 degrees a frame, with a tumble on the side:
    // the first angle must keep counting up past 180 and 360 instead of wrapping.
    std::vector<Matrix> spin;
    for (int f = 0; f <= 540; ++f)
      spin.push_back(AxisRotation(first, f * 2.0 * M_PI / 180) * AxisRotation(middle, 0.3 * std::sin(f * 0.05)));
    double last[3];
    EXPECT_LT(LargestStep(order, spin, last), 5.0);
    EXPECT_NEAR(last[0], 1080.0, 1e-6);

    // Turning about the middle axis goes through gimbal lock twice per turn; the middle angle
    // keeps going past 90 instead of flipping the outer two by 180.
    std::vector<Matrix> tumble;
    for (int f = 0; f <= 360; ++f)
      tumble.push_back(AxisRotation(middle, f * 2.0 * M_PI / 180) * AxisRotation(first, 0.2));
    EXPECT_LT(LargestStep(order, tumble, last), 180.0);

    // A slow random walk never jumps by half a turn.
    std::mt19937 rng(3);
    std::normal_distribution<double> wobble(0.0, 0.02);
    std::vector<Matrix> walk{Matrix{}};
    for (int f = 0; f < 3000; ++f)
      walk.push_back(walk.back() * AxisRotation(f % 3, wobble(rng)) * AxisRotation((f + 1) % 3, wobble(rng)));
    EXPECT_LT(LargestStep(order, walk, last), 180.0);
  }
}

TEST(Rotation, FewerChannelsUseTheListedAxes)
{
  std::mt19937 rng(9);
  std::uniform_real_distribution<double> degrees(-179, 179);
  for (int i = 0; i < 3; ++i)
  {
    const std::vector<Channel> one = {kRot[i]};
    const double a[] = {degrees(rng)};
    double out[1];
    ChannelsFromRotation(one, RotationFromChannels(one, a), nullptr, out);
    EXPECT_NEAR(out[0], a[0], 1e-9);
    const double near[] = {a[0] + 720.0};
    ChannelsFromRotation(one, RotationFromChannels(one, a), near, out);
    EXPECT_NEAR(out[0], a[0] + 720.0, 1e-9);

    for (int j = 0; j < 3; ++j)
    {
      if (j == i)
        continue;
      const std::vector<Channel> two = {kRot[i], kRot[j]};
      SCOPED_TRACE(OrderName(two));
      for (int n = 0; n < 200; ++n)
      {
        const double ab[] = {degrees(rng), degrees(rng) / 2};
        const Matrix r = RotationFromChannels(two, ab);
        double got[2];
        ChannelsFromRotation(two, r, nullptr, got);
        ASSERT_LT(MaxDifference(RotationFromChannels(two, got), r), 1e-9);
        ChannelsFromRotation(two, r, ab, got);
        EXPECT_NEAR(got[0], ab[0], 1e-9);
        EXPECT_NEAR(got[1], ab[1], 1e-9);
      }
    }
  }
}

TEST(Rotation, OnlyRotationSlotsAreWritten)
{
  const std::vector<Channel> channels = {Channel::Xposition, Channel::Zrotation, Channel::Yposition,
                                         Channel::Xrotation,  Channel::Zposition, Channel::Yrotation};
  const double values[] = {1, 20, 2, -30, 3, 40};
  double out[] = {-7, 0, -8, 0, -9, 0};
  ChannelsFromRotation(channels, RotationFromChannels(channels, values), nullptr, out);
  for (int i = 0; i < 6; i += 2)
  {
    EXPECT_EQ(out[i], -7 - i / 2);
    EXPECT_NEAR(out[i + 1], values[i + 1], 1e-9);
  }
}

TEST(Rotation, AnglesSurviveAFileRoundTrip)
{
  // Every joint in its own order, values decoded from random rotations, written and read back.
  BvhFile f;
  int first = 0;
  for (const std::vector<Channel>& order : AllOrders())
  {
    BvhJoint& j = f.joints.emplace_back();
    j.name = "j" + OrderName(order);
    j.parent = f.joints.size() == 1 ? -1 : 0;
    j.channels = order;
    j.firstChannel = first;
    first += 3;
  }
  f.channelCount = first;
  f.frameCount = 100;
  f.frameTime = 1.0 / 30;
  std::mt19937 rng(21);
  std::vector<Matrix> rotations;
  for (int frame = 0; frame < f.frameCount; ++frame)
    for (const BvhJoint& j : f.joints)
    {
      rotations.push_back(RandomRotation(rng));
      double out[3];
      ChannelsFromRotation(j.channels, rotations.back(), nullptr, out);
      f.motion.insert(f.motion.end(), out, out + 3);
    }
  std::string text;
  std::string error;
  ASSERT_TRUE(WriteBvhToString(f, text, error)) << error;
  BvhFile back;
  ASSERT_TRUE(ReadBvhFromBuffer(text, "r", back, error)) << error;
  std::size_t k = 0;
  for (int frame = 0; frame < back.frameCount; ++frame)
    for (const BvhJoint& j : back.joints)
    {
      const double* row = &back.motion[static_cast<std::size_t>(frame * back.channelCount + j.firstChannel)];
      // 1e-4 degrees is about 1.7e-6 radians.
      ASSERT_LT(MaxDifference(RotationFromChannels(j.channels, row), rotations[k++]), 1.7e-6);
    }
}

} // namespace
} // namespace kelvara
