// Report figures on constructed motion whose right answers are known: bone angles, foot sliding,
// side warnings, the preset reasons and the JSON's key style.
#include "output/report.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
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

// The root stands for a foot joint: its position channels move it over the ground and lift it.
TEST(ReportFootSliding, SpeedWhileLowIsMeasuredAndLiftedFramesAreLeftOut)
{
  const double speed = 0.5, dt = 0.1;
  // Ten frames on the ground sliding along X and Z at `speed` with a jitter in height that stays
  // inside the band, then five lifted frames moving fast, then five more sliding frames.
  std::vector<std::array<double, 5>> sliding, planted;
  for (int f = 0; f < 10; ++f)
    sliding.push_back({0.6 * speed * f * dt, (f % 2) * 0.01, 0.8 * speed * f * dt, 0, 0});
  for (int f = 0; f < 5; ++f)
    sliding.push_back({10.0 + f, 1.0, 0, 0, 0});
  for (int f = 0; f < 5; ++f)
    sliding.push_back({20.0 + speed * f * dt, 0.0, 0, 0, 0});
  for (int f = 0; f < 10; ++f)
    planted.push_back({3, f < 5 ? 0.0 : 2.0 + f, 4, 0, 0});
  const Chain slides = MakeChain(sliding, dt), stands = MakeChain(planted, dt);
  const auto measure = [](const Chain& c, int joint, const Vector& up) {
    return MeasureFootSliding(c.skeleton, c.clip, joint, up, 0.02);
  };
  const FootSliding slide = measure(slides, 0, {0, 1, 0});
  EXPECT_EQ(slide.joint, "Hips");
  EXPECT_NEAR(slide.lowSeconds, (9 + 4) * dt, 1e-12);
  // The height jitter is no travel: only what is square to up counts.
  EXPECT_NEAR(slide.speed, speed, 1e-9);
  const FootSliding still = measure(stands, 0, {0, 1, 0});
  EXPECT_EQ(still.speed, 0.0);
  EXPECT_NEAR(still.lowSeconds, 4 * dt, 1e-12);

  // The other joints ride on the root: the head, two units up, slides just the same; with up
  // along X the "height" is X and the sliding is measured in Y and Z.
  EXPECT_NEAR(measure(slides, 2, {0, 1, 0}).speed, speed, 1e-9);
  const FootSliding sideways = measure(stands, 0, {1, 0, 0});
  EXPECT_NEAR(sideways.lowSeconds, 9 * dt, 1e-12);
  EXPECT_GT(sideways.speed, 0.0);
}

using ReportCharacterTest = kelvara_test::HelperTest;

TEST_F(ReportCharacterTest, PresetReasonsAndSwappedSides)
{
  // The demo target, and the same rig mirrored: every joint named left lies on its right.
  const Skeleton target = DemoTargetFile().skeleton;
  Skeleton mirrored = target;
  for (Joint& j : mirrored.joints)
    j.translation.x = -j.translation.x;
  Character plain, swapped;
  std::string error;
  ASSERT_TRUE(BuildCharacter(target, "target", plain, error) && ChooseAndFillPreset(plain, _helper, "", error) &&
              BuildCharacter(mirrored, "target", swapped, error) && ChooseAndFillPreset(swapped, _helper, "", error))
    << error;
  ASSERT_EQ(plain.presetTrials.size(), GetPresets().size());
  const CharacterReport report = DescribeCharacter(plain, false);
  EXPECT_EQ(report.filledBodyParts, kBodyPartCount);
  EXPECT_NE(report.presetReason.find("filled 21 body parts"), std::string::npos) << report.presetReason;
  for (const PresetTrial& t : plain.presetTrials)
    EXPECT_TRUE(t.preset == plain.preset || report.presetReason.find(t.preset + " " + std::to_string(t.filled)) !=
                                              std::string::npos)
      << t.preset << ": " << report.presetReason;
  EXPECT_EQ(report.footJoints.size(), 4u);
  EXPECT_GT(report.legLength, 0.0);
  EXPECT_TRUE(SideWarnings(plain).empty());
  EXPECT_EQ(DescribeCharacter(plain, true).presetReason, "named on the command line");

  const std::vector<std::string> warnings = SideWarnings(swapped);
  ASSERT_EQ(warnings.size(), 2u) << ::testing::PrintToString(warnings);
  EXPECT_NE(warnings[0].find("target: left and right arm swapped"), std::string::npos) << warnings[0];
  EXPECT_NE(warnings[1].find("leg swapped"), std::string::npos) << warnings[1];
}

