// The retarget road on real motion capture: rotations, bone directions and root motion checked
// against arithmetic done here on the files' own numbers.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>

#include "character.h"
#include "mapping.h"
#include "retarget.h"
#include "rotation.h"
#include "support/loaded_module.h"
#include "telvo/registrybase.h"

namespace kelvara
{
namespace
{

const char* const kCmuClip = "/usr/share/assimp/models/BVH/01_01.bvh";

using telvo::Matrix;
using telvo::Vector;

// Global matrices of every joint in one frame, by plain accumulation of the channels.
std::vector<Matrix> Globals(const BvhFile& file, int frame)
{
  std::vector<Matrix> g(file.joints.size());
  const double* row = file.motion.data() + static_cast<std::size_t>(frame) * static_cast<std::size_t>(file.channelCount);
  for (std::size_t j = 0; j < file.joints.size(); ++j)
  {
    const BvhJoint& joint = file.joints[j];
    Matrix local = RotationFromChannels(joint.channels, row + joint.firstChannel);
    local.off = joint.offset;
    for (std::size_t c = 0; c < joint.channels.size(); ++c)
      if (!IsRotation(joint.channels[c]))
      {
        const double v = row[joint.firstChannel + static_cast<int>(c)];
        (ChannelAxis(joint.channels[c]) == 0 ? local.off.x : ChannelAxis(joint.channels[c]) == 1 ? local.off.y : local.off.z) = v;
      }
    g[j] = joint.parent >= 0 ? g[static_cast<std::size_t>(joint.parent)] * local : local;
  }
  return g;
}

double MaxDifference(const Matrix& a, const Matrix& b)
{
  double d = 0.0;
  for (const auto& [u, v] : {std::pair{a.v1, b.v1}, std::pair{a.v2, b.v2}, std::pair{a.v3, b.v3}})
    d = std::max({d, std::fabs(u.x - v.x), std::fabs(u.y - v.y), std::fabs(u.z - v.z)});
  return d;
}

class RetargetTest : public ::testing::Test
{
protected:
  void SetUp() override
  {
    if (!std::filesystem::exists(kCmuClip))
      GTEST_SKIP() << kCmuClip << " is not installed";
    kelvara_test::LoadedModuleForTests();
    std::string error;
    ASSERT_TRUE(ReadBvh(kCmuClip, _clip, error)) << error;
    telvo::Result<telvo::KelvaraHelperRef> helper =
      telvo::CreateObject<telvo::KelvaraHelperRef>("net.telvo.animation.class.kelvarahelper");
    ASSERT_TRUE(helper.IsOk());
    _helper = helper.GetValue();
  }

  // Builds both characters and runs the job; the characters live in the fixture.
  void Retarget(const BvhFile& target, RetargetJob& job, const std::string& targetPreset = "")
  {
    std::string error;
    ASSERT_TRUE(BuildCharacter(_clip, "source", _source, error)) << error;
    ASSERT_TRUE(ChooseAndFillPreset(_source, _helper, "", error)) << error;
    ASSERT_TRUE(BuildCharacter(target, "target", _target, error)) << error;
    ASSERT_TRUE(ChooseAndFillPreset(_target, _helper, targetPreset, error)) << error;
    job.source = &_source;
    job.target = &_target;
    job.helper = _helper;
    ASSERT_TRUE(job.Validate(error)) << error;
    ASSERT_TRUE(job.Run(error)) << error;
    ASSERT_EQ(job.output.frameCount, _clip.frameCount);
    ASSERT_EQ(job.output.frameTime, _clip.frameTime);
  }

