// The retarget road on real motion capture: rotations, bone directions and root motion checked
// against the clip's own numbers.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <tuple>

#include "character.h"
#include "mapping.h"
#include "retarget.h"
#include "skeleton_pose.h"
#include "support/helper_fixture.h"
#include "support/quaternion.h"

namespace kelvara
{
namespace
{

using kelvara_test::MaxDiff;
using telvo::Matrix;
using telvo::Vector;

const char* const kCmuClip = "/usr/share/assimp/models/BVH/01_01.bvh";

class RetargetTest : public kelvara_test::HelperTest
{
protected:
  void SetUp() override
  {
    if (!std::filesystem::exists(kCmuClip))
      GTEST_SKIP() << kCmuClip << " is not installed";
    HelperTest::SetUp();
    std::string error;
    ASSERT_TRUE(ReadBvh(kCmuClip, _clip, error)) << error;
  }

  void Retarget(const BvhFile& target, RetargetJob& job)
  {
    std::string error;
    ASSERT_TRUE(BuildCharacter(_clip, "source", _source, error) && ChooseAndFillPreset(_source, _helper, "", error) &&
                BuildCharacter(target, "target", _target, error) && ChooseAndFillPreset(_target, _helper, "", error))
      << error;
    job.source = &_source;
    job.target = &_target;
    job.helper = _helper;
    ASSERT_TRUE(job.Validate(error) && job.Run(error)) << error;
    ASSERT_EQ(job.output.frameCount, _clip.frameCount);
    ASSERT_EQ(job.output.frameTime, _clip.frameTime);
  }

  // The root's position channels in a frame.
  static Vector Root(const BvhFile& file, int frame)
  {
    const double* row = file.motion.data() + static_cast<std::size_t>(frame * file.channelCount);
    return {row[0], row[1], row[2]};
  }

  BvhFile _clip;
  Character _source;
  Character _target;
};

// Onto its own skeleton with one pair from a map: the left hand takes the right hand's motion,
// the right hand is freed, and every other joint turns and moves as in the clip.
TEST_F(RetargetTest, OntoItselfFollowsEveryJointAndTheMap)
{
  std::vector<JointPair> pairs;
  std::string error;
  ASSERT_TRUE(ParseJointMap("{\"LeftHand\": \"RightHand\"}", "m.json", _clip, _clip, pairs, error)) << error;
  RetargetJob job;
  job.mapPairs = pairs;
  Retarget(_clip, job);
  const std::size_t left = static_cast<std::size_t>(_source.FindJoint("LeftHand"));
  const std::size_t right = static_cast<std::size_t>(_source.FindJoint("RightHand"));
  EXPECT_EQ(job.pairOrigin[left], "map");
  for (std::size_t j = 0; j < _clip.joints.size(); ++j)
    EXPECT_EQ(job.sourceOfTarget[j], j == right ? -1 : static_cast<int>(j == left ? right : j)) << j;
  double worst = 0.0;
  for (int frame = 0; frame < _clip.frameCount; frame += 3)
  {
    const std::vector<Matrix> in = WorldMatrices(_clip, frame);
    const std::vector<Matrix> out = WorldMatrices(job.output, frame);
    for (std::size_t j = 0; j < in.size(); ++j)
      if (j != right)
        worst = std::max(worst, MaxDiff(telvo::Rotation3(in[j == left ? right : j]), telvo::Rotation3(out[j])));
    ASSERT_LT(MaxDiff(Root(_clip, frame), Root(job.output, frame)), 1e-9) << frame;
  }
  EXPECT_LT(worst, 1e-6);
  EXPECT_DOUBLE_EQ(job.appliedRootScale, 1.0);

  const std::pair<const char*, std::string> refused[] = {
    {"{\"LeftHand\": \"RightHand\",\n \"Head\": \"RightHand\"}",
     "m.json:2: expected each source joint once, found \"RightHand\" again (it drives \"LeftHand\" already)"},
    {"[1, 2]", "m.json:1: expected a JSON object {\"target joint\": \"source joint\", ...}, found an array"},
    {"{\n\"Head\": 3}",
     "m.json:2: expected the name of a joint of " + std::string(kCmuClip) + " (a string), found a number"}};
  for (const auto& [text, message] : refused)
  {
    EXPECT_FALSE(ParseJointMap(text, "m.json", _clip, _clip, pairs, error));
    EXPECT_EQ(error, message);
  }
}

// Other names (a prefixed game rig, odd joints with a suffix) and other bone lengths, legs half
// again as long: every driven bone points where its source bone points, and the root moves from
// its own rest by the scaled displacement (the clip's root rests at the origin).
TEST_F(RetargetTest, OntoOtherNamesAndLengthsKeepsBoneDirectionsAndScalesTheRoot)
{
  BvhFile target = _clip;
  target.motion.assign(static_cast<std::size_t>(target.channelCount), 0.0);
  target.frameCount = 1;
  for (std::size_t j = 0; j < target.joints.size(); ++j)
  {
    std::string& name = target.joints[j].name;
    const bool leg = name.find("Leg") != std::string::npos || name.find("Foot") != std::string::npos ||
                     name.find("Toe") != std::string::npos;
    name = "rig:" + name + (j % 2 == 0 ? "" : "_x");
    target.joints[j].offset = target.joints[j].offset * (leg ? 1.5 : 0.5 + 0.05 * static_cast<double>(j));
  }
  target.joints[0].offset = {1.0, 2.0, 3.0};
  for (const auto& [rootMotion, rootScale, applied] :
       {std::tuple{true, 0.0, 1.5}, std::tuple{false, 0.0, 0.0}, std::tuple{true, 0.25, 0.25}})
  {
    SCOPED_TRACE(applied);
    RetargetJob job;
    job.rootMotion = rootMotion;
    job.rootScale = rootScale;
    Retarget(target, job);
    EXPECT_EQ(_target.preset, "game");
    EXPECT_EQ(_target.partJoint, _source.partJoint);
    EXPECT_TRUE(!rootMotion || std::abs(job.appliedRootScale - applied) < 1e-12) << job.appliedRootScale;
    for (int frame : {0, 1000, 2751})
      EXPECT_LT(MaxDiff(Root(job.output, frame), Vector{1, 2, 3} + Root(_clip, frame) * applied), 1e-9);

    int driven = 0;
    for (std::size_t t = 0; t < target.joints.size(); ++t)
    {
      driven += job.sourceOfTarget[t] >= 0 ? 1 : 0;
      EXPECT_TRUE(job.sourceOfTarget[t] < 0 || job.sourceOfTarget[t] == static_cast<int>(t)) << t;
    }
    EXPECT_GE(driven, 20);
    double worst = 0.0;
    for (int frame = 0; frame < _clip.frameCount; frame += 7)
    {
      const std::vector<Matrix> src = WorldMatrices(_clip, frame);
      const std::vector<Matrix> dst = WorldMatrices(job.output, frame);
      for (std::size_t c = 1; c < target.joints.size(); ++c)
      {
        const std::size_t t = static_cast<std::size_t>(target.joints[c].parent);
        if (job.sourceOfTarget[t] < 0 || telvo::Length(target.joints[c].offset) < 1e-9)
          continue;
        const Vector a = telvo::TransformDirection(src[t], _clip.joints[c].offset);
        worst = std::max(worst, telvo::Length(telvo::Normalized(a) - telvo::Normalized(dst[c].off - dst[t].off)));
      }
    }
    EXPECT_LT(worst, 1e-9);
  }
}

} // namespace
} // namespace kelvara
