#include "road/clip_run.h"

#include <chrono>

#include "road/frame_threads.h"

namespace kelvara
{

namespace
{

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start)
{
  return std::chrono::duration<double>(Clock::now() - start).count();
}

} // namespace

std::vector<bool> DrivenJoints(const PreparedRetarget& prepared)
{
  std::vector<bool> driven;
  for (int s : prepared.sourceOfTarget)
    driven.push_back(s >= 0);
  for (const JointChain& chain : prepared.chains)
    for (int j : chain.between)
      driven[static_cast<std::size_t>(j)] = true;
  return driven;
}

bool RunClip(Road& road, ClipRun& run)
{
  run.clip.source = run.sourcePath.empty() ? run.source.skeleton.path : run.sourcePath;
  run.clip.output = run.outputPath;
  Clock::time_point start = Clock::now();
  if (!run.sourcePath.empty() && !road.ReadSource(run.sourcePath, run.source, run.problem))
    return false;
  run.readSeconds = SecondsSince(start);
  run.clip.frames = run.source.clip.frameCount;
  run.clip.frameTime = run.source.clip.frameTime;

  start = Clock::now();
  const SourceSide& side = road.SideFor(run.source.skeleton, run.worker);
  if (!side.Ok())
  {
    run.problem = side.problem;
    return false;
  }
  run.side = &side;
  std::string error;
  if (!RetargetFrames(side.prepared, run.source.clip, run.threads, run.output, error))
    return run.problem.Set(false, error);
  const bool plant = side.prepared.plantFeet;
  FeetPlan feet;
  if (plant || run.describe || run.measure)
    feet = PlanFeet(side.prepared, run.source.clip, run.output);
  Clip otherPlanting; // the output with the other choice of planting, for the report
  if (run.measure)
    otherPlanting = run.output;
  if (plant)
    run.planted = PlantFeet(side.prepared, feet, run.output);
  if (run.describe || run.measure)
  {
    DescribePairing(side.prepared, !road.Options().sourcePreset.empty(), !road.Options().targetPreset.empty(),
                    run.clip);
    run.clip.source = run.sourcePath.empty() ? run.source.skeleton.path : run.sourcePath;
    run.clip.output = run.outputPath;
    run.clip.frames = run.source.clip.frameCount;
    run.clip.frameTime = run.source.clip.frameTime;
    DescribeFeet(side.prepared, std::move(feet), plant, run.planted, run.clip);
  }
  if (run.measure)
  {
    if (!plant)
      PlantFeet(side.prepared, run.clip.feetPlan, otherPlanting);
    MeasureFeet(*side.prepared.source->skeleton, run.source.clip, *side.prepared.target->skeleton, otherPlanting, true,
                run.clip);
  }
  if (run.measure && !MeasureOtherRest(side.prepared, run.source.clip, run.clip, error))
    return run.problem.Set(false, error);
  if (run.otherRest && !RunWithOtherRest(side.prepared, run.source.clip, run.otherRestOutput, error))
    return run.problem.Set(false, error);
  run.solveSeconds = SecondsSince(start);

  if (run.outputPath.empty())
  {
    if (run.measure)
    {
      AnimationFile output;
      output.skeleton = road.Target().skeleton;
      output.clip = run.output;
      output.hasClip = true;
      MeasureQuality(run.source, output, run.clip);
    }
    run.clip.ok = true;
    return true;
  }

  start = Clock::now();
  WriteRequest write;
  write.driven = DrivenJoints(side.prepared);
  write.replaceAnimations = run.replaceAnimations;
  write.threads = run.threads;
  if (!WriteAnimationFile(run.outputPath, road.Target(), run.output, write, error, &run.writtenAnimation))
    return run.problem.Set(false, error);
  run.writeSeconds = SecondsSince(start);

  if (run.measure)
  {
    ReadRequest readBack;
    readBack.skeletonRoot = road.Options().targetSkeletonRoot;
    readBack.animation = run.writtenAnimation;
    if (!MeasureWrittenQuality(run.source, readBack, run.clip, error))
      return run.problem.Set(false, error);
  }
  run.clip.ok = true;
  return true;
}

} // namespace kelvara
