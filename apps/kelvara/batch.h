// Many clips retargeted onto one target by worker threads.
//
// The target character is built once; each distinct source skeleton gets its character, pairing,
// association and solver configuration once (the first worker that meets it prepares it while
// the others wait for it), and from then on they are only read. Every worker runs its clips with
// its own ClipRetarget, so no thread changes an object another one sees.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "bvh.h"
#include "report.h"

namespace kelvara
{

struct BatchSettings
{
  std::vector<std::string> sources;
  const BvhFile* target = nullptr; // read by the caller; must outlive the batch
  std::string outDir;
  int jobs = 1;
  std::string mapPath;
  std::string sourcePreset; // "" = the preset that fills the most body parts
  std::string targetPreset;
  double rootScale = 0.0; // <= 0: auto
  bool rootMotion = true;
  bool matchRest = false; // the target's rest re-expressed after each source skeleton's (match_rest.h)
  bool measure = false;   // fill each clip's report with the quality figures of the written files
  bool terminal = false;  // progress as one updating line instead of a line per clip
  std::FILE* progress = stderr;
};

struct BatchResult
{
  std::vector<ClipReport> clips; // in the order of settings.sources
  std::vector<int> status;       // per clip: 0 written, 2 bad input, 1 any other failure
  long frames = 0;               // frames written
  double seconds = 0.0;
  std::string error; // a failure before any clip ran (the target character)

  int Failed() const;
  // 0 when every clip was written, 2 when any failed on bad input, else 1 when any failed.
  int Status() const;
};

// OUTDIR/<source stem>.bvh.
std::string BatchOutputPath(const std::string& outDir, const std::string& source);

// Two sources whose outputs would be the same file: "" when there are none, else a message.
std::string OutputCollision(const std::string& outDir, const std::vector<std::string>& sources);

// Skeletons alike in every joint (name, parent, offset, channels, end site): such clips share one
// prepared retarget.
bool SameSkeleton(const BvhFile& a, const BvhFile& b);

// Runs the batch; the module must be loaded, and every module object the batch made is released
// when it returns. Progress, clip failures and side warnings go to settings.progress.
BatchResult RunBatch(const BatchSettings& settings);

// "summary: 8 clips, 7 written, 1 failed; 19264 frames in 3.21 s (6001 frames/s, 2.18 clips/s)"
// and one line per failed clip.
void PrintBatchSummary(std::FILE* out, const BatchResult& result);

} // namespace kelvara
