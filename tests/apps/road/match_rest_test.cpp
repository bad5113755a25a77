// The retarget road and its rest-pose matching: rotation fits and retargets with known answers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <numbers>
#include <tuple>

#include "demo.h"
#include "match_rest.h"
#include "retarget.h"
#include "rotation.h"
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
constexpr double kDegrees = std::numbers::pi / 180.0;
using Chains = std::vector<std::vector<std::pair<const char*, const char*>>>; // joints: target, source

std::size_t Joint(const BvhFile& file, const std::string& name)
{
  for (std::size_t j = 0; j < file.joints.size(); ++j)
    if (file.joints[j].name == name)
      return j;
  ADD_FAILURE() << "no joint " << name;
  return 0;
}

// How far from degrees, at most, the angle between output's bones and source's is in any frame.
double BoneError(const BvhFile& source, const BvhFile& output, const Chains& chains, double degrees)
{
  double worst = 0.0;
  for (int frame = 0; frame < source.frameCount; ++frame)
  {
    const std::vector<Matrix> sw = WorldMatrices(source, frame);
    const std::vector<Matrix> tw = WorldMatrices(output, frame);
    for (const auto& chain : chains)
      for (std::size_t i = 1; i < chain.size(); ++i)
      {
        const Vector s = sw.at(Joint(source, chain[i].second)).off - sw.at(Joint(source, chain[i - 1].second)).off;
        const Vector t = tw.at(Joint(output, chain[i].first)).off - tw.at(Joint(output, chain[i - 1].first)).off;
        worst = std::max(worst, std::fabs(degrees - AngleDegrees(s, t)));
      }
  }
  return worst;
}

TEST(RestRotations, MinimalRotationTurnsOntoTheTargetByTheLeastAngle)
{
  const Vector cases[][2] = {{{1, 0, 0}, {0, -1, 0}},   {{0.3, -2, 0.5}, {1, 1, 1}}, {{0, 0, 2}, {0, 0, 5}},
                             {{1, 2, 3}, {-1, -2, -3}}, {{0, 1, 0}, {0, -1, 1e-9}}};
  for (const auto& [from, to] : cases)
  {
    const Matrix r = MinimalRotation(from, to);
    EXPECT_NEAR(telvo::Determinant3(r), 1.0, 1e-12);
    EXPECT_LT(AngleDegrees(telvo::TransformDirection(r, from), to), 1e-6);
    const double trace = r.v1.x + r.v2.y + r.v3.z;
    EXPECT_NEAR(std::acos(std::clamp((trace - 1.0) / 2.0, -1.0, 1.0)) / kDegrees, AngleDegrees(from, to), 1e-6);
  }
  EXPECT_EQ(MinimalRotation({}, {1, 0, 0}), Matrix());
}

TEST(RestRotations, BestFitRecoversAKnownRotationAndKeepsRollOnALine)
{
  const Matrix known = AxisRotation(0, 0.4) * AxisRotation(1, -1.1) * AxisRotation(2, 2.5);
  std::vector<Vector> from = {{1, 0, 0}, {0, 3, 0}, {-1, -1, 0.2}, {0.1, 0.2, -4}};
  std::vector<Vector> to = from;
  for (Vector& v : to)
    v = telvo::TransformDirection(known, v);
  EXPECT_LT(MaxDiff(BestFitRotation(from, to, {1, 1, 1, 1}), known), 1e-12);
  // Pairs of weight zero or no length take no part.
  const Matrix partial =
    BestFitRotation({from[0], from[1], {3, 2, 1}, {}}, {to[0], to[1], {1, 2, 3}, {0, 0, 1}}, {1, 1, 0, 1});
  EXPECT_LT(MaxDiff(partial, known), 1e-12);

  // Noisy pairs of other lengths and weights: the weighted turning moment of the fit vanishes.
  to[1] = to[1] * 2.0 + Vector{0.3, -0.2, 0.1};
  const std::vector<double> weights = {1, 2, 0.5, 1};
  const Matrix fit = BestFitRotation(from, to, weights);
  Vector moment;
  for (std::size_t i = 0; i < from.size(); ++i)
    moment = moment + telvo::Cross(telvo::TransformDirection(fit, from[i]), to[i]) *
                        (weights[i] / telvo::Length(from[i]) / telvo::Length(to[i]));
  EXPECT_LT(telvo::Length(moment), 1e-9);
  // Directions on one line leave the roll free: the fit adds none.
  const Matrix line = BestFitRotation({{0, 1, 0}, {0, -2, 0}}, {{1, 0, 0}, {-1, 0, 0}}, {2, 1});
  EXPECT_LT(MaxDiff(line, MinimalRotation({0, 1, 0}, {1, 0, 0})), 1e-12);
}

