// Ground contacts: the frames where a foot of the source stands on the ground, found from the
// motion alone, and the figures an animator judges feet by (sliding, floating, sinking, knees
// that pop), measured the same way on the source and on any retargeted clip.
#pragma once

#include <string>
#include <vector>

#include "anim/clip.h"
#include "anim/skeleton.h"
#include "character/character.h"
#include "telvo/matrix.h"

namespace kelvara
{

// A joint counts as near the ground while it is within this share of the leg length above the
// height it keeps when lowest (its floor over the clip).
constexpr double kContactHeightShare = 0.1;
// ... and as still while it moves slower than this share of the leg length per second.
constexpr double kContactSpeedShare = 0.6;
// Contacts shorter than this are dropped, and gaps shorter than it between two contacts filled,
// so that a contact is never a flicker of single frames.
constexpr double kContactMinSeconds = 0.05;
// Share of the frames, lowest first, left below a floor: one frame of a file sinking through the
// ground does not move it.
constexpr double kFloorQuantile = 0.01;

// Frames first to last, both included.
struct FrameRange
{
  int first = 0;
  int last = 0;

  friend bool operator==(const FrameRange&, const FrameRange&) = default;
};

// One leg of a character by its body parts; -1 where a part is empty.
struct Leg
{
  int thigh = -1;
  int shin = -1;
  int foot = -1; // the ankle
  int toe = -1;

  bool Complete() const { return thigh >= 0 && shin >= 0 && foot >= 0; }
};

Leg LegOf(const Character& character, bool left);

// The world's up for a character's motion: the axis nearest to its rest pose's up (feet to hips).
// A rest pose leans a few degrees; the ground does not, and heights measured along a leaning up
// drift as the character travels.
telvo::Vector GroundUp(const Character& character);

// Thigh to knee plus knee to ankle in the rest pose (global rest matrices); 0 for an incomplete leg.
double LegLength(const Leg& leg, const std::vector<telvo::Matrix>& rest);

// The frames where a joint at positions (one per frame) is near the ground and still: heights
// along up within kContactHeightShare of legLength above the joint's floor, speed (central
// differences) below kContactSpeedShare of legLength per second, then smoothed over
// kContactMinSeconds.
std::vector<FrameRange> FindContacts(const std::vector<telvo::Vector>& positions, const telvo::Vector& up,
                                     double legLength, double frameTime);

// The height along up below which only kFloorQuantile of the values lie.
double Floor(std::vector<double> heights);

// The joints whose positions make up a foot: the ankle and everything below it.
std::vector<int> FootJoints(const Skeleton& skeleton, int ankle);

// One foot of a clip, frame by frame: the hip's, ankle's and toe's world positions (no toe: empty),
// the lowest point of the foot along up (its joints and end sites), and the knee's angle in
// degrees (0 for a straight leg).
struct FootTrack
{
  std::vector<telvo::Vector> hip; // the thigh joint
  std::vector<telvo::Vector> ankle;
  std::vector<telvo::Vector> toe;
  std::vector<double> lowest;
  std::vector<double> kneeDegrees;
};
// Tracks of every leg (complete ones; others get empty tracks), in one pass over the frames, split
// over up to threads threads (0: every core); the tracks are the same whatever their number.
std::vector<FootTrack> TrackFeet(const Skeleton& skeleton, const Clip& clip, const std::vector<Leg>& legs,
                                 const telvo::Vector& up, int threads = 1);
FootTrack TrackFoot(const Skeleton& skeleton, const Clip& clip, const Leg& leg, const telvo::Vector& up);

// The contacts of one foot, the ankle's and the toe's, with the thresholds taken from its leg's
// length.
struct FootContacts
{
  std::vector<FrameRange> ankle;
  std::vector<FrameRange> toe;
};
FootContacts FindFootContacts(const FootTrack& track, const telvo::Vector& up, double legLength, double frameTime);
// The leg's rest length, or the character's hip height when the leg has none.
double UsableLegLength(const Character& character, const Leg& leg);
// Both feet of a character over clip (of its skeleton), left then right; none where the
// character's up is not known or a leg is incomplete.
std::vector<FootContacts> FindFeetContacts(const Character& character, const Clip& clip);

// What an animator sees of one foot during its contacts, in leg lengths: how fast the ankle
// slides square to up, and where the lowest point of the foot lies against the ground (below it
// negative); and over the whole clip the largest change of the knee's angle from one frame to the
// next.
struct FootFigures
{
  double slide = 0.0;         // leg lengths per second, over consecutive contact frames
  double lowestLow = 0.0;     // the lowest point's height above the ground at its lowest ...
  double lowestHigh = 0.0;    // ... and at its highest, over the contact frames
  double kneeStepDegrees = 0.0;
  int contactFrames = 0;
};
FootFigures MeasureFoot(const FootTrack& track, const std::vector<FrameRange>& contacts, const telvo::Vector& up,
                        double ground, double legLength, double frameTime);

// "12-40, 95-130" (frames), or "none".
std::string RangesText(const std::vector<FrameRange>& ranges);

} // namespace kelvara
