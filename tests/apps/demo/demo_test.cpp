#include "demo/demo.h"

#include <cairo.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <numeric>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "io/animation_file.h"
#include "io/bvh/bvh_file.h"
#include "io/bvh/euler.h"
#include "io/gltf/gltf_document.h"
#include "support/run_app.h"

namespace kelvara
{
namespace
{

using telvo::Matrix;
using telvo::Vector;

int JointIndex(const BvhFile& file, const std::string& name)
{
  const auto j = std::ranges::find_if(file.joints, [&](const BvhJoint& joint) { return joint.name == name; });
  return j == file.joints.end() ? -1 : static_cast<int>(j - file.joints.begin());
}

const double* Row(const BvhFile& file, int frame)
{
  return file.motion.data() + static_cast<std::size_t>(frame) * static_cast<std::size_t>(file.channelCount);
}

// World transforms of every joint at a frame.
std::vector<Matrix> WorldPose(const BvhFile& file, int frame)
{
  const double* row = Row(file, frame);
  std::vector<Matrix> world(file.joints.size());
  for (std::size_t i = 0; i < file.joints.size(); ++i)
  {
    const BvhJoint& j = file.joints[i];
    Matrix local = RotationFromChannels(j.channels, row + j.firstChannel);
    // Only the root moves, by its first three channels: X, Y and Z position.
    local.off = j.parent < 0 ? j.offset + Vector{row[0], row[1], row[2]} : j.offset;
    world[i] = j.parent < 0 ? local : world[static_cast<std::size_t>(j.parent)] * local;
  }
  return world;
}

// Height of the lowest of heel (under the ankle, as deep as the toe base), toe base and toe tip.
double SoleHeight(const BvhFile& file, const std::vector<Matrix>& world, int foot)
{
  const BvhJoint& toe = file.joints[static_cast<std::size_t>(foot + 1)];
  const Matrix& toeWorld = world[static_cast<std::size_t>(foot + 1)];
  return std::min({TransformPoint(world[static_cast<std::size_t>(foot)], {0.0, toe.offset.y, 0.0}).y, toeWorld.off.y,
                   TransformPoint(toeWorld, toe.endSiteOffset).y});
}

std::string Text(const BvhFile& file)
{
  std::string text, error;
  EXPECT_TRUE(WriteBvhToString(file, text, error)) << error;
  return text;
}

// Pearson correlation of two series.
double Correlation(const std::vector<double>& a, const std::vector<double>& b)
{
  const double n = static_cast<double>(a.size());
  const double ma = std::accumulate(a.begin(), a.end(), 0.0) / n, mb = std::accumulate(b.begin(), b.end(), 0.0) / n;
  double ab = 0.0, aa = 0.0, bb = 0.0;
  for (std::size_t i = 0; i < a.size(); ++i)
  {
    ab += (a[i] - ma) * (b[i] - mb);
    aa += (a[i] - ma) * (a[i] - ma);
    bb += (b[i] - mb) * (b[i] - mb);
  }
  return ab / std::sqrt(aa * bb);
}

// Each file is made the same every time, is valid (a negative frame count gives an empty clip)
// and survives writing and reading.
TEST(DemoFiles, AreDeterministicValidAndSurviveWriteRead)
{
  const std::function<BvhFile()> makers[] = {[] { return MakeDemoSource(); },
                                             [] { return MakeDemoSource(100, 1.0 / 30.0); },
                                             [] { return MakeDemoSource(-5); }, [] { return MakeDemoTarget(); }};
  for (const auto& make : makers)
  {
    const BvhFile file = make();
    SCOPED_TRACE(testing::Message() << file.path << " " << file.frameCount);
    std::string error;
    ASSERT_TRUE(ValidateBvh(file, error)) << error;
    const std::string text = Text(file);
    EXPECT_EQ(Text(make()), text);
    BvhFile back;
    ASSERT_TRUE(ReadBvhFromBuffer(text, file.path, back, error)) << error;
    EXPECT_EQ(Text(back), text);
    EXPECT_TRUE(back.motion == file.motion);
  }
  EXPECT_EQ(MakeDemoSource(-5).frameCount, 0);
}

// The target is a 21-joint rig of other names and proportions.
TEST(DemoFiles, TargetIsADifferentRig)
{
  const BvhFile target = MakeDemoTarget();
  const BvhFile source = MakeDemoSource(1);
  ASSERT_EQ(target.joints.size(), 21u);
  std::set<std::string> names;
  for (const BvhJoint& j : target.joints)
  {
    names.insert(j.name);
    EXPECT_LT(JointIndex(source, j.name), 0) << j.name << " is named as in the source";
    const std::vector<Channel> rotations = {Channel::Xrotation, Channel::Yrotation, Channel::Zrotation};
    EXPECT_TRUE(j.parent < 0 || j.channels == rotations) << j.name;
  }
  EXPECT_EQ(names.size(), 21u);
  EXPECT_EQ(target.frameCount, 1);
  EXPECT_TRUE(std::all_of(target.motion.begin(), target.motion.end(), [](double v) { return v == 0.0; }));

  // Other proportions: against its arms, the target's legs are shorter.
  auto legOverArm = [](const BvhFile& f, const char* calf, const char* foot, const char* forearm, const char* hand) {
    auto length = [&](const char* n) { return Length(f.joints[static_cast<std::size_t>(JointIndex(f, n))].offset); };
    return (length(calf) + length(foot)) / (length(forearm) + length(hand));
  };
  EXPECT_LT(legOverArm(target, "calf_l", "foot_l", "lowerarm_l", "hand_l"),
            0.9 * legOverArm(source, "LeftLeg", "LeftFoot", "LeftForeArm", "LeftHand"));
}

TEST(DemoWalk, RepeatsEveryCycle)
{
  // 60 and 120 frames a second: 66 and 132 frames a cycle.
  for (int rate : {60, 120})
  {
    SCOPED_TRACE(rate);
    const BvhFile walk = MakeDemoSource(3 * rate, 1.0 / rate);
    const int cycle = static_cast<int>(std::lround(kDemoCycleSeconds * rate));
    // Channel 2, the hips' forward position, advances a stride a cycle; the rest come back.
    const double stride = Row(walk, cycle)[2] - Row(walk, 0)[2];
    for (int f = 0; f + cycle < walk.frameCount; ++f)
      for (int c = 0; c < walk.channelCount; ++c)
      {
        const double change = Row(walk, f + cycle)[c] - Row(walk, f)[c];
        ASSERT_NEAR(c == 2 ? change - stride : std::remainder(change, 360.0), 0.0, 1e-3) << c << " frame " << f;
      }
    // A walk: roughly 1 to 2 m/s, at about 5.6 cm a unit.
    EXPECT_GT(stride / kDemoCycleSeconds, 1.0 / 0.056);
    EXPECT_LT(stride / kDemoCycleSeconds, 2.0 / 0.056);
  }
}

// Upright and facing the way it walks, it moves forward every frame without a jump in any channel;
// the lower foot is always on the floor, each lifts in turn, and arms swing against the legs.
TEST(DemoWalk, WalksUprightOnTheFloorWithLimbsInOpposition)
{
  const BvhFile walk = MakeDemoSource();
  const std::size_t width = static_cast<std::size_t>(walk.channelCount);
  const int head = JointIndex(walk, "Head");
  const int feet[2] = {JointIndex(walk, "LeftFoot"), JointIndex(walk, "RightFoot")};
  // Knees rather than feet for the swing: a swinging foot trails behind its bent knee.
  const int limbs[4] = {JointIndex(walk, "LeftLeg"), JointIndex(walk, "RightLeg"), JointIndex(walk, "LeftHand"),
                        JointIndex(walk, "RightHand")};
  std::vector<double> sole[2], reach[4]; // reach: ahead of the hips along the walk
  for (int f = 0; f < walk.frameCount; ++f)
  {
    const std::vector<Matrix> world = WorldPose(walk, f);
    for (int i = 0; i < 2; ++i)
      sole[i].push_back(SoleHeight(walk, world, feet[i]));
    for (int i = 0; i < 4; ++i)
      reach[i].push_back(world[static_cast<std::size_t>(limbs[i])].off.z - world[0].off.z);
    // On the floor up to the four decimals of the file, never below it.
    EXPECT_NEAR(std::min(sole[0].back(), sole[1].back()), 0.0, 1e-3) << "frame " << f;
    EXPECT_GT(world[static_cast<std::size_t>(head)].off.y - world[0].off.y, 5.0);
    EXPECT_GT(TransformDirection(world[0], {0.0, 0.0, 1.0}).z, 0.9);
    if (f == 0)
      continue;
    const double* previous = Row(walk, f - 1);
    const double* row = Row(walk, f);
    EXPECT_GT(row[2], previous[2]) << "frame " << f;
    // No channel jumps, not even by a whole turn.
    for (std::size_t c = 0; c < width; ++c)
      ASSERT_LT(std::fabs(row[c] - previous[c]), 6.0) << "channel " << c << " frame " << f;
  }
  // Each foot lifts clearly while the other stands, half a cycle apart.
  const int cycle = static_cast<int>(std::lround(kDemoCycleSeconds * 60.0));
  int up[2];
  for (int i = 0; i < 2; ++i)
  {
    up[i] = static_cast<int>(std::max_element(sole[i].begin(), sole[i].begin() + cycle) - sole[i].begin());
    EXPECT_GT(sole[i][static_cast<std::size_t>(up[i])], 1.0);
    EXPECT_NEAR(sole[1 - i][static_cast<std::size_t>(up[i])], 0.0, 1e-3);
  }
  EXPECT_NEAR(std::abs(up[0] - up[1]), cycle / 2, 2);
  EXPECT_LT(Correlation(reach[0], reach[1]), -0.9); // knees
  EXPECT_LT(Correlation(reach[0], reach[2]), -0.9); // left knee, left hand
  EXPECT_LT(Correlation(reach[1], reach[3]), -0.9);
}

using DemoCommand = kelvara_test::AppFolderTest;

// The demo writes the walk retargeted as BVH and as the target's skinned character (glb), and a
// picture of the walk and both rest choices, whichever was written; the A-pose arms differ.
TEST_F(DemoCommand, WritesTheWalkAsBvhAndGlbAndPreviewsBothRestChoices)
{
  const int frames = 67; // one cycle from the first frame to the last
  for (const char* flags : {" --keep-rest", ""})
  {
    SCOPED_TRACE(flags);
    const kelvara_test::AppOutcome run = Kelvara("demo --frames " + std::to_string(frames) + flags);
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find("wrote demo_out.bvh: 21 joints, 67 frames of 0.0166667 s\nwrote demo_out.glb: the target "
                           "as a skinned character with the walk as its animation\nwrote demo_out_preview.png: the "
                           "walk and its retarget on the target's own rest and on the matched rest"),
              std::string::npos)
      << run.out;
    // The pairing shown is the expected one, each joint paired once and no side crossed.
    std::set<std::string> targets, sources;
    for (const auto& [t, s] : DemoExpectedPairs())
    {
      EXPECT_TRUE(std::regex_search(run.out, std::regex("\n  " + t + " +<- " + s + " "))) << t << " <- " << s;
      EXPECT_TRUE(t.ends_with("_l") == s.starts_with("Left") && t.ends_with("_r") == s.starts_with("Right")) << t;
      targets.insert(t);
      sources.insert(s);
    }
    EXPECT_TRUE(targets.size() == 21 && sources.size() == 21);
    cairo_surface_t* png = cairo_image_surface_create_from_png((_dir / "demo_out_preview.png").c_str());
    ASSERT_EQ(cairo_surface_status(png), CAIRO_STATUS_SUCCESS);
    const int height = cairo_image_surface_get_height(png), panel = height / 3;
    EXPECT_EQ(cairo_image_surface_get_width(png), 6 * panel);
    // Pixels that differ between the two target figures' front panels, below their labels.
    int differing = 0;
    for (int y = panel / 5; y < height; ++y)
    {
      const auto* row = reinterpret_cast<const std::uint32_t*>(cairo_image_surface_get_data(png) +
                                                                 y * cairo_image_surface_get_stride(png));
      for (int x = 0; x < panel; ++x)
        differing += row[2 * panel + x] != row[4 * panel + x] ? 1 : 0;
    }
    cairo_surface_destroy(png);
    EXPECT_GT(differing, 200);
  }

