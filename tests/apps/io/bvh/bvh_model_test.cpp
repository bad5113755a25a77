// BVH files to and from the host's skeleton and clip.
#include "io/bvh/bvh_model.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "support/quaternion.h"

namespace kelvara
{
namespace
{

using kelvara_test::Quat;
using telvo::Vector;

// Two roots, an end site, a position channel on a non-root joint, two- and four-channel joints
// and unusual rotation orders.
const char* const kHierarchy = "HIERARCHY\n"
                               "ROOT Hips\n"
                               "{\n"
                               "\tOFFSET 0 0 0\n"
                               "\tCHANNELS 6 Xposition Yposition Zposition Zrotation Xrotation Yrotation\n"
                               "\tJOINT Spine\n"
                               "\t{\n"
                               "\t\tOFFSET 0 5.5 -0.001\n"
                               "\t\tCHANNELS 3 Yrotation Xrotation Zrotation\n"
                               "\t\tEnd Site\n"
                               "\t\t{\n"
                               "\t\t\tOFFSET 0 2 0\n"
                               "\t\t}\n"
                               "\t}\n"
                               "\tJOINT Leg\n"
                               "\t{\n"
                               "\t\tOFFSET 1 -2 0.25\n"
                               "\t\tCHANNELS 4 Yposition Xrotation Zrotation Yrotation\n"
                               "\t}\n"
                               "}\n"
                               "ROOT Prop\n"
                               "{\n"
                               "\tOFFSET 10 0 0\n"
                               "\tCHANNELS 2 Zrotation Xposition\n"
                               "}\n"
                               "MOTION\n"
                               "Frames: 0\n"
                               "Frame Time: 0.033333\n";

Quat ChannelTurn(Channel channel, double degrees)
{
  switch (channel)
  {
  case Channel::Xrotation:
    return kelvara_test::AxisAngle(1, 0, 0, degrees);
  case Channel::Yrotation:
    return kelvara_test::AxisAngle(0, 1, 0, degrees);
  case Channel::Zrotation:
    return kelvara_test::AxisAngle(0, 0, 1, degrees);
  default:
    return {};
  }
}

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
      const double value = row[joint.firstChannel + static_cast<int>(c)];
      local = local * ChannelTurn(joint.channels[c], value);
      offset = offset + (joint.channels[c] == Channel::Xposition   ? Vector{value, 0, 0}
                         : joint.channels[c] == Channel::Yposition ? Vector{0, value, 0}
                         : joint.channels[c] == Channel::Zposition ? Vector{0, 0, value}
                                                                   : Vector{});
    }
    const Placed parent = joint.parent < 0 ? Placed{} : world[static_cast<std::size_t>(joint.parent)];
    Placed placed;
    placed.turn = parent.turn * local;
    placed.position = parent.position + kelvara_test::Rotate(parent.turn, offset);
    placed.end = joint.hasEndSite ? placed.position + kelvara_test::Rotate(placed.turn, joint.endSiteOffset)
                                  : placed.position;
    world.push_back(placed);
  }
  return world;
}

// A Z-up armature in centimetres turned into Y up, scaled to metres and moved.
const Quat kSceneTurn = kelvara_test::AxisAngle(1, 0, 0, -90);
constexpr double kSceneScale = 0.01;
const Vector kSceneOffset{0.3, 0.0, -1.0};

