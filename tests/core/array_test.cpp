#include "telvo/array.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "support/oom_sweep.h"

namespace telvo
{
namespace
{

// A shared handle in miniature: copies raise the target's count, destruction lowers it, a move
// leaves the source empty. The counts show every copy, leak and double release.
struct Target
{
  Int refs = 0;
  Int id = 0;
};

class Handle
{
public:
  Handle() = default;
  explicit Handle(Target* t) : _t(t) { Retain(); }
  Handle(const Handle& o) : _t(o._t) { Retain(); }
  Handle(Handle&& o) noexcept : _t(std::exchange(o._t, nullptr)) {}
  Handle& operator=(Handle o) noexcept
  {
    std::swap(_t, o._t);
    return *this;
  }
  ~Handle()
  {
    if (_t != nullptr)
      --_t->refs;
  }
  Target* Get() const { return _t; }
  Int Id() const { return _t != nullptr ? _t->id : -1; }

private:
  void Retain()
  {
    if (_t != nullptr)
      ++_t->refs;
  }
  Target* _t = nullptr;
};

std::vector<Int> Ids(const BaseArray<Handle>& array)
{
  std::vector<Int> ids;
  for (const Handle& h : array)
    ids.push_back(h.Id());
  return ids;
}

// An array of handles to t whose count has reached its capacity.
BaseArray<Handle> Full(Target& t)
{
  BaseArray<Handle> array;
  do
    EXPECT_TRUE(array.Append(Handle(&t)).IsOk());
  while (array.GetCount() < array.GetCapacity());
  return array;
}

TEST(ArrayGrowth, CapacitiesFollowTheGrowthRule)
{
  // Room for the old capacity plus the extra times 1.5, rounded up to 16; never less than needed.
  EXPECT_EQ(ComputeArrayGrowth(0, 0), 16);
  EXPECT_EQ(ComputeArrayGrowth(0, 17), 32);
  EXPECT_EQ(ComputeArrayGrowth(16, 16), 48); // exact multiple stays
  // One by one: 25 -> 32, 49 -> 64, 97 -> 112, ...
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
  for (Int i = 0; i < 300; ++i)
    ASSERT_EQ(array[i], i);
}

TEST(ArrayGrowth, ResizeEnsureCapacityAndCopyFrom)
{
  BaseArray<Int> array;
  ASSERT_TRUE(array.Resize(40).IsOk());
  EXPECT_EQ(array.GetCapacity(), 48);
  ASSERT_TRUE(array.Resize(49).IsOk()); // (48 + 9) * 3 / 2 = 85
  EXPECT_EQ(array.GetCapacity(), 96);
  ASSERT_TRUE(array.Resize(3).IsOk()); // shrinking keeps the storage
  EXPECT_EQ(array.GetCapacity(), 96);

  BaseArray<Int> reserved;
  ASSERT_TRUE(reserved.EnsureCapacity(20).IsOk());
  ASSERT_TRUE(reserved.EnsureCapacity(32).IsOk());
  EXPECT_EQ(reserved.GetCapacity(), 32);
  EXPECT_EQ(reserved.GetCount(), 0);

  BaseArray<Int> src;
  ASSERT_TRUE(src.Resize(20).IsOk());
  BaseArray<Int> empty;
  ASSERT_TRUE(empty.CopyFrom(src).IsOk());
  EXPECT_EQ(empty.GetCapacity(), 32);
  BaseArray<Int> small;
  ASSERT_TRUE(small.Append(1).IsOk()); // capacity 16
  ASSERT_TRUE(small.CopyFrom(src).IsOk());
  EXPECT_EQ(small.GetCapacity(), 64); // (16 + 20) * 3 / 2 = 54
  // Enough room: the storage is reused.
  const Int* data = small.begin();
  ASSERT_TRUE(small.CopyFrom(src).IsOk());
  EXPECT_EQ(small.begin(), data);
  EXPECT_EQ(small.GetCount(), 20);
}

TEST(ArrayHandles, EveryOperationKeepsHandleCountsExact)
{
  Target t{0, 1};
  {
    BaseArray<Handle> array;
    for (Int i = 0; i < 20; ++i)
      ASSERT_TRUE(array.Append(Handle(&t)).IsOk());
    array.Erase(3);
    EXPECT_EQ(t.refs, 19);
    ASSERT_TRUE(array.Insert(0, Handle(&t)).IsOk());
    EXPECT_EQ(t.refs, 20);
    ASSERT_TRUE(array.Resize(5).IsOk());
    ASSERT_TRUE(array.Resize(40).IsOk());
    EXPECT_EQ(t.refs, 5);
    EXPECT_EQ(array[39].Get(), nullptr);

    BaseArray<Handle> copy;
    ASSERT_TRUE(copy.Append(Handle(&t)).IsOk());
    ASSERT_TRUE(copy.CopyFrom(array).IsOk()); // grows
    EXPECT_EQ(t.refs, 10);
    ASSERT_TRUE(array.Resize(2).IsOk());
    ASSERT_TRUE(copy.CopyFrom(array).IsOk()); // shrinks in place
    EXPECT_EQ(t.refs, 4);
    copy.Clear();
    EXPECT_EQ(t.refs, 2);

    BaseArray<Handle> moved(std::move(array));
    EXPECT_EQ(t.refs, 2);
    EXPECT_EQ(array.GetCount(), 0);
  }
  EXPECT_EQ(t.refs, 0);
}

TEST(ArrayHandles, AddingAnElementOfTheSameArray)
{
  Target a{0, 1};
  Target b{0, 2};
  BaseArray<Handle> array = Full(b);
  array[0] = Handle(&a);
  // The argument lives in the storage that the growth frees.
  ASSERT_TRUE(array.Append(array[0]).IsOk());
  EXPECT_EQ(array.GetCapacity(), 32);
  EXPECT_EQ(array[16].Id(), 1);
  EXPECT_EQ(a.refs, 2);

  while (array.GetCount() < array.GetCapacity())
    ASSERT_TRUE(array.Append(Handle(&b)).IsOk());
  ASSERT_TRUE(array.Insert(1, array[0]).IsOk());
  EXPECT_EQ(Ids(array)[1], 1);
  EXPECT_EQ(Ids(array)[2], 2);
  EXPECT_EQ(a.refs, 3);
  // Without growth, an element that the shift overwrites: index 17 holds a, index 16 holds b.
  ASSERT_EQ(array[16].Id(), 2);
  ASSERT_TRUE(array.Insert(0, array[17]).IsOk());
  EXPECT_EQ(array[0].Id(), 1);
  EXPECT_EQ(array[18].Id(), 1);
  EXPECT_EQ(a.refs, 4);
}

TEST(ArrayEditing, InsertEraseAndResizeKeepOrder)
{
  Target t[5] = {{0, 0}, {0, 1}, {0, 2}, {0, 3}, {0, 4}};
  BaseArray<Handle> array;
  ASSERT_TRUE(array.Append(Handle(&t[1])).IsOk());
  ASSERT_TRUE(array.Insert(0, Handle(&t[0])).IsOk());
  ASSERT_TRUE(array.Insert(2, Handle(&t[3])).IsOk());
  ASSERT_TRUE(array.Insert(2, Handle(&t[2])).IsOk());
  EXPECT_EQ(Ids(array), (std::vector<Int>{0, 1, 2, 3}));
  array.Erase(0);
  array.Erase(2);
  ASSERT_TRUE(array.Resize(4).IsOk());
  EXPECT_EQ(Ids(array), (std::vector<Int>{1, 2, -1, -1}));
  BaseArray<Int> ints;
  ASSERT_TRUE(ints.Resize(3).IsOk());
  ints[2] = 7;
  EXPECT_EQ(ints.FindIndex(7), 2);
  EXPECT_EQ(ints.FindIndex(8), -1);
}

// Sweeps op on the array that make() builds: each failing run must leave the elements, the
// capacity and the handle counts as they were.
template <typename MAKE, typename OP>
int Sweep(const Target& t, MAKE make, OP op)
{
  return kelvara_test::SweepOutOfMemory(make, op, [&](const BaseArray<Handle>& array) {
    std::string text = std::to_string(array.GetCapacity()) + " refs " + std::to_string(t.refs) + ":";
    for (Int id : Ids(array))
      text += " " + std::to_string(id);
    return text;
  });
}

TEST(ArrayOutOfMemory, AppendInsertResizeAndCopyFrom)
{
  Target t{0, 9};
  using A = BaseArray<Handle>;
  EXPECT_EQ(Sweep(t, [] { return A(); }, [&](A& a) { return a.Append(Handle(&t)); }), 1);
  auto full = [&] { return Full(t); };
  EXPECT_EQ(Sweep(t, full, [](A& a) { return a.Append(a[0]); }), 1);
  EXPECT_EQ(Sweep(t, full, [&](A& a) { return a.Insert(0, Handle(&t)); }), 1);
  EXPECT_EQ(Sweep(t, full, [](A& a) { return a.Resize(100); }), 1);
  A src; // more than the copy's storage holds
  ASSERT_TRUE(src.Resize(20).IsOk());
  src[0] = Handle(&t);
  auto one = [&] {
    A a;
    EXPECT_TRUE(a.Append(Handle(&t)).IsOk());
    return a;
  };
  EXPECT_EQ(Sweep(t, one, [&](A& a) { return a.CopyFrom(src); }), 1);
}

TEST(ArrayOutOfMemory, FailedMoveAppendGivesTheValueBack)
{
  Target t{0, 4};
  BaseArray<Handle> array;
  Handle h(&t);
  Allocator::FailNthAllocation(1);
  Result<void> result = array.Append(std::move(h));
  Allocator::FailNthAllocation(0);
  EXPECT_TRUE(result.IsError());
  EXPECT_EQ(h.Get(), &t);
  EXPECT_EQ(t.refs, 1);
}

} // namespace
} // namespace telvo
