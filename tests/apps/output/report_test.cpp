// Report figures on constructed motion whose right answers are known: bone angles, side warnings, the preset reasons and the JSON's key style.
#include "output/report.h"

#include <gtest/gtest.h>

#include <algorithm>
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
  PlannedFoot left;
  left.source = {1, 2, 3, 4};
  left.contacts = {FrameRange{0, 1}};
  ok.feetPlan.usable = true;
  ok.feetPlan.feet = {left};
  ok.plantFeet = true;
  ok.feet = {FootReport{"LeftFoot", "foot_l", {}, {}, {}, true, true}};
  ok.feet[0].written.slide = 0.5;
  ok.feet[0].other.slide = 2.0;
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
  // Planted output: the written figures are the planted ones, the other run's the unplanted.
  EXPECT_EQ(json["clips"][0]["feet"][0]["withPlanting"]["slide"], 0.5);
  EXPECT_EQ(json["clips"][0]["feet"][0]["withoutPlanting"]["slide"], 2.0);
  EXPECT_EQ(json["clips"][0]["contacts"][0]["joint"], "LeftFoot");
  EXPECT_EQ(json["clips"][0]["contacts"][0]["frames"], nlohmann::json::parse("[[0, 1]]"));
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

// The demo target rests in an A-pose, so matching its rest (the default) changes the bone angles;
// every report shows both runs' figures whichever was written, and inspect tells beforehand
// whether matching matters.
TEST_F(ReportMatchRestTest, EveryBoneShowsBothRunsInSingleAndBatchReportsAndInspectAdvises)
{
  std::filesystem::copy_file(_dir / "walk.bvh", _dir / "walk2.bvh");
  // Planting bends the legs during contacts; the bones here show the rest alone.
  const nlohmann::json own = Report("walk.bvh -o own.bvh --keep-rest --no-plant-feet")["clips"][0];
  const nlohmann::json matched = Report("walk.bvh -o matched.bvh --no-plant-feet")["clips"][0];
  const nlohmann::json batch = Report("walk.bvh walk2.bvh -o out --no-plant-feet --jobs 2")["clips"];
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
  EXPECT_NE(differ.out.find("removes: 45 degrees (upperarm_l -> lowerarm_l): rest matching is needed"),
            std::string::npos)
    << differ.out;
  EXPECT_NE(Kelvara("inspect walk.bvh --against walk.bvh").out.find("rest matching is hardly needed"),
            std::string::npos);
}

} // namespace
} // namespace kelvara
