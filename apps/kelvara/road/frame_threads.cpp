#include "road/frame_threads.h"

#include <algorithm>
#include <new>
#include <system_error>
#include <thread>
#include <vector>

namespace kelvara
{

int CoreCount()
{
  const unsigned cores = std::thread::hardware_concurrency();
  return cores > 0 ? static_cast<int>(cores) : 1;
}

int FrameThreads(int frameCount, int threads)
{
  if (threads <= 0)
    threads = CoreCount();
  return std::max(1, std::min(threads, frameCount / kMinFramesPerThread));
}

bool RetargetFrames(const PreparedRetarget& prepared, const Clip& clip, int threads, Clip& output,
                    std::string& error)
{
  ClipRetarget first;
  if (!first.Setup(prepared, error) || !first.Begin(clip, output, error))
    return false;
  const int shares = FrameThreads(clip.frameCount, threads);
  if (shares == 1)
    return first.RunFrames(clip, 0, clip.frameCount, output, error);

  struct Share
  {
    int first = 0;
    int last = 0;
    bool ok = false;
    std::string error;
  };
  std::vector<Share> work(static_cast<std::size_t>(shares));
  for (int i = 0; i < shares; ++i)
  {
    work[static_cast<std::size_t>(i)].first = static_cast<int>(static_cast<long>(clip.frameCount) * i / shares);
    work[static_cast<std::size_t>(i)].last = static_cast<int>(static_cast<long>(clip.frameCount) * (i + 1) / shares);
  }
  auto run = [&](Share& share, ClipRetarget* retarget) {
    // A worker cannot let an exception out: memory running out fails its share alone.
    try
    {
      ClipRetarget own;
      if (retarget == nullptr && !own.Setup(prepared, share.error))
        return;
      share.ok = (retarget != nullptr ? *retarget : own).RunFrames(clip, share.first, share.last, output, share.error);
    }
    catch (const std::bad_alloc&)
    {
      share.ok = false;
      share.error = "Out of memory while retargeting frames " + std::to_string(share.first) + " to " +
                    std::to_string(share.last - 1);
    }
  };

  std::vector<std::thread> workers;
  workers.reserve(static_cast<std::size_t>(shares - 1));
  int started = 1;
  for (; started < shares; ++started)
  {
    try
    {
      workers.emplace_back(run, std::ref(work[static_cast<std::size_t>(started)]), nullptr);
    }
    catch (const std::system_error&)
    {
      break;
    }
    catch (const std::bad_alloc&)
    {
      break;
    }
  }
  run(work[0], &first);
  for (int i = started; i < shares; ++i)
    run(work[static_cast<std::size_t>(i)], &first);
  for (std::thread& t : workers)
    t.join();
  for (const Share& share : work)
    if (!share.ok)
    {
      error = share.error;
      return false;
    }
  return true;
}

} // namespace kelvara