// Every key of the report, however deep, is lower camel case; failed clips keep their message.
TEST(ReportJson, KeysAreLowerCamelCaseAndFailuresKeepTheirMessage)
{
  ClipReport ok, failed;
  ok.source = "walk.bvh";
  ok.output = "out/walk.bvh";
  ok.ok = ok.described = ok.measured = true;
  ok.frames = 3;
  ok.sourceCharacter.candidates = {PresetTrial{"cmu", 21, 30}};
  ok.pairs = {PairRecord{"pelvis", "Hips", "body part Hips"}};
  ok.unpairedSource = {"LowerBack"};
  ok.bones = {BoneAngles{"pelvis", "spine_01", "Hips", "Spine", 1.0, 2.0}};
  ok.targetFeet = {FootSliding{"foot_l", 0.5, 1.0}};
  failed.source = "broken.bvh";
  failed.error = "broken.bvh:9: expected a number, found 'x'";

  const std::filesystem::path path = std::filesystem::temp_directory_path() / "kelvara_report_test.json";
  std::string error;
  ASSERT_TRUE(WriteReport(path.string(), {ok, failed}, 1.5, error)) << error;
  const nlohmann::json json = nlohmann::json::parse(kelvara_test::ReadWholeFile(path));
  std::filesystem::remove(path);
  // Flattened, every path is keys and indices.
  const nlohmann::json flat = json.flatten();
  EXPECT_GT(flat.size(), 40u);
  for (const auto& [keys, value] : flat.items())
    EXPECT_TRUE(std::regex_match(keys, std::regex("(/([0-9]+|[a-z][a-zA-Z0-9]*))+"))) << keys;
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
    const kelvara_test::AppOutcome run = Kelvara("retarget --target target.bvh " + args + " --report report.json -q");
    EXPECT_EQ(run.status, 0) << run.err;
    return nlohmann::json::parse(kelvara_test::ReadWholeFile(_dir / "report.json"), nullptr, false);
  }
};

// The demo target rests in an A-pose, so matching its rest changes the bone angles; every report
// shows both runs' figures whichever was written, and inspect advises matching beforehand.
TEST_F(ReportMatchRestTest, EveryBoneShowsBothRunsInSingleAndBatchReportsAndInspectAdvises)
{
  std::filesystem::copy_file(_dir / "walk.bvh", _dir / "walk2.bvh");
  const nlohmann::json own = Report("walk.bvh -o own.bvh")["clips"][0];
  const nlohmann::json matched = Report("walk.bvh -o matched.bvh --match-rest")["clips"][0];
  const nlohmann::json batch = Report("walk.bvh walk2.bvh -o out --match-rest --jobs 2")["clips"];
  ASSERT_EQ(batch.size(), 2u);
  EXPECT_TRUE(own["matchRest"] == false && matched["matchRest"] == true);

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
    const auto siblings = std::count_if(own["bones"].begin(), own["bones"].end(),
                                        [&](const nlohmann::json& o) { return o["targetJoint"] == a["targetJoint"]; });
    EXPECT_TRUE(siblings > 1 || b["withMatchRest"]["maxAngleDegrees"] < 1e-3) << b["withMatchRest"];
  }
  const nlohmann::json& means = own["meanBoneAngleDegrees"];
  EXPECT_GT(means["withoutMatchRest"].get<double>(), means["withMatchRest"].get<double>() + 5.0);
  // Each run measures the file it wrote (angles in text) and the other run in memory, so the two
  // reports agree to rounding, not to the bit.
  for (const char* run : {"withoutMatchRest", "withMatchRest"})
    EXPECT_NEAR(matched["meanBoneAngleDegrees"][run].get<double>(), means[run].get<double>(), 1e-9) << run;

  // Before a run, inspect tells whether the rest poses differ enough to ask for matching.
  const kelvara_test::AppOutcome differ = Kelvara("inspect walk.bvh --against target.bvh");
  ASSERT_EQ(differ.status, 0) << differ.err;
  EXPECT_NE(differ.out.find("removes: 45 degrees (upperarm_l -> lowerarm_l): --match-rest is advised"),
            std::string::npos)
    << differ.out;
  EXPECT_NE(Kelvara("inspect walk.bvh --against walk.bvh").out.find("--match-rest is not needed"), std::string::npos);
}

} // namespace
} // namespace kelvara
