// Rest-pose matching: rotation fits against known rotations, and whole retargets onto characters
// whose right answer is known, checked on the written motion's world directions.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <numbers>
#include <regex>
#include <string>

#include "character.h"
#include "demo.h"
#include "match_rest.h"
#include "retarget.h"
#include "rotation.h"
#include "skeleton_pose.h"
#include "support/helper_fixture.h"
#include "support/quaternion.h"
#include "support/run_app.h"
#include "telvo/registrybase.h"

namespace kelvara
{
namespace
{

using kelvara_test::MaxDiff;
using telvo::Matrix;
using telvo::Vector;

constexpr double kDegrees = std::numbers::pi / 180.0;
using Bones = std::vector<std::array<const char*, 4>>; // target from, to; source from, to

std::size_t Joint(const BvhFile& file, const std::string& name)
{
  for (std::size_t j = 0; j < file.joints.size(); ++j)
    if (file.joints[j].name == name)
      return j;
  ADD_FAILURE() << "no joint " << name;
  return 0;
}

// Largest and mean angle, over every frame, between the named bones of source and output.
std::pair<double, double> BoneError(const BvhFile& source, const BvhFile& output, const Bones& bones)
{
  double worst = 0.0;
  double sum = 0.0;
  for (int frame = 0; frame < source.frameCount; ++frame)
  {
    const std::vector<Matrix> sw = WorldMatrices(source, frame);
    const std::vector<Matrix> tw = WorldMatrices(output, frame);
    for (const auto& [tFrom, tTo, sFrom, sTo] : bones)
    {
      const double a = AngleDegrees(sw.at(Joint(source, sTo)).off - sw.at(Joint(source, sFrom)).off,
                                    tw.at(Joint(output, tTo)).off - tw.at(Joint(output, tFrom)).off);
      worst = std::max(worst, a);
      sum += a;
    }
  }
  return {worst, sum / source.frameCount / static_cast<double>(bones.size())};
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
  std::vector<Vector> to;
  for (const Vector& f : from)
    to.push_back(telvo::TransformDirection(known, f));
  EXPECT_LT(MaxDiff(BestFitRotation(from, to, {1, 1, 1, 1}), known), 1e-12);
  // A pair of weight zero, or of no length, takes no part.
  EXPECT_LT(MaxDiff(BestFitRotation({from[0], from[1], {3, 2, 1}}, {to[0], to[1], {1, 2, 3}}, {1, 1, 0}), known), 1e-12);
  EXPECT_LT(MaxDiff(BestFitRotation({{1, 0, 0}, {0, 1, 0}, {}}, {{0, 1, 0}, {-1, 0, 0}, {0, 0, 1}}, {1, 1, 1}),
                    AxisRotation(2, std::numbers::pi / 2)),
            1e-12);

  // Noisy pairs of other lengths and weights: the weighted turning moment of the fit vanishes.
  to[1] = to[1] * 2.0 + Vector{0.3, -0.2, 0.1};
  const std::vector<double> weights = {1, 2, 0.5, 1};
  const Matrix fit = BestFitRotation(from, to, weights);
  Vector moment;
  for (std::size_t i = 0; i < from.size(); ++i)
    moment = moment + telvo::Cross(telvo::TransformDirection(fit, telvo::Normalized(from[i])), telvo::Normalized(to[i])) *
                        weights[i];
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
  EXPECT_EQ(bones[1].targetJoint, 1);
  EXPECT_EQ(bones[1].targetChild, 3);
  // The root's two children keep their angle, so one turn of the root matches both.
  for (double angle : BoneDirectionAngles(bones, sourceRest, matched))
    EXPECT_LT(angle, 1e-9);
  EXPECT_LT(MaxDiff(telvo::Inverse(telvo::Rotation3(matched[1])) * telvo::Rotation3(matched[2]), Matrix()), 1e-12);
  // a turns relative to root by a swing alone: about an axis square to its bone.
  const Matrix swing = telvo::Inverse(telvo::Rotation3(matched[0])) * telvo::Rotation3(matched[1]);
  const Vector axis = telvo::Cross({0, 2, 0}, telvo::TransformDirection(swing, {0, 2, 0}));
  ASSERT_GT(telvo::Length(axis), 0.1);
  EXPECT_LT(telvo::Length(telvo::TransformDirection(swing, axis) - axis), 1e-12);
  EXPECT_NEAR(telvo::Length(matched[3].off - matched[2].off), 1.0, 1e-12);
}

class MatchRestRoad : public kelvara_test::HelperTest
{
protected:
  // The written motion of source's clip on target, with or without the matched rest.
  BvhFile Retarget(const BvhFile& source, const BvhFile& target, bool matchRest)
  {
    std::string error;
    Character s;
    Character t;
    RetargetJob job;
    EXPECT_TRUE(BuildCharacter(source, "source", s, error) && ChooseAndFillPreset(s, _helper, "", error) &&
                BuildCharacter(target, "target", t, error) && ChooseAndFillPreset(t, _helper, "", error))
      << error;
    job.source = &s;
    job.target = &t;
    job.helper = _helper;
    EXPECT_TRUE(job.Validate(error)) << error;
    _sourceOfTarget = job.sourceOfTarget;
    if (matchRest)
      job.targetRest = MatchCharacterRest(s, t, job.sourceOfTarget).targetRest;
    EXPECT_TRUE(job.Run(error)) << error;
    return job.output;
  }

