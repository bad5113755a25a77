// Rest-pose matching: the rotation fits against known rotations, and whole retargets onto
// characters whose right answer is known, checked on the written motion's world directions.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <numbers>
#include <regex>
#include <string>

#include "support/helper_fixture.h"
#include "character.h"
#include "demo.h"
#include "match_rest.h"
#include "retarget.h"
#include "rotation.h"
#include "skeleton_pose.h"
#include "support/loaded_module.h"
#include "telvo/registrybase.h"

namespace kelvara
{
namespace
{

using telvo::Matrix;
using telvo::Vector;

const char* const kCmuClip = "/usr/share/assimp/models/BVH/01_01.bvh";
constexpr double kDegrees = std::numbers::pi / 180.0;

double MaxDifference(const Matrix& a, const Matrix& b)
{
  double d = 0.0;
  for (const auto& [u, v] : {std::pair{a.v1, b.v1}, std::pair{a.v2, b.v2}, std::pair{a.v3, b.v3}})
    d = std::max({d, std::fabs(u.x - v.x), std::fabs(u.y - v.y), std::fabs(u.z - v.z)});
  return d;
}

int Joint(const BvhFile& file, const std::string& name)
{
  for (std::size_t j = 0; j < file.joints.size(); ++j)
    if (file.joints[j].name == name)
      return static_cast<int>(j);
  ADD_FAILURE() << "no joint " << name;
  return 0;
}

Vector Direction(const std::vector<Matrix>& world, int from, int to)
{
  return world[static_cast<std::size_t>(to)].off - world[static_cast<std::size_t>(from)].off;
}

TEST(RestRotations, MinimalRotationTurnsOntoTheTargetWithoutTwist)
{
  const Vector cases[][2] = {{{1, 0, 0}, {0, -1, 0}},   {{0.3, -2, 0.5}, {1, 1, 1}}, {{0, 0, 2}, {0, 0, 5}},
                             {{1, 2, 3}, {-1, -2, -3}}, {{0, 1, 0}, {0, -1, 1e-9}}};
  for (const auto& [from, to] : cases)
  {
    const Matrix r = MinimalRotation(from, to);
    EXPECT_NEAR(telvo::Determinant3(r), 1.0, 1e-12);
    EXPECT_LT(AngleDegrees(telvo::TransformDirection(r, from), to), 1e-6);
    // Least angle: the turn equals the angle between the two directions.
    const double trace = r.v1.x + r.v2.y + r.v3.z;
    EXPECT_NEAR(std::acos(std::clamp((trace - 1.0) / 2.0, -1.0, 1.0)) / kDegrees, AngleDegrees(from, to), 1e-6);
  }
  EXPECT_EQ(MinimalRotation({}, {1, 0, 0}), Matrix());
}

TEST(RestRotations, BestFitRecoversAKnownRotationAndKeepsRollOnALine)
{
  const Matrix known = AxisRotation(0, 0.4) * AxisRotation(1, -1.1) * AxisRotation(2, 2.5);
  const std::vector<Vector> from = {{1, 0, 0}, {0, 3, 0}, {-1, -1, 0.2}, {0.1, 0.2, -4}};
  std::vector<Vector> to;
  for (const Vector& f : from)
    to.push_back(telvo::TransformDirection(known, f));
  EXPECT_LT(MaxDifference(BestFitRotation(from, to, {1, 2, 0.5, 1}), known), 1e-12);
  // A pair of weight zero, or of no length, takes no part.
  std::vector<Vector> spoiled = to;
  spoiled.push_back({1, 2, 3});
  std::vector<Vector> spoiledFrom = from;
  spoiledFrom.push_back({3, 2, 1});
  EXPECT_LT(MaxDifference(BestFitRotation(spoiledFrom, spoiled, {1, 1, 1, 1, 0}), known), 1e-12);
  EXPECT_LT(MaxDifference(BestFitRotation({{1, 0, 0}, {0, 1, 0}, {}}, {{0, 1, 0}, {-1, 0, 0}, {0, 0, 1}}, {1, 1, 1}),
                          AxisRotation(2, std::numbers::pi / 2)),
            1e-12);

  // Noisy pairs: no small turn of the fit does better.
  to[1] = to[1] + Vector{0.3, -0.2, 0.1};
  const Matrix fit = BestFitRotation(from, to, {1, 1, 1, 1});
  auto misfit = [&](const Matrix& r) {
    double sum = 0.0;
    for (std::size_t i = 0; i < from.size(); ++i)
    {
      const Vector d = telvo::TransformDirection(r, telvo::Normalized(from[i])) - telvo::Normalized(to[i]);
      sum += telvo::Dot(d, d);
    }
    return sum;
  };
  for (int axis = 0; axis < 3; ++axis)
    for (double step : {-1e-3, 1e-3})
      EXPECT_LT(misfit(fit), misfit(AxisRotation(axis, step) * fit));

  // Directions on one line leave the roll free: the fit adds none.
  const Matrix line = BestFitRotation({{0, 1, 0}, {0, -2, 0}}, {{1, 0, 0}, {-1, 0, 0}}, {2, 1});
  EXPECT_LT(MaxDifference(line, MinimalRotation({0, 1, 0}, {1, 0, 0})), 1e-12);
}

// A chain root -> a -> twist (unmapped) -> b, with a second child c of root. The source points
// every bone elsewhere; the twist joint stays unturned relative to a.
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
  source.joints[2].offset = {0, 0, 0}; // source has no twist joint of length
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
  // The root's two children keep their angle, so the root's turn matches both; every bone matches.
  for (double angle : BoneDirectionAngles(bones, sourceRest, matched))
    EXPECT_LT(angle, 1e-9);
  EXPECT_LT(MaxDifference(telvo::Inverse(telvo::Rotation3(matched[1])) * telvo::Rotation3(matched[2]), Matrix()), 1e-12);
  // a turns relative to root by a swing alone: about an axis square to its bone, no twist.
  const Matrix swing = telvo::Inverse(telvo::Rotation3(matched[0])) * telvo::Rotation3(matched[1]);
  const Vector bone{0, 2, 0};
  const Vector axis = telvo::Cross(bone, telvo::TransformDirection(swing, bone));
  ASSERT_GT(telvo::Length(axis), 0.1);
  EXPECT_LT(telvo::Length(telvo::TransformDirection(swing, axis) - axis), 1e-12);
  // Positions follow the turned hierarchy with the target's own offsets.
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

