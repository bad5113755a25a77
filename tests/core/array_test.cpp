#include "telvo/array.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <tuple>
#include <vector>

#include "support/oom_sweep.h"

namespace telvo
{
namespace
{

// Shared handles: the use count shows every copy, leak and double release; a move empties them.
using Handle = std::shared_ptr<Int>;
using Handles = BaseArray<Handle>;

std::vector<Int> Ids(const Handles& array)
{
  std::vector<Int> ids;
  for (const Handle& h : array)
    ids.push_back(h != nullptr ? *h : -1);
  return ids;
}

TEST(ArrayGrowth, CapacitiesFollowTheGrowthRule)
{
  BaseArray<Int> array;
  std::vector<std::pair<Int, Int>> steps; // (count after the append, new capacity)
  for (Int i = 0; i < 300; ++i)
  {
    const Int before = array.GetCapacity();
    ASSERT_TRUE(array.Append(i).IsOk());
    if (array.GetCapacity() != before)
      steps.emplace_back(array.GetCount(), array.GetCapacity());
  }
  EXPECT_EQ(steps, (std::vector<std::pair<Int, Int>>{
                     {1, 16}, {17, 32}, {33, 64}, {65, 112}, {113, 176}, {177, 272}, {273, 416}}));
  BaseArray<Int> sized;
  ASSERT_TRUE(sized.EnsureCapacity(20).IsOk());
  ASSERT_TRUE(sized.Resize(33).IsOk());      // (32 + 33) * 3 / 2 = 97
  ASSERT_TRUE(sized.Resize(3).IsOk());       // shrinking keeps the storage
  ASSERT_TRUE(sized.CopyFrom(array).IsOk()); // (112 + 300) * 3 / 2 = 618
  EXPECT_EQ(sized.GetCapacity(), 624);
}

TEST(ArrayHandles, EditsKeepOrderAndExactHandleCounts)
{
  Handle t = std::make_shared<Int>(1);
  {
    Handles array;
    for (Int i = 0; i < 20; ++i)
      ASSERT_TRUE(array.Append(t).IsOk());
    array.Erase(3);
    ASSERT_TRUE(array.Insert(0, std::make_shared<Int>(0)).IsOk());
    ASSERT_TRUE(array.Insert(2, std::make_shared<Int>(2)).IsOk());
    ASSERT_TRUE(array.Resize(5).IsOk());
    EXPECT_EQ(Ids(array), (std::vector<Int>{0, 1, 2, 1, 1}));
    EXPECT_EQ(array.FindIndex(t), 1);
    Handles copy;
    ASSERT_TRUE(copy.CopyFrom(array).IsOk()); // into new storage
    ASSERT_TRUE(array.Resize(2).IsOk());
    ASSERT_TRUE(copy.CopyFrom(array).IsOk()); // in place, dropping the rest
    EXPECT_EQ(Ids(copy), (std::vector<Int>{0, 1}));
    EXPECT_EQ(t.use_count(), 3);
  }
  EXPECT_EQ(t.use_count(), 1);
}

TEST(ArrayHandles, AddingAnElementOfTheSameArray)
{
  Handle a = std::make_shared<Int>(1);
  Handles array;
  ASSERT_TRUE(array.Resize(16).IsOk());
  array[0] = a;
  ASSERT_TRUE(array.Append(array[0]).IsOk()); // the argument lives in the storage that the growth frees
  ASSERT_TRUE(array.Resize(32).IsOk());
  ASSERT_TRUE(array.Insert(1, array[0]).IsOk());
  // Without growth, an element that the shift overwrites: index 17 holds a, index 16 null.
  ASSERT_TRUE(array.Insert(0, array[17]).IsOk());
  EXPECT_EQ(a.use_count(), 5); // a copy of anything else than a would show here
}

TEST(ArrayOutOfMemory, FailedGrowthLeavesTheArrayAsItWas)
{
  Handle t = std::make_shared<Int>(9);
  Handles src; // more than the swept array's storage holds
  ASSERT_TRUE(src.Resize(20).IsOk());
  const std::pair<const char*, std::function<Result<void>(Handles&)>> ops[] = {
    {"Append", [](Handles& a) { return a.Append(a[0]); }},
    {"Insert", [&](Handles& a) { return a.Insert(0, t); }},
    {"Resize", [](Handles& a) { return a.Resize(100); }},
    {"CopyFrom", [&](Handles& a) { return a.CopyFrom(src); }},
  };
  auto full = [&] {
    Handles a;
    EXPECT_TRUE(a.Resize(16).IsOk());
    a[0] = t;
    return a;
  };
  auto snapshot = [&](const Handles& a) {
    return testing::PrintToString(std::tuple(a.GetCapacity(), t.use_count(), Ids(a)));
  };
  for (const auto& [name, op] : ops)
  {
    SCOPED_TRACE(name);
    EXPECT_EQ(kelvara_test::SweepOutOfMemory(full, op, snapshot), 1);
  }
}

} // namespace
} // namespace telvo
