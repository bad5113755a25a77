// Feet that stay planted: during each ground contact of the source, the target's foot is held
// where it touched down, its lowest point on the target's ground, reached by turning thigh and
// shin (an analytic two-bone solve that keeps the knee in the plane it bends in) while the ankle
// keeps the world rotation the retarget gave it. The hold eases in and out over a few frames at
// the contact's edges; the hips are lowered only where a leg cannot reach. Frames outside the
// contacts keep their transferred rotations. A post-pass on the retarget's output: the module's
// rotation transfer does not change.
#pragma once

#include <string>
#include <vector>

#include "anim/clip.h"
#include "road/contacts.h"
#include "road/retarget.h"

namespace kelvara
{

// The hold comes in over this time before touch-down and goes over the same time after lift-off
// (within half the gap to a neighbouring contact), so the contact itself is held whole.
constexpr double kPlantEaseSeconds = 0.1;

// One foot of a retarget: its legs on both sides and the source's contacts.
struct PlannedFoot
{
  bool left = true;
  Leg source;
  Leg target;
  double sourceLegLength = 0.0;
  double targetLegLength = 0.0;
  std::vector<FrameRange> contacts;    // of the source's ankle
  std::vector<FrameRange> toeContacts; // of the source's toe; empty without one
  // Empty when the foot is planted; otherwise why it is left alone.
  std::string leftAlone;
};

// What planting needs of a clip, found once: the world's up, both grounds and both feet.
struct FeetPlan
{
  bool usable = false; // the source's up is known
  telvo::Vector up;
  double sourceGround = 0.0; // heights along up
  double targetGround = 0.0;
  std::vector<PlannedFoot> feet; // left, right
};

// The contacts of source (a clip of the prepared source's skeleton) and the grounds: the source's
// is where its feet go lowest; the target's is where the transfer (output, not planted yet) puts
// its feet's lowest points during the contacts, half of them above and half below. Proportions
// differ, so the source's ground scaled would leave one rig's feet floating and push another's
// through the floor. The frames are posed on up to threads threads (0: every core); the plan is
// the same whatever their number.
FeetPlan PlanFeet(const PreparedRetarget& prepared, const Clip& source, const Clip& output, int threads = 1);

// What planting did to a clip.
struct PlantResult
{
  int plantedFrames = 0;    // frames where a foot was held, fully or partly
  double hipsLowered = 0.0; // the most the hips went down, in world units
};

// Plants the feet of plan in output, a clip of the prepared target's skeleton, the frames on up to
// threads threads (0: every core); the output is the same whatever their number.
PlantResult PlantFeet(const PreparedRetarget& prepared, const FeetPlan& plan, Clip& output, int threads = 1);

} // namespace kelvara
