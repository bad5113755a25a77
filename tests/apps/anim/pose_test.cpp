// World poses against hand arithmetic: scene transforms, scales, rest rotations, moved joints.
// Real captured files are posed by the road tests.
#include "anim/pose.h"

#include <gtest/gtest.h>

#include "support/quaternion.h"

namespace kelvara
{
namespace
{

using kelvara_test::AxesDiff;
using kelvara_test::MaxDiff;
using kelvara_test::Quat;
using telvo::Matrix;
using telvo::Vector;

Quaternion FromTest(const Quat& q)
{
  return {q.w, q.x, q.y, q.z};
}

Joint J(const char* name, int parent, Vector translation, Quaternion rotation = {}, double scale = 1.0)
{
  return {name, parent, translation, rotation, {scale, scale, scale}, false, {}};
}

// A skeleton authored Z up in centimetres under a scene transform that turns it Y up and scales it
// to metres, placed 1 m along X. The root doubles the size of everything below it, the child
// halves what is below it again; the child rests turned 90 degrees about its Z.
TEST(WorldPose, RestCarriesTheSceneTheScalesAndRestRotations)
{
  const Quat zUpToYUp = kelvara_test::AxisAngle(1, 0, 0, -90);
  const Quat childRest = kelvara_test::AxisAngle(0, 0, 1, 90);
  Skeleton s{"rig.glb",
             {J("Root", -1, {0, 0, 100}, {}, 2), J("Child", 0, {0, 50, 0}, FromTest(childRest), 0.5),
              J("Leaf", 1, {0, 0, 25})},
             kelvara_test::Mul(kelvara_test::Place(zUpToYUp, {1, 0, 0}),
                               Matrix{{}, {0.01, 0, 0}, {0, 0.01, 0}, {0, 0, 0.01}}),
             0.01};
  s.joints[1].hasEndSite = true;
  s.joints[1].endSite = {10, 0, 0};

  WorldPose pose;
  ASSERT_TRUE(pose.Evaluate(s, nullptr, kRestFrame));
  ASSERT_EQ(pose.Size(), 3u);
  // Root: 100 cm up Z is 1 m up Y. Child: 50 cm along the root's Y, doubled (its own half does
  // not count), is 1 m towards -Z. Its end site: 10 cm along its X (turned to Y, then to -Z),
  // doubled and halved. Leaf: 25 cm along the child's Z (up once the scene turns it), doubled and
  // halved; without an end site it stands for its own.
  const Vector got[] = {pose[0].off, pose[1].off, pose.EndSite(s, 1), pose[2].off, pose.EndSite(s, 2)};
  const Vector want[] = {{1, 1, 0}, {1, 1, -1}, {1, 1, -1.1}, {1, 1.25, -1}, {1, 1.25, -1}};
  for (int i = 0; i < 5; ++i)
    EXPECT_LT(MaxDiff(got[i], want[i]), 1e-12) << i;
  // Rotations are rigid: scales stretch offsets only.
  EXPECT_LT(AxesDiff(pose[0], zUpToYUp), 1e-12);
  EXPECT_LT(AxesDiff(pose[1], zUpToYUp * childRest), 1e-12);
  EXPECT_LT(AxesDiff(pose[2], zUpToYUp * childRest), 1e-12);
  EXPECT_EQ(RestWorld(s), pose.Matrices());

  // A clip that holds every joint at its rest transform poses the rest, rotations included.
  const Clip still = RestClip(s, 2, 0.5);
  ASSERT_TRUE(pose.Evaluate(s, &still, 1));
  for (std::size_t j = 0; j < 3; ++j)
    EXPECT_LT(MaxDiff(pose[j], RestWorld(s)[j]), 1e-15) << j;
}

class WorldPoseFrames : public ::testing::Test
{
protected:
  // Root at (1,2,3) -> Child 10 up with an end site 5 above it. Child also moves (as files with
  // position channels on every joint do). Frame 0 holds the rest; frame 1 moves the root by
  // (10,20,30) and turns it 90 degrees about Z, moves the child 2 along X and turns it 90
  // degrees about X.
  void SetUp() override
  {
    _skeleton.joints[1].hasEndSite = true;
    _skeleton.joints[1].endSite = {0, 5, 0};
  }

  Skeleton _skeleton{"chain.bvh", {J("Root", -1, {1, 2, 3}), J("Child", 0, {0, 10, 0})}, {}, 0.0};
  Clip _clip{"", 2, 1.0, 2,
             {{}, {}, FromTest(kelvara_test::AxisAngle(0, 0, 1, 90)), FromTest(kelvara_test::AxisAngle(1, 0, 0, 90))},
             {{1, 2, 3}, {11, 22, 33}},
             {{}, {0, 10, 0}, {}, {2, 10, 0}}};
};

TEST_F(WorldPoseFrames, MovedJointsFollowTheirParents)
{
  WorldPose rest;
  WorldPose moved;
  ASSERT_TRUE(rest.Evaluate(_skeleton, &_clip, kRestFrame));
  ASSERT_TRUE(moved.Evaluate(_skeleton, &_clip, 1));
  // The child's (2,10,0) turned by the root is (-10,2,0); its own turn takes +Y to +Z. A joint
  // without an end site stands for its own.
  const Vector got[] = {rest[0].off, rest[1].off, rest.EndSite(_skeleton, 1),  moved[0].off,
                        moved[0].v1, moved[1].off, moved[1].v2,                 moved.EndSite(_skeleton, 1),
                        moved.EndSite(_skeleton, 0)};
  const Vector want[] = {{1, 2, 3}, {1, 12, 3}, {1, 17, 3}, {11, 22, 33}, {0, 1, 0}, {1, 24, 33}, {0, 0, 1},
                         {1, 24, 38}, {11, 22, 33}};
  for (int i = 0; i < 9; ++i)
    EXPECT_LT(MaxDiff(got[i], want[i]), 1e-12) << i;
  WorldPose first;
  ASSERT_TRUE(first.Evaluate(_skeleton, &_clip, 0));
  EXPECT_EQ(first.Matrices(), rest.Matrices());
  // Without per-joint translations the child keeps its rest offset.
  _clip.translations.clear();
  ASSERT_TRUE(moved.Evaluate(_skeleton, &_clip, 1));
  EXPECT_LT(MaxDiff(moved[1].off, Vector{1, 22, 33}), 1e-12);
}

// A frame outside the clip, or a clip whose arrays do not fit the skeleton, is refused and leaves
// the pose empty, never read past an array's end.
TEST_F(WorldPoseFrames, FramesAndClipsThatDoNotFitAreRefused)
{
  WorldPose pose;
  for (int frame : {2, -2})
  {
    ASSERT_TRUE(pose.Evaluate(_skeleton, &_clip, 0));
    EXPECT_FALSE(pose.Evaluate(_skeleton, &_clip, frame)) << frame;
    EXPECT_EQ(pose.Size(), 0u) << frame;
  }
  // Frame 1 is where a short array would be read past its end.
  const auto refused = [&](auto change) {
    Clip clip = _clip;
    change(clip);
    return !pose.Evaluate(_skeleton, &clip, 1) && pose.Size() == 0;
  };
  EXPECT_TRUE(refused([](Clip& c) { c.jointCount = 3; }));
  EXPECT_TRUE(refused([](Clip& c) { c.rotations.pop_back(); }));
  EXPECT_TRUE(refused([](Clip& c) { c.rootTranslation.pop_back(); }));
  EXPECT_TRUE(refused([](Clip& c) { c.translations.resize(2); })); // one frame of two
}

} // namespace
} // namespace kelvara
