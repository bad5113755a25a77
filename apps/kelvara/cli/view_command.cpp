// kelvara view: a web page that plays a source clip and its retarget side by side, and the same
// page written by `retarget --view` and `demo`.
#include <cstdio>

#include "cli/command.h"
#include "io/animation_file.h"
#include "road/clip_run.h"

namespace kelvara
{

namespace
{

void PrintWritten(const std::string& path, const ViewPage& page)
{
  std::printf("wrote %s: %s and %s side by side, %d frames at %.4g fps, %zu joint pairs%s; open it in a browser\n",
              path.c_str(), page.source.name.c_str(), page.result.name.c_str(), page.frames, 1.0 / page.frameTime,
              page.pairs.size(), page.report.is_null() ? "" : ", with the report");
}

class ViewCommand : public Command
{
public:
  CLI::App* Register(CLI::App& app) override
  {
    CLI::App* c = app.add_subcommand(
      "view", "Write one self-contained web page that plays SOURCE and its retarget RESULT side by side (or "
              "overlaid) in any browser, from disk: bones in the colours of their pairs, the result's skinned mesh "
              "when it is glTF, and with a report each bone tinted by its angle to its source bone, the feet's "
              "ground contacts and the clip's figures. view.html#frame=N opens paused at frame N.");
    c->add_option("SOURCE", _source, "The clip that was retargeted (" + ReadableFormats() + ")")->required();
    c->add_option("--result", _result, "The retargeted file (its last animation plays)")->required();
    c->add_option("--report", _reportPath,
                  "The report of the run (retarget --report): pairs, bone angles, foot sliding and contacts");
    c->add_option("-o,--output", _out, "The page to write (.html)")->required();
    AddAnimationOption(*c, _road.animation);
    AddSkeletonRootOption(*c, _road.sourceSkeletonRoot, "--source-skeleton-root", "the source");
    AddSkeletonRootOption(*c, _road.targetSkeletonRoot, "--skeleton-root", "the result");
    c->add_option("--map", _road.mapPath, "Without a report: the joint map of the run, for its pairs");
    AddPresetOption(*c, _preset, "both characters, without a report");
    return c;
  }

  ExitCode Run() override
  {
    std::string error;
    if (!CheckPagePath(_out, error))
      return Report(ExitCode::kBadInput, error);
    _road.sourcePreset = _road.targetPreset = _preset;
    _road.targetPath = _result;

    ReadRequest resultRequest;
    resultRequest.lastAnimation = true;
    resultRequest.skeletonRoot = _road.targetSkeletonRoot;
    AnimationFile result;
    if (const ExitCode read = ReadCommandFile(_result, resultRequest, _preset, result); read != ExitCode::kOk)
      return read;
    if (!result.hasClip || result.clip.frameCount == 0)
      return Report(ExitCode::kBadInput, _result + ": expected an animation to show, found none");

    ViewPage page;
    AnimationFile source;
    if (!_reportPath.empty())
    {
      ReadRequest sourceRequest;
      sourceRequest.animation = _road.animation;
      sourceRequest.skeletonRoot = _road.sourceSkeletonRoot;
      if (const ExitCode read = ReadCommandFile(_source, sourceRequest, _preset, source); read != ExitCode::kOk)
        return read;
      if (!ReadReportClip(_reportPath, _result, source.skeleton, result.skeleton, page.report, error))
        return Report(ExitCode::kBadInput, error);
      page.pairs = ReportPairs(page.report, result.skeleton);
    }
    else
    {
      // Without a report, the pairs are the ones a retarget of these two files makes.
      const ExitCode paired = RunWithModule([&] {
        Road road(_road);
        Problem problem;
        if (!road.Setup(problem) || !road.ReadSource(_source, source, problem))
          return Report(problem);
        const SourceSide& side = road.SideFor(source.skeleton);
        if (!side.Ok())
          return Report(side.problem);
        page.pairs = PairNames(source.skeleton, road.Target().skeleton, side.prepared.sourceOfTarget);
        return ExitCode::kOk;
      });
      if (paired != ExitCode::kOk)
        return paired;
    }
    if (!source.hasClip || source.clip.frameCount == 0)
      return Report(ExitCode::kBadInput, _source + ": expected an animation to show, found none");
    if (result.clip.frameCount != source.clip.frameCount)
      PrintWarnings({_result + " has " + std::to_string(result.clip.frameCount) + " frames, " + _source + " " +
                     std::to_string(source.clip.frameCount) + "; the page plays the source's " +
                     std::to_string(source.clip.frameCount) + " frames"});

    page.title = PageTitle(source.clip.name, _result);
    page.frames = source.clip.frameCount;
    page.frameTime = source.clip.frameTime;
    if (!EmbedClipFile(_source, source, false, page.source, error) ||
        !EmbedClipFile(_result, result, true, page.result, error))
      return Report(ExitCode::kBadInput, error);
    if (!WriteViewPage(_out, page, error))
      return Report(ExitCode::kFailure, error);
    PrintWritten(_out, page);
    return ExitCode::kOk;
  }

private:
  std::string _source;
  std::string _result;
  std::string _reportPath;
  std::string _out;
  std::string _preset;
  RoadOptions _road;
};

} // namespace

ExitCode WriteRunView(const std::string& path, const ViewFile& source, const std::string& resultPath, const Road& road,
                      const ClipRun& run)
{
  ViewPage page;
  page.title = PageTitle(run.source.clip.name, resultPath);
  page.frames = run.source.clip.frameCount;
  page.frameTime = run.source.clip.frameTime;
  page.source = source;
  std::string error;
  if (!EmbedClipFile(resultPath, road.Target(), true, page.result, error))
    return Report(ExitCode::kFailure, error);
  page.pairs = PairNames(run.source.skeleton, road.Target().skeleton, run.side->prepared.sourceOfTarget);
  if (run.clip.measured)
    page.report = ReportJson({run.clip}, 0.0)["clips"][0];
  if (!WriteViewPage(path, page, error))
    return Report(ExitCode::kFailure, error);
  PrintWritten(path, page);
  return ExitCode::kOk;
}

std::unique_ptr<Command> MakeViewCommand()
{
  return std::make_unique<ViewCommand>();
}

} // namespace kelvara
