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
//   "footSliding"             {"source": [slide], "target": [slide]}; slide = {"joint",
//                             "speed", "lowSeconds"}: horizontal travel (square to the character's
//                             up) of a foot or toe joint while it is within its lowest height band,
//                             divided by the time spent there, in the character's units per second
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
#include "road/retarget.h"

namespace kelvara
{

// A foot joint counts as low while it is within this share of the leg length above its lowest
// height over the clip.
constexpr double kFootBandShare = 0.02;

struct CharacterReport
{
  std::string preset;
  std::string presetReason;
  int filledBodyParts = 0;
  std::vector<PresetTrial> candidates;
  std::vector<std::string> notes;
  double legLength = 0.0;
  // For measuring: the character's up in the rest pose and its foot and toe joints.
  bool upKnown = false;
  telvo::Vector up;
  std::vector<int> footJoints;
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

struct FootSliding
{
  std::string joint;
  double speed = 0.0;      // units per second; 0 when the joint never stays low
  double lowSeconds = 0.0; // time spent within the low band (between two low frames)
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
  std::vector<FootSliding> sourceFeet;
  std::vector<FootSliding> targetFeet;
  std::vector<std::string> warnings;
};

// The preset, its reason, the foot joints, up and leg length of a character whose body parts are
// filled.
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

// Sliding of one joint of file: its lowest height along up over the clip, the band of band units
// above it, and the horizontal travel between consecutive frames that are both in the band
// divided by the time between them.
FootSliding MeasureFootSliding(const Skeleton& skeleton, const Clip& clip, int joint, const telvo::Vector& up,
                               double band);

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
