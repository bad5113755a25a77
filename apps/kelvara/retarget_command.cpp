// kelvara retarget: SOURCE's motion onto TARGET's skeleton, written as OUT.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <thread>

#include "batch.h"
#include "character.h"
#include "character_file.h"
#include "commands.h"
#include "mapping.h"
#include "match_rest.h"
#include "report.h"
#include "retarget.h"
#include "telvo/loader.h"
#include "telvo/registrybase.h"

namespace kelvara
{

namespace
{

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start)
{
  return std::chrono::duration<double>(Clock::now() - start).count();
}

double FileBytes(const std::string& path)
{
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? static_cast<double>(st.st_size) : 0.0;
}

void PrintCharacter(const char* label, const Character& c)
{
  int filled = 0;
  for (int j : c.partJoint)
    filled += j >= 0 ? 1 : 0;
  const BvhFile& f = *c.file;
  std::printf("%s %s: %zu joints, %d frames of %g s; preset %s, %d of %d body parts filled\n", label,
              f.path.c_str(), f.joints.size(), f.frameCount, f.frameTime, c.preset.c_str(), filled, kBodyPartCount);
  std::string empty;
  for (int part = 0; part < kBodyPartCount; ++part)
    if (c.partJoint[static_cast<std::size_t>(part)] < 0)
      empty += (empty.empty() ? "" : ", ") + std::string(GetBodyPartInfo(part).name);
  if (!empty.empty())
    std::printf("  empty body parts: %s\n", empty.c_str());
  for (const std::string& note : c.notes)
    std::printf("  note: %s\n", note.c_str());
}

// Everything that holds module objects lives in here, so that all of it is released before the
// module is unloaded.
int Solve(const BvhFile& source, const BvhFile& target, const RetargetOptions& options,
          const std::vector<JointPair>& mapPairs, double rootScale, BvhFile& output, ClipReport* report,
          BvhFile* otherRest)
{
  std::string error;
  telvo::KelvaraHelperRef helper;
  if (!MakeHelper(helper, error))
  {
    std::fprintf(stderr, "kelvara: %s\n", error.c_str());
    return 1;
  }
  Character sourceCharacter;
  Character targetCharacter;
  const std::string sourcePreset = options.sourcePreset.empty() ? options.preset : options.sourcePreset;
  const std::string targetPreset = options.targetPreset.empty() ? options.preset : options.targetPreset;
  for (const std::string* name : {&sourcePreset, &targetPreset})
    if (!name->empty() && FindPreset(*name) == nullptr)
    {
      std::fprintf(stderr, "kelvara: expected a preset name (%s), found \"%s\"\n", PresetNames().c_str(),
                   name->c_str());
      return 2;
    }
  // A saved source character stands for the clip's skeleton, which must be the saved one.
  SavedCharacter savedSource;
  if (!options.sourceCharacterPath.empty())
  {
    if (!LoadSavedCharacter(options.sourceCharacterPath, savedSource, error) ||
        !CharacterFromSaved(savedSource, sourceCharacter, error) ||
        !SameSkeleton(savedSource.skeleton, source, error))
    {
      std::fprintf(stderr, "kelvara: %s\n", error.c_str());
      return 2;
    }
    sourceCharacter.file = &source;
  }
  else if (!BuildCharacter(source, "source", sourceCharacter, error) ||
           !ChooseAndFillPreset(sourceCharacter, helper, sourcePreset, error))
  {
    std::fprintf(stderr, "kelvara: %s\n", error.c_str());
    return 1;
  }
  // A saved target is used as saved: its tree, rest pose and filled body parts.
  SavedCharacter savedTarget;
  if (IsSavedCharacterPath(options.targetPath))
  {
    if (!LoadSavedCharacter(options.targetPath, savedTarget, error) ||
        !CharacterFromSaved(savedTarget, targetCharacter, error))
    {
      std::fprintf(stderr, "kelvara: %s\n", error.c_str());
      return 2;
    }
  }
  else if (!BuildCharacter(target, "target", targetCharacter, error) ||
           !ChooseAndFillPreset(targetCharacter, helper, targetPreset, error))
  {
    std::fprintf(stderr, "kelvara: %s\n", error.c_str());
    return 1;
  }

  for (const telvo::Uuid& uuid : targetCharacter.uuids)
    for (const telvo::Uuid& other : sourceCharacter.uuids)
      if (uuid == other)
      {
        std::fprintf(stderr, "kelvara: the source and the target share node ids (both saved from one skeleton?): "
                             "give one of them as its BVH file\n");
        return 2;
      }

  RetargetJob job;
  job.source = &sourceCharacter;
  job.target = &targetCharacter;
  job.helper = helper;
  job.mapPairs = mapPairs;
  job.rootScale = rootScale;
  job.rootMotion = !options.noRootMotion;
  if (!job.Validate(error))
  {
    std::fprintf(stderr, "kelvara: %s\n", error.c_str());
    return 1;
  }
  RestMatch restMatch;
  if (options.matchRest)
  {
    restMatch = MatchCharacterRest(sourceCharacter, targetCharacter, job.sourceOfTarget);
    job.targetRest = restMatch.targetRest;
  }
  if (!job.Run(error))
  {
    std::fprintf(stderr, "kelvara: %s\n", error.c_str());
    return 1;
  }

  PrintCharacter("source", sourceCharacter);
  PrintCharacter("target", targetCharacter);
  int paired = 0;
  for (int s : job.sourceOfTarget)
    paired += s >= 0 ? 1 : 0;
  if (!options.quiet)
  {
    std::printf("mapping (target joint <- source joint):\n");
    for (std::size_t t = 0; t < target.joints.size(); ++t)
    {
      const int s = job.sourceOfTarget[t];
      if (s >= 0)
        std::printf("  %-24s <- %-24s %s\n", target.joints[t].name.c_str(),
                    source.joints[static_cast<std::size_t>(s)].name.c_str(), job.pairOrigin[t].c_str());
      else
        std::printf("  %-24s    %-24s keeps its rest rotation\n", target.joints[t].name.c_str(), "-");
    }
  }
  std::printf("%d of %zu target joints driven; root %s", paired, target.joints.size(),
              options.noRootMotion ? "kept in place" : "moves");
  if (!options.noRootMotion)
    std::printf(", scale %.6g%s", job.appliedRootScale, rootScale <= 0.0 ? " (auto)" : "");
  std::printf("\n");
  if (const int worst = restMatch.WorstBefore(); worst >= 0)
  {
    const MappedBone& bone = restMatch.bones[static_cast<std::size_t>(worst)];
    std::printf("rest pose matched: %zu mapped bones; largest difference %.3g degrees (%s -> %s) before, %.3g after\n",
                restMatch.bones.size(), restMatch.before[static_cast<std::size_t>(worst)],
                target.joints[static_cast<std::size_t>(bone.targetJoint)].name.c_str(),
                target.joints[static_cast<std::size_t>(bone.targetChild)].name.c_str(), restMatch.MaxAfter());
  }
  for (const std::string& note : job.notes)
    std::printf("  note: %s\n", note.c_str());
  if (report != nullptr)
  {
    DescribePairing(job, !sourcePreset.empty(), !targetPreset.empty(), *report);
    for (const std::string& warning : report->warnings)
      std::fprintf(stderr, "kelvara: warning: %s\n", warning.c_str());
    if (!MeasureOtherRest(job, source, *report, error))
    {
      std::fprintf(stderr, "kelvara: %s\n", error.c_str());
      return 1;
    }
  }
  if (otherRest != nullptr && !RunWithOtherRest(job, source, *otherRest, error))
  {
    std::fprintf(stderr, "kelvara: %s\n", error.c_str());
    return 1;
  }
  output = std::move(job.output);
  return 0;
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

} // namespace

int RetargetLoaded(const BvhFile& source, const BvhFile& target, const RetargetOptions& options, double readSeconds,
                   double inputBytes, BvhFile* otherRest)
{
  const Clock::time_point solveStart = Clock::now();
  double rootScale = 0.0;
  if (!ParseRootScale(options.rootScale, rootScale))
  {
    std::fprintf(stderr, "kelvara: expected auto or a positive number for --root-scale, found \"%s\"\n",
                 options.rootScale.c_str());
    return 2;
  }
  std::vector<JointPair> mapPairs;
  std::string error;
  if (!options.mapPath.empty() && !ReadJointMap(options.mapPath, source, target, mapPairs, error))
  {
    std::fprintf(stderr, "kelvara: %s\n", error.c_str());
    return 2;
  }

  std::unique_ptr<telvo::LoadedModule> module = LoadModuleOrSayWhy();
  if (!module)
    return 1;
  BvhFile output;
  ClipReport report;
  report.source = source.path;
  report.output = options.outPath;
  report.frames = source.frameCount;
  report.frameTime = source.frameTime;
  const int status =
    Solve(source, target, options, mapPairs, rootScale, output, options.reportPath.empty() ? nullptr : &report,
          otherRest);
  module->Unload();
  if (status != 0)
    return status;
  const double solveSeconds = SecondsSince(solveStart);

  const Clock::time_point writeStart = Clock::now();
  output.path = options.outPath;
  if (!WriteBvh(options.outPath, output, error))
  {
    std::fprintf(stderr, "kelvara: %s\n", error.c_str());
    return 1;
  }
  const double writeSeconds = SecondsSince(writeStart);
  const double outputBytes = FileBytes(options.outPath);
  std::printf("wrote %s: %zu joints, %d frames of %g s\n", options.outPath.c_str(), output.joints.size(),
              output.frameCount, output.frameTime);
  if (!options.reportPath.empty())
  {
    report.ok = true;
    if (!MeasureWrittenQuality(report, error) ||
        !WriteReport(options.reportPath, {report}, SecondsSince(solveStart), error))
    {
      std::fprintf(stderr, "kelvara: %s\n", error.c_str());
      return 1;
    }
    if (!options.quiet)
      PrintReportTable(stdout, {report});
  }
  if (options.timings)
  {
    auto rate = [](double bytes, double seconds) { return seconds > 0.0 ? bytes / seconds / 1e6 : 0.0; };
    std::fprintf(stderr,
                 "timings: reading %.2f ms (%.2f MB, %.0f MB/s), solving %.2f ms (%d frames), writing %.2f ms "
                 "(%.2f MB, %.0f MB/s), total %.2f ms\n",
                 readSeconds * 1e3, inputBytes / 1e6, rate(inputBytes, readSeconds), solveSeconds * 1e3,
                 output.frameCount, writeSeconds * 1e3, outputBytes / 1e6, rate(outputBytes, writeSeconds),
                 (readSeconds + solveSeconds + writeSeconds) * 1e3);
  }
  return 0;
}

namespace
{

// Several sources: each written as OUTDIR/<stem>.bvh by worker threads (batch.h).
int RetargetBatch(const RetargetOptions& options)
{
  BatchSettings settings;
  settings.sources = options.sourcePaths;
  settings.outDir = options.outPath;
  const unsigned cores = std::thread::hardware_concurrency();
  settings.jobs = options.jobs > 0 ? options.jobs : static_cast<int>(cores > 0 ? cores : 1);
  settings.mapPath = options.mapPath;
  settings.sourcePreset = options.sourcePreset.empty() ? options.preset : options.sourcePreset;
  settings.targetPreset = options.targetPreset.empty() ? options.preset : options.targetPreset;
  settings.rootMotion = !options.noRootMotion;
  settings.matchRest = options.matchRest;
  settings.measure = !options.reportPath.empty();
  settings.terminal = isatty(2) != 0;
  if (!ParseRootScale(options.rootScale, settings.rootScale))
  {
    std::fprintf(stderr, "kelvara: expected auto or a positive number for --root-scale, found \"%s\"\n",
                 options.rootScale.c_str());
    return 2;
  }
  for (const std::string* name : {&settings.sourcePreset, &settings.targetPreset})
    if (!name->empty() && FindPreset(*name) == nullptr)
    {
      std::fprintf(stderr, "kelvara: expected a preset name (%s), found \"%s\"\n", PresetNames().c_str(),
                   name->c_str());
      return 2;
    }
  if (const std::string collision = OutputCollision(settings.outDir, settings.sources); !collision.empty())
  {
    std::fprintf(stderr, "kelvara: %s\n", collision.c_str());
    return 2;
  }
  BvhFile target;
  std::string error;
  if (IsSavedCharacterPath(options.targetPath))
  {
    std::fprintf(stderr, "kelvara: a saved character as the target of several clips is not supported yet; give its "
                         "BVH file\n");
    return 2;
  }
  if (!ReadBvh(options.targetPath, target, error))
  {
    std::fprintf(stderr, "kelvara: %s\n", error.c_str());
    return 2;
  }
  settings.target = &target;
  std::error_code made;
  std::filesystem::create_directories(settings.outDir, made);
  if (made || !std::filesystem::is_directory(settings.outDir))
  {
    std::fprintf(stderr, "kelvara: cannot make the output folder %s\n", settings.outDir.c_str());
    return 1;
  }

  std::unique_ptr<telvo::LoadedModule> module = LoadModuleOrSayWhy();
  if (!module)
    return 1;
  const BatchResult result = RunBatch(settings);
  module->Unload();
  if (!result.error.empty())
  {
    std::fprintf(stderr, "kelvara: %s\n", result.error.c_str());
    return 1;
  }
  PrintBatchSummary(stdout, result);
  if (!options.reportPath.empty())
  {
    if (!WriteReport(options.reportPath, result.clips, result.seconds, error))
    {
      std::fprintf(stderr, "kelvara: %s\n", error.c_str());
      return 1;
    }
    if (!options.quiet)
      PrintReportTable(stdout, result.clips);
  }
  return result.Status();
}

} // namespace

int RunRetargetCommand(const RetargetOptions& given)
{
  RetargetOptions options = given;
  if (options.sourcePaths.size() > 1)
    return RetargetBatch(options);
  if (options.sourcePaths.size() == 1)
    options.sourcePath = options.sourcePaths[0];
  const Clock::time_point readStart = Clock::now();
  BvhFile source;
  BvhFile target;
  std::string error;
  const bool targetRead = IsSavedCharacterPath(options.targetPath) ? ReadSavedSkeleton(options.targetPath, target, error)
                                                                     : ReadBvh(options.targetPath, target, error);
  if (!ReadBvh(options.sourcePath, source, error) || !targetRead)
  {
    std::fprintf(stderr, "kelvara: %s\n", error.c_str());
    return 2;
  }
  const double readSeconds = SecondsSince(readStart);
  return RetargetLoaded(source, target, options, readSeconds,
                        FileBytes(options.sourcePath) + FileBytes(options.targetPath));
}

} // namespace kelvara
