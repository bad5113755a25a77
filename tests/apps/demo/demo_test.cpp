#include "demo/demo.h"

#include <cairo.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
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
  for (std::size_t i = 0; i < file.joints.size(); ++i)
    if (file.joints[i].name == name)
      return static_cast<int>(i);
  return -1;
}

Matrix LocalRotation(const BvhFile& file, int frame, int joint)
{
  const BvhJoint& j = file.joints[static_cast<std::size_t>(joint)];
  const double* row = file.motion.data() + static_cast<std::size_t>(frame) * static_cast<std::size_t>(file.channelCount);
  return RotationFromChannels(j.channels, row + j.firstChannel);
}

// World transforms of every joint at a frame, from the offsets, position channels and rotations.
std::vector<Matrix> WorldPose(const BvhFile& file, int frame)
{
  const double* row = file.motion.data() + static_cast<std::size_t>(frame) * static_cast<std::size_t>(file.channelCount);
  std::vector<Matrix> world(file.joints.size());
  for (std::size_t i = 0; i < file.joints.size(); ++i)
  {
    const BvhJoint& j = file.joints[i];
    Matrix local = RotationFromChannels(j.channels, row + j.firstChannel);
    local.off = j.offset;
    for (std::size_t c = 0; c < j.channels.size(); ++c)
    {
      const double v = row[j.firstChannel + static_cast<int>(c)];
      if (j.channels[c] == Channel::Xposition)
        local.off.x += v;
      else if (j.channels[c] == Channel::Yposition)
        local.off.y += v;
      else if (j.channels[c] == Channel::Zposition)
        local.off.z += v;
    }
    world[i] = j.parent < 0 ? local : world[static_cast<std::size_t>(j.parent)] * local;
  }
  return world;
}

// Largest difference between the components of two rotations.
double RotationDistance(const Matrix& a, const Matrix& b)
{
  const Vector d[3] = {a.v1 - b.v1, a.v2 - b.v2, a.v3 - b.v3};
  double m = 0.0;
  for (const Vector& v : d)
    m = std::max({m, std::fabs(v.x), std::fabs(v.y), std::fabs(v.z)});
  return m;
}

// Height of the lowest of a foot's sole points: the heel under the ankle (as deep as the toe
// base), the toe base and the toe tip.
double SoleHeight(const BvhFile& file, const std::vector<Matrix>& world, int foot)
{
  const BvhJoint& toe = file.joints[static_cast<std::size_t>(foot + 1)];
  const Matrix& ankle = world[static_cast<std::size_t>(foot)];
  const Matrix& toeWorld = world[static_cast<std::size_t>(foot + 1)];
  const double heel = TransformPoint(ankle, {0.0, toe.offset.y, 0.0}).y;
  const double tip = TransformPoint(toeWorld, toe.endSiteOffset).y;
  return std::min({heel, toeWorld.off.y, tip});
}

std::string Text(const BvhFile& file)
{
  std::string text, error;
  EXPECT_TRUE(WriteBvhToString(file, text, error)) << error;
  return text;
}

TEST(DemoFiles, ValidateAndSurviveWriteRead)
{
  for (const BvhFile& file : {MakeDemoSource(), MakeDemoTarget()})
  {
    SCOPED_TRACE(file.path);
    std::string error;
    ASSERT_TRUE(ValidateBvh(file, error)) << error;
    const std::string text = Text(file);
    BvhFile back;
    ASSERT_TRUE(ReadBvhFromBuffer(text, file.path, back, error)) << error;
    EXPECT_EQ(Text(back), text);
    EXPECT_TRUE(back.motion == file.motion);
  }
}