  BvhFile _clip;
  telvo::KelvaraHelperRef _helper;
  Character _source;
  Character _target;
};

TEST_F(RetargetTest, OntoItselfReproducesEveryLocalRotation)
{
  RetargetJob job;
  Retarget(_clip, job);
  for (std::size_t t = 0; t < _clip.joints.size(); ++t)
    EXPECT_EQ(job.sourceOfTarget[t], static_cast<int>(t)) << _clip.joints[t].name;
  double worst = 0.0;
  double worstPosition = 0.0;
  for (int frame = 0; frame < _clip.frameCount; ++frame)
  {
    const double* in = _clip.motion.data() + static_cast<std::size_t>(frame) * static_cast<std::size_t>(_clip.channelCount);
    const double* out = job.output.motion.data() + static_cast<std::size_t>(frame) * static_cast<std::size_t>(_clip.channelCount);
    for (const BvhJoint& joint : _clip.joints)
      worst = std::max(worst, MaxDifference(RotationFromChannels(joint.channels, in + joint.firstChannel),
                                            RotationFromChannels(joint.channels, out + joint.firstChannel)));
    for (int c = 0; c < 3; ++c)
      worstPosition = std::max(worstPosition, std::fabs(in[c] - out[c]));
  }
  EXPECT_LT(worst, 1e-6);
  EXPECT_LT(worstPosition, 1e-9);
  EXPECT_DOUBLE_EQ(job.appliedRootScale, 1.0);
}

// Other names (a prefixed game rig) and other bone lengths: every driven bone points where its
// source bone points, frame after frame; the root moves by the scaled displacement.
TEST_F(RetargetTest, OntoOtherNamesAndLengthsKeepsBoneDirections)
{
  BvhFile target = _clip;
  target.path = "renamed.bvh";
  target.motion.assign(static_cast<std::size_t>(target.channelCount), 0.0);
  target.frameCount = 1;
  for (std::size_t j = 0; j < target.joints.size(); ++j)
  {
    target.joints[j].name = "rig:" + target.joints[j].name + (j % 2 == 0 ? "" : "_x");
    // Every bone a different length, the legs uniformly half again as long (hip height x1.5).
    const bool leg = target.joints[j].name.find("Leg") != std::string::npos ||
                     target.joints[j].name.find("Foot") != std::string::npos ||
                     target.joints[j].name.find("Toe") != std::string::npos;
    target.joints[j].offset = target.joints[j].offset * (leg ? 1.5 : 0.5 + 0.05 * static_cast<double>(j));
  }
  // The CMU names are kept (behind the prefix) only for the joints of even index; the odd ones
  // carry a suffix, which the game preset does not mind.
  RetargetJob job;
  Retarget(target, job);
  EXPECT_EQ(_target.preset, "game");
  EXPECT_EQ(_target.partJoint, _source.partJoint);
  int driven = 0;
  for (std::size_t t = 0; t < target.joints.size(); ++t)
    if (job.sourceOfTarget[t] >= 0)
    {
      ++driven;
      EXPECT_EQ(job.sourceOfTarget[t], static_cast<int>(t)) << target.joints[t].name;
    }
  EXPECT_GE(driven, 20);

  double worst = 0.0;
  for (int frame = 0; frame < _clip.frameCount; frame += 7)
  {
    const std::vector<Matrix> src = Globals(_clip, frame);
    const std::vector<Matrix> dst = Globals(job.output, frame);
    for (std::size_t c = 0; c < target.joints.size(); ++c)
    {
      const int t = target.joints[c].parent;
      if (t < 0 || job.sourceOfTarget[static_cast<std::size_t>(t)] < 0 || telvo::Length(target.joints[c].offset) < 1e-9)
        continue;
      // The bone from joint t to its child c, in world space.
      const std::size_t s = static_cast<std::size_t>(job.sourceOfTarget[static_cast<std::size_t>(t)]);
      const Vector a = telvo::Normalized(telvo::TransformDirection(src[s], _clip.joints[c].offset));
      const Vector b = telvo::Normalized(dst[c].off - dst[static_cast<std::size_t>(t)].off);
      worst = std::max(worst, telvo::Length(a - b));
    }
  }
  EXPECT_LT(worst, 1e-9);

  // Auto root scale: the hips stand 1.5 times as high above the feet.
  EXPECT_NEAR(job.appliedRootScale, 1.5, 1e-12);
  for (int frame : {0, 1000, 2751})
  {
    const double* in = _clip.motion.data() + static_cast<std::size_t>(frame) * static_cast<std::size_t>(_clip.channelCount);
    const double* out =
      job.output.motion.data() + static_cast<std::size_t>(frame) * static_cast<std::size_t>(target.channelCount);
    for (int c = 0; c < 3; ++c)
      EXPECT_NEAR(out[c], 1.5 * in[c], 1e-9); // CMU's root rests at the origin
  }
}

TEST_F(RetargetTest, RootStaysWithoutRootMotionAndScalesOnRequest)
{
  BvhFile target = _clip;
  target.joints[0].offset = Vector{1.0, 2.0, 3.0};
  RetargetJob still;
  still.rootMotion = false;
  Retarget(target, still);
  RetargetJob scaled;
  scaled.rootScale = 0.25;
  Retarget(target, scaled);
  for (int frame : {0, 500, 2751})
  {
    const std::size_t at = static_cast<std::size_t>(frame) * static_cast<std::size_t>(_clip.channelCount);
    EXPECT_EQ(still.output.motion[at + 0], 1.0);
    EXPECT_EQ(still.output.motion[at + 1], 2.0);
    EXPECT_EQ(still.output.motion[at + 2], 3.0);
    EXPECT_NEAR(scaled.output.motion[at + 0], 1.0 + 0.25 * _clip.motion[at + 0], 1e-12);
    EXPECT_NEAR(scaled.output.motion[at + 1], 2.0 + 0.25 * _clip.motion[at + 1], 1e-12);
    // The root still turns with the source.
    EXPECT_LT(MaxDifference(RotationFromChannels(_clip.joints[0].channels, &_clip.motion[at]),
                            RotationFromChannels(_clip.joints[0].channels, &still.output.motion[at])),
              1e-6);
  }
}

// A map pair wins over the keywords, and the joint it takes from another target is freed.
TEST_F(RetargetTest, MapOverridesKeywordPairs)
{
  std::vector<JointPair> pairs;
  std::string error;
  ASSERT_TRUE(ParseJointMap("{\"LeftHand\": \"RightHand\"}", "m.json", _clip, _clip, pairs, error)) << error;
  RetargetJob job;
  job.mapPairs = pairs;
  Retarget(_clip, job);
  const int leftHand = _source.FindJoint("LeftHand");
  const int rightHand = _source.FindJoint("RightHand");
  EXPECT_EQ(job.sourceOfTarget[static_cast<std::size_t>(leftHand)], rightHand);
  EXPECT_EQ(job.pairOrigin[static_cast<std::size_t>(leftHand)], "map");
  EXPECT_EQ(job.sourceOfTarget[static_cast<std::size_t>(rightHand)], -1);
  // The left hand's global rotation is now the right hand's.
  const std::vector<Matrix> src = Globals(_clip, 100);
  const std::vector<Matrix> dst = Globals(job.output, 100);
  EXPECT_LT(MaxDifference(src[static_cast<std::size_t>(rightHand)], dst[static_cast<std::size_t>(leftHand)]), 1e-6);

  EXPECT_FALSE(ParseJointMap("{\"LeftHand\": \"RightHand\",\n \"Head\": \"RightHand\"}", "m.json", _clip, _clip, pairs,
                             error));
  EXPECT_EQ(error, "m.json:2: expected each source joint once, found \"RightHand\" again (it drives \"LeftHand\" already)");
  EXPECT_FALSE(ParseJointMap("[1, 2]", "m.json", _clip, _clip, pairs, error));
  EXPECT_EQ(error, "m.json:1: expected a JSON object {\"target joint\": \"source joint\", ...}, found an array");
  EXPECT_FALSE(ParseJointMap("{\n\"Head\": 3}", "m.json", _clip, _clip, pairs, error));
  EXPECT_EQ(error, "m.json:2: expected the name of a joint of " + std::string(kCmuClip) + " (a string), found a number");
}

} // namespace
} // namespace kelvara