  // Largest and mean angle, over every frame, between the named bones of source and output.
  std::pair<double, double> BoneError(const BvhFile& source, const BvhFile& output,
                                      const std::vector<std::array<const char*, 4>>& bones)
  {
    double worst = 0.0;
    double sum = 0.0;
    std::vector<Matrix> sw;
    std::vector<Matrix> tw;
    for (int frame = 0; frame < source.frameCount; ++frame)
    {
      EXPECT_TRUE(FillWorldMatrices(source, frame, sw) && FillWorldMatrices(output, frame, tw));
      for (const auto& [tFrom, tTo, sFrom, sTo] : bones)
      {
        const double a = AngleDegrees(Direction(sw, Joint(source, sFrom), Joint(source, sTo)),
                                      Direction(tw, Joint(output, tFrom), Joint(output, tTo)));
        worst = std::max(worst, a);
        sum += a;
      }
    }
    return {worst, sum / static_cast<double>(source.frameCount) / static_cast<double>(bones.size())};
  }

  std::vector<int> _sourceOfTarget;
};

const std::vector<std::array<const char*, 4>> kDemoArms = {{"upperarm_l", "lowerarm_l", "LeftArm", "LeftForeArm"},
                                                           {"lowerarm_l", "hand_l", "LeftForeArm", "LeftHand"},
                                                           {"upperarm_r", "lowerarm_r", "RightArm", "RightForeArm"},
                                                           {"lowerarm_r", "hand_r", "RightForeArm", "RightHand"}};
const std::vector<std::array<const char*, 4>> kDemoLegs = {{"thigh_l", "calf_l", "LeftUpLeg", "LeftLeg"},
                                                           {"calf_l", "foot_l", "LeftLeg", "LeftFoot"},
                                                           {"thigh_r", "calf_r", "RightUpLeg", "RightLeg"},
                                                           {"calf_r", "foot_r", "RightLeg", "RightFoot"}};

// The A-pose target from the T-pose walk: unmatched, every frame carries the 45 degrees; matched,
// the written arms point exactly where the source's do, in the target's own hierarchy.
TEST_F(MatchRestRoad, APoseArmsFollowTheTPoseSourceExactly)
{
  const BvhFile source = MakeDemoSource(120);
  const BvhFile target = MakeDemoTarget();
  const BvhFile plain = Retarget(source, target, false);
  const BvhFile matched = Retarget(source, target, true);
  const auto [plainWorst, plainMean] = BoneError(source, plain, kDemoArms);
  EXPECT_NEAR(plainWorst, 45.0, 1e-6);
  EXPECT_NEAR(plainMean, 45.0, 1e-6);
  EXPECT_LT(BoneError(source, matched, kDemoArms).first, 1e-6);
  for (std::size_t j = 0; j < target.joints.size(); ++j)
  {
    EXPECT_EQ(matched.joints[j].offset, target.joints[j].offset);
    EXPECT_EQ(matched.joints[j].channels, target.joints[j].channels);
  }
}

// Splayed legs in the source, straight ones in the target: the splay is the error of every frame
// without matching, and gone with it.
TEST_F(MatchRestRoad, StraightLegsFollowSplayedSourceLegs)
{
  BvhFile source = MakeDemoSource(90);
  for (const char* name : {"LeftLeg", "LeftFoot", "RightLeg", "RightFoot"})
  {
    BvhJoint& j = source.joints[static_cast<std::size_t>(Joint(source, name))];
    const double side = name[0] == 'L' ? 1.0 : -1.0;
    j.offset = telvo::TransformDirection(AxisRotation(2, side * 20.0 * kDegrees), j.offset);
  }
  const BvhFile target = MakeDemoTarget();
  const auto [plainWorst, plainMean] = BoneError(source, Retarget(source, target, false), kDemoLegs);
  EXPECT_NEAR(plainWorst, 20.0, 1e-6);
  EXPECT_NEAR(plainMean, 20.0, 1e-6);
  EXPECT_LT(BoneError(source, Retarget(source, target, true), kDemoLegs).first, 1e-6);
}

// A target whose rest already matches (the source's own skeleton, twice the size, with an
// unmapped joint added under a hand): matching changes nothing, and the unmapped joint's
// written rotation stays its rest rotation in every frame.
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
  const int prop = Joint(target, "RightHandProp");
  ASSERT_EQ(_sourceOfTarget[static_cast<std::size_t>(prop)], -1);
  ASSERT_EQ(plain.motion.size(), matched.motion.size());
  for (std::size_t i = 0; i < plain.motion.size(); ++i)
    ASSERT_NEAR(plain.motion[i], matched.motion[i], 1e-9) << i;