TEST(DemoFiles, TargetIsADifferentTwentyOneJointRig)
{
  const BvhFile target = MakeDemoTarget();
  const BvhFile source = MakeDemoSource(1);
  ASSERT_EQ(target.joints.size(), 21u);
  std::set<std::string> names;
  for (const BvhJoint& j : target.joints)
  {
    names.insert(j.name);
    EXPECT_LT(JointIndex(source, j.name), 0) << j.name << " is named as in the source";
    if (j.parent >= 0)
    {
      EXPECT_EQ(j.channels, (std::vector<Channel>{Channel::Xrotation, Channel::Yrotation, Channel::Zrotation}));
    }
  }
  EXPECT_EQ(names.size(), 21u);
  EXPECT_EQ(target.frameCount, 1);
  EXPECT_TRUE(std::all_of(target.motion.begin(), target.motion.end(), [](double v) { return v == 0.0; }));

  // The arms rest 45 degrees down (the source's along X), so a retarget has to turn them.
  for (const char* name : {"lowerarm_l", "hand_l", "lowerarm_r", "hand_r"})
  {
    const Vector o = target.joints[static_cast<std::size_t>(JointIndex(target, name))].offset;
    EXPECT_NEAR(std::atan2(-o.y, std::fabs(o.x)) * 180.0 / std::numbers::pi, 45.0, 1e-3) << name;
  }
  // Relative to the standing height, the target's legs are shorter and its arms longer.
  auto ratios = [](const BvhFile& f, const char* thigh, const char* calf, const char* upper, const char* lower) {
    std::vector<Vector> at(f.joints.size());
    double top = -1e9, bottom = 1e9;
    for (std::size_t i = 0; i < f.joints.size(); ++i)
    {
      const BvhJoint& j = f.joints[i];
      at[i] = j.parent < 0 ? j.offset : at[static_cast<std::size_t>(j.parent)] + j.offset;
      const Vector end = at[i] + j.endSiteOffset;
      top = std::max({top, at[i].y, end.y});
      bottom = std::min({bottom, at[i].y, end.y});
    }
    auto length = [&](const char* n) { return Length(f.joints[static_cast<std::size_t>(JointIndex(f, n))].offset); };
    const double height = top - bottom;
    return std::pair{(length(thigh) + length(calf)) / height, (length(upper) + length(lower)) / height};
  };
  const auto [sourceLeg, sourceArm] = ratios(source, "LeftLeg", "LeftFoot", "LeftForeArm", "LeftHand");
  const auto [targetLeg, targetArm] = ratios(target, "calf_l", "foot_l", "lowerarm_l", "hand_l");
  EXPECT_LT(targetLeg, 0.95 * sourceLeg);
  EXPECT_GT(targetArm, 1.05 * sourceArm);
}

TEST(DemoFiles, ExpectedPairsNameExistingJointsOnce)
{
  const BvhFile source = MakeDemoSource(1);
  const BvhFile target = MakeDemoTarget();
  const auto pairs = DemoExpectedPairs();
  ASSERT_EQ(pairs.size(), target.joints.size());
  std::set<std::string> targets, sources;
  for (const auto& [t, s] : pairs)
  {
    EXPECT_GE(JointIndex(target, t), 0) << t;
    EXPECT_GE(JointIndex(source, s), 0) << s;
    targets.insert(t);
    sources.insert(s);
    // Sides must not be crossed.
    EXPECT_EQ(t.ends_with("_l"), s.starts_with("Left")) << t << " <- " << s;
    EXPECT_EQ(t.ends_with("_r"), s.starts_with("Right")) << t << " <- " << s;
  }
  EXPECT_EQ(targets.size(), pairs.size());
  EXPECT_EQ(sources.size(), pairs.size());
}

