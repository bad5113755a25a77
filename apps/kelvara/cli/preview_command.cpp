// kelvara preview: source and retargeted output side by side as stick figures in a PNG, mapped
// bones in matching colours.
#include <cstdio>
#include <memory>

#include "cli/command.h"
#include "io/animation_file.h"
#include "output/preview.h"

namespace kelvara
{

namespace
{

class PreviewCommand : public Command
{
public:
  CLI::App* Register(CLI::App& app) override
  {
    CLI::App* c = app.add_subcommand(
      "preview", "Draw SOURCE and its retargeted OUT side by side as stick figures (front and side view) at the "
                 "chosen frames into a PNG, mapped bones in matching colours.");
    c->add_option("SOURCE", _sourcePath, "File that gave the motion")->required();
    c->add_option("OUT", _road.targetPath, "Retargeted file (for a glTF, its last animation: the one kelvara added)")
      ->required();
    c->add_option("--frames", _options.frames, "Frames to draw, e.g. 0,100,200 (-1: rest pose)")->delimiter(',');
    c->add_option("-o,--output", _pngPath, "PNG file to write")->capture_default_str();
    c->add_option("--panel-size", _options.panelSize, "Side of one panel in pixels")
      ->capture_default_str()
      ->check(CLI::Range(64, 4096));
    AddPresetOption(*c, _preset, "both, as given to the retarget");
    c->add_option("--map", _road.mapPath, "Joint map given to the retarget");
    AddAnimationOption(*c, _road.animation);
    AddSkeletonRootOption(*c, _road.targetSkeletonRoot, "--skeleton-root", "the result");
    AddSkeletonRootOption(*c, _road.sourceSkeletonRoot, "--source-skeleton-root", "the source");
    return c;
  }

  ExitCode Run() override
  {
    _road.sourcePreset = _road.targetPreset = _preset;
    ReadRequest resultRequest;
    resultRequest.skeletonRoot = _road.targetSkeletonRoot;
    resultRequest.lastAnimation = true;
    AnimationFile result;
    std::string error;
    if (!ReadAnimationFile(_road.targetPath, resultRequest, result, error))
      return Report(ExitCode::kBadInput, error);
    // The joint pairs the retarget made, with the same presets and map.
    std::vector<std::pair<int, int>> pairs;
    AnimationFile source;
    const ExitCode paired = RunWithModule([&] {
      Road road(_road);
      Problem problem;
      if (!road.Setup(problem) || !road.ReadSource(_sourcePath, source, problem))
        return Report(problem);
      const SourceSide& side = road.SideFor(source.skeleton);
      if (!side.Ok())
        return Report(side.problem);
      for (std::size_t t = 0; t < side.prepared.sourceOfTarget.size(); ++t)
        if (side.prepared.sourceOfTarget[t] >= 0)
          pairs.emplace_back(side.prepared.sourceOfTarget[t], static_cast<int>(t));
      return ExitCode::kOk;
    });
    if (paired != ExitCode::kOk)
      return paired;
    const PreviewClip sourceClip{&source.skeleton, &source.clip, "source"};
    const PreviewClip resultClip{&result.skeleton, result.hasClip ? &result.clip : nullptr, "target"};
    if (!RenderPreview(sourceClip, resultClip, pairs, _options, _pngPath, error))
      return Report(ExitCode::kBadInput, error);
    std::printf("wrote %s: %zu mapped joints drawn in matching colours\n", _pngPath.c_str(), pairs.size());
    return ExitCode::kOk;
  }

private:
  std::string _sourcePath;
  std::string _pngPath = "preview.png";
  std::string _preset;
  RoadOptions _road;
  PreviewOptions _options;
};

} // namespace

std::unique_ptr<Command> MakePreviewCommand()
{
  return std::make_unique<PreviewCommand>();
}

} // namespace kelvara
