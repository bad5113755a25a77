// Report figures on constructed motion whose right answers are known: bone angles, foot sliding,
// side warnings, the preset reasons and the JSON's key style.
#include "output/report.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>

#include "character/character.h"
#include "demo/demo.h"
#include "demo/demo_character.h"
#include "io/bvh/bvh_file.h"
#include "support/helper_fixture.h"
#include "support/run_app.h"

namespace kelvara
{
namespace
{

using telvo::Vector;

// Hips -> Spine 1 up -> Head 1 up, one frame per entry of frames: {x, y, z, hips Z degrees,
// spine Z degrees}, (x, y, z) being where the hips are.
struct Chain
{
  Skeleton skeleton;
  Clip clip;
};

Chain MakeChain(const std::vector<std::array<double, 5>>& frames, double frameTime = 0.1)
{
  Chain c;
  for (const auto& [name, parent] : {std::pair{"Hips", -1}, std::pair{"Spine", 0}, std::pair{"Head", 1}})
  {
    Joint& j = c.skeleton.joints.emplace_back();
    j.name = name;
    j.parent = parent;
    j.translation = parent < 0 ? Vector() : Vector(0, 1, 0);
  }
  c.clip.frameTime = frameTime;
  c.clip.frameCount = static_cast<int>(frames.size());
  c.clip.jointCount = 3;
  constexpr double kRadians = M_PI / 180.0;
  for (const auto& [x, y, z, hips, spine] : frames)
  {
    c.clip.rootTranslation.push_back({x, y, z});
    c.clip.rotations.push_back(AxisAngle({0, 0, 1}, hips * kRadians));
    c.clip.rotations.push_back(AxisAngle({0, 0, 1}, spine * kRadians));
    c.clip.rotations.push_back(Quaternion());
  }
  return c;
}

// The same motion authored Z up in centimetres, under a scene transform that stands it Y up in
// the chain's units: every joint is where it was in the world.
Chain AuthoredZUp(const Chain& chain)
{
  const Quaternion toZUp = AxisAngle({1, 0, 0}, M_PI / 2.0);
  Chain c = chain;
  c.skeleton.sceneTransform = ToMatrix(Conjugate(toZUp));
  c.skeleton.sceneTransform.v1 = c.skeleton.sceneTransform.v1 * 0.01;
  c.skeleton.sceneTransform.v2 = c.skeleton.sceneTransform.v2 * 0.01;
  c.skeleton.sceneTransform.v3 = c.skeleton.sceneTransform.v3 * 0.01;
  for (Joint& j : c.skeleton.joints)
    j.translation = Rotate(toZUp, j.translation) * 100.0;
  for (Vector& t : c.clip.rootTranslation)
    t = Rotate(toZUp, t) * 100.0;
  for (Quaternion& q : c.clip.rotations)
    q = toZUp * q * Conjugate(toZUp);
  return c;
}

FootSliding Slide(const Chain& chain, int joint, const Vector& up, double band)
{
  return MeasureFootSliding(chain.skeleton, chain.clip, joint, up, band);
}

TEST(ReportBoneAngles, KnownRotationsGiveTheirMeanAndMaximum)
{
  const Chain source = MakeChain({{0, 0, 0, 0, 15}, {0, 0, 0, 0, 15}, {0, 0, 0, 0, 15}});
  // The target's hips turn 10, 20, 30 degrees more than the source's; its spine turns back by as
  // much, so that the spine-to-head bone points where the source's does.
  const Chain plainTarget = MakeChain({{5, 0, 0, 10, 5}, {5, 0, 0, 20, -5}, {5, 0, 0, 30, -15}});
  Chain target = plainTarget;
  const auto measure = [&](const std::vector<int>& sourceOfTarget) {
    return MeasureBoneAngles(source.skeleton, source.clip, target.skeleton, target.clip, sourceOfTarget);
  };
  // Bones are compared in the world, whatever frame and unit either file is authored in.
  for (const Chain& authored : {plainTarget, AuthoredZUp(plainTarget)})
  {
    target = authored;
    const std::vector<BoneAngles> bones = measure({0, 1, 2});
    ASSERT_EQ(bones.size(), 2u);
    EXPECT_EQ(bones[0].targetJoint, "Hips");
    EXPECT_EQ(bones[0].targetChild, "Spine");
    EXPECT_NEAR(bones[0].meanDegrees, 20.0, 1e-9);
    EXPECT_NEAR(bones[0].maxDegrees, 30.0, 1e-9);
    EXPECT_EQ(bones[1].sourceChild, "Head");
    EXPECT_NEAR(bones[1].meanDegrees, 0.0, 1e-6);
    EXPECT_NEAR(bones[1].maxDegrees, 0.0, 1e-6);
  }
  target = plainTarget;

  // A child without a partner makes no bone, and the source's joints are found through the pairs.
  const std::vector<BoneAngles> partial = measure({0, 1, -1});
  ASSERT_EQ(partial.size(), 1u);
  const std::vector<BoneAngles> crossed = measure({1, 2, -1});
  ASSERT_EQ(crossed.size(), 1u);
  EXPECT_EQ(crossed[0].sourceJoint, "Spine");
  EXPECT_EQ(crossed[0].sourceChild, "Head");
  // Source spine-to-head at 15 degrees, target hips-to-spine at 10, 20, 30.
  EXPECT_NEAR(crossed[0].meanDegrees, (5.0 + 5.0 + 15.0) / 3.0, 1e-9);
  EXPECT_NEAR(crossed[0].maxDegrees, 15.0, 1e-9);
}

// The root stands for a foot joint: its position channels move it over the ground and lift it.
TEST(ReportFootSliding, SpeedWhileLowIsMeasuredAndLiftedFramesAreLeftOut)
{
  const double speed = 0.5;
  const double dt = 0.1;
  const Vector up(0, 1, 0);
  std::vector<std::array<double, 5>> sliding;
  // Ten frames on the ground sliding along X and Z at `speed` with a jitter in height that stays
  // inside the band, then five lifted frames moving fast, then five more sliding frames.
  for (int f = 0; f < 10; ++f)
    sliding.push_back({0.6 * speed * f * dt, (f % 2) * 0.01, 0.8 * speed * f * dt, 0, 0});
  for (int f = 0; f < 5; ++f)
    sliding.push_back({10.0 + f, 1.0, 0, 0, 0});
  for (int f = 0; f < 5; ++f)
    sliding.push_back({20.0 + speed * f * dt, 0.0, 0, 0, 0});
  const FootSliding slide = Slide(MakeChain(sliding, dt), 0, up, 0.02);
  EXPECT_EQ(slide.joint, "Hips");
  EXPECT_NEAR(slide.lowSeconds, (9 + 4) * dt, 1e-12);
  // The height jitter is no travel: only what is square to up counts.
  EXPECT_NEAR(slide.speed, speed, 1e-9);

  std::vector<std::array<double, 5>> planted;
  for (int f = 0; f < 10; ++f)
    planted.push_back({3, f < 5 ? 0.0 : 2.0 + f, 4, 0, 0});
  const FootSliding still = Slide(MakeChain(planted, dt), 0, up, 0.02);
  EXPECT_EQ(still.speed, 0.0);
  EXPECT_NEAR(still.lowSeconds, 4 * dt, 1e-12);

  // The other joints ride on the root: the head, two units up, slides just the same; with up
  // along X the "height" is X and the sliding is measured in Y and Z.
  EXPECT_NEAR(Slide(MakeChain(sliding, dt), 2, up, 0.02).speed, speed, 1e-9);
  const FootSliding sideways = Slide(MakeChain(planted, dt), 0, Vector(1, 0, 0), 0.02);
  EXPECT_NEAR(sideways.lowSeconds, 9 * dt, 1e-12);
  EXPECT_GT(sideways.speed, 0.0);
}

class ReportCharacterTest : public kelvara_test::HelperTest
{
protected:
  void Build(const Skeleton& skeleton, const std::string& role, Character& c, const std::string& preset = "")
  {
    std::string error;
    ASSERT_TRUE(BuildCharacter(skeleton, role, c, error)) << error;
    ASSERT_TRUE(ChooseAndFillPreset(c, _helper, preset, error)) << error;
  }
};

TEST_F(ReportCharacterTest, PresetReasonsAndSwappedSides)
{
  const Skeleton target = DemoTargetFile().skeleton;
  Character plain;
  Build(target, "target", plain);
  ASSERT_EQ(plain.presetTrials.size(), GetPresets().size());
  const CharacterReport report = DescribeCharacter(plain, false);
  EXPECT_EQ(report.filledBodyParts, kBodyPartCount);
  EXPECT_NE(report.presetReason.find("filled 21 body parts"), std::string::npos) << report.presetReason;
  for (const PresetTrial& t : plain.presetTrials)
    if (t.preset != plain.preset)
    {
      EXPECT_NE(report.presetReason.find(t.preset + " " + std::to_string(t.filled)), std::string::npos);
    }
  EXPECT_EQ(report.footJoints.size(), 4u);
  EXPECT_GT(report.legLength, 0.0);
  EXPECT_TRUE(SideWarnings(plain).empty());
  EXPECT_EQ(DescribeCharacter(plain, true).presetReason, "named on the command line");

  // The same rig mirrored: every joint named left now lies on the character's right.
  Skeleton mirrored = target;
  for (Joint& j : mirrored.joints)
    j.translation.x = -j.translation.x;
  Character swapped;
  Build(mirrored, "target", swapped);
  const std::vector<std::string> warnings = SideWarnings(swapped);
  ASSERT_EQ(warnings.size(), 2u) << ::testing::PrintToString(warnings);
  EXPECT_NE(warnings[0].find("target: left and right arm swapped"), std::string::npos) << warnings[0];
  EXPECT_NE(warnings[1].find("leg swapped"), std::string::npos) << warnings[1];
}

// Every key of the report, however deep, is lower camel case; failed clips keep their message.
TEST(ReportJson, KeysAreLowerCamelCaseAndFailuresKeepTheirMessage)
{
  ClipReport ok;
  ok.source = "walk.bvh";
  ok.output = "out/walk.bvh";
  ok.ok = true;
  ok.frames = 3;
  ok.described = true;
  ok.sourceCharacter.candidates = {PresetTrial{"cmu", 21, 30}};
  ok.pairs = {PairRecord{"pelvis", "Hips", "body part Hips"}};
  ok.unpairedSource = {"LowerBack"};
  ok.measured = true;
  ok.bones = {BoneAngles{"pelvis", "spine_01", "Hips", "Spine", 1.0, 2.0}};
  ok.targetFeet = {FootSliding{"foot_l", 0.5, 1.0}};
  ClipReport failed;
  failed.source = "broken.bvh";
  failed.error = "broken.bvh:9: expected a number, found 'x'";

  const std::filesystem::path path = std::filesystem::temp_directory_path() / "kelvara_report_test.json";
  std::string error;
  ASSERT_TRUE(WriteReport(path.string(), {ok, failed}, 1.5, error)) << error;
  std::ifstream in(path);
  const nlohmann::json json = nlohmann::json::parse(in);
  std::filesystem::remove(path);

  const std::regex camel("[a-z][a-zA-Z0-9]*");
  int keys = 0;
  std::function<void(const nlohmann::json&)> walk = [&](const nlohmann::json& j) {
    if (j.is_object())
      for (const auto& [key, value] : j.items())
      {
        ++keys;
        EXPECT_TRUE(std::regex_match(key, camel)) << key;
        walk(value);
      }
    else if (j.is_array())
      for (const nlohmann::json& e : j)
        walk(e);
  };
  walk(json);
  EXPECT_GT(keys, 40);
  ASSERT_EQ(json["clips"].size(), 2u);
  EXPECT_EQ(json["clips"][0]["status"], "ok");
  EXPECT_EQ(json["clips"][0]["bones"][0]["maxAngleDegrees"], 2.0);
  EXPECT_EQ(json["clips"][0]["footSliding"]["target"][0]["speed"], 0.5);
  EXPECT_EQ(json["clips"][1]["status"], "failed");
  EXPECT_EQ(json["clips"][1]["error"], failed.error);
  EXPECT_FALSE(json["clips"][1].contains("bones"));
  EXPECT_EQ(json["summary"]["failed"], 1);
  EXPECT_EQ(json["summary"]["frames"], 3);
}

class ReportMatchRestTest : public kelvara_test::AppFolderTest
{
protected:
  void SetUp() override
  {
    AppFolderTest::SetUp();
    std::string error;
    ASSERT_TRUE(WriteBvh((_dir / "walk.bvh").string(), MakeDemoSource(30), error)) << error;
    ASSERT_TRUE(WriteBvh((_dir / "target.bvh").string(), MakeDemoTarget(), error)) << error;
  }

