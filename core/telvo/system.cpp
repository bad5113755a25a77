#include "telvo/system.h"

#include <cstdio>
#include <cstdlib>

namespace telvo
{

namespace
{
// Live blocks are counted in slots, each on a cache line of its own, a thread to a slot (threads
// share slots only when there are more of them than slots). One counter for every thread would
// have its line travel between the cores of threads that allocate at once, on every allocation
// and every free. The count is the sum of the slots.
constexpr int kCountSlots = 64;
struct alignas(64) CountSlot
{
  std::atomic<Int> live{0};
};
CountSlot g_liveCounts[kCountSlots];
std::atomic<int> g_slotsTaken{0};
thread_local int t_countSlot = -1;

std::atomic<Int>& LiveCountOfThisThread()
{
  if (t_countSlot < 0)
    t_countSlot = g_slotsTaken.fetch_add(1, std::memory_order_relaxed) % kCountSlots;
  return g_liveCounts[t_countSlot].live;
}

// Allocations left before the armed failure; 0 when disarmed. Read by every allocation, so on a
// line that no counter shares.
alignas(64) std::atomic<Int> g_failCountdown{0};
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
    LiveCountOfThisThread().fetch_add(1, std::memory_order_relaxed);
  return p;
}

void Allocator::Free(void* p)
{
  if (p == nullptr)
    return;
  LiveCountOfThisThread().fetch_sub(1, std::memory_order_relaxed);
  std::free(p);
}

Int Allocator::GetLiveCount()
{
  Int live = 0;
  for (const CountSlot& slot : g_liveCounts)
    live += slot.live.load();
  return live;
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
