// Ground contacts and planted feet, checked against motion whose contacts are known by
// construction and against forward kinematics written out here with the plain quaternion
// formulas, not the host's pose code.
#include "road/plant_feet.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>

#include "demo/demo_character.h"
#include "road/clip_run.h"
#include "support/loaded_module.h"
#include "support/quaternion.h"
#include "support/run_app.h"

namespace kelvara
{
namespace
{

using kelvara_test::Quat;
using telvo::Vector;

// A foot's track: stances of 30 frames at the floor (ankle height 0.1), swings of 20 frames that
// move 0.8 forward along an arc 0.3 high; frame time 1/60, leg length 1.
struct Walk
{
  std::vector<Vector> ankle;
  std::vector<FrameRange> stances;
};

Walk MakeFootWalk(int steps)
{
  Walk walk;
  double x = 0.0;
  for (int s = 0; s < steps; ++s)
  {
    const int first = static_cast<int>(walk.ankle.size());
    for (int f = 0; f < 30; ++f)
      walk.ankle.push_back({x, 0.1, 0.0});
    walk.stances.push_back({first, first + 29});
    for (int f = 1; f <= 20; ++f)
    {
      const double t = f / 21.0;
      walk.ankle.push_back({x + 0.8 * t, 0.1 + 0.3 * std::sin(M_PI * t), 0.0});
    }
    x += 0.8;
  }
  return walk;
}

TEST(GroundContacts, StancesOfAWalkAreFoundAndAFlickerDoesNotSplitThem)
{
  Walk walk = MakeFootWalk(4);
  // One frame of a stance jumps up a little: the frames around it move too fast for a moment,
  // and the contact must still be one.
  walk.ankle[45].y += 0.05;
  const std::vector<FrameRange> contacts = FindContacts(walk.ankle, {0, 1, 0}, 1.0, 1.0 / 60.0);
  ASSERT_EQ(contacts.size(), walk.stances.size()) << RangesText(contacts);
  for (std::size_t i = 0; i < contacts.size(); ++i)
  {
    // Speeds are central differences: the first and last stance frames see the swing beside them.
    EXPECT_LE(std::abs(contacts[i].first - walk.stances[i].first), 1) << RangesText(contacts);
    EXPECT_LE(std::abs(contacts[i].last - walk.stances[i].last), 1) << RangesText(contacts);
  }
  // The ground is where the foot goes lowest, not height zero; and up is the one given.
  std::vector<Vector> raised, zUp;
  for (const Vector& a : walk.ankle)
  {
    raised.push_back(a + Vector{0, 5, 0});
    zUp.push_back({a.x, -a.z, a.y});
  }
  EXPECT_EQ(FindContacts(raised, {0, 1, 0}, 1.0, 1.0 / 60.0), contacts);
  EXPECT_EQ(FindContacts(zUp, {0, 0, 1}, 1.0, 1.0 / 60.0), contacts);
}

TEST(GroundContacts, AJumpAndAStillFootInTheAirHaveNone)
{
  // Thrown up and falling back: the lowest frames are the fastest.
  std::vector<Vector> jump;
  for (int f = 0; f < 60; ++f)
  {
    const double t = f / 60.0;
    jump.push_back({0.5 * t, 0.1 + 4.9 * t * (1.0 - t), 0.0});
  }
  EXPECT_TRUE(FindContacts(jump, {0, 1, 0}, 1.0, 1.0 / 60.0).empty());
  // A foot gliding along the ground that stops for a single frame: a flicker, not a contact.
  std::vector<Vector> glide;
  double x = 0.0;
  for (int f = 0; f < 40; ++f)
  {
    x += f == 20 ? 0.0 : 0.05;
    glide.push_back({x, 0.1, 0.0});
  }
  EXPECT_TRUE(FindContacts(glide, {0, 1, 0}, 1.0, 1.0 / 60.0).empty());
}

// World rotations and positions of every joint (and the end sites) by the plain formulas.
struct Posed
{
  std::vector<Quat> rotation;
  std::vector<Vector> position;
  std::vector<Vector> endSite; // the joint's own position without one
};

Quat ToQuat(const Quaternion& q)
{
  return {q.w, q.x, q.y, q.z};
}

Posed Fk(const Skeleton& skeleton, const Clip& clip, int frame)
{
  Posed p;
  for (std::size_t j = 0; j < skeleton.joints.size(); ++j)
  {
    const Joint& joint = skeleton.joints[j];
    const Quat local = ToQuat(clip.rotations[static_cast<std::size_t>(frame) * skeleton.joints.size() + j]);
    if (joint.parent < 0)
    {
      p.rotation.push_back(local);
      p.position.push_back(clip.rootTranslation[static_cast<std::size_t>(frame)]);
    }
    else
    {
      const std::size_t parent = static_cast<std::size_t>(joint.parent);
      p.rotation.push_back(p.rotation[parent] * local);
      p.position.push_back(p.position[parent] + kelvara_test::Rotate(p.rotation[parent], joint.translation));
    }
    p.endSite.push_back(joint.hasEndSite ? p.position[j] + kelvara_test::Rotate(p.rotation[j], joint.endSite)
                                         : p.position[j]);
  }
  return p;
}

double QuatDiff(const Quat& a, const Quat& b)
{
  const double dot = std::abs(a.w * b.w + a.x * b.x + a.y * b.y + a.z * b.z);
  return 1.0 - std::min(1.0, dot);
}

int Joint(const Skeleton& skeleton, const char* name)
{
  const int j = skeleton.FindJoint(name);
  EXPECT_GE(j, 0) << name;
  return j;
}

class PlantFeetTest : public kelvara_test::AppFolderTest
{
protected:
  void SetUp() override
  {
    AppFolderTest::SetUp();
    kelvara_test::LoadedModuleForTests();
    _target = DemoTargetFile();
    _walk = DemoSourceFile(240);
  }

