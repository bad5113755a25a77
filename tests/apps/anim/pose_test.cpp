#include "skeleton_pose.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <unistd.h>

namespace kelvara
{
namespace
{

using telvo::Matrix;
using telvo::Vector;

bool Near(const Vector& a, const Vector& b)
{
  return std::fabs(a.x - b.x) < 1e-12 && std::fabs(a.y - b.y) < 1e-12 && std::fabs(a.z - b.z) < 1e-12;
}

TEST(SkeletonPose, ChainMatchesHandArithmetic)
{
  // The child also has an X position channel, as some exporters write on every joint.
  BvhFile f;
  std::string error;
  ASSERT_TRUE(ReadBvhFromBuffer("HIERARCHY ROOT Root { OFFSET 1 2 3 CHANNELS 6 Xposition Yposition Zposition "
                                "Zrotation Yrotation Xrotation JOINT Child { OFFSET 0 10 0 CHANNELS 3 Xposition "
                                "Zrotation Xrotation End Site { OFFSET 0 5 0 } } }\nMOTION\nFrames: 2\nFrame Time: 1\n"
                                "0 0 0 0 0 0 0 0 0\n10 20 30 90 0 0 2 0 90\n",
                                "chain.bvh", f, error))
    << error;
  const std::vector<Matrix> rest = WorldMatrices(f, kRestFrame);
  const std::vector<Matrix> world = WorldMatrices(f, 1);
  ASSERT_EQ(rest.size(), 2u);
  ASSERT_EQ(world.size(), 2u);
  // Frame 1: the root moves to (1,2,3) + (10,20,30) and turns 90 degrees about Z (+Y to -X). The
  // child's (0,10,0) + (2,0,0) turned by the root is (-10,2,0); its own Rx(90) takes +Y to +Z.
  // A joint without an end site stands for its own.
  const Vector got[] = {rest[0].off, rest[1].off, EndSitePositions(f, rest)[1], world[0].off, world[0].v1,
                        world[1].off, world[1].v2, EndSitePositions(f, world)[1], EndSitePositions(f, world)[0]};
  const Vector want[] = {{1, 2, 3}, {1, 12, 3}, {1, 17, 3}, {11, 22, 33}, {0, 1, 0}, {1, 24, 33}, {0, 0, 1},
                         {1, 24, 38}, {11, 22, 33}};
  for (int i = 0; i < 9; ++i)
    EXPECT_PRED2(Near, got[i], want[i]) << i;
  // A zero frame is the rest pose: position channels add to the offset, they do not replace it.
  EXPECT_EQ(WorldMatrices(f, 0), rest);

  std::vector<Matrix> filled(5);
  EXPECT_FALSE(FillWorldMatrices(f, 2, filled));
  EXPECT_TRUE(filled.empty());
  EXPECT_TRUE(WorldMatrices(f, -2).empty());
  // A motion shorter than its declared frame count is not read past its end.
  f.motion.resize(12);
  EXPECT_FALSE(FillWorldMatrices(f, 1, filled));
  EXPECT_TRUE(FillWorldMatrices(f, 0, filled));
}

TEST(SkeletonPose, CmuWalkStandsOnItsFeet)
{
  const char* const clip = "/usr/share/assimp/models/BVH/01_01.bvh";
  if (::access(clip, R_OK) != 0)
    GTEST_SKIP() << clip << " is not installed";
  BvhFile f;
  std::string error;
  ASSERT_TRUE(ReadBvh(clip, f, error)) << error;
  const std::size_t hips = 0, leftFoot = 4, rightFoot = 9, head = 16;
  ASSERT_EQ(f.joints[leftFoot].name + f.joints[rightFoot].name + f.joints[head].name, "LeftFootRightFootHead");
  for (int frame : {kRestFrame, 0, f.frameCount - 1})
  {
    // Legs are about 14 units long in this clip; the head's end site is the top of the figure.
    const std::vector<Matrix> world = WorldMatrices(f, frame);
    ASSERT_EQ(world.size(), f.joints.size());
    EXPECT_LT(std::max(world[leftFoot].off.y, world[rightFoot].off.y), world[hips].off.y - 8.0) << frame;
    EXPECT_GT(EndSitePositions(f, world)[head].y, world[head].off.y + 1.0) << frame;
  }
  // Frame 0 puts the hips where the root's position channels say.
  const Vector moved = {f.motion[0], f.motion[1], f.motion[2]};
  EXPECT_PRED2(Near, WorldMatrices(f, 0)[hips].off, f.joints[0].offset + moved);
}

} // namespace
} // namespace kelvara