TEST(DemoWalk, RepeatsEveryCycle)
{
  // 60 and 120 frames a second: 66 and 132 frames a cycle.
  for (int rate : {60, 120})
  {
    SCOPED_TRACE(rate);
    const BvhFile walk = MakeDemoSource(3 * rate, 1.0 / rate);
    const int cycle = static_cast<int>(std::lround(kDemoCycleSeconds * rate));
    const int hips = JointIndex(walk, "Hips");
    double travel = 0.0;
    for (int f = 0; f + cycle < walk.frameCount; ++f)
    {
      for (int j = 0; j < static_cast<int>(walk.joints.size()); ++j)
        ASSERT_LT(RotationDistance(LocalRotation(walk, f, j), LocalRotation(walk, f + cycle, j)), 1e-5)
            << walk.joints[static_cast<std::size_t>(j)].name << " frame " << f;
      const std::vector<Matrix> a = WorldPose(walk, f);
      const std::vector<Matrix> b = WorldPose(walk, f + cycle);
      const Vector step = b[static_cast<std::size_t>(hips)].off - a[static_cast<std::size_t>(hips)].off;
      EXPECT_NEAR(step.x, 0.0, 1e-3);
      EXPECT_NEAR(step.y, 0.0, 1e-3);
      if (f == 0)
        travel = step.z;
      EXPECT_NEAR(step.z, travel, 1e-3); // steady speed
    }
    // A walk: roughly 1 to 2 m/s, at about 5.6 cm a unit.
    EXPECT_GT(travel / kDemoCycleSeconds, 1.0 / 0.056);
    EXPECT_LT(travel / kDemoCycleSeconds, 2.0 / 0.056);
  }
}

TEST(DemoWalk, FeetAlternateAndStayOnTheGround)
{
  const BvhFile walk = MakeDemoSource();
  const int left = JointIndex(walk, "LeftFoot");
  const int right = JointIndex(walk, "RightFoot");
  std::vector<double> leftSole, rightSole;
  for (int f = 0; f < walk.frameCount; ++f)
  {
    const std::vector<Matrix> world = WorldPose(walk, f);
    leftSole.push_back(SoleHeight(walk, world, left));
    rightSole.push_back(SoleHeight(walk, world, right));
    // The lower foot is on the floor (up to the four decimals of the file), never below it.
    EXPECT_NEAR(std::min(leftSole.back(), rightSole.back()), 0.0, 1e-3) << "frame " << f;
    // Upright, facing the way it walks.
    const Matrix& head = world[static_cast<std::size_t>(JointIndex(walk, "Head"))];
    const Matrix& hips = world[0];
    EXPECT_GT(head.off.y - hips.off.y, 5.0);
    EXPECT_GT(TransformDirection(hips, {0.0, 0.0, 1.0}).z, 0.9);
  }
  const int cycle = static_cast<int>(std::lround(kDemoCycleSeconds * 60.0));
  auto highest = [&](const std::vector<double>& h) {
    return static_cast<int>(std::max_element(h.begin(), h.begin() + cycle) - h.begin());
  };
  const int rightUp = highest(rightSole);
  const int leftUp = highest(leftSole);
  // Each foot lifts clearly while the other stands.
  EXPECT_GT(rightSole[static_cast<std::size_t>(rightUp)], 1.0);
  EXPECT_GT(leftSole[static_cast<std::size_t>(leftUp)], 1.0);
  EXPECT_NEAR(leftSole[static_cast<std::size_t>(rightUp)], 0.0, 1e-3);
  EXPECT_NEAR(rightSole[static_cast<std::size_t>(leftUp)], 0.0, 1e-3);
  // Half a cycle apart.
  EXPECT_NEAR(std::abs(rightUp - leftUp), cycle / 2, 2);
}

// Pearson correlation of two series.
double Correlation(const std::vector<double>& a, const std::vector<double>& b)
{
  const double n = static_cast<double>(a.size());
  double ma = 0.0, mb = 0.0;
  for (std::size_t i = 0; i < a.size(); ++i)
  {
    ma += a[i] / n;
    mb += b[i] / n;
  }
  double ab = 0.0, aa = 0.0, bb = 0.0;
  for (std::size_t i = 0; i < a.size(); ++i)
  {
    ab += (a[i] - ma) * (b[i] - mb);
    aa += (a[i] - ma) * (a[i] - ma);
    bb += (b[i] - mb) * (b[i] - mb);
  }
  return ab / std::sqrt(aa * bb);
}

