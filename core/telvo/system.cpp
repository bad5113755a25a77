#include "telvo/system.h"

#include <cstdio>
#include <cstdlib>

namespace telvo
{

namespace
{
// Live allocations, counted in slots of their own cache line: each thread counts in one slot, so
// that threads allocating at the same time do not pass one counter's line between their cores
// on every allocation. The count is the slots' sum (a block freed on another thread than the one
// that allocated it leaves one slot up and another down).
constexpr int kLiveSlots = 64;
struct alignas(64) LiveSlot
{
  std::atomic<Int> count{0};
};
LiveSlot g_live[kLiveSlots];
std::atomic<int> g_nextSlot{0};
thread_local int t_slot = -1;

std::atomic<Int>& LiveCounter()
{
  if (t_slot < 0)
    t_slot = g_nextSlot.fetch_add(1, std::memory_order_relaxed) % kLiveSlots;
  return g_live[t_slot].count;
}

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
    LiveCounter().fetch_add(1, std::memory_order_relaxed);
  return p;
}

void Allocator::Free(void* p)
{
  if (p == nullptr)
    return;
  LiveCounter().fetch_sub(1, std::memory_order_relaxed);
  std::free(p);
}

Int Allocator::GetLiveCount()
{
  Int live = 0;
  for (const LiveSlot& slot : g_live)
    live += slot.count.load();
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
