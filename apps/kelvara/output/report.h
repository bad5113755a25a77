// What a retarget did and how well it went, per clip: the preset of each character and why, the
// joint pairs, the joints left without a partner, the root scale, and quality figures measured on
// the written files (not taken from the solver), so that a wrong bone shows even when the road
// itself believes it did right.
//
// The JSON report (ReportJson), keys in lower camel case:
//   {"clips": [clip, ...], "summary": {"clips", "failed", "frames", "seconds"}}
// clip:
//   "source", "output"        paths
//   "status"                  "ok" or "failed"; a failed clip has "error" (the message) and
//                             whatever was known before it failed
//   "frames", "frameTime"     of the source clip (seconds per frame)
//   "sourceCharacter", "targetCharacter": {
//     "preset"                the preset that filled the body parts
//     "presetReason"          why: the most body parts filled, a geometry tie break, or named
//     "filledBodyParts"       body parts of the template filled (of 21)
//     "candidates"            [{"preset", "filledBodyParts", "geometryScore"}] every preset tried
//     "notes"                 texts of the character builder (sides swapped, joints claimed twice)
//     "legLength"             hip height above the feet in the rest pose, in world units
//   }
//   "pairs"                   [{"target", "source", "origin"}] every joint pair made; origin is
//                             "body part <name>", "map" or "same name"
//   "unpairedTargetJoints"    target joints without a source partner (they keep their rest)
//   "unpairedSourceJoints"    source joints that drive nothing
//   "rootScale", "rootScaleAuto", "rootMotion"
//   "bones"                   [{"targetJoint", "targetChild", "sourceJoint", "sourceChild",
//                               "meanAngleDegrees", "maxAngleDegrees"}] per mapped bone (a joint
//                             and its child, both paired): the angle between the source's and the
//                             target's world bone directions over every frame, in the written
//                             output; with "withoutMatchRest" and "withMatchRest" ({"meanAngleDegrees",
//                             "maxAngleDegrees"}) when the run was also made the other way
//   "matchRest"               whether the written output's target rest was matched to the source's
//   "meanBoneAngleDegrees"    {"withoutMatchRest", "withMatchRest"}: the bones' mean angles averaged,
//                             when both runs were made
//   "plantFeet"               whether the written output's feet were planted; "hipsLowered" how far
//                             planting lowered the hips at most (world units)
//   "contacts"                [{"foot": "left"|"right", "joint", "frames": [[first, last], ...]}]
//                             the source ankle's ground contacts, frames 0-based and inclusive
//   "feet"                    per foot: {"foot", "sourceJoint", "targetJoint", "contacts", "toeContacts",
//                             "planted" (or "leftAlone": why not), "legLength": {"source", "target"},
//                             "source", "withPlanting", "withoutPlanting": figures}; figures =
//                             {"slide": ankle speed square to up during contacts in leg lengths
//                             per second, "lowestMin", "lowestMax": the foot's lowest point above
//                             its ground during contacts in leg lengths (below it negative),
//                             "kneeStepDegrees": the largest change of the knee's angle between
//                             two frames}; "sourceGround", "targetGround" at clip level
//   "warnings"                left/right pairs that look swapped by geometry
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "anim/clip.h"
#include "anim/skeleton.h"
#include "character/character.h"
#include "io/animation_file.h"
#include "road/contacts.h"
#include "road/plant_feet.h"
#include "road/retarget.h"