// root -> a -> twist (unmapped, of no length in the source) -> b, and root -> c.
TEST(RestMatch, MatchesBonesThroughUnmappedJointsAndKeepsTheirLocalRotations)
{
  BvhFile target;
  target.joints = {{"root", -1, {0, 0, 0}, {}, false, {}, 0, 0},
                   {"a", 0, {0, 1, 0}, {}, false, {}, 0, 0},
                   {"twist", 1, {0, 1, 0}, {}, false, {}, 0, 0},
                   {"b", 2, {0, 1, 0}, {}, true, {0, 1, 0}, 0, 0},
                   {"c", 0, {1, 0, 0}, {}, true, {1, 0, 0}, 0, 0}};
  BvhFile source = target;
  source.joints[1].offset = {0, 0, 2};
  source.joints[2].offset = {0, 0, 0};
  source.joints[3].offset = {1, 0, 1};
  source.joints[4].offset = {3, 0, 0};
  const std::vector<int> sourceOfTarget = {0, 1, -1, 3, 4};
  const std::vector<Matrix> targetRest = WorldMatrices(target, kRestFrame);
  const std::vector<Matrix> sourceRest = WorldMatrices(source, kRestFrame);
  const std::vector<Matrix> matched = MatchRestPose(target, targetRest, sourceRest, sourceOfTarget);

  const std::vector<MappedBone> bones = MappedBones(target, sourceOfTarget, sourceRest, targetRest);
  ASSERT_EQ(bones.size(), 3u);
  EXPECT_TRUE(bones[1].targetJoint == 1 && bones[1].targetChild == 3);
  // The root's two children keep their angle, so one turn matches both; the twist keeps its own.
  for (double angle : BoneDirectionAngles(bones, sourceRest, matched))
    EXPECT_LT(angle, 1e-9);
  EXPECT_LT(MaxDiff(telvo::Inverse(telvo::Rotation3(matched[1])) * telvo::Rotation3(matched[2]), Matrix()), 1e-12);
}

class RetargetRoad : public kelvara_test::HelperTest
{
protected:
  // Runs job on the target's own rest or on the one matched to the source's.
  void Retarget(const BvhFile& source, const BvhFile& target, RetargetJob& job, bool matchRest = false)
  {
    std::string error;
    ASSERT_TRUE(BuildCharacter(source, "source", _source, error) && ChooseAndFillPreset(_source, _helper, "", error) &&
                BuildCharacter(target, "target", _target, error) && ChooseAndFillPreset(_target, _helper, "", error))
      << error;
    job.source = &_source;
    job.target = &_target;
    job.helper = _helper;
    ASSERT_TRUE(job.Validate(error)) << error;
    if (matchRest)
      job.targetRest = MatchCharacterRest(_source, _target, job.sourceOfTarget).targetRest;
    ASSERT_TRUE(job.Run(error)) << error;
    ASSERT_TRUE(job.output.frameCount == source.frameCount && job.output.frameTime == source.frameTime);
  }

  Character _source;
  Character _target;
};

// The demo target's arms rest 45 degrees below the walk's; a copy of the walk splays its legs 20
// degrees from the target's straight ones. An unmapped joint added to the target keeps its rest.
TEST_F(RetargetRoad, RestDifferencesShowInEveryFrameUntilMatched)
{
  BvhFile target = MakeDemoTarget();
  BvhJoint prop = target.joints.back();
  prop.name = "prop";
  prop.parent = static_cast<int>(target.joints.size()) - 1;
  prop.firstChannel = target.channelCount;
  target.joints.back().hasEndSite = false;
  target.joints.push_back(prop);
  target.channelCount += static_cast<int>(prop.channels.size());
  target.motion.assign(static_cast<std::size_t>(target.channelCount), 0.0);
  BvhFile splayed = MakeDemoSource(90);
  for (const char* name : {"LeftLeg", "LeftFoot", "RightLeg", "RightFoot"})
  {
    BvhJoint& j = splayed.joints[Joint(splayed, name)];
    j.offset = telvo::TransformDirection(AxisRotation(2, (name[0] == 'L' ? 20.0 : -20.0) * kDegrees), j.offset);
  }
  const Chains arms = {{{"upperarm_l", "LeftArm"}, {"lowerarm_l", "LeftForeArm"}, {"hand_l", "LeftHand"}},
                       {{"upperarm_r", "RightArm"}, {"lowerarm_r", "RightForeArm"}, {"hand_r", "RightHand"}}};
  const Chains legs = {{{"thigh_l", "LeftUpLeg"}, {"calf_l", "LeftLeg"}, {"foot_l", "LeftFoot"}},
                       {{"thigh_r", "RightUpLeg"}, {"calf_r", "RightLeg"}, {"foot_r", "RightFoot"}}};
  const std::tuple<BvhFile, Chains, double> cases[] = {{MakeDemoSource(120), arms, 45.0}, {splayed, legs, 20.0}};
  for (const auto& [source, bones, degrees] : cases)
  {
    SCOPED_TRACE(degrees);
    RetargetJob plain;
    RetargetJob match;
    Retarget(source, target, plain);
    Retarget(source, target, match, true);
    EXPECT_LT(BoneError(source, plain.output, bones, degrees), 1e-6); // in every frame
    EXPECT_LT(BoneError(source, match.output, bones, 0.0), 1e-6);
    for (int frame = 0; frame < match.output.frameCount; ++frame)
    {
      const double* row = match.output.motion.data() + static_cast<std::size_t>(frame * match.output.channelCount);
      ASSERT_LT(MaxDiff(RotationFromChannels(prop.channels, row + prop.firstChannel), Matrix()), 1e-9) << frame;
    }
  }
}

