// The kelvara command line: one function per command.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "bvh.h"
#include "telvo/loader.h"

namespace kelvara
{

// Runs the command line and returns the process exit status: 0 success, 1 failure of the work,
// 2 bad input (usage, unreadable or malformed files).
int RunCommandLine(int argc, char** argv);

// The module file built beside the executable (or named by $KELVARA_MODULE).
std::string DefaultModulePath();

// Loads that module for a command; nullptr after saying why on stderr.
std::unique_ptr<telvo::LoadedModule> LoadModuleOrSayWhy();

int RunModulesCommand(const std::vector<std::string>& args);

struct RetargetOptions
{
  std::vector<std::string> sourcePaths; // several: a batch, and outPath names a folder
  std::string sourcePath;               // the single source (RetargetLoaded)
  std::string targetPath;
  std::string outPath;
  std::string mapPath;
  std::string preset;       // both characters, unless one of the two below names another
  std::string sourcePreset;
  std::string sourceCharacterPath; // a saved character standing for the source's skeleton
  std::string targetPreset;
  std::string rootScale = "auto";
  bool noRootMotion = false;
  bool timings = false;
  bool quiet = false; // no mapping table
  int jobs = 0;       // worker threads of a batch; 0: one per core
  std::string reportPath; // JSON report (report.h); also a table on stdout unless quiet
  bool matchRest = false; // re-express the target's rest pose after the source's first (match_rest.h)
};

int RunRetargetCommand(const RetargetOptions& options);

// The road on files already in memory (the retarget and demo commands): loads the module,
// builds both characters, retargets, writes options.outPath and reports on stdout. readSeconds
// and inputBytes are what reading took, for --timings. otherRest, when given, receives the same
// retarget made with the other choice of target rest (RunWithOtherRest).
int RetargetLoaded(const BvhFile& source, const BvhFile& target, const RetargetOptions& options, double readSeconds,
                   double inputBytes, BvhFile* otherRest = nullptr);

// Builds a character from a BVH file and saves it as JSON (character_file.h).
int RunCharacterCommand(const std::string& bvhPath, const std::string& outPath, const std::string& preset);

struct PreviewCommandOptions
{
  std::string sourcePath; // the clip that gave the motion
  std::string outputPath; // the retargeted clip
  std::string pngPath = "preview.png";
  std::vector<int> frames; // empty: first, middle and last
  int panelSize = 320;
  std::string preset; // as given to the retarget, so that the same joints pair up
  std::string mapPath;
};

// Draws source and retargeted output side by side (preview.h).
int RunPreviewCommand(const PreviewCommandOptions& options);

// againstPath, when not empty: a target skeleton whose rest pose is compared with path's, bone
// by bone.
int RunInspectCommand(const std::string& path, const std::string& preset, const std::string& againstPath = "");

// Writes the demo's built-in target skeleton (one frame at rest) to a BVH file.
int WriteDemoTarget(const std::string& path);

int RunDemoCommand(const std::string& outPath, int frames, bool matchRest = false);

} // namespace kelvara
