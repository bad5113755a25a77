// kelvara demo: the whole road on the built-in walk and skeleton, no file needed.
#include <cstdio>

#include "commands.h"
#include "demo.h"

namespace kelvara
{

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
  return RetargetLoaded(source, target, options, 0.0, 0.0);
}

} // namespace kelvara
