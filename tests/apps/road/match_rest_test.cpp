// The retarget road and its rest-pose matching: rotation fits and retargets with known answers.
#include "road/match_rest.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <numbers>
#include <regex>
#include <tuple>

#include "anim/pose.h"
#include "demo/demo_character.h"
#include "io/animation_file.h"
#include "road/retarget.h"
#include "support/helper_fixture.h"
#include "support/quaternion.h"

namespace kelvara
{
namespace
{

using kelvara_test::MaxDiff;
using kelvara_test::Quat;
using telvo::Matrix;
using telvo::Vector;

const char* const kCmuClip = "/usr/share/assimp/models/BVH/01_01.bvh";
constexpr double kDegrees = std::numbers::pi / 180.0;
using Chains = std::vector<std::vector<std::pair<const char*, const char*>>>; // joints: target, source

std::size_t JointOf(const Skeleton& skeleton, const std::string& name)
{
  const int j = skeleton.FindJoint(name);
  if (j < 0)
    ADD_FAILURE() << "no joint " << name;
  return j < 0 ? 0 : static_cast<std::size_t>(j);
}

// How far from degrees, at most, the angle between output's bones and source's is in any frame.
double BoneError(const Skeleton& source, const Clip& clip, const Skeleton& target, const Clip& output,
                 const Chains& chains, double degrees)
{
  double worst = 0.0;
  WorldPose sw, tw;
  for (int frame = 0; frame < clip.frameCount; ++frame)
  {
    EXPECT_TRUE(sw.Evaluate(source, &clip, frame) && tw.Evaluate(target, &output, frame)) << frame;
    for (const auto& chain : chains)
      for (std::size_t i = 1; i < chain.size(); ++i)
      {
        const Vector s = sw[JointOf(source, chain[i].second)].off - sw[JointOf(source, chain[i - 1].second)].off;
        const Vector t = tw[JointOf(target, chain[i].first)].off - tw[JointOf(target, chain[i - 1].first)].off;
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
    // The angle of r from its skew part and its trace: acos of the trace alone is ill-conditioned
    // near half a turn.
    const double trace = r.v1.x + r.v2.y + r.v3.z;
    const double skew = telvo::Length({r.v2.z - r.v3.y, r.v3.x - r.v1.z, r.v1.y - r.v2.x});
    EXPECT_NEAR(std::atan2(skew / 2.0, (trace - 1.0) / 2.0) / kDegrees, AngleDegrees(from, to), 1e-6);
  }
  EXPECT_EQ(MinimalRotation({}, {1, 0, 0}), Matrix());
}

TEST(RestRotations, BestFitRecoversAKnownRotationAndKeepsRollOnALine)
{
  const Matrix known = kelvara_test::Place(kelvara_test::AxisAngle(1, 0, 0, 0.4 / kDegrees) *
                                             kelvara_test::AxisAngle(0, 1, 0, -1.1 / kDegrees) *
                                             kelvara_test::AxisAngle(0, 0, 1, 2.5 / kDegrees),
                                           {});
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
  Skeleton target, source;
  for (const auto& [name, parent, there, here] :
       {std::tuple{"root", -1, Vector{0, 0, 0}, Vector{0, 0, 0}}, std::tuple{"a", 0, Vector{0, 1, 0}, Vector{0, 0, 2}},
        std::tuple{"twist", 1, Vector{0, 1, 0}, Vector{0, 0, 0}}, std::tuple{"b", 2, Vector{0, 1, 0}, Vector{1, 0, 1}},
        std::tuple{"c", 0, Vector{1, 0, 0}, Vector{3, 0, 0}}})
  {
    Joint& j = target.joints.emplace_back();
    j.name = name;
    j.parent = parent;
    j.translation = there;
    source.joints.push_back(j);
    source.joints.back().translation = here;
  }
  const std::vector<int> sourceOfTarget = {0, 1, -1, 3, 4};
  const std::vector<Matrix> targetRest = RestWorld(target);
  const std::vector<Matrix> sourceRest = RestWorld(source);
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
  // Runs clip onto target on the target's own rest or on the one matched to the source's; prepared
  // (when given) brings the options and keeps the pairing.
  Clip Retarget(const Skeleton& source, const Clip& clip, const Skeleton& target, bool matchRest = false,
                PreparedRetarget* given = nullptr)
  {
    _sourceSkeleton = source;
    _targetSkeleton = target;
    PreparedRetarget own;
    PreparedRetarget& prepared = given != nullptr ? *given : own;
    prepared.source = &_source;
    prepared.target = &_target;
    prepared.helper = _helper;
    Clip output;
    std::string error;
    EXPECT_TRUE(BuildCharacter(_sourceSkeleton, "source", _source, error) &&
                ChooseAndFillPreset(_source, _helper, "", error) &&
                BuildCharacter(_targetSkeleton, "target", _target, error) &&
                ChooseAndFillPreset(_target, _helper, "", error) && prepared.Prepare(error))
      << error;
    if (matchRest)
      prepared.targetRest = MatchCharacterRest(_source, _target, prepared.sourceOfTarget).targetRest;
    ClipRetarget run;
    EXPECT_TRUE(run.Setup(prepared, error) && run.Run(clip, output, error)) << error;
    EXPECT_TRUE(output.frameCount == clip.frameCount && output.frameTime == clip.frameTime &&
                output.jointCount == static_cast<int>(target.Size()));
    return output;
  }

  Skeleton _sourceSkeleton, _targetSkeleton;
  Character _source, _target;
};

// The demo target's arms rest 45 degrees below the walk's; a copy of the walk splays its legs 20
// degrees from the target's straight ones. An unmapped joint added to the target keeps its rest.
TEST_F(RetargetRoad, RestDifferencesShowInEveryFrameUntilMatched)
{
  Skeleton target = DemoTargetFile().skeleton;
  Joint prop = target.joints.back();
  prop.name = "prop";
  prop.parent = static_cast<int>(target.Size()) - 1;
  target.joints.back().hasEndSite = false;
  target.joints.push_back(prop);
  const std::size_t propIndex = target.Size() - 1;
  const AnimationFile walk = DemoSourceFile(120);
  AnimationFile splayed = DemoSourceFile(90);
  for (const char* name : {"LeftLeg", "LeftFoot", "RightLeg", "RightFoot"})
  {
    Joint& j = splayed.skeleton.joints[JointOf(splayed.skeleton, name)];
    const double degrees = name[0] == 'L' ? 20.0 : -20.0;
    j.translation = kelvara_test::Rotate(kelvara_test::AxisAngle(0, 0, 1, degrees), j.translation);
  }
  const Chains arms = {{{"upperarm_l", "LeftArm"}, {"lowerarm_l", "LeftForeArm"}, {"hand_l", "LeftHand"}},
                       {{"upperarm_r", "RightArm"}, {"lowerarm_r", "RightForeArm"}, {"hand_r", "RightHand"}}};
  const Chains legs = {{{"thigh_l", "LeftUpLeg"}, {"calf_l", "LeftLeg"}, {"foot_l", "LeftFoot"}},
                       {{"thigh_r", "RightUpLeg"}, {"calf_r", "RightLeg"}, {"foot_r", "RightFoot"}}};
  const std::tuple<const AnimationFile*, Chains, double> cases[] = {{&walk, arms, 45.0}, {&splayed, legs, 20.0}};
  for (const auto& [source, bones, degrees] : cases)
  {
    SCOPED_TRACE(degrees);
    const Clip plain = Retarget(source->skeleton, source->clip, target);
    const Clip matched = Retarget(source->skeleton, source->clip, target, true);
    EXPECT_LT(BoneError(source->skeleton, source->clip, target, plain, bones, degrees), 1e-6); // in every frame
    EXPECT_LT(BoneError(source->skeleton, source->clip, target, matched, bones, 0.0), 1e-6);
    for (int frame = 0; frame < matched.frameCount; ++frame)
      ASSERT_EQ(matched.FrameRotations(frame)[propIndex], prop.rotation) << frame;
  }
}

// The walk's own skeleton at twice the size matches already.
TEST_F(RetargetRoad, MatchingAMatchingRestChangesNothing)
{
  const AnimationFile walk = DemoSourceFile(60);
  Skeleton target = walk.skeleton;
  for (Joint& j : target.joints)
    j.translation = j.translation * 2.0;
  const Clip plain = Retarget(walk.skeleton, walk.clip, target);
  const Clip matched = Retarget(walk.skeleton, walk.clip, target, true);
  ASSERT_TRUE(plain.rotations.size() == matched.rotations.size() &&
              plain.rootTranslation.size() == matched.rootTranslation.size());
  for (std::size_t i = 0; i < plain.rotations.size(); ++i)
    ASSERT_LT(AngleBetweenDegrees(plain.rotations[i], matched.rotations[i]), 1e-7) << i;
  for (std::size_t i = 0; i < plain.rootTranslation.size(); ++i)
    ASSERT_LT(MaxDiff(plain.rootTranslation[i], matched.rootTranslation[i]), 1e-9) << i;
}

// The demo target again, its joints resting turned as a glTF rig's do, with offsets that put every
// joint where it was: the bones go where the unturned target's go, with and without matching.
TEST_F(RetargetRoad, RestRotationsOfTheTargetLeaveItsBonesWhereTheyWere)
{
  const AnimationFile walk = DemoSourceFile(40);
  const Skeleton target = DemoTargetFile().skeleton;
  Skeleton turned = target;
  std::vector<Quat> world(target.Size());
  for (std::size_t j = 0; j < target.Size(); ++j)
  {
    const double k = static_cast<double>(j);
    const Quat rest = kelvara_test::AxisAngle(1.0, static_cast<double>(j % 3), 2.0, 10.0 + 7.0 * k);
    const int parent = target.joints[j].parent;
    const Quat parentWorld = parent < 0 ? Quat() : world[static_cast<std::size_t>(parent)];
    world[j] = parentWorld * rest;
    turned.joints[j].rotation = {rest.w, rest.x, rest.y, rest.z};
    turned.joints[j].translation =
      kelvara_test::Rotate(kelvara_test::Conjugate(parentWorld), target.joints[j].translation);
  }
  for (bool matchRest : {false, true})
  {
    SCOPED_TRACE(matchRest);
    const Clip plain = Retarget(walk.skeleton, walk.clip, target, matchRest);
    const Clip rotated = Retarget(walk.skeleton, walk.clip, turned, matchRest);
    WorldPose a, b;
    for (int frame = 0; frame < plain.frameCount; ++frame)
    {
      ASSERT_TRUE(a.Evaluate(target, &plain, frame) && b.Evaluate(turned, &rotated, frame));
      for (std::size_t j = 0; j < target.Size(); ++j)
        ASSERT_LT(MaxDiff(a[j].off, b[j].off), 1e-9) << frame << " " << target.joints[j].name;
    }
  }
}

// The clip (resting unturned, root at the origin) onto its skeleton renamed as a game rig, with other
// bone lengths, legs half again as long, and a map giving the left hand the right hand's; also under
// an armature authored Z up in centimetres whose root bone turns it back: the same world, the same result.
TEST_F(RetargetRoad, OntoOtherNamesAndLengthsFollowsTheSourceAndTheMap)
{
  if (!std::filesystem::exists(kCmuClip))
    GTEST_SKIP() << kCmuClip << " is not installed";
  AnimationFile clip;
  std::string error;
  ASSERT_TRUE(ReadAnimationFile(kCmuClip, ReadRequest(), clip, error)) << error;
  const Skeleton& source = clip.skeleton;
  Skeleton target = source;
  for (std::size_t j = 0; j < target.Size(); ++j)
  {
    std::string& name = target.joints[j].name;
    const bool leg = std::regex_search(name, std::regex("Leg|Foot|Toe"));
    name = "rig:" + name + (j % 2 == 0 ? "" : "_x");
    target.joints[j].translation = target.joints[j].translation * (leg ? 1.5 : 0.5 + 0.05 * static_cast<double>(j));
  }
  target.joints[0].translation = {1.0, 2.0, 3.0};
  const Quat zUpToYUp = kelvara_test::AxisAngle(1, 0, 0, -90);
  Skeleton armature = target;
  armature.sceneTransform =
    kelvara_test::Mul(kelvara_test::Place(zUpToYUp, {}), {{}, {0.01, 0, 0}, {0, 0.01, 0}, {0, 0, 0.01}});
  const Quat back = kelvara_test::Conjugate(zUpToYUp);
  armature.joints[0].rotation = {back.w, back.x, back.y, back.z};
  armature.joints[0].translation = kelvara_test::Rotate(back, {100, 200, 300});
  for (std::size_t j = 1; j < armature.Size(); ++j)
    armature.joints[j].translation = armature.joints[j].translation * 100.0;

  const std::size_t left = JointOf(source, "LeftHand");
  const std::size_t right = JointOf(source, "RightHand");
  std::vector<JointPair> pairs;
  const std::string map = "{\"" + target.joints[left].name + "\": \"RightHand\"}";
  ASSERT_TRUE(ParseJointMap(map, "m.json", source, target, pairs, error)) << error;
  for (const auto& [rootMotion, rootScale, applied, onto] :
       {std::tuple{true, 0.0, 1.5, &target}, std::tuple{false, 0.0, 0.0, &target},
        std::tuple{true, 0.25, 0.25, &target}, std::tuple{true, 0.0, 1.5, &armature}})
  {
    SCOPED_TRACE(testing::Message() << applied << (onto == &armature ? " armature" : ""));
    PreparedRetarget prepared;
    prepared.mapPairs = pairs;
    prepared.rootMotion = rootMotion;
    prepared.rootScale = rootScale;
    const Clip output = Retarget(source, clip.clip, *onto, false, &prepared);
    EXPECT_TRUE(prepared.pairOrigin[left] == "map" && prepared.sourceOfTarget[right] == -1);
    EXPECT_GE(std::ranges::count_if(prepared.sourceOfTarget, [](int s) { return s >= 0; }), 20);
    EXPECT_TRUE(!rootMotion || std::abs(prepared.appliedRootScale - applied) < 1e-12) << prepared.appliedRootScale;
    double worst = 0.0;
    WorldPose in, out;
    for (int frame = 0; frame < clip.clip.frameCount; frame += 3)
    {
      ASSERT_TRUE(in.Evaluate(source, &clip.clip, frame) && out.Evaluate(*onto, &output, frame));
      for (std::size_t t = 0; t < out.Size(); ++t)
      {
        const std::size_t s = t == left ? right : t;
        if (prepared.sourceOfTarget[t] < 0)
          continue;
        ASSERT_EQ(prepared.sourceOfTarget[t], static_cast<int>(s)) << t;
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