  // The last run's glb: the BVH's joints, frames, rotations and root path, in metres by its armature.
  std::string error;
  AnimationFile glb, bvh;
  ASSERT_TRUE(ReadAnimationFile((_dir / "demo_out.glb").string(), {}, glb, error)) << error;
  ASSERT_TRUE(ReadAnimationFile((_dir / "demo_out.bvh").string(), {}, bvh, error)) << error;
  ASSERT_TRUE(glb.gltf != nullptr);
  const tinygltf::Model& model = glb.gltf->model;
  EXPECT_TRUE(model.animations.size() == 1 && model.skins.size() == 1 && model.meshes.size() == 1);
  ASSERT_TRUE(glb.hasClip);
  ASSERT_EQ(glb.skeleton.Size(), 21u);
  ASSERT_TRUE(glb.clip.frameCount == frames && bvh.clip.frameCount == frames);
  EXPECT_NEAR(glb.clip.frameTime, 1.0 / 60.0, 1e-6);
  for (const BvhJoint& joint : MakeDemoTarget().joints)
  {
    const int g = glb.skeleton.FindJoint(joint.name);
    const int b = bvh.skeleton.FindJoint(joint.name);
    ASSERT_TRUE(g >= 0 && b >= 0) << joint.name;
    // Float keyframes against the BVH's four decimals of a degree.
    for (int frame = 0; frame < frames; ++frame)
      ASSERT_LT(AngleBetweenDegrees(glb.clip.FrameRotations(frame)[g], bvh.clip.FrameRotations(frame)[b]), 1e-3)
        << joint.name << " frame " << frame;
  }
  ASSERT_EQ(glb.clip.rootTranslation.size(), static_cast<std::size_t>(frames));
  for (std::size_t frame = 0; frame < glb.clip.rootTranslation.size(); ++frame)
    ASSERT_LT(Length(glb.clip.rootTranslation[frame] - bvh.clip.rootTranslation[frame]), 1e-3) << "frame " << frame;

  // It walks: a thigh swings through tens of degrees, the pelvis a stride a cycle at walking pace.
  const int thigh = glb.skeleton.FindJoint("thigh_l");
  double swing = 0.0;
  for (int frame = 0; frame < frames; ++frame)
    swing = std::max(swing,
                     AngleBetweenDegrees(glb.clip.FrameRotations(0)[thigh], glb.clip.FrameRotations(frame)[thigh]));
  EXPECT_GT(swing, 20.0);
  const Matrix& armature = glb.skeleton.sceneTransform;
  const Vector stride = TransformPoint(armature, glb.clip.rootTranslation.back()) -
                        TransformPoint(armature, glb.clip.rootTranslation[0]);
  EXPECT_GT(stride.z / kDemoCycleSeconds, 0.8) << stride.z << " m";
  EXPECT_LT(stride.z / kDemoCycleSeconds, 2.0) << stride.z << " m";
  EXPECT_NEAR(stride.x, 0.0, 1e-3);
}

} // namespace
} // namespace kelvara