// Every joint of the model at a frame: scene, then the chain of whole local rotations, each
// offset stretched by the (uniform) scales above it.
std::vector<Placed> ModelWorld(const Skeleton& s, const Clip& clip, int frame)
{
  std::vector<Placed> world;
  std::vector<double> scales;
  for (std::size_t j = 0; j < s.joints.size(); ++j)
  {
    const Joint& joint = s.joints[j];
    const bool root = joint.parent < 0;
    const Placed parent =
      root ? Placed{kSceneTurn, kSceneOffset, {}} : world[static_cast<std::size_t>(joint.parent)];
    const double parentScale = root ? kSceneScale : scales[static_cast<std::size_t>(joint.parent)];
    const std::size_t at = static_cast<std::size_t>(frame) * s.joints.size() + j;
    const Quaternion& r = clip.rotations[at];
    const Vector t = j == 0                      ? clip.rootTranslation[static_cast<std::size_t>(frame)]
                     : clip.translations.empty() ? joint.translation
                                                 : clip.translations[at];
    Placed placed;
    placed.turn = parent.turn * Quat{r.w, r.x, r.y, r.z};
    placed.position = parent.position + kelvara_test::Rotate(parent.turn, t * parentScale);
    scales.push_back(parentScale * joint.scale.x);
    placed.end = joint.hasEndSite ? placed.position + kelvara_test::Rotate(placed.turn, joint.endSite * scales.back())
                                  : placed.position;
    world.push_back(placed);
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
  BvhFile file;
  std::string error;
  ASSERT_TRUE(ReadBvhFromBuffer(kHierarchy, "layout.bvh", file, error)) << error;
  // Motion as a writer gives it: principal angles on the first frame, then smooth steps that
  // carry angles past +-180 (the root spins more than a turn, the spine's first angle passes -180).
  file.frameCount = 40;
  for (int f = 0; f < file.frameCount; ++f)
  {
    const double t = f;
    const double row[] = {0.5 * t,         30 + std::sin(t), -2 * t,           10 * t,
                          30 * std::sin(0.2 * t), 170 + 20 * std::sin(0.1 * t), -150 - 2 * t, 60 * std::sin(0.3 * t),
                          45 - t,          0.5 * std::sin(t), 20 * std::cos(0.1 * t), -40 + 3 * t,
                          80 * std::sin(0.05 * t), 5 * t - 100, 0.1 * t};
    file.motion.insert(file.motion.end(), std::begin(row), std::end(row));
  }
  ASSERT_TRUE(ValidateBvh(file, error)) << error;

  Skeleton skeleton;
  BvhLayout layout;
  BvhToSkeleton(file, skeleton, layout);
  Clip clip;
  BvhToClip(file, skeleton, clip);
  EXPECT_EQ(std::tie(skeleton.path, skeleton.sceneTransform, skeleton.metresPerUnit),
            std::make_tuple("layout.bvh", telvo::Matrix{}, 0.0));
  EXPECT_EQ(std::tie(clip.frameCount, clip.frameTime, clip.jointCount), std::make_tuple(40, 0.033333, 4));
  ASSERT_EQ(clip.translations.size(), 160u) << "Leg's position channel moves a joint other than the root";
  // Position channels add to the offset.
  EXPECT_EQ(clip.translations[2 * 4 + 2], (Vector{1, -2 + 0.5 * std::sin(2.0), 0.25}));

  BvhFile back;
  ASSERT_TRUE(ModelToBvh(skeleton, &layout, clip, back, error)) << error;
  ASSERT_EQ(back.joints.size(), file.joints.size());
  for (std::size_t j = 0; j < file.joints.size(); ++j)
  {
    const BvhJoint& a = file.joints[j];
    const BvhJoint& b = back.joints[j];
    EXPECT_TRUE(std::tie(a.name, a.parent, a.offset, a.channels, a.hasEndSite, a.endSiteOffset, a.line,
                         a.firstChannel) == std::tie(b.name, b.parent, b.offset, b.channels, b.hasEndSite,
                                                     b.endSiteOffset, b.line, b.firstChannel))
      << a.name;
  }
  EXPECT_EQ(std::tie(back.path, back.channelCount, back.frameCount, back.frameTime),
            std::tie(file.path, file.channelCount, file.frameCount, file.frameTime));
  // Rotations pass through quaternions and matrices: a few units in the last place of a few
  // hundred degrees, far below 1e-9; a wrong order or a 360-degree jump is off by whole degrees.
  ASSERT_EQ(back.motion.size(), file.motion.size());
  for (std::size_t k = 0; k < file.motion.size(); ++k)
    ASSERT_NEAR(back.motion[k], file.motion[k], 1e-9)
      << "frame " << k / 15 << " channel " << k % 15;
  EXPECT_TRUE(ValidateBvh(back, error)) << error;
}

// A rig as glTF or FBX files carry it: rest rotations, uniform scales, a Z-up armature in
// centimetres above it, end sites on two joints.
Skeleton TurnedRig()
{
  Skeleton s;
  s.path = "rig.glb";
  const std::tuple<const char*, int, Vector> joints[] = {{"hips", -1, {0, 2, 95}},  {"spine", 0, {0, 0, 12}},
                                                         {"head", 1, {0, 1, 20}},   {"arm", 1, {15, 0, 18}},
                                                         {"hand", 3, {25, 0, 0}}};
  std::mt19937_64 rng(5);
  for (const auto& [name, parent, translation] : joints)
  {
    Joint& joint = s.joints.emplace_back();
    joint.name = name;
    joint.parent = parent;
    joint.translation = translation;
    joint.rotation = RandomRotation(rng);
  }
  s.joints[0].scale = {1.5, 1.5, 1.5};
  s.joints[3].scale = {0.8, 0.8, 0.8};
  s.joints[2].hasEndSite = true;
  s.joints[2].endSite = {0, 0, 15};
  s.joints[4].hasEndSite = true;
  s.joints[4].endSite = {8, 0, 0};
  s.sceneTransform = kelvara_test::Place(kSceneTurn, kSceneOffset);
  s.sceneTransform.v1 = s.sceneTransform.v1 * kSceneScale;
  s.sceneTransform.v2 = s.sceneTransform.v2 * kSceneScale;
  s.sceneTransform.v3 = s.sceneTransform.v3 * kSceneScale;
  s.metresPerUnit = 0.01;
  return s;
}

TEST(BvhModel, ModelWithRestRotationsScalesAndASceneIsWrittenWhereItStands)
{
  const Skeleton s = TurnedRig();
  std::mt19937_64 rng(17);
  std::uniform_real_distribution<double> shift(-30, 30);
  Clip clip;
  clip.name = "turns";
  clip.frameCount = 6;
  clip.frameTime = 1.0 / 30;
  clip.jointCount = 5;
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
    BvhFile read;
    ASSERT_TRUE(ReadBvhFromBuffer(text, "out.bvh", read, error)) << error;
    const std::vector<Channel> rotations = {Channel::Zrotation, Channel::Yrotation, Channel::Xrotation};
    const std::vector<Channel> all = {Channel::Xposition, Channel::Yposition, Channel::Zposition,
                                      Channel::Zrotation, Channel::Yrotation, Channel::Xrotation};
    const BvhLayout expected = layout != nullptr ? *layout : DefaultBvhLayout(s, motion == &moving);
    for (std::size_t j = 0; j < 5; ++j)
    {
      EXPECT_EQ(read.joints[j].name, s.joints[j].name);
      EXPECT_EQ(read.joints[j].channels, expected.channels[j]);
    }
    EXPECT_EQ(expected.channels[1], motion == &moving ? all : rotations);
    EXPECT_EQ(expected.channels[0], layout != nullptr ? reordered.channels[0] : all);

    // Positions are about a metre: 1e-12 is a few hundred units in the last place, room for the
    // Euler decomposition; a lost rest rotation, scale or scene is off by centimetres or more.
    for (int f = 0; f < clip.frameCount; ++f)
    {
      const std::vector<Placed> want = ModelWorld(s, *motion, f);
      const std::vector<Placed> got = BvhWorld(read, f);
      for (std::size_t j = 0; j < 5; ++j)
      {
        EXPECT_LT(kelvara_test::MaxDiff(got[j].position, want[j].position), 1e-12) << "frame " << f << " joint " << j;
        EXPECT_LT(kelvara_test::MaxDiff(kelvara_test::Place(got[j].turn, {}), kelvara_test::Place(want[j].turn, {})),
                  1e-12)
          << "frame " << f << " joint " << j;
        EXPECT_LT(kelvara_test::MaxDiff(got[j].end, want[j].end), 1e-12) << "frame " << f << " joint " << j;
      }
    }
  }
}