  nlohmann::json Report(const std::string& args)
  {
    const kelvara_test::AppOutcome run = Kelvara(args + " --report report.json -q");
    EXPECT_EQ(run.status, 0) << run.err;
    std::ifstream in(_dir / "report.json");
    return nlohmann::json::parse(in, nullptr, false);
  }
};

// The demo target rests in an A-pose: its upper arms are 45 degrees off the source's without
// rest matching and on them with it, and every report shows both figures whichever was written.
TEST_F(ReportMatchRestTest, EveryBoneShowsBothRunsInSingleAndBatchReports)
{
  const nlohmann::json own = Report("retarget walk.bvh --target target.bvh -o own.bvh")["clips"][0];
  const nlohmann::json matched =
    Report("retarget walk.bvh --target target.bvh -o matched.bvh --match-rest")["clips"][0];
  std::filesystem::copy_file(_dir / "walk.bvh", _dir / "walk2.bvh");
  const nlohmann::json batch =
    Report("retarget walk.bvh walk2.bvh --target target.bvh -o out --match-rest --jobs 2")["clips"];
  ASSERT_EQ(batch.size(), 2u);
  EXPECT_EQ(own["matchRest"], false);
  EXPECT_EQ(matched["matchRest"], true);

  ASSERT_EQ(own["bones"].size(), matched["bones"].size());
  ASSERT_GT(own["bones"].size(), 15u);
  for (std::size_t i = 0; i < own["bones"].size(); ++i)
  {
    const nlohmann::json& a = own["bones"][i];
    const nlohmann::json& b = matched["bones"][i];
    SCOPED_TRACE(a["targetJoint"].get<std::string>() + " -> " + a["targetChild"].get<std::string>());
    // What each run wrote is what the other run measured in memory.
    EXPECT_NEAR(a["meanAngleDegrees"], a["withoutMatchRest"]["meanAngleDegrees"], 1e-9);
    EXPECT_NEAR(b["meanAngleDegrees"], b["withMatchRest"]["meanAngleDegrees"], 1e-9);
    for (const char* run : {"withoutMatchRest", "withMatchRest"})
    {
      EXPECT_NEAR(a[run]["meanAngleDegrees"], b[run]["meanAngleDegrees"], 1e-6) << run;
      EXPECT_NEAR(a[run]["maxAngleDegrees"], b[run]["maxAngleDegrees"], 1e-6) << run;
      for (const nlohmann::json& clip : batch)
        EXPECT_NEAR(clip["bones"][i][run]["meanAngleDegrees"], b[run]["meanAngleDegrees"], 1e-6) << run;
    }
    // A joint with one mapped child turns onto its source bone; one with several (pelvis, chest)
    // gets the best fit for all, which cannot undo different proportions.
    int siblings = 0;
    for (const nlohmann::json& other : own["bones"])
      siblings += other["targetJoint"] == a["targetJoint"] ? 1 : 0;
    if (siblings == 1)
    {
      EXPECT_LT(b["withMatchRest"]["maxAngleDegrees"], 1e-3);
    }
    if (a["targetJoint"] == "upperarm_l" || a["targetJoint"] == "lowerarm_r")
    {
      EXPECT_NEAR(a["withoutMatchRest"]["meanAngleDegrees"], 45.0, 1e-3);
    }
  }
  const nlohmann::json& means = own["meanBoneAngleDegrees"];
  EXPECT_GT(means["withoutMatchRest"].get<double>(), means["withMatchRest"].get<double>() + 5.0);
  // Each run measures the file it wrote (angles in text) and the other run in memory, so the two
  // reports agree to rounding, not to the bit.
  for (const char* run : {"withoutMatchRest", "withMatchRest"})
    EXPECT_NEAR(matched["meanBoneAngleDegrees"][run].get<double>(), means[run].get<double>(), 1e-9) << run;
}

// Before a run, inspect tells whether the rest poses differ enough to ask for matching.
TEST_F(ReportMatchRestTest, InspectAgainstAdvisesMatchingOnlyWhereTheRestsDiffer)
{
  const kelvara_test::AppOutcome differ = Kelvara("inspect walk.bvh --against target.bvh");
  ASSERT_EQ(differ.status, 0) << differ.err;
  EXPECT_NE(differ.out.find("removes: 45 degrees (upperarm_l -> lowerarm_l): --match-rest is advised"),
            std::string::npos)
    << differ.out;
  EXPECT_NE(Kelvara("inspect walk.bvh --against walk.bvh").out.find("--match-rest is not needed"), std::string::npos);
}

} // namespace
} // namespace kelvara
