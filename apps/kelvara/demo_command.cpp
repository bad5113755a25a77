// kelvara demo: the whole road on the built-in walk and skeleton, no file needed.
#include <cstdio>

#include "commands.h"
#include "demo.h"
#include "preview.h"

namespace kelvara
{

int WriteDemoTarget(const std::string& path)
{
  BvhFile target = MakeDemoTarget();
  target.path = path;
  std::string error;
  if (!WriteBvh(path, target, error))
  {
    std::fprintf(stderr, "kelvara: %s\n", error.c_str());
    return 1;
  }
  std::printf("wrote %s: the built-in target, %zu joints\n", path.c_str(), target.joints.size());
  return 0;
}

int RunDemoCommand(const std::string& outPath, int frames, bool matchRest)
{
  BvhFile source = MakeDemoSource(frames);
  source.path = "(built-in walk)";
  BvhFile target = MakeDemoTarget();
  target.path = "(built-in target)";
  std::printf("kelvara demo: a built-in walk (%zu joints, %d frames) onto a built-in skeleton of other names, "
              "proportions and rest pose (%zu joints)\n\n",
              source.joints.size(), source.frameCount, target.joints.size());
  RetargetOptions options;
  options.outPath = outPath;
  options.matchRest = matchRest;
  BvhFile otherRest;
  const int status = RetargetLoaded(source, target, options, 0.0, 0.0, &otherRest);
  if (status != 0)
    return status;

  // A picture of the walk and its result beside the output, read back from the written file.
  BvhFile written;
  std::string error;
  if (!ReadBvh(outPath, written, error))
  {
    std::fprintf(stderr, "kelvara: %s\n", error.c_str());
    return 1;
  }
  std::vector<std::pair<int, int>> pairs;
  auto indexOf = [](const BvhFile& file, const std::string& name) {
    for (std::size_t i = 0; i < file.joints.size(); ++i)
      if (file.joints[i].name == name)
        return static_cast<int>(i);
    return -1;
  };
  for (const auto& [targetName, sourceName] : DemoExpectedPairs())
    if (indexOf(source, sourceName) >= 0 && indexOf(written, targetName) >= 0)
      pairs.emplace_back(indexOf(source, sourceName), indexOf(written, targetName));
  PreviewOptions preview;
  preview.frames = {0, source.frameCount / 3, 2 * source.frameCount / 3};
  const std::string stem = outPath.size() > 4 && outPath.compare(outPath.size() - 4, 4, ".bvh") == 0
                             ? outPath.substr(0, outPath.size() - 4)
                             : outPath;
  const std::string pngPath = stem + "_preview.png";
  // Both results beside the walk, the target's own rest first: the A-pose arms show the difference.
  const PreviewClip own{matchRest ? &otherRest : &written, "target (own rest)"};
  const PreviewClip matched{matchRest ? &written : &otherRest, "target (matched rest)"};
  if (!RenderPreview(source, {own, matched}, pairs, preview, pngPath, error))
  {
    std::fprintf(stderr, "kelvara: %s\n", error.c_str());
    return 1;
  }
  std::printf("wrote %s: the walk and its retarget on the target's own rest and on the matched rest, side by "
              "side; %s was written\n",
              pngPath.c_str(), matchRest ? "the matched one" : "the one on its own rest (try --match-rest)");
  return 0;
}

} // namespace kelvara