TEST(DemoWalk, LimbsSwingInOpposition)
{
  const BvhFile walk = MakeDemoSource();
  // How far forward of the hips a joint is, along the walking direction, frame by frame. Knees
  // rather than feet: a swinging foot trails behind its bent knee.
  auto reach = [&](const char* name) {
    std::vector<double> z;
    for (int f = 0; f < walk.frameCount; ++f)
    {
      const std::vector<Matrix> world = WorldPose(walk, f);
      z.push_back(world[static_cast<std::size_t>(JointIndex(walk, name))].off.z - world[0].off.z);
    }
    return z;
  };
  const std::vector<double> leftKnee = reach("LeftLeg"), rightKnee = reach("RightLeg");
  const std::vector<double> leftHand = reach("LeftHand"), rightHand = reach("RightHand");
  EXPECT_LT(Correlation(leftKnee, rightKnee), -0.9);
  EXPECT_LT(Correlation(leftKnee, leftHand), -0.9);
  EXPECT_LT(Correlation(rightKnee, rightHand), -0.9);
}

TEST(DemoWalk, IsSmoothAndTravelsForward)
{
  const BvhFile walk = MakeDemoSource();
  const std::size_t width = static_cast<std::size_t>(walk.channelCount);
  for (int f = 1; f < walk.frameCount; ++f)
  {
    const double* previous = walk.motion.data() + static_cast<std::size_t>(f - 1) * width;
    const double* row = previous + width;
    EXPECT_GT(row[2], previous[2]) << "frame " << f;
    // No channel jumps, not even by a whole turn.
    for (std::size_t c = 0; c < width; ++c)
      ASSERT_LT(std::fabs(row[c] - previous[c]), 6.0) << "channel " << c << " frame " << f;
  }
}

TEST(DemoWalk, IsDeterministic)
{
  EXPECT_EQ(Text(MakeDemoSource(100, 1.0 / 30.0)), Text(MakeDemoSource(100, 1.0 / 30.0)));
  EXPECT_EQ(Text(MakeDemoTarget()), Text(MakeDemoTarget()));

  const BvhFile empty = MakeDemoSource(-5);
  std::string error;
  EXPECT_EQ(empty.frameCount, 0);
  EXPECT_TRUE(ValidateBvh(empty, error)) << error;
}

using DemoCommand = kelvara_test::AppFolderTest;

// The picture shows the walk and both results, the target's own rest beside the matched one,
// whichever of them was written: six panels a row, and the A-pose arms tell the two apart.
TEST_F(DemoCommand, PreviewShowsBothRestChoicesSideBySide)
{
  for (const char* flags : {"", " --match-rest"})
  {
    SCOPED_TRACE(flags);
    const kelvara_test::AppOutcome run = Kelvara(std::string("demo --frames 40 -o walk.bvh") + flags);
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find("wrote walk_preview.png: the walk and its retarget on the target's own rest and on the "
                           "matched rest"),
              std::string::npos)
      << run.out;
    cairo_surface_t* png = cairo_image_surface_create_from_png((_dir / "walk_preview.png").c_str());
    ASSERT_EQ(cairo_surface_status(png), CAIRO_STATUS_SUCCESS);
    const int width = cairo_image_surface_get_width(png);
    const int height = cairo_image_surface_get_height(png);
    const int panel = height / 3;
    EXPECT_EQ(width, 6 * panel);
    // Pixels that differ between the two target figures' front panels, below their labels.
    const unsigned char* data = cairo_image_surface_get_data(png);
    const int stride = cairo_image_surface_get_stride(png);
    int differing = 0;
    for (int y = panel / 5; y < height; ++y)
      for (int x = 0; x < panel; ++x)
      {
        const auto* row = reinterpret_cast<const std::uint32_t*>(data + static_cast<std::ptrdiff_t>(y) * stride);
        differing += row[2 * panel + x] != row[4 * panel + x] ? 1 : 0;
      }
    cairo_surface_destroy(png);
    EXPECT_GT(differing, 200);
  }
}

