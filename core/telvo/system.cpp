#include "telvo/system.h"

#include <cstdio>
#include <cstdlib>

namespace telvo
{

namespace
{
std::atomic<Int> g_liveCount{0};
// Allocations left before the armed failure; 0 when disarmed.
std::atomic<Int> g_failCountdown{0};
std::atomic<Bool> g_failureDelivered{false};
} // namespace

void* Allocator::Alloc(std::size_t size)
{
  if (g_failCountdown.load(std::memory_order_relaxed) != 0)
  {
    if (g_failCountdown.fetch_sub(1) == 1)
    {
      g_failureDelivered.store(true);
      return nullptr;
    }
  }
  void* p = std::malloc(size == 0 ? 1 : size);
  if (p != nullptr)
    g_liveCount.fetch_add(1, std::memory_order_relaxed);
  return p;
}

void Allocator::Free(void* p)
{
  if (p == nullptr)
    return;
  g_liveCount.fetch_sub(1, std::memory_order_relaxed);
  std::free(p);
}

Int Allocator::GetLiveCount()
{
  return g_liveCount.load();
}

void Allocator::FailNthAllocation(Int n)
{
  g_failureDelivered.store(false);
  g_failCountdown.store(n < 0 ? 0 : n);
}

Bool Allocator::FailureDelivered()
{
  return g_failureDelivered.load();
}

void FatalError(const char* what)
{
  std::fprintf(stderr, "telvo: fatal: %s\n", what);
  std::fflush(stderr);
  std::abort();
}

} // namespace telvo
