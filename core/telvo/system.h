// Basic types and the one allocator of the framework.
//
// Every allocation made by the framework and by modules goes through Allocator, so that a test
// can count live allocations and make the N-th allocation from now fail on purpose.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

#define TELVO_API __attribute__((visibility("default")))

namespace telvo
{

using Int = std::int64_t;
using UInt = std::uint64_t;
using Int32 = std::int32_t;
using UInt32 = std::uint32_t;
using Float64 = double;
using Bool = bool;
using Char = char;
using Byte = std::uint8_t;

class TELVO_API Allocator
{
public:
  // Returns nullptr when memory is exhausted or when the failure hook says so.
  static void* Alloc(std::size_t size);
  static void Free(void* p);

  // Number of blocks handed out and not yet freed, whichever threads allocated and freed them
  // (exact whenever no other thread is allocating or freeing at the same time).
  static Int GetLiveCount();

  // Makes the n-th allocation from now fail (n >= 1); 0 disarms the hook.
  static void FailNthAllocation(Int n);
  // True when the armed failure has been delivered since the last FailNthAllocation call.
  static Bool FailureDelivered();
};

// Creates a T in memory of the framework allocator; nullptr when the allocation fails.
template <typename T, typename... ARGS>
T* NewObj(ARGS&&... args)
{
  void* mem = Allocator::Alloc(sizeof(T));
  if (mem == nullptr)
    return nullptr;
  return new (mem) T(std::forward<ARGS>(args)...);
}

template <typename T>
void DeleteObj(T* p)
{
  if (p == nullptr)
    return;
  p->~T();
  Allocator::Free(p);
}

// Stops the process at once: used for deliberate traps that must never be ignored.
[[noreturn]] TELVO_API void FatalError(const char* what);

} // namespace telvo
