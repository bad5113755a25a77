// One clip along the whole road: read, pair (once per skeleton, through the Road), retarget,
// write, and measure for the report. Single runs, batches and the demo all go through here.
#pragma once

#include <string>

#include "anim/clip.h"
#include "io/animation_file.h"
#include "output/report.h"
#include "road/plant_feet.h"
#include "road/setup.h"

namespace kelvara
{

struct ClipRun
{
  // Inputs. With sourcePath empty, source is taken as already read; with outputPath empty, the
  // output stays in memory (nothing is written; measuring measures it there).
  std::string sourcePath;
  std::string outputPath;
  bool describe = false;  // describe the pairing into `clip` (presets, pairs, side warnings)
  bool measure = false;   // and measure the output as written, with and without rest matching
  bool otherRest = false; // also run with the other choice of target rest (into otherRestOutput)
  bool replaceAnimations = false; // glTF outputs: without the target's own animations
  int threads = 1; // the frames split over this many threads (0: every core); the output is the same
  int worker = 0;  // a batch's worker: any but 0 runs on its own copy of the side (Road::SideFor)

  // Outputs.
  AnimationFile source;
  const SourceSide* side = nullptr; // set once the source's skeleton is prepared
  Clip output;
  Clip otherRestOutput;
  PlantResult planted; // what planting the feet did (the road's options say whether it ran)
  std::string writtenAnimation; // the name the output's animation got
  ClipReport clip;              // source, output, frames; the rest when report is set
  Problem problem;
  double readSeconds = 0.0;
  double solveSeconds = 0.0;
  double writeSeconds = 0.0;
};

// Runs run through road (set up). False with run.problem on failure; nothing is written then.
bool RunClip(Road& road, ClipRun& run);

// Per target joint, whether the retarget moves it: a source joint drives it, or it bends with a
// chain between driven joints.
std::vector<bool> DrivenJoints(const PreparedRetarget& prepared);

} // namespace kelvara
