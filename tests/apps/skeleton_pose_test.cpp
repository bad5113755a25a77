#include "skeleton_pose.h"

#include <gtest/gtest.h>

#include <string>
#include <unistd.h>
#include <vector>

#include "bvh.h"

namespace kelvara
{
namespace
{

using telvo::Matrix;
using telvo::Vector;

constexpr const char* kCmuWalk = "/usr/share/assimp/models/BVH/01_01.bvh";

#define EXPECT_VECTOR_NEAR(actual, ex, ey, ez)                                                                         \
  do                                                                                                                   \
  {                                                                                                                    \
    const Vector v_ = (actual);                                                                                        \
    EXPECT_NEAR(v_.x, (ex), 1e-12);                                                                                    \
    EXPECT_NEAR(v_.y, (ey), 1e-12);                                                                                    \
    EXPECT_NEAR(v_.z, (ez), 1e-12);                                                                                    \
  } while (false)

// A root at (1, 2, 3) with a child 10 up and an end site 5 further up. The child also has an
// X position channel, as some exporters write on every joint.
BvhFile TwoJointChain()
{
  BvhFile f;
  BvhJoint root;
  root.name = "Root";
  root.offset = {1, 2, 3};
  root.channels = {Channel::Xposition, Channel::Yposition, Channel::Zposition,
                   Channel::Zrotation, Channel::Yrotation, Channel::Xrotation};
  BvhJoint child;
  child.name = "Child";
  child.parent = 0;
  child.offset = {0, 10, 0};
  child.channels = {Channel::Xposition, Channel::Zrotation, Channel::Xrotation};
  child.firstChannel = 6;
  child.hasEndSite = true;
  child.endSiteOffset = {0, 5, 0};
  f.joints = {root, child};
  f.channelCount = 9;
  f.frameCount = 2;
  f.motion = {0, 0, 0, 0, 0, 0, 0, 0, 0, // frame 0: everything zero
              10, 20, 30, 90, 0, 0, 2, 0, 90};
  return f;
}

TEST(SkeletonPose, ChainMatchesHandArithmetic)
{
  const BvhFile f = TwoJointChain();

  // Rest: offsets only; the channels of frame 1 must not leak in.
  const std::vector<Matrix> rest = WorldMatrices(f, kRestFrame);
  ASSERT_EQ(rest.size(), 2u);
  EXPECT_VECTOR_NEAR(rest[0].off, 1, 2, 3);
  EXPECT_VECTOR_NEAR(rest[1].off, 1, 12, 3);
  EXPECT_VECTOR_NEAR(EndSitePositions(f, rest)[1], 1, 17, 3);

  // Frame 1. Root: translated to (1,2,3) + (10,20,30) = (11,22,33), turned 90 degrees about Z,
  // which takes +Y to -X. Child: local translation (0,10,0) + (2,0,0) turned by the root gives
  // (-10, 2, 0), so it sits at (1, 24, 33). Its own Rz(0) Rx(90) takes +Y to +Z and the root's
  // Rz leaves Z alone: the end site is 5 along +Z from the child.
  const std::vector<Matrix> world = WorldMatrices(f, 1);
  ASSERT_EQ(world.size(), 2u);
  EXPECT_VECTOR_NEAR(world[0].off, 11, 22, 33);
  EXPECT_VECTOR_NEAR(world[0].v1, 0, 1, 0);
  EXPECT_VECTOR_NEAR(world[1].off, 1, 24, 33);
  EXPECT_VECTOR_NEAR(world[1].v2, 0, 0, 1);
  const std::vector<Vector> ends = EndSitePositions(f, world);
  ASSERT_EQ(ends.size(), 2u);
  EXPECT_VECTOR_NEAR(ends[0], 11, 22, 33); // no end site: the joint itself
  EXPECT_VECTOR_NEAR(ends[1], 1, 24, 38);

  // A zero frame is the rest pose (position channels add to the offset, they do not replace it).
  const std::vector<Matrix> zero = WorldMatrices(f, 0);
  ASSERT_EQ(zero.size(), 2u);
  EXPECT_EQ(zero[0], rest[0]);
  EXPECT_EQ(zero[1], rest[1]);
}

TEST(SkeletonPose, FramesOutsideTheClipGiveNothing)
{
  BvhFile f = TwoJointChain();
  std::vector<Matrix> world(5);
  EXPECT_FALSE(FillWorldMatrices(f, 2, world));
  EXPECT_TRUE(world.empty());
  EXPECT_TRUE(WorldMatrices(f, -2).empty());
  // A motion shorter than its declared frame count is not read past its end.
  f.motion.resize(12);
  EXPECT_FALSE(FillWorldMatrices(f, 1, world));
  EXPECT_TRUE(FillWorldMatrices(f, 0, world));
}

TEST(SkeletonPose, CmuWalkStandsOnItsFeet)
{
  if (::access(kCmuWalk, R_OK) != 0)
    GTEST_SKIP() << kCmuWalk << " is not installed";
  BvhFile f;
  std::string error;
  ASSERT_TRUE(ReadBvh(kCmuWalk, f, error)) << error;

  auto indexOf = [&](const std::string& name) {
    for (std::size_t i = 0; i < f.joints.size(); ++i)
      if (f.joints[i].name == name)
        return static_cast<int>(i);
    return -1;
  };
  const int hips = indexOf("Hips");
  const int leftFoot = indexOf("LeftFoot");
  const int rightFoot = indexOf("RightFoot");
  const int head = indexOf("Head");
  ASSERT_EQ(hips, 0);
  ASSERT_GT(leftFoot, 0);
  ASSERT_GT(rightFoot, 0);
  ASSERT_GT(head, 0);

  const std::vector<Matrix> rest = WorldMatrices(f, kRestFrame);
  ASSERT_EQ(rest.size(), f.joints.size());
  EXPECT_EQ(rest[0].off, f.joints[0].offset);
  for (int frame : {kRestFrame, 0, f.frameCount / 2, f.frameCount - 1})
  {
    SCOPED_TRACE("frame " + std::to_string(frame));
    const std::vector<Matrix> world = WorldMatrices(f, frame);
    ASSERT_EQ(world.size(), f.joints.size());
    const double hipsHeight = world[0].off.y;
    // Legs are about 14 units long in this clip; a walk keeps the feet well below the hips.
    EXPECT_LT(world[static_cast<std::size_t>(leftFoot)].off.y, hipsHeight - 8.0);
    EXPECT_LT(world[static_cast<std::size_t>(rightFoot)].off.y, hipsHeight - 8.0);
    EXPECT_GT(world[static_cast<std::size_t>(head)].off.y, hipsHeight + 5.0);
    // The head's end site is above the head: it is the top of the figure.
    const std::vector<Vector> ends = EndSitePositions(f, world);
    EXPECT_GT(ends[static_cast<std::size_t>(head)].y, world[static_cast<std::size_t>(head)].off.y);
  }
  // Frame 0 puts the hips where the root's position channels say (its offset is zero).
  const std::vector<Matrix> first = WorldMatrices(f, 0);
  EXPECT_NEAR(first[0].off.x, f.joints[0].offset.x + f.motion[0], 1e-12);
  EXPECT_NEAR(first[0].off.y, f.joints[0].offset.y + f.motion[1], 1e-12);
  EXPECT_NEAR(first[0].off.z, f.joints[0].offset.z + f.motion[2], 1e-12);
}

} // namespace
} // namespace kelvara
