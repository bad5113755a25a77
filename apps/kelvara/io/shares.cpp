#include "io/shares.h"

#include <algorithm>
#include <exception>
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

int ShareCount(int count, int threads, int minRows)
{
  if (threads <= 0)
    threads = CoreCount();
  return std::max(1, std::min(threads, count / std::max(1, minRows)));
}

void RunShares(int count, int shares, const std::function<void(int share, int first, int last)>& run)
{
  auto first = [&](int share) { return static_cast<int>(static_cast<long>(count) * share / shares); };
  if (shares <= 1)
  {
    run(0, 0, count);
    return;
  }
  std::vector<std::exception_ptr> failures(static_cast<std::size_t>(shares));
  auto guarded = [&](int share) {
    try
    {
      run(share, first(share), first(share + 1));
    }
    catch (...)
    {
      failures[static_cast<std::size_t>(share)] = std::current_exception();
    }
  };
  std::vector<std::thread> workers;
  int started = 1;
  try
  {
    workers.reserve(static_cast<std::size_t>(shares - 1));
    for (; started < shares; ++started)
      workers.emplace_back(guarded, started);
  }
  catch (const std::system_error&)
  {
  }
  catch (const std::bad_alloc&)
  {
  }
  guarded(0);
  for (int share = started; share < shares; ++share)
    guarded(share);
  for (std::thread& worker : workers)
    worker.join();
  for (const std::exception_ptr& failure : failures)
    if (failure)
      std::rethrow_exception(failure);
}

} // namespace kelvara