// Beside the BVH the demo writes the target as a skinned character whose one animation is the
// retargeted walk: read back, it has the target's joints, every frame, the BVH's rotations and
// root path, and an armature that makes its centimetres metres.
TEST_F(DemoCommand, WritesTheCharacterWithTheWalkAsGlb)
{
  const int frames = 67; // one cycle from the first frame to the last
  const kelvara_test::AppOutcome run = Kelvara("demo --frames " + std::to_string(frames));
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("wrote demo_out.bvh: 21 joints, 67 frames of 0.0166667 s\nwrote demo_out.glb: the target "
                         "as a skinned character with the walk as its animation\n"),
            std::string::npos)
    << run.out;

  std::string error;
  AnimationFile glb, bvh;
  ASSERT_TRUE(ReadAnimationFile((_dir / "demo_out.glb").string(), {}, glb, error)) << error;
  ASSERT_TRUE(ReadAnimationFile((_dir / "demo_out.bvh").string(), {}, bvh, error)) << error;
  ASSERT_TRUE(glb.gltf != nullptr);
  const tinygltf::Model& model = glb.gltf->model;
  EXPECT_EQ(model.animations.size(), 1u);
  EXPECT_EQ(model.skins.size(), 1u);
  EXPECT_EQ(model.meshes.size(), 1u);

  const BvhFile target = MakeDemoTarget();
  ASSERT_TRUE(glb.hasClip);
  ASSERT_EQ(glb.skeleton.Size(), 21u);
  ASSERT_EQ(glb.clip.frameCount, frames);
  EXPECT_NEAR(glb.clip.frameTime, 1.0 / 60.0, 1e-6);
  ASSERT_EQ(bvh.clip.frameCount, frames);
  for (int frame = 0; frame < frames; ++frame)
    for (const BvhJoint& joint : target.joints)
    {
      const int g = glb.skeleton.FindJoint(joint.name);
      const int b = bvh.skeleton.FindJoint(joint.name);
      ASSERT_GE(g, 0) << joint.name;
      ASSERT_GE(b, 0) << joint.name;
      // Float keyframes against the BVH's four decimals of a degree.
      ASSERT_LT(AngleBetweenDegrees(glb.clip.FrameRotations(frame)[g], bvh.clip.FrameRotations(frame)[b]), 1e-3)
        << joint.name << " frame " << frame;
    }
  ASSERT_EQ(glb.clip.rootTranslation.size(), static_cast<std::size_t>(frames));
  for (std::size_t frame = 0; frame < glb.clip.rootTranslation.size(); ++frame)
    ASSERT_LT(Length(glb.clip.rootTranslation[frame] - bvh.clip.rootTranslation[frame]), 1e-3) << "frame " << frame;
  const std::size_t last = static_cast<std::size_t>(frames - 1);

  // It walks: a thigh swings through tens of degrees, and the pelvis covers a cycle's stride at
  // a walking pace, in metres through the armature.
  const int thigh = glb.skeleton.FindJoint("thigh_l");
  double swing = 0.0;
  for (int frame = 0; frame < frames; ++frame)
    swing = std::max(swing,
                     AngleBetweenDegrees(glb.clip.FrameRotations(0)[thigh], glb.clip.FrameRotations(frame)[thigh]));
  EXPECT_GT(swing, 20.0);
  const Matrix& armature = glb.skeleton.sceneTransform;
  const Vector stride = TransformPoint(armature, glb.clip.rootTranslation[last]) -
                        TransformPoint(armature, glb.clip.rootTranslation[0]);
  EXPECT_GT(stride.z / kDemoCycleSeconds, 0.8) << stride.z << " m";
  EXPECT_LT(stride.z / kDemoCycleSeconds, 2.0) << stride.z << " m";
  EXPECT_NEAR(stride.x, 0.0, 1e-3);
}

} // namespace
} // namespace kelvara
