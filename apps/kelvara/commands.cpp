#include "commands.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>

#include <CLI/CLI.hpp>

namespace kelvara
{

namespace
{

const char* const kFooter =
  "Exit status: 0 success, 1 failure of the work, 2 bad input (usage, unreadable or malformed\n"
  "files; nothing is written then).\n"
  "\n"
  "Environment:\n"
  "  KELVARA_MODULE   Module file to load instead of the one beside the executable.\n";

std::string ExecutableFolder()
{
  char path[4096];
  ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
  if (n <= 0)
    return ".";
  path[n] = '\0';
  std::string s(path);
  std::size_t slash = s.rfind('/');
  return slash == std::string::npos ? "." : s.substr(0, slash);
}

} // namespace

std::string DefaultModulePath()
{
  if (const char* path = std::getenv("KELVARA_MODULE"); path != nullptr && *path != '\0')
    return path;
  return ExecutableFolder() + "/libkelvara.so";
}

std::unique_ptr<telvo::LoadedModule> LoadModuleOrSayWhy()
{
  std::string why;
  std::unique_ptr<telvo::LoadedModule> module = telvo::LoadedModule::Load(DefaultModulePath(), why);
  if (!module)
    std::fprintf(stderr, "kelvara: cannot load the module: %s\n", why.c_str());
  return module;
}

namespace
{

int ParseAndRun(int argc, char** argv)
{
  CLI::App app{"kelvara: retargets motion capture (BVH) from one skeleton onto another through the kelvara "
               "module.",
               "kelvara"};
  app.footer(kFooter);
  app.require_subcommand(1);

  std::vector<std::string> modulePaths;
  CLI::App* modules = app.add_subcommand(
    "modules", "Load the module (default: the one built beside kelvara), print its id, its dependencies and every "
               "registration in order, unload it and print the order of withdrawal.");
  modules->add_option("PATH", modulePaths, "Module file to load");

  RetargetOptions retarget;
  std::string rootScaleHelp = "auto: the target's hip height above its feet divided by the source's; or a number";
  CLI::App* retargetCommand = app.add_subcommand(
    "retarget", "Retarget the motion of SOURCE onto the skeleton of TARGET and write OUT: TARGET's hierarchy with "
                "SOURCE's frames.");
  retargetCommand->add_option("SOURCE", retarget.sourcePaths,
                              "BVH file(s) that give the motion; with several, OUT is a folder that receives "
                              "<source name>.bvh for each")
    ->required();
  retargetCommand->add_option("--target", retarget.targetPath, "BVH file that gives the skeleton (its motion is "
                                                               "ignored)")
    ->required();
  retargetCommand->add_option("-o,--output", retarget.outPath, "BVH file to write (a folder with several sources)")
    ->required();
  retargetCommand->add_option("--jobs", retarget.jobs, "Clips retargeted at once (default: one per core)")
    ->check(CLI::PositiveNumber);
  retargetCommand->add_option("--report", retarget.reportPath,
                              "JSON report per clip: presets, joint pairs, unpaired joints, root scale, bone angles "
                              "and foot sliding measured on the written files");
  retargetCommand->add_option("--map", retarget.mapPath,
                              "JSON object {\"target joint\": \"source joint\", ...} overriding the keyword pairing");
  retargetCommand->add_option("--preset", retarget.preset,
                              "Keyword preset for both characters (game, cmu, studio, generic); default: the one that "
                              "fills the most body parts");
  retargetCommand->add_option("--source-preset", retarget.sourcePreset, "Keyword preset for the source only");
  retargetCommand->add_option("--source-character", retarget.sourceCharacterPath,
                              "Saved character (kelvara character) of the source's skeleton, used as saved");
  retargetCommand->add_option("--target-preset", retarget.targetPreset, "Keyword preset for the target only");
  retargetCommand->add_option("--root-scale", retarget.rootScale, rootScaleHelp)->capture_default_str();
  retargetCommand->add_flag("--no-root-motion", retarget.noRootMotion, "Keep the root in place");
  retargetCommand->add_flag("--timings", retarget.timings, "Print reading, solving and writing times to stderr");
  retargetCommand->add_flag("-q,--quiet", retarget.quiet, "Do not print the joint mapping");
  const char* const matchRestHelp = "Turn the target's rest pose first so that every mapped bone points where its "
                                    "source bone points at rest (an A-pose rig from a T-pose clip)";
  retargetCommand->add_flag("--match-rest", retarget.matchRest, matchRestHelp);

  std::string characterBvh;
  std::string characterOut;
  std::string characterPreset;
  CLI::App* characterCommand = app.add_subcommand(
    "character", "Build a character from a BVH file (skeleton, rest pose, body parts filled by a preset) and save it "
                 "as JSON, to be given later as --target CHAR.json or --source-character CHAR.json.");
  characterCommand->add_option("FILE", characterBvh, "BVH file")->required();
  characterCommand->add_option("-o,--output", characterOut, "JSON file to write")->required();
  characterCommand->add_option("--preset", characterPreset, "Keyword preset to use instead of the best one");

  PreviewCommandOptions previewOptions;
  CLI::App* previewCommand = app.add_subcommand(
    "preview", "Draw SOURCE and its retargeted OUT side by side as stick figures (front and side view) at the chosen "
               "frames into a PNG, mapped bones in matching colours.");
  previewCommand->add_option("SOURCE", previewOptions.sourcePath, "BVH file that gave the motion")->required();
  previewCommand->add_option("OUT", previewOptions.outputPath, "Retargeted BVH file")->required();
  previewCommand->add_option("--frames", previewOptions.frames, "Frames to draw, e.g. 0,100,200 (-1: rest pose)")
    ->delimiter(',');
  previewCommand->add_option("-o,--output", previewOptions.pngPath, "PNG file to write")->capture_default_str();
  previewCommand->add_option("--panel-size", previewOptions.panelSize, "Side of one panel in pixels")
    ->capture_default_str()
    ->check(CLI::Range(64, 4096));
  previewCommand->add_option("--preset", previewOptions.preset, "Keyword preset given to the retarget");
  previewCommand->add_option("--map", previewOptions.mapPath, "Joint map given to the retarget");

  std::string inspectPath;
  std::string inspectPreset;
  CLI::App* inspect = app.add_subcommand(
    "inspect", "Print a BVH file's joints as a tree, its frames and frame time, the preset chosen and which joint "
               "fills which body part.");
  inspect->add_option("FILE", inspectPath, "BVH file")->required();
  inspect->add_option("--preset", inspectPreset, "Keyword preset to use instead of the best one");
  std::string inspectAgainst;
  inspect->add_option("--against", inspectAgainst,
                      "Target BVH file: print, per mapped bone, how far its rest pose differs from FILE's (degrees)");

  std::string demoOut = "demo_out.bvh";
  int demoFrames = 240;
  CLI::App* demo = app.add_subcommand(
    "demo", "Retarget a built-in walk onto a built-in skeleton of other names, proportions and rest pose, write "
            "the result and print the mapping and a summary. No file needed.");
  demo->add_option("-o,--output", demoOut, "BVH file to write")->capture_default_str();
  demo->add_option("--frames", demoFrames, "Frames of the walk")->capture_default_str()->check(CLI::Range(1, 1000000));
  bool demoMatchRest = false;
  demo->add_flag("--match-rest", demoMatchRest, matchRestHelp);
  std::string demoTargetPath;
  demo->add_option("--write-target", demoTargetPath,
                   "Only write the built-in target skeleton to this BVH file (for benchmarks and trials)");

  if (argc <= 1)
  {
    std::fputs(app.help().c_str(), stderr);
    return 2;
  }
  const std::string first = argv[1];
  if (first == "help")
  {
    std::fputs(app.help().c_str(), stdout);
    return 0;
  }
  const bool known = first == "modules" || first == "retarget" || first == "inspect" || first == "character" ||
                     first == "preview" || first == "demo";
  if (!first.empty() && first[0] != '-' && !known)
  {
    std::fprintf(stderr, "kelvara: unknown command '%s'\n\n%s", first.c_str(), app.help().c_str());
    return 2;
  }
  try
  {
    app.parse(argc, argv);
  }
  catch (const CLI::ParseError& e)
  {
    // Help and version requests are successes; every other parse error is bad usage.
    const int status = app.exit(e);
    return status == 0 ? 0 : 2;
  }

  if (modules->parsed())
    return RunModulesCommand(modulePaths);
  if (retargetCommand->parsed())
    return RunRetargetCommand(retarget);
  if (previewCommand->parsed())
    return RunPreviewCommand(previewOptions);
  if (characterCommand->parsed())
    return RunCharacterCommand(characterBvh, characterOut, characterPreset);
  if (inspect->parsed())
    return RunInspectCommand(inspectPath, inspectPreset, inspectAgainst);
  if (demo->parsed() && !demoTargetPath.empty())
    return WriteDemoTarget(demoTargetPath);
  if (demo->parsed())
    return RunDemoCommand(demoOut, demoFrames, demoMatchRest);
  return 2;
}

} // namespace

int RunCommandLine(int argc, char** argv)
{
  // Memory of the host's own containers running out unwinds to here; every output is written to
  // a temporary file and renamed when complete, so nothing partial is left behind.
  try
  {
    return ParseAndRun(argc, argv);
  }
  catch (const std::bad_alloc&)
  {
    std::fputs("kelvara: out of memory\n", stderr);
    return 1;
  }
}

} // namespace kelvara