  std::vector<int> _sourceOfTarget;
};

const Bones kDemoArms = {{"upperarm_l", "lowerarm_l", "LeftArm", "LeftForeArm"},
                         {"lowerarm_l", "hand_l", "LeftForeArm", "LeftHand"},
                         {"upperarm_r", "lowerarm_r", "RightArm", "RightForeArm"},
                         {"lowerarm_r", "hand_r", "RightForeArm", "RightHand"}};

// The demo target's arms rest 45 degrees down, the walk's straight out; its legs are straight,
// and a copy of the walk splays them 20 degrees.
TEST_F(MatchRestRoad, RestDifferencesShowInEveryFrameUntilMatched)
{
  BvhFile splayed = MakeDemoSource(90);
  for (const char* name : {"LeftLeg", "LeftFoot", "RightLeg", "RightFoot"})
  {
    BvhJoint& j = splayed.joints[Joint(splayed, name)];
    j.offset = telvo::TransformDirection(AxisRotation(2, (name[0] == 'L' ? 20.0 : -20.0) * kDegrees), j.offset);
  }
  const Bones legs = {{"thigh_l", "calf_l", "LeftUpLeg", "LeftLeg"},
                      {"calf_l", "foot_l", "LeftLeg", "LeftFoot"},
                      {"thigh_r", "calf_r", "RightUpLeg", "RightLeg"},
                      {"calf_r", "foot_r", "RightLeg", "RightFoot"}};
  const struct
  {
    BvhFile source;
    Bones bones;
    double degrees;
  } cases[] = {{MakeDemoSource(120), kDemoArms, 45.0}, {splayed, legs, 20.0}};
  const BvhFile target = MakeDemoTarget();
  for (const auto& [source, bones, degrees] : cases)
  {
    SCOPED_TRACE(degrees);
    const BvhFile matched = Retarget(source, target, true);
    const auto [plainWorst, plainMean] = BoneError(source, Retarget(source, target, false), bones);
    EXPECT_NEAR(plainWorst, degrees, 1e-6);
    EXPECT_NEAR(plainMean, degrees, 1e-6);
    EXPECT_LT(BoneError(source, matched, bones).first, 1e-6);
    // Written in the target's own hierarchy.
    for (std::size_t j = 0; j < target.joints.size(); ++j)
      EXPECT_TRUE(matched.joints[j].offset == target.joints[j].offset &&
                  matched.joints[j].channels == target.joints[j].channels);
  }
}

// The source's own skeleton twice the size, with an unmapped joint added under a hand.
TEST_F(MatchRestRoad, MatchingRestChangesNothingAndUnmappedJointsKeepTheirRotation)
{
  const BvhFile source = MakeDemoSource(60);
  BvhFile target = source;
  for (BvhJoint& j : target.joints)
  {
    j.offset = j.offset * 2.0;
    j.endSiteOffset = j.endSiteOffset * 2.0;
  }
  BvhJoint extra = target.joints.back();
  extra.name = "RightHandProp";
  extra.parent = static_cast<int>(target.joints.size()) - 1;
  extra.firstChannel = target.channelCount;
  target.joints.back().hasEndSite = false;
  target.joints.push_back(extra);
  target.channelCount += 3;
  target.frameCount = 1;
  target.motion.assign(static_cast<std::size_t>(target.channelCount), 0.0);

  const BvhFile plain = Retarget(source, target, false);
  const BvhFile matched = Retarget(source, target, true);
  const std::size_t prop = Joint(target, "RightHandProp");
  ASSERT_EQ(_sourceOfTarget[prop], -1);
  ASSERT_EQ(plain.motion.size(), matched.motion.size());
  for (std::size_t i = 0; i < plain.motion.size(); ++i)
    ASSERT_NEAR(plain.motion[i], matched.motion[i], 1e-9) << i;

  // A target whose rest differs: the prop still keeps its rest rotation.
  target.joints[Joint(target, "RightForeArm")].offset = {-7.0, -7.0, 0.0};
  const BvhFile turned = Retarget(source, target, true);
  const BvhJoint& joint = turned.joints[prop];
  for (int frame = 0; frame < turned.frameCount; ++frame)
  {
    const double* row = turned.motion.data() + static_cast<std::size_t>(frame * turned.channelCount);
    ASSERT_LT(MaxDiff(RotationFromChannels(joint.channels, row + joint.firstChannel), Matrix()), 1e-9) << frame;
  }
}

using MatchRestCommand = kelvara_test::AppFolderTest;

TEST_F(MatchRestCommand, InspectAgainstTellsWhetherMatchingHelps)
{
  std::string error;
  ASSERT_TRUE(WriteBvh((_dir / "walk.bvh").string(), MakeDemoSource(40), error)) << error;
  ASSERT_TRUE(WriteBvh((_dir / "rig.bvh").string(), MakeDemoTarget(), error)) << error;
  const std::string against = Kelvara("inspect walk.bvh --against rig.bvh").out;
  const std::regex arm("upperarm_l -> lowerarm_l +LeftArm -> LeftForeArm +45.00 +0.00\n");
  EXPECT_TRUE(std::regex_search(against, arm)) << against;
  EXPECT_NE(against.find("removes: 45 degrees (upperarm_l -> lowerarm_l): --match-rest is advised"), std::string::npos);
  EXPECT_NE(Kelvara("inspect walk.bvh --against walk.bvh")
              .out.find("removes: 0 degrees (Hips -> LeftUpLeg): --match-rest is not needed"),
            std::string::npos);
  const kelvara_test::AppOutcome demo = Kelvara("demo --frames 40 --match-rest -o matched.bvh");
  EXPECT_NE(demo.out.find("rest pose matched: 20 mapped bones; largest difference 45 degrees"), std::string::npos)
    << demo.out << demo.err;
}

} // namespace
} // namespace kelvara
