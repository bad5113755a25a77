// kelvara preview: source and retargeted output side by side as stick figures in a PNG, mapped
// bones in matching colours.
#include <cstdio>
#include <memory>

#include "commands.h"
#include "preview.h"
#include "retarget.h"
#include "telvo/loader.h"

namespace kelvara
{

namespace
{

// The joint pairs the retarget made (the same pairing as the retarget command with the same
// presets and map), as (source joint, target joint).
bool PairJointsLikeRetarget(const BvhFile& source, const BvhFile& target, const PreviewCommandOptions& options,
                            std::vector<std::pair<int, int>>& pairs, std::string& error)
{
  std::vector<JointPair> mapPairs;
  if (!options.mapPath.empty() && !ReadJointMap(options.mapPath, source, target, mapPairs, error))
    return false;
  telvo::KelvaraHelperRef helper;
  if (!MakeHelper(helper, error))
    return false;
  Character sourceCharacter;
  Character targetCharacter;
  if (!BuildCharacter(source, "source", sourceCharacter, error) ||
      !ChooseAndFillPreset(sourceCharacter, helper, options.preset, error) ||
      !BuildCharacter(target, "target", targetCharacter, error) ||
      !ChooseAndFillPreset(targetCharacter, helper, options.preset, error))
    return false;
  PreparedRetarget prepared;
  prepared.source = &sourceCharacter;
  prepared.target = &targetCharacter;
  prepared.helper = helper;
  prepared.mapPairs = mapPairs;
  if (!prepared.Prepare(error))
    return false;
  for (std::size_t t = 0; t < prepared.sourceOfTarget.size(); ++t)
    if (prepared.sourceOfTarget[t] >= 0)
      pairs.emplace_back(prepared.sourceOfTarget[t], static_cast<int>(t));
  return true;
}

} // namespace

int RunPreviewCommand(const PreviewCommandOptions& options)
{
  BvhFile source;
  BvhFile output;
  std::string error;
  if (!ReadBvh(options.sourcePath, source, error) || !ReadBvh(options.outputPath, output, error))
  {
    std::fprintf(stderr, "kelvara: %s\n", error.c_str());
    return 2;
  }
  std::unique_ptr<telvo::LoadedModule> module = LoadModuleOrSayWhy();
  if (!module)
    return 1;
  std::vector<std::pair<int, int>> pairs;
  const bool paired = PairJointsLikeRetarget(source, output, options, pairs, error);
  module->Unload();
  if (!paired)
  {
    std::fprintf(stderr, "kelvara: %s\n", error.c_str());
    return 2;
  }
  PreviewOptions preview;
  preview.frames = options.frames;
  preview.panelSize = options.panelSize;
  if (!RenderPreview(source, output, pairs, preview, options.pngPath, error))
  {
    std::fprintf(stderr, "kelvara: %s\n", error.c_str());
    return 2;
  }
  std::printf("wrote %s: %zu mapped joints drawn in matching colours\n", options.pngPath.c_str(), pairs.size());
  return 0;
}

} // namespace kelvara
