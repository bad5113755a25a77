#include "telvo/system.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace telvo
{
namespace
{

// Blocks allocated on some threads and freed on others, many threads more than the count keeps
// slots for: the count follows every block, whichever thread handled it.
TEST(AllocatorLiveCount, FollowsBlocksAcrossThreads)
{
  const Int live = Allocator::GetLiveCount();
  constexpr int kThreads = 80;
  constexpr int kBlocks = 500;
  std::vector<std::vector<void*>> blocks(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&blocks, t] {
      for (int b = 0; b < kBlocks; ++b)
        blocks[static_cast<std::size_t>(t)].push_back(Allocator::Alloc(16));
    });
  for (std::thread& t : threads)
    t.join();
  EXPECT_EQ(Allocator::GetLiveCount(), live + kThreads * kBlocks);

  // Each thread frees another's blocks, half of them while the others allocate anew.
  threads.clear();
  std::vector<std::vector<void*>> again(kThreads);
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&blocks, &again, t] {
      for (void* p : blocks[static_cast<std::size_t>((t + 1) % kThreads)])
      {
        Allocator::Free(p);
        if (again[static_cast<std::size_t>(t)].size() < kBlocks / 2)
          again[static_cast<std::size_t>(t)].push_back(Allocator::Alloc(8));
      }
    });
  for (std::thread& t : threads)
    t.join();
  EXPECT_EQ(Allocator::GetLiveCount(), live + kThreads * (kBlocks / 2));
  for (const std::vector<void*>& own : again)
    for (void* p : own)
      Allocator::Free(p);
  EXPECT_EQ(Allocator::GetLiveCount(), live);
}

} // namespace
} // namespace telvo