// The walk's own skeleton at twice the size matches already.
TEST_F(RetargetRoad, MatchingAMatchingRestChangesNothing)
{
  const BvhFile source = MakeDemoSource(60);
  BvhFile target = source;
  for (BvhJoint& j : target.joints)
    j.offset = j.offset * 2.0;
  RetargetJob plain;
  RetargetJob matched;
  Retarget(source, target, plain);
  Retarget(source, target, matched, true);
  ASSERT_EQ(plain.output.motion.size(), matched.output.motion.size());
  for (std::size_t i = 0; i < plain.output.motion.size(); ++i)
    ASSERT_NEAR(plain.output.motion[i], matched.output.motion[i], 1e-9) << i;
}

// The clip (resting unturned, root at the origin) onto its skeleton renamed as a game rig, with
// other bone lengths, legs half again as long, and a map giving the left hand the right hand's.
TEST_F(RetargetRoad, OntoOtherNamesAndLengthsFollowsTheSourceAndTheMap)
{
  if (!std::filesystem::exists(kCmuClip))
    GTEST_SKIP() << kCmuClip << " is not installed";
  BvhFile clip;
  std::string error;
  ASSERT_TRUE(ReadBvh(kCmuClip, clip, error)) << error;
  BvhFile target = clip;
  for (std::size_t j = 0; j < target.joints.size(); ++j)
  {
    std::string& name = target.joints[j].name;
    const bool leg = name.find("Leg") != std::string::npos || name.find("Foot") != std::string::npos ||
                     name.find("Toe") != std::string::npos;
    name = "rig:" + name + (j % 2 == 0 ? "" : "_x");
    target.joints[j].offset = target.joints[j].offset * (leg ? 1.5 : 0.5 + 0.05 * static_cast<double>(j));
  }
  target.joints[0].offset = {1.0, 2.0, 3.0};
  const std::size_t left = Joint(clip, "LeftHand");
  const std::size_t right = Joint(clip, "RightHand");
  std::vector<JointPair> pairs;
  const std::string map = "{\"" + target.joints[left].name + "\": \"RightHand\"}";
  ASSERT_TRUE(ParseJointMap(map, "m.json", clip, target, pairs, error)) << error;
  for (const auto& [rootMotion, rootScale, applied] :
       {std::tuple{true, 0.0, 1.5}, std::tuple{false, 0.0, 0.0}, std::tuple{true, 0.25, 0.25}})
  {
    SCOPED_TRACE(applied);
    RetargetJob job;
    job.mapPairs = pairs;
    job.rootMotion = rootMotion;
    job.rootScale = rootScale;
    Retarget(clip, target, job);
    EXPECT_TRUE(job.pairOrigin[left] == "map" && job.sourceOfTarget[right] == -1);
    EXPECT_GE(std::count_if(job.sourceOfTarget.begin(), job.sourceOfTarget.end(), [](int s) { return s >= 0; }), 20);
    EXPECT_TRUE(!rootMotion || std::abs(job.appliedRootScale - applied) < 1e-12) << job.appliedRootScale;
    double worst = 0.0;
    for (int frame = 0; frame < clip.frameCount; frame += 3)
    {
      const std::vector<Matrix> in = WorldMatrices(clip, frame);
      const std::vector<Matrix> out = WorldMatrices(job.output, frame);
      for (std::size_t t = 0; t < out.size(); ++t)
      {
        const std::size_t s = t == left ? right : t;
        if (job.sourceOfTarget[t] < 0)
          continue;
        ASSERT_EQ(job.sourceOfTarget[t], static_cast<int>(s)) << t;
        worst = std::max(worst, MaxDiff(telvo::Rotation3(in[s]), telvo::Rotation3(out[t])));
      }
      // The root stands on its own offset and moves by the source's travel, scaled.
      ASSERT_LT(MaxDiff(out[0].off, Vector{1, 2, 3} + in[0].off * applied), 1e-9) << frame;
    }
    EXPECT_LT(worst, 1e-6);
  }
}

} // namespace
} // namespace kelvara