  // The walk (or source) onto target, written to name.
  ClipRun Run(const RoadOptions& options, const AnimationFile& source, const std::string& name)
  {
    Road road(options);
    Problem problem;
    ClipRun run;
    run.source = source;
    run.outputPath = (_dir / name).string();
    run.describe = true;
    EXPECT_TRUE(road.Setup(_target, problem)) << problem.message;
    EXPECT_TRUE(RunClip(road, run)) << run.problem.message;
    _rootScale = run.side != nullptr ? run.side->prepared.appliedRootScale : 0.0;
    run.side = nullptr; // the road is gone
    return run;
  }

  static RoadOptions Planted(bool plant)
  {
    RoadOptions options;
    options.plantFeet = plant;
    return options;
  }

  // The lowest point of the foot below ankle (the ankle, the ball and its end site).
  double Lowest(const Posed& p, int ankle, int ball) const
  {
    return std::min({p.position[static_cast<std::size_t>(ankle)].y, p.position[static_cast<std::size_t>(ball)].y,
                     p.endSite[static_cast<std::size_t>(ball)].y});
  }

  AnimationFile _target;
  AnimationFile _walk;
  double _rootScale = 0.0; // of the last run
};

TEST_F(PlantFeetTest, HeldFeetStandStillOnTheGroundAndTheRestOfTheMotionIsTheTransfers)
{
  const ClipRun planted = Run(Planted(true), _walk, "planted.bvh");
  const ClipRun free = Run(Planted(false), _walk, "free.bvh");
  const Skeleton& target = _target.skeleton;
  const FeetPlan& plan = planted.clip.feetPlan;
  ASSERT_TRUE(plan.usable);
  ASSERT_EQ(plan.feet.size(), 2u);
  EXPECT_EQ(plan.up.y, 1.0);
  const double ease = std::lround(kPlantEaseSeconds / _walk.clip.frameTime);
  const std::size_t n = target.joints.size();
  std::vector<bool> legJoint(n, false);
  for (const PlannedFoot& foot : plan.feet)
  {
    std::vector<bool> touched(static_cast<std::size_t>(planted.output.frameCount), false);
    SCOPED_TRACE(foot.left ? "left" : "right");
    ASSERT_TRUE(foot.leftAlone.empty()) << foot.leftAlone;
    // The walk plants each foot once per cycle of 66 frames.
    ASSERT_GE(foot.contacts.size(), 3u) << RangesText(foot.contacts);
    const int ankle = Joint(target, foot.left ? "foot_l" : "foot_r");
    const int ball = Joint(target, foot.left ? "ball_l" : "ball_r");
    const int knee = Joint(target, foot.left ? "calf_l" : "calf_r");
    const int hip = Joint(target, foot.left ? "thigh_l" : "thigh_r");
    const double leg = foot.targetLegLength;
    ASSERT_GT(leg, 70.0);
    for (const FrameRange& r : foot.contacts)
    {
      for (int f = std::max(0, r.first - static_cast<int>(ease)); f <= std::min(r.last + static_cast<int>(ease), planted.output.frameCount - 1); ++f)
        touched[static_cast<std::size_t>(f)] = true;
      const Vector down = Fk(target, planted.output, r.first).position[static_cast<std::size_t>(ankle)];
      for (int f = r.first; f <= r.last; ++f)
      {
        const Posed p = Fk(target, planted.output, f);
        const Vector a = p.position[static_cast<std::size_t>(ankle)];
        // Held where it touched down, square to up, and its lowest point on the ground.
        EXPECT_NEAR(a.x, down.x, 1e-6 * leg) << f;
        EXPECT_NEAR(a.z, down.z, 1e-6 * leg) << f;
        EXPECT_NEAR(Lowest(p, ankle, ball), plan.targetGround, 1e-6 * leg) << f;
        // The knee bends, never through straight, and to the side it bent to in the transfer.
        const Posed q = Fk(target, free.output, f);
        const Vector bent = p.position[static_cast<std::size_t>(knee)] - (p.position[static_cast<std::size_t>(hip)] + a) * 0.5;
        const Vector bentBefore = q.position[static_cast<std::size_t>(knee)] -
                                  (q.position[static_cast<std::size_t>(hip)] + q.position[static_cast<std::size_t>(ankle)]) * 0.5;
        EXPECT_GT(telvo::Dot(bent, bentBefore), 0.0) << f;
      }
    }
    // The ankle keeps the world rotation the transfer gave it, held or not.
    for (int f = 0; f < planted.output.frameCount; ++f)
      EXPECT_LT(QuatDiff(Fk(target, planted.output, f).rotation[static_cast<std::size_t>(ankle)],
                         Fk(target, free.output, f).rotation[static_cast<std::size_t>(ankle)]),
                1e-12)
        << f;
    // Away from its contacts and their easing, the leg's rotations are the transfer's, bit for bit.
    int away = 0;
    for (int j : {hip, knee, ankle})
    {
      legJoint[static_cast<std::size_t>(j)] = true;
      for (int f = 0; f < planted.output.frameCount; ++f)
        if (!touched[static_cast<std::size_t>(f)])
        {
          away += j == hip ? 1 : 0;
          EXPECT_EQ(planted.output.rotations[static_cast<std::size_t>(f) * n + static_cast<std::size_t>(j)],
                    free.output.rotations[static_cast<std::size_t>(f) * n + static_cast<std::size_t>(j)])
            << "frame " << f << " joint " << target.joints[static_cast<std::size_t>(j)].name;
        }
    }
    EXPECT_GT(away, 30);
  }
  // Nothing but the legs turns.
  for (std::size_t j = 0; j < n; ++j)
  {
    if (legJoint[j])
      continue;
    for (int f = 0; f < planted.output.frameCount; ++f)
      EXPECT_EQ(planted.output.rotations[static_cast<std::size_t>(f) * n + j],
                free.output.rotations[static_cast<std::size_t>(f) * n + j])
        << "frame " << f << " joint " << target.joints[j].name;
  }
}

TEST_F(PlantFeetTest, ALegTooShortForTheStepLowersTheHipsInsteadOfBreaking)
{
  // The root's motion scaled to 1.8 times what the legs take: every step is longer than the
  // legs can hold a foot behind for.
  Run(Planted(false), _walk, "scale.bvh");
  RoadOptions options = Planted(true);
  options.rootScale = 1.8 * _rootScale;
  const ClipRun planted = Run(options, _walk, "long.bvh");
  options.plantFeet = false;
  const ClipRun free = Run(options, _walk, "long_free.bvh");
  const Skeleton& target = _target.skeleton;
  const FeetPlan& plan = planted.clip.feetPlan;
  EXPECT_GT(planted.planted.hipsLowered, 5.0);
  const int pelvis = Joint(target, "pelvis");
  int lowered = 0;
  for (const PlannedFoot& foot : plan.feet)
  {
    ASSERT_TRUE(foot.leftAlone.empty()) << foot.leftAlone;
    for (const FrameRange& r : foot.contacts)
      for (int f = r.first; f <= r.last; ++f)
      {
        const Posed p = Fk(target, planted.output, f);
        const Posed q = Fk(target, free.output, f);
        // Held on the ground, by lower hips where the leg alone cannot reach.
        EXPECT_NEAR(Lowest(p, foot.target.foot, foot.target.toe), plan.targetGround, 0.01 * foot.targetLegLength) << f;
        const double pelvisPlanted = p.position[static_cast<std::size_t>(pelvis)].y;
        const double pelvisFree = q.position[static_cast<std::size_t>(pelvis)].y;
        EXPECT_LE(pelvisPlanted, pelvisFree + 1e-9) << f;
        lowered += pelvisPlanted < pelvisFree - 1e-6 ? 1 : 0;
      }
  }
  EXPECT_GT(lowered, 10);
  // The hips never drop in one frame by more than a few per cent of the leg.
  for (int f = 1; f < planted.output.frameCount; ++f)
  {
    const auto drop = [&](int g) {
      return free.output.rootTranslation[static_cast<std::size_t>(g)].y - planted.output.rootTranslation[static_cast<std::size_t>(g)].y;
    };
    EXPECT_LT(std::abs(drop(f) - drop(f - 1)), 0.05 * plan.feet[0].targetLegLength) << f;
  }
}

TEST_F(PlantFeetTest, AJumpHasNoContactsAndIsLeftAsTransferred)
{
  // The walk thrown up and falling back over its 2 seconds: no foot is ever low and still.
  AnimationFile jump = DemoSourceFile(120);
  for (int f = 0; f < jump.clip.frameCount; ++f)
  {
    const double t = f * jump.clip.frameTime;
    jump.clip.rootTranslation[static_cast<std::size_t>(f)].y += 40.0 * t * (2.0 - t);
  }
  const ClipRun planted = Run(Planted(true), jump, "jump.bvh");
  const ClipRun free = Run(Planted(false), jump, "jump_free.bvh");
  for (const PlannedFoot& foot : planted.clip.feetPlan.feet)
    EXPECT_TRUE(foot.contacts.empty()) << RangesText(foot.contacts);
  EXPECT_EQ(planted.output.rotations, free.output.rotations);
  EXPECT_EQ(planted.output.rootTranslation, free.output.rootTranslation);
  EXPECT_EQ(kelvara_test::ReadWholeFile(_dir / "jump.bvh"), kelvara_test::ReadWholeFile(_dir / "jump_free.bvh"));
}

TEST_F(PlantFeetTest, ALegTheMappingDoesNotCoverIsLeftAloneAndTheReportSaysSo)
{
  // The left foot driven by the left toes: the left leg is not the source's left leg any more.
  std::ofstream(_dir / "map.json") << R"({"foot_l": "LeftToeBase"})";
  RoadOptions options = Planted(true);
  options.mapPath = (_dir / "map.json").string();
  const ClipRun planted = Run(options, _walk, "mapped.bvh");
  options.plantFeet = false;
  const ClipRun free = Run(options, _walk, "mapped_free.bvh");
  const FeetPlan& plan = planted.clip.feetPlan;
  ASSERT_EQ(plan.feet.size(), 2u);
  EXPECT_NE(plan.feet[0].leftAlone.find("left thigh, shin and foot are not paired"), std::string::npos)
    << plan.feet[0].leftAlone;
  EXPECT_TRUE(plan.feet[1].leftAlone.empty());
  const std::size_t n = _target.skeleton.joints.size();
  for (const char* name : {"thigh_l", "calf_l", "foot_l"})
  {
    const std::size_t j = static_cast<std::size_t>(Joint(_target.skeleton, name));
    for (int f = 0; f < planted.output.frameCount; ++f)
      EXPECT_EQ(planted.output.rotations[static_cast<std::size_t>(f) * n + j],
                free.output.rotations[static_cast<std::size_t>(f) * n + j])
        << name << " frame " << f;
  }
  const nlohmann::ordered_json report = ReportJson({planted.clip}, 0.0)["clips"][0];
  EXPECT_EQ(report["feet"][0]["leftAlone"], plan.feet[0].leftAlone);
  EXPECT_EQ(report["feet"][1]["planted"], true);
}

} // namespace
} // namespace kelvara
