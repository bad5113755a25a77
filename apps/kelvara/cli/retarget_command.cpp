// kelvara retarget: SOURCE's motion onto TARGET's skeleton, written as OUT; several sources are a
// batch. Both go through one Road, so every option means the same in both.
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "cli/command.h"
#include "io/animation_file.h"
#include "road/batch.h"
#include "road/clip_run.h"

namespace kelvara
{

namespace
{

double FileBytes(const std::string& path)
{
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? static_cast<double>(st.st_size) : 0.0;
}

bool ParseRootScale(const std::string& text, double& scale)
{
  if (text == "auto")
  {
    scale = 0.0;
    return true;
  }
  char* end = nullptr;
  scale = std::strtod(text.c_str(), &end);
  return !text.empty() && end == text.c_str() + text.size() && std::isfinite(scale) && scale > 0.0;
}

void PrintCharacter(const char* label, const Character& c, const AnimationFile& file)
{
  int filled = 0;
  for (int j : c.partJoint)
    filled += j >= 0 ? 1 : 0;
  std::printf("%s %s: %zu joints", label, file.skeleton.path.c_str(), file.skeleton.joints.size());
  if (file.hasClip)
    std::printf(", %d frames of %g s", file.clip.frameCount, file.clip.frameTime);
  std::printf("; preset %s, %d of %d body parts filled\n", c.preset.c_str(), filled, kBodyPartCount);
  std::string empty;
  for (int part = 0; part < kBodyPartCount; ++part)
    if (c.partJoint[static_cast<std::size_t>(part)] < 0)
      empty += (empty.empty() ? "" : ", ") + std::string(GetBodyPartInfo(part).name);
  if (!empty.empty())
    std::printf("  empty body parts: %s\n", empty.c_str());
  for (const std::string& note : c.notes)
    std::printf("  note: %s\n", note.c_str());
}

// The mapping table and the summary lines of a single run.
void PrintPairing(const SourceSide& side, const Road& road, bool quiet)
{
  const Skeleton& target = road.Target().skeleton;
  const Skeleton& source = *side.character.skeleton;
  const PreparedRetarget& prepared = side.prepared;
  int paired = 0;
  for (int s : prepared.sourceOfTarget)
    paired += s >= 0 ? 1 : 0;
  if (!quiet)
  {
    std::printf("mapping (target joint <- source joint):\n");
    for (std::size_t t = 0; t < target.joints.size(); ++t)
    {
      const int s = prepared.sourceOfTarget[t];
      if (s >= 0)
        std::printf("  %-24s <- %-24s %s\n", target.joints[t].name.c_str(),
                    source.joints[static_cast<std::size_t>(s)].name.c_str(), prepared.pairOrigin[t].c_str());
      else
        std::printf("  %-24s    %-24s keeps its rest rotation\n", target.joints[t].name.c_str(), "-");
    }
  }
  std::printf("%d of %zu target joints driven; root %s", paired, target.joints.size(),
              prepared.rootMotion ? "moves" : "kept in place");
  if (prepared.rootMotion)
    std::printf(", scale %.6g%s", prepared.appliedRootScale, prepared.rootScale <= 0.0 ? " (auto)" : "");
  std::printf("\n");
  const RestMatch& restMatch = side.restMatch;
  if (const int worst = restMatch.WorstBefore(); worst >= 0)
  {
    const MappedBone& bone = restMatch.bones[static_cast<std::size_t>(worst)];
    std::printf("rest pose matched: %zu mapped bones; largest difference %.3g degrees (%s -> %s) before, %.3g after\n",
                restMatch.bones.size(), restMatch.before[static_cast<std::size_t>(worst)],
                target.joints[static_cast<std::size_t>(bone.targetJoint)].name.c_str(),
                target.joints[static_cast<std::size_t>(bone.targetChild)].name.c_str(), restMatch.MaxAfter());
  }
  for (const std::string& note : prepared.notes)
    std::printf("  note: %s\n", note.c_str());
}

class RetargetCommand : public Command
{
public:
  CLI::App* Register(CLI::App& app) override
  {
    CLI::App* c = app.add_subcommand(
      "retarget", "Retarget the motion of SOURCE onto the skeleton of TARGET and write OUT: TARGET's character with "
                  "SOURCE's frames.");
    c->add_option("SOURCE", _sources,
                  "File(s) that give the motion (" + ReadableFormats() +
                    "); with several, OUT is a folder that receives <source name>.<format> for each")
      ->required();
    c->add_option("--target", _road.targetPath,
                  "File that gives the character (any format read, or a saved character .json); its own motion is "
                  "not used")
      ->required();
    c->add_option("-o,--output", _out,
                  "File to write, by its extension: " + WritableFormats() +
                    ". A .glb or .gltf holds the target's whole character (meshes, skins, materials, its other "
                    "animations) and the new animation. A folder with several sources")
      ->required();
    c->add_option("--output-format", _format,
                  "Format of a batch's outputs: bvh, glb or gltf (default: the target's own when it is one of "
                  "them, else glb)");
    c->add_flag("--replace-animations", _replaceAnimations,
                "glTF outputs: drop the target's own animations, keep only the new one");
    AddSkeletonRootOption(*c, _road.targetSkeletonRoot, "--skeleton-root", "the target");
    AddSkeletonRootOption(*c, _road.sourceSkeletonRoot, "--source-skeleton-root", "the source");
    AddAnimationOption(*c, _road.animation);
    c->add_option("--jobs", _jobs, "Clips retargeted at once (default: one per core)")->check(CLI::PositiveNumber);
    c->add_option("--threads", _threads,
                  "Threads that share one clip's frames (default: one per core; 1: the clip on one thread). The "
                  "output is the same whatever the number")
      ->check(CLI::PositiveNumber);
    c->add_option("--report", _reportPath,
                  "JSON report per clip: presets, joint pairs, unpaired joints, root scale, bone angles with and "
                  "without rest matching, ground contacts, and per foot sliding, height above the ground and knee "
                  "steps with and without planting, measured on the written files");
    c->add_option("--map", _road.mapPath,
                  "JSON object {\"target joint\": \"source joint\", ...} overriding the keyword pairing");
    AddPresetOption(*c, _preset, "both characters");
    c->add_option("--source-preset", _road.sourcePreset, "Keyword preset for the source only");
    c->add_option("--target-preset", _road.targetPreset, "Keyword preset for the target only");
    c->add_option("--source-character", _road.sourceCharacterPath,
                  "Saved character (kelvara character) of the sources' skeleton, used as saved");
    c->add_option("--root-scale", _rootScale,
                  "auto: the target's hip height above its feet divided by the source's; or a number")
      ->capture_default_str();
    c->add_flag("--no-root-motion", _noRootMotion, "Keep the root in place");
    c->add_flag("--match-rest,!--keep-rest", _road.matchRest, kMatchRestHelp);
    c->add_flag("--plant-feet,!--no-plant-feet", _road.plantFeet, kPlantFeetHelp);
    c->add_option("--view", _viewPath,
                  "Also write a web page (.html) that plays the source and the result side by side, with the report "
                  "(one clip only)");
    c->add_flag("--timings", _timings, "Print reading, solving and writing times to stderr");
    c->add_flag("-q,--quiet", _quiet, "Do not print the joint mapping");
    return c;
  }