TEST(BvhModel, NamesAreMadeSingleWordsAndMismatchesRefused)
{
  Skeleton s;
  s.path = "names.glb";
  const char* const names[] = {"Left Arm", "", "End", "JOINT", "{", "tab\tand\nnewline", "MOTION", "Site", "ok"};
  for (const char* name : names)
  {
    Joint& joint = s.joints.emplace_back();
    joint.name = name;
    joint.parent = s.joints.size() == 1 ? -1 : 0;
  }
  const Clip clip = RestClip(s, 1, 0.1);
  BvhFile out;
  std::string error;
  ASSERT_TRUE(ModelToBvh(s, nullptr, clip, out, error)) << error;
  std::string text;
  ASSERT_TRUE(WriteBvhToString(out, text, error)) << error;
  BvhFile read;
  ASSERT_TRUE(ReadBvhFromBuffer(text, "names.bvh", read, error)) << error;
  std::vector<std::string> written;
  for (const BvhJoint& joint : read.joints)
    written.push_back(joint.name);
  EXPECT_EQ(written, (std::vector<std::string>{"Left_Arm", "joint1", "End_", "JOINT_", "{_", "tab_and_newline",
                                               "MOTION_", "Site", "ok"}));

  // A layout or clip of another skeleton.
  BvhLayout shortLayout = DefaultBvhLayout(s, false);
  shortLayout.channels.pop_back();
  EXPECT_FALSE(ModelToBvh(s, &shortLayout, clip, out, error));
  EXPECT_EQ(error, "names.glb: expected channels for 9 joints, found 8");
  Clip other = clip;
  other.name = "walk";
  other.jointCount = 8;
  EXPECT_FALSE(ModelToBvh(s, nullptr, other, out, error));
  EXPECT_EQ(error, "walk: expected a clip of 9 joints, found 8");
}

} // namespace
} // namespace kelvara
