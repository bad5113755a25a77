// kelvara demo: the whole road on the built-in walk and skeleton, no file needed.
#include <cstdio>

#include "cli/command.h"
#include "demo/demo.h"
#include "demo/demo_character.h"
#include "io/bvh/bvh_file.h"
#include "output/preview.h"
#include "road/clip_run.h"

namespace kelvara
{

namespace
{

std::string Stem(const std::string& path)
{
  return path.size() > 4 && path.compare(path.size() - 4, 4, ".bvh") == 0 ? path.substr(0, path.size() - 4) : path;
}

class DemoCommand : public Command
{
public:
  CLI::App* Register(CLI::App& app) override
  {
    CLI::App* c = app.add_subcommand(
      "demo", "Retarget a built-in walk onto a built-in character of other names, proportions and rest pose, write "
              "the result as BVH and as a GLB of the character's skinned mesh, print the mapping and a summary, and "
              "draw a picture and a web page that plays both. No file needed.");
    c->add_option("-o,--output", _out, "BVH file to write; the GLB, the picture and the page (.html) go beside it")
      ->capture_default_str();
    c->add_option("--frames", _frames, "Frames of the walk")->capture_default_str()->check(CLI::Range(1, 1000000));
    c->add_flag("--match-rest,!--keep-rest", _matchRest, kMatchRestHelp);
    c->add_flag("--plant-feet,!--no-plant-feet", _plantFeet, kPlantFeetHelp);
    c->add_option("--write-target", _targetPath,
                  "Only write the built-in target skeleton to this BVH file (for benchmarks and trials)");
    return c;
  }

  ExitCode Run() override
  {
    if (!_targetPath.empty())
      return WriteTarget();
    std::string error;
    if (!CheckWritablePath(_out, error))
      return Report(ExitCode::kBadInput, error);
    ClipRun run;
    run.source = DemoSourceFile(_frames);
    run.outputPath = _out;
    run.otherRest = true;
    run.describe = run.measure = true; // for the page's report
    const AnimationFile target = DemoTargetFile();
    std::printf("kelvara demo: a built-in walk (%zu joints, %d frames) onto a built-in skeleton of other names, "
                "proportions and rest pose (%zu joints)\n\n",
                run.source.skeleton.joints.size(), run.source.clip.frameCount, target.skeleton.joints.size());
    return RunWithModule([&] {
      RoadOptions options;
      options.matchRest = _matchRest;
      options.plantFeet = _plantFeet;
      Road road(options);
      Problem problem;
      if (!road.Setup(target, problem) || !RunClip(road, run))
        return Report(problem.message.empty() ? run.problem : problem);
      return Finish(road, run);
    });
  }

private:
  ExitCode WriteTarget() const
  {
    BvhFile target = MakeDemoTarget();
    target.path = _targetPath;
    std::string error;
    if (!WriteBvh(_targetPath, target, error))
      return Report(ExitCode::kFailure, error);
    std::printf("wrote %s: the built-in target, %zu joints\n", _targetPath.c_str(), target.joints.size());
    return ExitCode::kOk;
  }

  // What follows a written BVH: the mapping, the character's GLB and the picture.
  ExitCode Finish(Road& road, ClipRun& run) const
  {
    const Skeleton& source = run.source.skeleton;
    const Skeleton& target = road.Target().skeleton;
    const PreparedRetarget& prepared = run.side->prepared;
    std::printf("mapping (target joint <- source joint):\n");
    std::vector<bool> inChain(target.joints.size(), false);
    for (const JointChain& chain : prepared.chains)
      for (int j : chain.between)
        inChain[static_cast<std::size_t>(j)] = true;
    int paired = 0;
    for (std::size_t t = 0; t < target.joints.size(); ++t)
      if (const int s = prepared.sourceOfTarget[t]; s >= 0)
      {
        ++paired;
        std::printf("  %-24s <- %-24s %s\n", target.joints[t].name.c_str(),
                    source.joints[static_cast<std::size_t>(s)].name.c_str(), prepared.pairOrigin[t].c_str());
      }
      else
        std::printf("  %-24s    %-24s %s\n", target.joints[t].name.c_str(), "-",
                    inChain[t] ? "bends with the joints around it" : "keeps its rest rotation");
    std::printf("%d of %zu target joints driven; root moves, scale %.6g (auto)\n", paired, target.joints.size(),
                prepared.appliedRootScale);
    if (_plantFeet)
      std::printf("feet planted during the walk's ground contacts: %d frames held, hips lowered at most %.3g\n",
                  run.planted.plantedFrames, run.planted.hipsLowered);
    std::printf("wrote %s: %zu joints, %d frames of %g s\n", _out.c_str(), target.joints.size(), run.output.frameCount,
                run.output.frameTime);

    std::string error;
    const std::string glbPath = Stem(_out) + ".glb";
    WriteRequest write;
    write.driven = DrivenJoints(prepared);
    if (!WriteAnimationFile(glbPath, DemoCharacterFile(), run.output, write, error))
      return Report(ExitCode::kFailure, error);
    std::printf("wrote %s: the target as a skinned character with the walk as its animation\n", glbPath.c_str());

    // A picture of the walk and both results, the target's own rest first: the A-pose arms show
    // the difference.
    std::vector<std::pair<int, int>> pairs;
    for (std::size_t t = 0; t < prepared.sourceOfTarget.size(); ++t)
      if (prepared.sourceOfTarget[t] >= 0)
        pairs.emplace_back(prepared.sourceOfTarget[t], static_cast<int>(t));
    PreviewOptions preview;
    const int frames = run.source.clip.frameCount;
    preview.frames = {0, frames / 3, 2 * frames / 3};
    const std::string pngPath = Stem(_out) + "_preview.png";
    const PreviewClip walk{&source, &run.source.clip, "source"};
    const PreviewClip own{&target, _matchRest ? &run.otherRestOutput : &run.output, "target (own rest)"};
    const PreviewClip matched{&target, _matchRest ? &run.output : &run.otherRestOutput, "target (matched rest)"};
    if (!RenderPreview(walk, {own, matched}, pairs, preview, pngPath, error))
      return Report(ExitCode::kFailure, error);
    std::printf("wrote %s: the walk and its retarget on the target's own rest and on the matched rest, side by "
                "side; %s was written\n",
                pngPath.c_str(), _matchRest ? "the matched one" : "the one on its own rest (--keep-rest)");

    // The page plays the walk and the skinned character side by side.
    ViewFile walkFile;
    walkFile.name = "built-in walk.bvh";
    walkFile.format = "bvh";
    if (!WriteBvhToString(MakeDemoSource(_frames), walkFile.bytes, error))
      return Report(ExitCode::kFailure, error);
    return WriteRunView(Stem(_out) + ".html", walkFile, glbPath, road, run);
  }

  std::string _out = "demo_out.bvh";
  std::string _targetPath;
  int _frames = 240;
  bool _matchRest = true;
  bool _plantFeet = true;
};

} // namespace

std::unique_ptr<Command> MakeDemoCommand()
{
  return std::make_unique<DemoCommand>();
}

} // namespace kelvara
