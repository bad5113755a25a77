// Rows of work (frames) split into contiguous shares run on threads of their own. A share that
// cannot get a thread runs on the calling thread; an exception a share throws (memory running
// out) is thrown again on the calling thread once every share is done.
#pragma once

#include <functional>

namespace kelvara
{

// std::thread::hardware_concurrency, or 1 when it cannot tell.
int CoreCount();

// Shares for count rows on up to threads threads (0: every core), each of minRows rows or more;
// at least one.
int ShareCount(int count, int threads, int minRows);

// run(share, first, last) for each share of [0, count), share 0 on the calling thread.
void RunShares(int count, int shares, const std::function<void(int share, int first, int last)>& run);

} // namespace kelvara