  ExitCode Run() override
  {
    if (!ParseRootScale(_rootScale, _road.rootScale))
      return Report(ExitCode::kBadInput,
                    "expected auto or a positive number for --root-scale, found \"" + _rootScale + "\"");
    _road.rootMotion = !_noRootMotion;
    if (_road.sourcePreset.empty())
      _road.sourcePreset = _preset;
    if (_road.targetPreset.empty())
      _road.targetPreset = _preset;
    return RunWithModule([&] {
      Road road(_road);
      return _sources.size() > 1 ? RunBatch(road) : RunSingle(road);
    });
  }

private:
  ExitCode RunSingle(Road& road)
  {
    std::string error;
    if (!CheckWritablePath(_out, error) || (!_viewPath.empty() && !CheckPagePath(_viewPath, error)))
      return Report(ExitCode::kBadInput, error);
    ClipRun run;
    run.sourcePath = _sources[0];
    run.outputPath = _out;
    run.describe = run.measure = !_reportPath.empty() || !_viewPath.empty();
    run.replaceAnimations = _replaceAnimations;
    run.threads = _threads;
    Problem problem;
    if (!road.Setup(problem))
      return Report(problem);
    PrintWarnings(road.Target().warnings);
    const bool ok = RunClip(road, run);
    PrintWarnings(run.source.warnings);
    if (!ok)
      return Report(run.problem);

    PrintCharacter("source", run.side->character, run.source);
    PrintCharacter("target", road.TargetCharacter(), road.Target());
    PrintPairing(*run.side, road, _quiet);
    PrintWarnings(run.clip.warnings);
    if (road.Options().plantFeet)
      std::printf("feet planted during the source's ground contacts: %d frames held, hips lowered at most %.3g\n",
                  run.planted.plantedFrames, run.planted.hipsLowered);
    std::printf("wrote %s: %zu joints, %d frames of %g s\n", _out.c_str(), road.Target().skeleton.joints.size(),
                run.output.frameCount, run.output.frameTime);
    if (!_reportPath.empty())
    {
      if (!WriteReport(_reportPath, {run.clip}, run.readSeconds + run.solveSeconds + run.writeSeconds, error))
        return Report(ExitCode::kFailure, error);
      if (!_quiet)
        PrintReportTable(stdout, {run.clip});
    }
    if (!_viewPath.empty())
    {
      ViewFile source;
      if (!EmbedClipFile(run.sourcePath, run.source, false, source, error))
        return Report(ExitCode::kFailure, error);
      if (const ExitCode view = WriteRunView(_viewPath, source, _out, road, run); view != ExitCode::kOk)
        return view;
    }
    if (_timings)
    {
      const double inputBytes = FileBytes(run.sourcePath) + FileBytes(_road.targetPath);
      const double outputBytes = FileBytes(_out);
      auto rate = [](double bytes, double seconds) { return seconds > 0.0 ? bytes / seconds / 1e6 : 0.0; };
      std::fprintf(stderr,
                   "timings: reading %.2f ms (%.2f MB, %.0f MB/s), solving %.2f ms (%d frames), writing %.2f ms "
                   "(%.2f MB, %.0f MB/s), total %.2f ms\n",
                   run.readSeconds * 1e3, inputBytes / 1e6, rate(inputBytes, run.readSeconds), run.solveSeconds * 1e3,
                   run.output.frameCount, run.writeSeconds * 1e3, outputBytes / 1e6,
                   rate(outputBytes, run.writeSeconds), (run.readSeconds + run.solveSeconds + run.writeSeconds) * 1e3);
    }
    return ExitCode::kOk;
  }

