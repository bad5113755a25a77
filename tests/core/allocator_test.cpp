#include "telvo/system.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace telvo
{
namespace
{

// Threads count their blocks apart, yet the count is the whole process's: blocks of threads
// that have ended still count, a block freed by another thread than the one that took it comes
// off, and more threads than the count has slots lose nothing.
TEST(AllocatorCount, LiveBlocksOfEveryThreadWhoeverFreesThem)
{
  const Int before = Allocator::GetLiveCount();
  constexpr int kThreads = 70;
  constexpr int kBlocks = 100;
  std::vector<std::vector<void*>> blocks(kThreads);
  std::vector<std::thread> threads;
  for (std::vector<void*>& own : blocks)
    threads.emplace_back([&own] {
      for (int i = 0; i < kBlocks; ++i)
        own.push_back(Allocator::Alloc(16));
    });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(Allocator::GetLiveCount(), before + kThreads * kBlocks);
  for (const std::vector<void*>& own : blocks)
    for (void* block : own)
      Allocator::Free(block);
  EXPECT_EQ(Allocator::GetLiveCount(), before);
}

} // namespace
} // namespace telvo
