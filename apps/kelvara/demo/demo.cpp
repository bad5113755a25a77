#include "demo/demo.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numbers>

#include "io/bvh/euler.h"

namespace kelvara
{

namespace
{

using telvo::Matrix;
using telvo::Vector;

constexpr double kRadiansPerDegree = std::numbers::pi / 180.0;

const std::vector<Channel> kSourceRootChannels = {Channel::Xposition, Channel::Yposition, Channel::Zposition,
                                                  Channel::Zrotation, Channel::Yrotation, Channel::Xrotation};
const std::vector<Channel> kSourceChannels = {Channel::Zrotation, Channel::Yrotation, Channel::Xrotation};
const std::vector<Channel> kTargetRootChannels = {Channel::Xposition, Channel::Yposition, Channel::Zposition,
                                                  Channel::Xrotation, Channel::Yrotation, Channel::Zrotation};
const std::vector<Channel> kTargetChannels = {Channel::Xrotation, Channel::Yrotation, Channel::Zrotation};

struct JointDef
{
  const char* name;
  int parent;
  Vector offset;
  bool hasEndSite;
  Vector endSite;
};

// Source joints in file order; the enum gives each its index.
enum SourceJoint
{
  kHips,
  kLeftUpLeg,
  kLeftLeg,
  kLeftFoot,
  kLeftToeBase,
  kRightUpLeg,
  kRightLeg,
  kRightFoot,
  kRightToeBase,
  kLowerBack,
  kSpine,
  kSpine1,
  kNeck,
  kHead,
  kLeftShoulder,
  kLeftArm,
  kLeftForeArm,
  kLeftHand,
  kRightShoulder,
  kRightArm,
  kRightForeArm,
  kRightHand,
  kSourceJointCount
};

// Thigh and shin lengths, and the ankle's height over the sole, in source units.
constexpr double kThigh = 7.3;
constexpr double kShin = 7.3;
constexpr double kAnkleHeight = 1.4;

const std::array<JointDef, kSourceJointCount> kSourceDefs = {{
    {"Hips", -1, {0.0, 0.0, 0.0}, false, {}},
    {"LeftUpLeg", kHips, {1.7, -1.9, 0.0}, false, {}},
    {"LeftLeg", kLeftUpLeg, {0.0, -kThigh, 0.0}, false, {}},
    {"LeftFoot", kLeftLeg, {0.0, -kShin, 0.0}, false, {}},
    {"LeftToeBase", kLeftFoot, {0.0, -kAnkleHeight, 2.4}, true, {0.0, 0.0, 1.2}},
    {"RightUpLeg", kHips, {-1.7, -1.9, 0.0}, false, {}},
    {"RightLeg", kRightUpLeg, {0.0, -kThigh, 0.0}, false, {}},
    {"RightFoot", kRightLeg, {0.0, -kShin, 0.0}, false, {}},
    {"RightToeBase", kRightFoot, {0.0, -kAnkleHeight, 2.4}, true, {0.0, 0.0, 1.2}},
    {"LowerBack", kHips, {0.0, 0.8, -0.1}, false, {}},
    {"Spine", kLowerBack, {0.0, 2.0, -0.2}, false, {}},
    {"Spine1", kSpine, {0.0, 2.0, 0.0}, false, {}},
    {"Neck", kSpine1, {0.0, 2.4, 0.1}, false, {}},
    {"Head", kNeck, {0.0, 1.6, 0.1}, true, {0.0, 2.0, 0.0}},
    {"LeftShoulder", kSpine1, {0.5, 1.8, 0.0}, false, {}},
    {"LeftArm", kLeftShoulder, {2.9, 0.0, 0.0}, false, {}},
    {"LeftForeArm", kLeftArm, {5.0, 0.0, 0.0}, false, {}},
    {"LeftHand", kLeftForeArm, {3.5, 0.0, 0.0}, true, {1.5, 0.0, 0.0}},
    {"RightShoulder", kSpine1, {-0.5, 1.8, 0.0}, false, {}},
    {"RightArm", kRightShoulder, {-2.9, 0.0, 0.0}, false, {}},
    {"RightForeArm", kRightArm, {-5.0, 0.0, 0.0}, false, {}},
    {"RightHand", kRightForeArm, {-3.5, 0.0, 0.0}, true, {-1.5, 0.0, 0.0}},
}};

// Centimetres. Arm bones point 45 degrees below horizontal (A-pose).
constexpr double kUpperArm = 30.0;
constexpr double kLowerArm = 26.0;
constexpr double kHandLength = 9.0;

// A bone of the given length along the A-pose direction of one arm (side +1 left, -1 right),
// rounded to four decimals like an exported rig.
Vector ArmBone(double length, double side)
{
  const double d = std::round(length * std::numbers::sqrt2 / 2.0 * 1e4) / 1e4;
  return {side * d, -d, 0.0};
}

// Target joints in file order: legs first, like the source, so that both files list the limbs
// alike.
enum TargetJoint
{
  kPelvis,
  kThighL,
  kCalfL,
  kFootL,
  kBallL,
  kThighR,
  kCalfR,
  kFootR,
  kBallR,
  kSpine01,
  kSpine02,
  kNeck01,
  kHeadTarget,
  kClavicleL,
  kUpperarmL,
  kLowerarmL,
  kHandL,
  kClavicleR,
  kUpperarmR,
  kLowerarmR,
  kHandR,
  kTargetJointCount
};

std::array<JointDef, kTargetJointCount> TargetDefs()
{
  return {{
      {"pelvis", -1, {0.0, 0.0, 0.0}, false, {}},
      {"thigh_l", kPelvis, {9.0, -4.0, 0.0}, false, {}},
      {"calf_l", kThighL, {0.0, -38.0, 0.0}, false, {}},
      {"foot_l", kCalfL, {0.0, -37.0, 0.0}, false, {}},
      {"ball_l", kFootL, {0.0, -7.0, 13.0}, true, {0.0, 0.0, 6.0}},
      {"thigh_r", kPelvis, {-9.0, -4.0, 0.0}, false, {}},
      {"calf_r", kThighR, {0.0, -38.0, 0.0}, false, {}},
      {"foot_r", kCalfR, {0.0, -37.0, 0.0}, false, {}},
      {"ball_r", kFootR, {0.0, -7.0, 13.0}, true, {0.0, 0.0, 6.0}},
      {"spine_01", kPelvis, {0.0, 9.0, -1.0}, false, {}},
      {"spine_02", kSpine01, {0.0, 20.0, 0.0}, false, {}},
      {"neck_01", kSpine02, {0.0, 24.0, -2.0}, false, {}},
      {"head", kNeck01, {0.0, 9.0, 2.0}, true, {0.0, 18.0, 0.0}},
      {"clavicle_l", kSpine02, {3.0, 18.0, 1.0}, false, {}},
      {"upperarm_l", kClavicleL, {14.0, 0.0, -1.0}, false, {}},
      {"lowerarm_l", kUpperarmL, ArmBone(kUpperArm, 1.0), false, {}},
      {"hand_l", kLowerarmL, ArmBone(kLowerArm, 1.0), true, ArmBone(kHandLength, 1.0)},
      {"clavicle_r", kSpine02, {-3.0, 18.0, 1.0}, false, {}},
      {"upperarm_r", kClavicleR, {-14.0, 0.0, -1.0}, false, {}},
      {"lowerarm_r", kUpperarmR, ArmBone(kUpperArm, -1.0), false, {}},
      {"hand_r", kLowerarmR, ArmBone(kLowerArm, -1.0), true, ArmBone(kHandLength, -1.0)},
  }};
}

BvhFile BuildSkeleton(const JointDef* defs, std::size_t count, const std::vector<Channel>& rootChannels,
                      const std::vector<Channel>& channels)
{
  BvhFile file;
  for (std::size_t i = 0; i < count; ++i)
  {
    BvhJoint joint;
    joint.name = defs[i].name;
    joint.parent = defs[i].parent;
    joint.offset = defs[i].offset;
    joint.channels = joint.parent < 0 ? rootChannels : channels;
    joint.hasEndSite = defs[i].hasEndSite;
    joint.endSiteOffset = defs[i].endSite;
    joint.firstChannel = file.channelCount;
    file.channelCount += static_cast<int>(joint.channels.size());
    file.joints.push_back(std::move(joint));
  }
  return file;
}

Matrix RotX(double degrees)
{
  return AxisRotation(0, degrees * kRadiansPerDegree);
}
Matrix RotY(double degrees)
{
  return AxisRotation(1, degrees * kRadiansPerDegree);
}
Matrix RotZ(double degrees)
{
  return AxisRotation(2, degrees * kRadiansPerDegree);
}

Matrix Translation(const Vector& v)
{
  Matrix m;
  m.off = v;
  return m;
}

// Motion-capture files carry four decimals; rounding keeps the demo files as compact as real ones.
double Round4(double v)
{
  return std::round(v * 1e4) / 1e4 + 0.0; // + 0.0 turns -0 into 0
}

// Walk amplitudes, in degrees. Signs follow right-handed rotations with Y up and +Z forward: a
// negative X rotation swings a hanging limb forward, a positive one bends a knee.
constexpr double kThighSwing = 25.0;
constexpr double kKneeStance = 5.0;
constexpr double kKneeSwing = 55.0;
constexpr double kFootRoll = 8.0;
constexpr double kPelvisYaw = 6.0;
constexpr double kPelvisRoll = 3.0;
constexpr double kChestYaw = 8.0;
constexpr double kArmDown = 72.0;
constexpr double kArmSwing = 18.0;
constexpr double kElbowBase = 12.0;
constexpr double kElbowSwing = 12.0;
constexpr double kClavicleSwing = 2.0;
constexpr double kHipSway = 0.4; // source units

// The local rotations of every source joint at walk phase phi (radians, 0 = left foot passing
// under the body in mid-swing). The hips' position is left to the caller.
void WalkPose(double phi, std::array<Matrix, kSourceJointCount>& local)
{
  const double s = std::sin(phi);
  const double c = std::cos(phi);

  // Pelvis: turns towards the forward leg and drops on the swinging side.
  const Matrix pelvis = RotY(-kPelvisYaw * s) * RotZ(-kPelvisRoll * c);
  local[kHips] = pelvis;
  const Matrix pelvisInverse = telvo::Inverse(pelvis);

  // Legs: each phase p runs the swing over (-pi/2, pi/2) and the stance over the rest. Thighs
  // swing in the walking plane whatever the pelvis does; the knee folds mostly in mid-swing;
  // the foot rolls from heel strike (toes up) to push-off (toes down).
  auto leg = [&](double p, int upLeg) {
    const double thigh = -kThighSwing * std::sin(p);
    const double fold = std::pow((1.0 + std::cos(p)) / 2.0, 3.0);
    const double knee = kKneeStance + kKneeSwing * fold;
    const double footPitch = -kFootRoll * std::sin(p);
    local[upLeg] = pelvisInverse * RotX(thigh);
    local[upLeg + 1] = RotX(knee);
    local[upLeg + 2] = RotX(footPitch - thigh - knee);
    local[upLeg + 3] = Matrix{};
  };
  leg(phi, kLeftUpLeg);
  leg(phi + std::numbers::pi, kRightUpLeg);

  // Spine: straightens up over the pelvis roll and twists the shoulders against the pelvis;
  // neck and head undo the shoulder turn so that the gaze stays forward.
  const double twist = (kChestYaw + kPelvisYaw) * s;
  local[kLowerBack] = RotZ(kPelvisRoll * c) * RotY(0.2 * twist);
  local[kSpine] = RotY(0.4 * twist);
  local[kSpine1] = RotY(0.4 * twist);
  local[kNeck] = RotY(-0.5 * kChestYaw * s);
  local[kHead] = RotY(-0.5 * kChestYaw * s) * RotX(2.0 * std::cos(2.0 * phi));

  // Arms: lowered from the T-pose, swinging against the leg of their side, elbows bending more
  // on the forward swing.
  local[kLeftShoulder] = RotY(kClavicleSwing * s);
  local[kRightShoulder] = RotY(kClavicleSwing * s);
  local[kLeftArm] = RotX(kArmSwing * s) * RotZ(-kArmDown);
  local[kRightArm] = RotX(-kArmSwing * s) * RotZ(kArmDown);
  local[kLeftForeArm] = RotY(-(kElbowBase + kElbowSwing * (1.0 - s) / 2.0));
  local[kRightForeArm] = RotY(kElbowBase + kElbowSwing * (1.0 + s) / 2.0);
  local[kLeftHand] = Matrix{};
  local[kRightHand] = Matrix{};
}

// The lowest point of either sole (heel under the ankle, toe base, toe tip) for the pose with the
// hips at hipsPosition.
double LowestSolePoint(const std::array<Matrix, kSourceJointCount>& local, const Vector& hipsPosition)
{
  std::array<Matrix, kSourceJointCount> world;
  for (int j = 0; j < kSourceJointCount; ++j)
  {
    const JointDef& def = kSourceDefs[static_cast<std::size_t>(j)];
    const Matrix placed = Translation(def.offset) * local[static_cast<std::size_t>(j)];
    world[static_cast<std::size_t>(j)] =
        def.parent < 0 ? Translation(hipsPosition) * placed : world[static_cast<std::size_t>(def.parent)] * placed;
  }
  double lowest = std::numeric_limits<double>::infinity();
  for (int foot : {kLeftFoot, kRightFoot})
  {
    const Matrix& ankle = world[static_cast<std::size_t>(foot)];
    const Matrix& toe = world[static_cast<std::size_t>(foot + 1)];
    const Vector heel = TransformPoint(ankle, {0.0, -kAnkleHeight, 0.0});
    const Vector tip = TransformPoint(toe, kSourceDefs[static_cast<std::size_t>(foot + 1)].endSite);
    lowest = std::min({lowest, heel.y, toe.off.y, tip.y});
  }
  return lowest;
}

} // namespace

BvhFile MakeDemoSource(int frameCount, double frameTime)
{
  BvhFile file = BuildSkeleton(kSourceDefs.data(), kSourceDefs.size(), kSourceRootChannels, kSourceChannels);
  file.path = "demo-source.bvh";
  file.frameCount = std::max(frameCount, 0);
  file.frameTime = frameTime;
  const std::size_t width = static_cast<std::size_t>(file.channelCount);
  file.motion.assign(static_cast<std::size_t>(file.frameCount) * width, 0.0);

  // A straight leg sweeps its foot 2 * L * sin(swing) backwards over each half cycle of stance;
  // travelling that far keeps the planted foot from sliding much.
  const double speed = 4.0 * (kThigh + kShin) * std::sin(kThighSwing * kRadiansPerDegree) / kDemoCycleSeconds;

  std::array<Matrix, kSourceJointCount> local;
  for (int f = 0; f < file.frameCount; ++f)
  {
    const double t = f * frameTime;
    const double phi = 2.0 * std::numbers::pi * t / kDemoCycleSeconds;
    WalkPose(phi, local);
    // Hips sway over the standing foot, and sit exactly as high as keeps the lower sole on the
    // ground: that gives the bob of a walk for free.
    Vector hips{-kHipSway * std::cos(phi), 0.0, speed * t};
    hips.y = -LowestSolePoint(local, hips);

    double* row = file.motion.data() + static_cast<std::size_t>(f) * width;
    const double* previous = f > 0 ? row - width : nullptr;
    row[0] = hips.x;
    row[1] = hips.y;
    row[2] = hips.z;
    for (std::size_t j = 0; j < file.joints.size(); ++j)
    {
      const BvhJoint& joint = file.joints[j];
      const int first = joint.firstChannel;
      ChannelsFromRotation(joint.channels, local[j], previous ? previous + first : nullptr, row + first);
    }
    for (std::size_t k = 0; k < width; ++k)
      row[k] = Round4(row[k]);
  }
  return file;
}

BvhFile MakeDemoTarget()
{
  const std::array<JointDef, kTargetJointCount> defs = TargetDefs();
  BvhFile file = BuildSkeleton(defs.data(), defs.size(), kTargetRootChannels, kTargetChannels);
  file.path = "demo-target.bvh";
  file.frameCount = 1;
  file.frameTime = 1.0 / 30.0;
  file.motion.assign(static_cast<std::size_t>(file.channelCount), 0.0);
  return file;
}

std::vector<std::pair<std::string, std::string>> DemoExpectedPairs()
{
  return {
      {"pelvis", "Hips"},
      {"thigh_l", "LeftUpLeg"},
      {"calf_l", "LeftLeg"},
      {"foot_l", "LeftFoot"},
      {"ball_l", "LeftToeBase"},
      {"thigh_r", "RightUpLeg"},
      {"calf_r", "RightLeg"},
      {"foot_r", "RightFoot"},
      {"ball_r", "RightToeBase"},
      {"spine_01", "Spine"},
      {"spine_02", "Spine1"},
      {"neck_01", "Neck"},
      {"head", "Head"},
      {"clavicle_l", "LeftShoulder"},
      {"upperarm_l", "LeftArm"},
      {"lowerarm_l", "LeftForeArm"},
      {"hand_l", "LeftHand"},
      {"clavicle_r", "RightShoulder"},
      {"upperarm_r", "RightArm"},
      {"lowerarm_r", "RightForeArm"},
      {"hand_r", "RightHand"},
  };
}

} // namespace kelvara