  // Now a target whose rest differs: the prop still keeps its rest rotation.
  target.joints[static_cast<std::size_t>(Joint(target, "RightForeArm"))].offset = {-7.0, -7.0, 0.0};
  const BvhFile turned = Retarget(source, target, true);
  const BvhJoint& joint = turned.joints[static_cast<std::size_t>(prop)];
  for (int frame = 0; frame < turned.frameCount; ++frame)
  {
    const double* row = turned.motion.data() + static_cast<std::size_t>(frame * turned.channelCount);
    ASSERT_LT(MaxDifference(RotationFromChannels(joint.channels, row + joint.firstChannel), Matrix()), 1e-9) << frame;
  }
}

// CMU 01_01 (legs splayed about 20 degrees at rest) onto its own skeleton with straight legs.
TEST_F(MatchRestRoad, RealClipOntoStraightLegs)
{
  if (!std::filesystem::exists(kCmuClip))
    GTEST_SKIP() << kCmuClip << " is not installed";
  BvhFile clip;
  std::string error;
  ASSERT_TRUE(ReadBvh(kCmuClip, clip, error)) << error;
  BvhFile target = clip;
  for (const char* name : {"LeftLeg", "LeftFoot", "RightLeg", "RightFoot"})
  {
    BvhJoint& j = target.joints[static_cast<std::size_t>(Joint(target, name))];
    j.offset = {0.0, -telvo::Length(j.offset), 0.0};
  }
  const std::vector<std::array<const char*, 4>> legs = {{"LeftUpLeg", "LeftLeg", "LeftUpLeg", "LeftLeg"},
                                                        {"LeftLeg", "LeftFoot", "LeftLeg", "LeftFoot"},
                                                        {"RightUpLeg", "RightLeg", "RightUpLeg", "RightLeg"},
                                                        {"RightLeg", "RightFoot", "RightLeg", "RightFoot"}};
  const auto [plainWorst, plainMean] = BoneError(clip, Retarget(clip, target, false), legs);
  const auto [matchedWorst, matchedMean] = BoneError(clip, Retarget(clip, target, true), legs);
  std::printf("01_01 leg bones, mean (max) degrees: %.4g (%.4g) as built, %.3g (%.3g) matched\n", plainMean, plainWorst,
              matchedMean, matchedWorst);
  EXPECT_GT(plainMean, 15.0);
  EXPECT_LT(matchedMean, 1.0);
  EXPECT_LT(matchedWorst, 1e-6);
}