  ExitCode RunBatch(Road& road)
  {
    if (!_viewPath.empty())
      return Report(ExitCode::kBadInput, "expected one SOURCE with --view (a page shows one clip), found " +
                                           std::to_string(_sources.size()));
    BatchSettings settings;
    settings.sources = _sources;
    settings.outDir = _out;
    const unsigned cores = std::thread::hardware_concurrency();
    settings.jobs = _jobs > 0 ? _jobs : static_cast<int>(cores > 0 ? cores : 1);
    // The cores the clips at once leave over share each clip's frames.
    settings.threads = _threads > 0 ? _threads : std::max(1, static_cast<int>(cores) / settings.jobs);
    settings.measure = !_reportPath.empty();
    settings.replaceAnimations = _replaceAnimations;
    settings.terminal = isatty(2) != 0;
    std::string error;
    if (!BatchExtension(_format, _road.targetPath, settings.extension, error))
      return Report(ExitCode::kBadInput, error);
    if (const std::string collision = OutputCollision(settings); !collision.empty())
      return Report(ExitCode::kBadInput, collision);
    Problem problem;
    if (!road.Setup(problem))
      return Report(problem);
    PrintWarnings(road.Target().warnings);
    std::error_code made;
    std::filesystem::create_directories(settings.outDir, made);
    if (made || !std::filesystem::is_directory(settings.outDir))
      return Report(ExitCode::kFailure, "cannot make the output folder " + settings.outDir);

    const BatchResult result = kelvara::RunBatch(road, settings);
    PrintBatchSummary(stdout, result);
    if (!_reportPath.empty())
    {
      if (!WriteReport(_reportPath, result.clips, result.seconds, error))
        return Report(ExitCode::kFailure, error);
      if (!_quiet)
        PrintReportTable(stdout, result.clips);
    }
    return static_cast<ExitCode>(result.Status());
  }

  std::vector<std::string> _sources;
  std::string _out;
  std::string _format;
  std::string _preset;
  std::string _rootScale = "auto";
  std::string _reportPath;
  std::string _viewPath;
  RoadOptions _road;
  int _jobs = 0;
  int _threads = 0;
  bool _noRootMotion = false;
  bool _replaceAnimations = false;
  bool _timings = false;
  bool _quiet = false;
};

} // namespace

std::unique_ptr<Command> MakeRetargetCommand()
{
  return std::make_unique<RetargetCommand>();
}

} // namespace kelvara
