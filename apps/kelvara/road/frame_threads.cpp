#include "road/frame_threads.h"

#include <vector>

#include "io/shares.h"

namespace kelvara
{

int FrameThreads(int frameCount, int threads)
{
  return ShareCount(frameCount, threads, kMinFramesPerThread);
}

bool RetargetFrames(const PreparedRetarget& prepared, const Clip& clip, int threads, Clip& output,
                    std::string& error)
{
  ClipRetarget first;
  if (!first.Setup(prepared, error) || !first.Begin(clip, output, error))
    return false;
  const int shares = FrameThreads(clip.frameCount, threads);
  std::vector<std::string> errors(static_cast<std::size_t>(shares));
  std::vector<char> ok(static_cast<std::size_t>(shares), 0);
  RunShares(clip.frameCount, shares, [&](int share, int from, int to) {
    std::string& shareError = errors[static_cast<std::size_t>(share)];
    ClipRetarget own;
    if (share != 0 && !own.Setup(prepared, shareError))
      return;
    ok[static_cast<std::size_t>(share)] = (share == 0 ? first : own).RunFrames(clip, from, to, output, shareError);
  });
  for (int share = 0; share < shares; ++share)
    if (!ok[static_cast<std::size_t>(share)])
    {
      error = errors[static_cast<std::size_t>(share)];
      return false;
    }
  return true;
}

} // namespace kelvara
