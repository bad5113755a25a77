// BVH files to and from the host's skeleton and clip.
#include "io/bvh/bvh_model.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "anim/pose.h"
#include "support/bvh_texts.h"
#include "support/quaternion.h"

namespace kelvara
{
namespace
{

using kelvara_test::MaxDiff;
using kelvara_test::Quat;
using telvo::Matrix;
using telvo::Vector;

struct Placed
{
  Quat turn;
  Vector position;
  Vector end; // the end site, or the joint's position without one
};

// Every joint of a BVH file at a frame by the format's own rules: the first listed rotation is
// the outermost, position channels add to the offset.
std::vector<Placed> BvhWorld(const BvhFile& f, int frame)
{
  std::vector<Placed> world;
  const double* row = f.motion.data() + static_cast<std::size_t>(frame) * static_cast<std::size_t>(f.channelCount);
  for (const BvhJoint& joint : f.joints)
  {
    Quat local;
    Vector offset = joint.offset;
    for (std::size_t c = 0; c < joint.channels.size(); ++c)
    {
      const Channel ch = joint.channels[c];
      const double v = row[joint.firstChannel + static_cast<int>(c)];
      if (ch == Channel::Xrotation || ch == Channel::Yrotation || ch == Channel::Zrotation)
        local = local * kelvara_test::AxisAngle(ch == Channel::Xrotation, ch == Channel::Yrotation,
                                                ch == Channel::Zrotation, v);
      else
        offset = offset + Vector{ch == Channel::Xposition ? v : 0, ch == Channel::Yposition ? v : 0,
                                 ch == Channel::Zposition ? v : 0};
    }
    const Placed parent = joint.parent < 0 ? Placed{} : world[static_cast<std::size_t>(joint.parent)];
    Placed& placed = world.emplace_back();
    placed.turn = parent.turn * local;
    placed.position = parent.position + kelvara_test::Rotate(parent.turn, offset);
    placed.end =
      placed.position + (joint.hasEndSite ? kelvara_test::Rotate(placed.turn, joint.endSiteOffset) : Vector{});
  }
  return world;
}

Quaternion RandomRotation(std::mt19937_64& rng)
{
  std::normal_distribution<double> gauss;
  return Normalized({gauss(rng), gauss(rng), gauss(rng), gauss(rng)});
}

TEST(BvhModel, FileThroughTheModelKeepsLayoutNamesOffsetsAndMotion)
{
  BvhFile file =
    kelvara_test::ReadBvhText(kelvara_test::kBvhHierarchy + "Frames: 0\nFrame Time: 0.033333\n", "layout.bvh");
  // Motion as a writer gives it: principal angles on the first frame, then smooth steps that
  // carry angles past +-180 (the root spins more than a turn, the spine's first angle passes -180).
  file.frameCount = 40;
  for (int f = 0; f < file.frameCount; ++f)
  {
    const double t = f;
    file.motion.insert(file.motion.end(),
                       {0.5 * t, 30 + std::sin(t), -2 * t, 10 * t, 30 * std::sin(0.2 * t), 170 + 20 * std::sin(0.1 * t),
                        -150 - 2 * t, 60 * std::sin(0.3 * t), 45 - t, 0.5 * std::sin(t), 20 * std::cos(0.1 * t),
                        -40 + 3 * t, 80 * std::sin(0.05 * t), 5 * t - 100, 0.1 * t});
  }
  std::string error;
  ASSERT_TRUE(ValidateBvh(file, error)) << error;

  Skeleton skeleton;
  BvhLayout layout;
  BvhToSkeleton(file, skeleton, layout);
  Clip clip;
  BvhToClip(file, skeleton, clip);
  EXPECT_EQ(std::tie(skeleton.path, skeleton.sceneTransform, skeleton.metresPerUnit),
            std::make_tuple("layout.bvh", Matrix{}, 0.0));
  EXPECT_EQ(std::tie(clip.frameCount, clip.frameTime, clip.jointCount), std::make_tuple(40, 0.033333, 4));
  ASSERT_EQ(clip.translations.size(), 160u) << "Leg's position channel moves a joint other than the root";
  // Position channels add to the offset.
  EXPECT_EQ(clip.translations[2 * 4 + 2], (Vector{1, -2 + 0.5 * std::sin(2.0), 0.25}));

  BvhFile back;
  ASSERT_TRUE(ModelToBvh(skeleton, &layout, clip, back, error)) << error;
  EXPECT_EQ(back.path, file.path);
  // Rotations pass through quaternions and matrices: a few units in the last place of a few
  // hundred degrees, far below 1e-9; a wrong order or a 360-degree jump is off by whole degrees.
  kelvara_test::ExpectSameBvh(file, back, 1e-9);
  EXPECT_TRUE(ValidateBvh(back, error)) << error;
}

TEST(BvhModel, RigIsWrittenWhereItStandsUnderNamesBvhCanHold)
{
  // A rig as glTF or FBX files carry it: rest rotations, uniform scales, a Z-up armature in
  // centimetres above it, end sites on two joints, names that are not single words or are keywords.
  Skeleton s;
  s.path = "rig.glb";
  std::mt19937_64 rng(5);
  const std::tuple<const char*, int, Vector, double> joints[] = {{"Left Hip\t2\n", -1, {0, 2, 95}, 1.5},
                                                                 {"", 0, {0, 0, 12}, 1.0},
                                                                 {"End", 1, {0, 1, 20}, 1.0},
                                                                 {"{", 1, {15, 0, 18}, 0.8},
                                                                 {"Site", 3, {25, 0, 0}, 1.0}};
  const std::string written[] = {"Left_Hip_2_", "joint1", "End_", "{_", "Site"};
  for (const auto& [name, parent, translation, scale] : joints)
    s.joints.push_back({name, parent, translation, RandomRotation(rng), {scale, scale, scale}, false, {}});
  s.joints[2].hasEndSite = s.joints[4].hasEndSite = true;
  s.joints[2].endSite = {0, 0, 15};
  s.joints[4].endSite = {8, 0, 0};
  s.sceneTransform = kelvara_test::Mul(kelvara_test::Place(kelvara_test::AxisAngle(1, 0, 0, -90), {0.3, 0, -1}),
                                       Matrix{{}, {0.01, 0, 0}, {0, 0.01, 0}, {0, 0, 0.01}});
  s.metresPerUnit = 0.01;

  std::uniform_real_distribution<double> shift(-30, 30);
  Clip clip{"turns", 6, 1.0 / 30, 5, {}, {}, {}};
  for (int f = 0; f < clip.frameCount; ++f)
  {
    for (int j = 0; j < 5; ++j)
      clip.rotations.push_back(RandomRotation(rng));
    clip.rootTranslation.push_back({shift(rng), shift(rng), 95 + shift(rng)});
  }
  Clip moving = clip;
  for (int f = 0; f < clip.frameCount; ++f)
    for (const Joint& joint : s.joints)
      moving.translations.push_back(joint.translation + Vector{shift(rng), shift(rng), shift(rng)});

  // The default layout, the default with every joint moved, and a layout of other orders with
  // a position channel on a joint that the clip does not move.
  BvhLayout reordered = DefaultBvhLayout(s, false);
  reordered.channels[0] = {Channel::Yrotation, Channel::Zposition, Channel::Xrotation, Channel::Xposition,
                           Channel::Zrotation, Channel::Yposition};
  reordered.channels[3] = {Channel::Xrotation, Channel::Yrotation, Channel::Zrotation, Channel::Yposition};
  const std::vector<Channel> rotations = {Channel::Zrotation, Channel::Yrotation, Channel::Xrotation};
  const std::vector<Channel> all = {Channel::Xposition, Channel::Yposition, Channel::Zposition,
                                    Channel::Zrotation, Channel::Yrotation, Channel::Xrotation};
  const std::tuple<const char*, const Clip*, const BvhLayout*> cases[] = {
    {"default", &clip, nullptr}, {"moving", &moving, nullptr}, {"reordered", &clip, &reordered}};
  for (const auto& [what, motion, layout] : cases)
  {
    SCOPED_TRACE(what);
    BvhFile out;
    std::string error;
    ASSERT_TRUE(ModelToBvh(s, layout, *motion, out, error)) << error;
    // Through the text, so that what is checked is what a reader of the file gets.
    std::string text;
    ASSERT_TRUE(WriteBvhToString(out, text, error)) << error;
    const BvhFile read = kelvara_test::ReadBvhText(text, "out.bvh");
    const BvhLayout expected = layout != nullptr ? *layout : DefaultBvhLayout(s, motion == &moving);
    for (std::size_t j = 0; j < 5; ++j)
      EXPECT_EQ(std::tie(read.joints[j].name, read.joints[j].channels), std::tie(written[j], expected.channels[j]));
    EXPECT_EQ(expected.channels[1], motion == &moving ? all : rotations);
    EXPECT_EQ(expected.channels[0], layout != nullptr ? reordered.channels[0] : all);

    // Positions are about a metre: 1e-12 is a few hundred units in the last place, room for the
    // Euler decomposition; a lost rest rotation, scale or scene is off by centimetres or more.
    WorldPose want;
    for (int f = 0; f < clip.frameCount; ++f)
    {
      ASSERT_TRUE(want.Evaluate(s, motion, f));
      const std::vector<Placed> got = BvhWorld(read, f);
      for (std::size_t j = 0; j < 5; ++j)
        EXPECT_LT(std::max({MaxDiff(kelvara_test::Place(got[j].turn, got[j].position), want[j]),
                            MaxDiff(got[j].end, want.EndSite(s, j))}),
                  1e-12)
          << "frame " << f << " joint " << j;
    }
  }

  // A layout or clip of another skeleton.
  BvhFile out;
  std::string error;
  BvhLayout shortLayout = DefaultBvhLayout(s, false);
  shortLayout.channels.pop_back();
  EXPECT_FALSE(ModelToBvh(s, &shortLayout, clip, out, error));
  EXPECT_EQ(error, "rig.glb: expected channels for 5 joints, found 4");
  clip.name = "walk";
  clip.jointCount = 4;
  EXPECT_FALSE(ModelToBvh(s, nullptr, clip, out, error));
  EXPECT_EQ(error, "walk: expected a clip of 5 joints, found 4");
}

} // namespace
} // namespace kelvara

