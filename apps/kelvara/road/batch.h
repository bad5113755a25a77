// Many clips retargeted onto one target by worker threads, through one Road: the target's
// character is built once, each distinct source skeleton prepared once (the first worker that
// meets it prepares it while the others wait), and from then on only read. Every worker runs
// its clips with its own ClipRetarget, so no thread changes an object another one sees, and each
// worker but the first on its own copy of the prepared side (Road::SideFor), so that no two
// threads count references on the same module objects. A reader thread reads the next source
// while the workers retarget.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "output/report.h"
#include "road/setup.h"

namespace kelvara
{

struct BatchSettings
{
  std::vector<std::string> sources;
  std::string outDir;
  std::string extension = ".bvh"; // of the outputs: ".bvh", ".glb" or ".gltf"
  int jobs = 1;
  int threads = 1; // per clip, its frames split over this many threads
  bool measure = false;   // fill each clip's report with the quality figures of the written files
  bool replaceAnimations = false; // glTF outputs: without the target's own animations
  bool terminal = false;  // progress as one updating line instead of a line per clip
  std::FILE* progress = stderr;
};

struct BatchResult
{
  std::vector<ClipReport> clips; // in the order of settings.sources
  std::vector<int> status;       // per clip: 0 written, 2 bad input, 1 any other failure
  long frames = 0;               // frames written
  double seconds = 0.0;

  int Failed() const;
  // 0 when every clip was written, 2 when any failed on bad input, else 1 when any failed.
  int Status() const;
};

// The outputs' extension for --output-format (bvh, glb, gltf), or with format empty the target's
// own when it can be written (a saved character's is .bvh, anything else's .glb). False with a
// message for any other format.
bool BatchExtension(const std::string& format, const std::string& targetPath, std::string& extension,
                    std::string& error);

// OUTDIR/<source stem><extension>.
std::string BatchOutputPath(const std::string& outDir, const std::string& source, const std::string& extension);

// Two sources whose outputs would be the same file: "" when there are none, else a message.
std::string OutputCollision(const BatchSettings& settings);

// Runs the batch on road (set up). Progress, clip failures and side warnings go to
// settings.progress. Several jobs take the largest sources first, so that the batch ends on its
// shortest clips; one job at a time on one thread reads and retargets each source in turn, with
// no reader.
BatchResult RunBatch(Road& road, const BatchSettings& settings);

// "summary: 8 clips, 7 written, 1 failed; 19264 frames in 3.21 s (6001 frames/s, 2.18 clips/s)"
// and one line per failed clip.
void PrintBatchSummary(std::FILE* out, const BatchResult& result);

} // namespace kelvara