// As a user runs it: inspect tells the arms apart before a run, and the demo's written arms
// follow the walk's.
TEST(MatchRestCommand, InspectAgainstAndDemo)
{
  namespace fs = std::filesystem;
  const fs::path dir = fs::temp_directory_path() / ("kelvara_match_rest_" + std::to_string(getpid()));
  fs::create_directories(dir);
  std::string error;
  ASSERT_TRUE(WriteBvh((dir / "walk.bvh").string(), MakeDemoSource(40), error)) << error;
  ASSERT_TRUE(WriteBvh((dir / "rig.bvh").string(), MakeDemoTarget(), error)) << error;
  auto run = [&](const std::string& args) {
    const std::string command = "cd '" + dir.string() + "' && '" KELVARA_APP_PATH "' " + args + " >out.txt 2>&1";
    EXPECT_EQ(std::system(command.c_str()), 0) << args;
    std::ifstream in(dir / "out.txt");
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  };
  const std::string against = run("inspect walk.bvh --against rig.bvh");
  EXPECT_TRUE(std::regex_search(against, std::regex("upperarm_l -> lowerarm_l +LeftArm -> LeftForeArm +45.00 +0.00\n")))
    << against;
  EXPECT_TRUE(std::regex_search(against, std::regex("pelvis -> thigh_l +Hips -> LeftUpLeg +24.22 +24.22\n")));
  EXPECT_NE(against.find("removes: 45 degrees (upperarm_l -> lowerarm_l): --match-rest is advised"), std::string::npos);
  EXPECT_NE(run("inspect walk.bvh --against walk.bvh").find("removes: 0 degrees (Hips -> LeftUpLeg): --match-rest is "
                                                            "not needed"),
            std::string::npos);

  const std::string demo = run("demo --frames 40 --match-rest -o matched.bvh");
  EXPECT_NE(demo.find("rest pose matched: 20 mapped bones; largest difference 45 degrees"), std::string::npos) << demo;
  BvhFile written;
  ASSERT_TRUE(ReadBvh((dir / "matched.bvh").string(), written, error)) << error;
  const BvhFile walk = MakeDemoSource(40);
  for (int frame = 0; frame < walk.frameCount; ++frame)
  {
    const std::vector<Matrix> sw = WorldMatrices(walk, frame);
    const std::vector<Matrix> tw = WorldMatrices(written, frame);
    for (const auto& [tFrom, tTo, sFrom, sTo] : kDemoArms)
      ASSERT_LT(AngleDegrees(Direction(sw, Joint(walk, sFrom), Joint(walk, sTo)),
                             Direction(tw, Joint(written, tFrom), Joint(written, tTo))),
                1e-6)
        << frame << " " << tFrom;
  }
  fs::remove_all(dir);
}

} // namespace
} // namespace kelvara