namespace kelvara
{

struct CharacterReport
{
  std::string preset;
  std::string presetReason;
  int filledBodyParts = 0;
  std::vector<PresetTrial> candidates;
  std::vector<std::string> notes;
  double legLength = 0.0;
};

struct PairRecord
{
  std::string target;
  std::string source;
  std::string origin;
};

struct BoneAngles
{
  std::string targetJoint;
  std::string targetChild;
  std::string sourceJoint;
  std::string sourceChild;
  double meanDegrees = 0.0;
  double maxDegrees = 0.0;
};

// One foot measured on the source and on the target with and without planting.
struct FootReport
{
  std::string sourceJoint; // the ankles
  std::string targetJoint;
  FootFigures source;
  FootFigures written; // the output as written
  FootFigures other;   // the run with the other choice of planting
  bool measured = false;
  bool otherMeasured = false;
};

struct ClipReport
{
  std::string source;
  std::string output;
  bool ok = false;
  std::string error;
  int frames = 0;
  double frameTime = 0.0;
  bool described = false; // the characters and pairs below are known
  CharacterReport sourceCharacter;
  CharacterReport targetCharacter;
  std::vector<int> sourceOfTarget; // per target joint, as the retarget paired them
  std::vector<PairRecord> pairs;
  std::vector<std::string> unpairedTarget;
  std::vector<std::string> unpairedSource;
  double rootScale = 1.0;
  bool rootScaleAuto = false;
  bool rootMotion = true;
  bool measured = false; // bones and foot sliding below are known
  std::vector<BoneAngles> bones;
  bool matchRest = false; // the written output ran on the target's rest matched to the source's
  // The same bones measured on a run with the other choice of target rest (RunWithOtherRest);
  // empty when that run was not made.
  std::vector<BoneAngles> otherRestBones;
  bool plantFeet = false; // the written output's feet were planted during the contacts
  double hipsLowered = 0.0; // the most planting lowered the hips, in world units
  FeetPlan feetPlan;        // contacts, grounds and legs (known when described)
  std::vector<FootReport> feet; // per foot of feetPlan
  std::vector<std::string> warnings;
};

// The preset, its reason and the leg length of a character whose body parts are filled.
CharacterReport DescribeCharacter(const Character& character, bool presetNamed);

// Left/right pairs that look swapped: a limb whose joints named left lay on the character's right
// (and were traded by the builder), and any filled left part that still lies right of its mirror
// in the rest pose. Each text starts with the character's role.
std::vector<std::string> SideWarnings(const Character& character);

// Everything a prepared retarget knows: both characters, the pairs, the unpaired joints, the root
// scale and the side warnings. presetNamed: whether the presets were named on the command line.
void DescribePairing(const PreparedRetarget& prepared, bool sourcePresetNamed, bool targetPresetNamed,
                     ClipReport& report);

// Per mapped bone of output (a target joint and a child of it, both paired through
// sourceOfTarget), the angle between its world direction and the paired source bone's, over the
// frames both files have. Bones of zero length on either side are left out.
std::vector<BoneAngles> MeasureBoneAngles(const Skeleton& sourceSkeleton, const Clip& source,
                                          const Skeleton& outputSkeleton, const Clip& output,
                                          const std::vector<int>& sourceOfTarget);

// The feet of a retarget into report: plan's contacts, grounds and legs, whether the output was
// planted and what planting did.
void DescribeFeet(const PreparedRetarget& prepared, FeetPlan plan, bool planted, const PlantResult& result,
                  ClipReport& report);

// The feet of report.feetPlan on the source, and on target as written (other false) or as run
// with the other choice of planting (other true).
void MeasureFeet(const Skeleton& sourceSkeleton, const Clip& source, const Skeleton& targetSkeleton, const Clip& target,
                 bool other, ClipReport& report);

// Runs clip the other way round (RunWithOtherRest) and keeps its bone angles in
// report.otherRestBones, so that the report shows the bones with and without rest matching.
bool MeasureOtherRest(const PreparedRetarget& prepared, const Clip& clip, ClipReport& report, std::string& error);

// Bones and foot sliding of the clip, from the source and the output.
void MeasureQuality(const AnimationFile& source, const AnimationFile& output, ClipReport& report);
// The same with the output read back from report.output as written (with request: the target's
// skeleton root, the written animation's name), so that a fault of the writer shows too.
bool MeasureWrittenQuality(const AnimationFile& source, const ReadRequest& request, ClipReport& report,
                           std::string& error);

nlohmann::ordered_json ReportJson(const std::vector<ClipReport>& clips, double seconds);
// Writes the JSON report atomically (a temporary beside it renamed over path).
bool WriteReport(const std::string& path, const std::vector<ClipReport>& clips, double seconds, std::string& error);

// A short table: per clip the presets, pairs, the worst bone, the foot sliding and the warnings,
// and the bones' mean angle with and without rest matching when both runs were made.
void PrintReportTable(std::FILE* out, const std::vector<ClipReport>& clips);

} // namespace kelvara
