// One clip's frames split over threads: each thread runs a contiguous share of the frames with a
// ClipRetarget of its own, sharing only the prepared retarget (read-only) and the output (each
// thread writes its own frames). Every frame depends on the clip alone, so the output is the same
// to the byte whatever the number of threads; what carries from frame to frame (Euler continuity)
// is the writers' pass over the finished clip.
#pragma once

#include <string>

#include "road/retarget.h"

namespace kelvara
{

// Fewer frames than this per thread are not worth a thread's set-up.
constexpr int kMinFramesPerThread = 64;

// The threads a clip of frameCount frames gets when threads are asked for: at most threads, each
// with kMinFramesPerThread frames or more, and at least one.
int FrameThreads(int frameCount, int threads);

// Every frame of clip through prepared into output, on up to threads threads (0: every core).
// The first failure in frame order is the one reported; memory of the host's running out throws
// std::bad_alloc on the calling thread, as on one thread. A thread that cannot be started leaves
// its frames to the calling thread.
bool RetargetFrames(const PreparedRetarget& prepared, const Clip& clip, int threads, Clip& output,
                    std::string& error);

} // namespace kelvara