namespace kelvara
{
namespace
{

// Frames converted by several threads, each share's first frame without the one before it: the
// seams must come out as one pass over the clip makes them, also where the angles have wound up
// past a whole turn (a share begun afresh would start again near zero) and through gimbal lock.
TEST(BvhModel, AnglesAreTheSameWhateverTheThreadsThatShareTheFrames)
{
  Skeleton s;
  s.path = "spin.bvh";
  s.joints.push_back({"Hips", -1, {0, 1, 0}, {}, {1, 1, 1}, false, {}});
  s.joints.push_back({"Spine", 0, {0, 1, 0}, {}, {1, 1, 1}, false, {}});
  s.joints.push_back({"Arm", 1, {1, 0, 0}, {}, {1, 1, 1}, true, {1, 0, 0}});
  std::mt19937_64 rng(19);
  Clip clip{"spin", 3000, 1.0 / 120, 3, {}, {}, {}};
  for (int f = 0; f < clip.frameCount; ++f)
  {
    // The hips keep turning (many whole turns), the spine nods through 90 degrees, the arm wobbles.
    clip.rotations.push_back(AxisAngle({0, 1, 0}, 0.05 * f));
    clip.rotations.push_back(AxisAngle({1, 0, 0}, 1.7 * std::sin(0.01 * f)));
    clip.rotations.push_back(RandomRotation(rng));
    clip.rootTranslation.push_back({0.01 * f, 1, 0});
  }
  std::string error;
  BvhFile one;
  ASSERT_TRUE(ModelToBvh(s, nullptr, clip, one, error, 1)) << error;
  double widest = 0.0;
  for (double v : one.motion)
    widest = std::max(widest, std::fabs(v));
  ASSERT_GT(widest, 3600.0) << "the hips' angle winds up over many turns";
  std::string oneText;
  ASSERT_TRUE(WriteBvhToString(one, oneText, error, 1)) << error;
  for (int threads : {2, 3, 8})
  {
    BvhFile many;
    ASSERT_TRUE(ModelToBvh(s, nullptr, clip, many, error, threads)) << error;
    EXPECT_TRUE(many.motion == one.motion) << threads << " threads";
    std::string manyText;
    ASSERT_TRUE(WriteBvhToString(one, manyText, error, threads)) << error;
    EXPECT_TRUE(manyText == oneText) << threads << " threads";
  }
}

} // namespace
} // namespace kelvara
