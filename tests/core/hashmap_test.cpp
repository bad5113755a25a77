#include "telvo/hashmap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace telvo
{
namespace
{

// The key is its own hash, so a test chooses the bucket of every key (bucket = key % count).
struct IdentityHash
{
  static UInt Hash(const UInt& key) { return key; }
  static Bool Equal(const UInt& a, const UInt& b) { return a == b; }
};

using IdMap = HashMap<UInt, Int, IdentityHash>;

// Counts live instances, so that leaked or doubly destroyed values show up.
struct Counted
{
  static inline Int live = 0;
  Int value = 0;
  Counted(Int v = 0) : value(v) { ++live; }
  Counted(const Counted& o) : value(o.value) { ++live; }
  Counted& operator=(const Counted&) = default;
  ~Counted() { --live; }
};

template <typename MAP>
std::vector<UInt> Keys(const MAP& map)
{
  std::vector<UInt> keys;
  for (const auto& entry : map)
    keys.push_back(static_cast<UInt>(entry.GetKey()));
  return keys;
}

std::vector<std::pair<UInt, Int>> Contents(const HashMap<UInt, Counted, IdentityHash>& map)
{
  std::vector<std::pair<UInt, Int>> contents;
  for (const auto& entry : map)
    contents.emplace_back(entry.GetKey(), entry.GetValue().value);
  return contents;
}

void InsertAll(IdMap& map, const std::vector<UInt>& keys)
{
  for (UInt key : keys)
    ASSERT_TRUE(map.Insert(key, static_cast<Int>(key) * 10).IsOk());
}

TEST(HashMap, NewMapHasNoStorageAndMissesEverything)
{
  const Int live = Allocator::GetLiveCount();
  const IdMap map;
  EXPECT_EQ(map.GetCount(), 0);
  EXPECT_EQ(map.GetBucketCount(), 0);
  EXPECT_EQ(map.GetLoadFactor(), 0.65);
  EXPECT_EQ(map.Find(7), nullptr);
  EXPECT_EQ(map.begin(), map.end());
  EXPECT_EQ(Allocator::GetLiveCount(), live);
}

TEST(HashMap, FindsInsertedValuesAndMissesOthers)
{
  IdMap map;
  InsertAll(map, {1, 17, 33, 4});
  EXPECT_EQ(map.GetBucketCount(), 16);
  EXPECT_EQ(map.GetCount(), 4);
  ASSERT_NE(map.Find(17), nullptr);
  EXPECT_EQ(*map.Find(17), 170);
  // Same bucket as stored keys, but absent.
  EXPECT_EQ(map.Find(49), nullptr);
  EXPECT_EQ(map.Find(2), nullptr);
  *map.Find(33) = 5;
  const IdMap& constMap = map;
  EXPECT_EQ(*constMap.Find(33), 5);
}

TEST(HashMap, EqualHashesAreNotEnoughForAMatch)
{
  // Every key collides: lookups must fall back on Equal.
  struct ConstantHash
  {
    static UInt Hash(const Int&) { return 3; }
    static Bool Equal(const Int& a, const Int& b) { return a == b; }
  };
  HashMap<Int, Int, ConstantHash> map;
  for (Int i = 0; i < 30; ++i)
    ASSERT_TRUE(map.Insert(i, -i).IsOk());
  EXPECT_EQ(map.GetCount(), 30);
  for (Int i = 0; i < 30; ++i)
    ASSERT_EQ(*map.Find(i), -i);
  EXPECT_EQ(map.Find(30), nullptr);
}

TEST(HashMap, IterationFollowsTheOrderInWhichBucketsFilled)
{
  IdMap map;
  InsertAll(map, {5, 2, 9});
  EXPECT_EQ(Keys(map), (std::vector<UInt>{5, 2, 9}));
}

TEST(HashMap, IterationVisitsTheNewestEntryOfABucketFirst)
{
  IdMap map;
  InsertAll(map, {3, 5, 19, 35});
  EXPECT_EQ(Keys(map), (std::vector<UInt>{35, 19, 3, 5}));
}

TEST(HashMap, OverwriteKeepsPositionAndCount)
{
  IdMap map;
  InsertAll(map, {3, 5, 19});
  ASSERT_TRUE(map.Insert(3, 99).IsOk());
  ASSERT_TRUE(map.Insert(19, 98).IsOk());
  EXPECT_EQ(map.GetCount(), 3);
  EXPECT_EQ(Keys(map), (std::vector<UInt>{19, 3, 5}));
  EXPECT_EQ(*map.Find(3), 99);
  EXPECT_EQ(*map.Find(19), 98);
}

TEST(HashMap, OverwriteNeverAllocatesAndReassigningTheSameHandleChangesNothing)
{
  HashMap<Int, String> map;
  Result<String> text = String::Create("shoulder");
  ASSERT_TRUE(text.IsOk());
  ASSERT_TRUE(map.Insert(1, text.GetValue()).IsOk());
  const String* stored = map.Find(1);
  const Int refs = stored->GetReferenceCount();
  const Int live = Allocator::GetLiveCount();

  ASSERT_TRUE(map.Insert(1, *stored).IsOk());
  EXPECT_EQ(map.Find(1), stored);
  EXPECT_TRUE(stored->IsSameBuffer(text.GetValue()));
  EXPECT_EQ(stored->GetReferenceCount(), refs);
  EXPECT_EQ(Allocator::GetLiveCount(), live);
}

TEST(HashMap, GrowsWhenTheCountWouldExceedTheLoadFactor)
{
  HashMap<Int, Int> map;
  // Bucket count after each insertion: 16 * 0.65 = 10.4, 32 * 0.65 = 20.8, 64 * 0.65 = 41.6.
  std::vector<std::pair<Int, Int>> steps;
  Int buckets = 0;
  for (Int i = 1; i <= 42; ++i)
  {
    ASSERT_TRUE(map.Insert(i, i).IsOk());
    if (map.GetBucketCount() != buckets)
    {
      buckets = map.GetBucketCount();
      steps.emplace_back(i, buckets);
    }
  }
  EXPECT_EQ(steps, (std::vector<std::pair<Int, Int>>{{1, 16}, {11, 32}, {21, 64}, {42, 128}}));
  for (Int i = 1; i <= 42; ++i)
    ASSERT_NE(map.Find(i), nullptr) << i;
}

TEST(HashMap, LoadFactorMovesTheGrowthPoint)
{
  IdMap map;
  map.SetLoadFactor(1.0);
  for (UInt i = 0; i < 16; ++i)
    ASSERT_TRUE(map.Insert(i, 0).IsOk());
  EXPECT_EQ(map.GetBucketCount(), 16);
  ASSERT_TRUE(map.Insert(16, 0).IsOk());
  EXPECT_EQ(map.GetBucketCount(), 32);
}

TEST(HashMap, OverwritingAtTheThresholdDoesNotGrow)
{
  IdMap map;
  InsertAll(map, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9});
  ASSERT_TRUE(map.Insert(4, 1).IsOk());
  EXPECT_EQ(map.GetBucketCount(), 16);
  EXPECT_EQ(map.GetCount(), 10);
}

TEST(HashMap, GrowthRelinksInIterationOrderAndFillsBucketsInThatOrder)
{
  IdMap map;
  InsertAll(map, {1, 17, 2, 3, 4, 5, 6, 7, 8, 9});
  ASSERT_EQ(Keys(map), (std::vector<UInt>{17, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
  // The 11th entry grows 16 -> 32 first: 17 is relinked first, so bucket 17 now precedes bucket 1,
  // and 33 lands in bucket 1 at the head of its chain.
  ASSERT_TRUE(map.Insert(33, 0).IsOk());
  EXPECT_EQ(map.GetBucketCount(), 32);
  EXPECT_EQ(Keys(map), (std::vector<UInt>{17, 33, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
}

TEST(HashMap, GrowthReversesChainsThatStayTogether)
{
  IdMap map;
  InsertAll(map, {1, 33, 65, 2, 3, 4, 5, 6, 7, 8});
  ASSERT_EQ(Keys(map), (std::vector<UInt>{65, 33, 1, 2, 3, 4, 5, 6, 7, 8}));
  // 1, 33 and 65 share bucket 1 at 32 buckets too; each relinked entry goes to the head.
  ASSERT_TRUE(map.Insert(9, 0).IsOk());
  EXPECT_EQ(map.GetBucketCount(), 32);
  EXPECT_EQ(Keys(map), (std::vector<UInt>{1, 33, 65, 2, 3, 4, 5, 6, 7, 8, 9}));
  EXPECT_EQ(*map.Find(65), 650);
}

TEST(HashMap, ValuesStayPutAcrossGrowth)
{
  IdMap map;
  ASSERT_TRUE(map.Insert(7, 70).IsOk());
  const Int* value = map.Find(7);
  for (UInt i = 100; i < 200; ++i)
    ASSERT_TRUE(map.Insert(i, 0).IsOk());
  EXPECT_EQ(map.Find(7), value);
}

TEST(HashMap, NonConstIterationCanChangeValues)
{
  IdMap map;
  InsertAll(map, {1, 2, 3});
  for (auto& entry : map)
    entry.GetValue() += 1;
  EXPECT_EQ(*map.Find(2), 21);
}

TEST(HashMap, FlushReleasesEverythingAndKeepsTheLoadFactor)
{
  const Int live = Allocator::GetLiveCount();
  const Int counted = Counted::live;
  {
    HashMap<UInt, Counted, IdentityHash> map;
    map.SetLoadFactor(1.0);
    for (UInt i = 0; i < 40; ++i)
      ASSERT_TRUE(map.Insert(i, Counted(static_cast<Int>(i))).IsOk());
    map.Flush();
    EXPECT_EQ(map.GetCount(), 0);
    EXPECT_EQ(map.GetBucketCount(), 0);
    EXPECT_EQ(map.Find(3), nullptr);
    EXPECT_EQ(Allocator::GetLiveCount(), live);
    EXPECT_EQ(Counted::live, counted);

    for (UInt i = 0; i < 16; ++i)
      ASSERT_TRUE(map.Insert(i, Counted()).IsOk());
    EXPECT_EQ(map.GetBucketCount(), 16);
  }
  // The destructor flushes.
  EXPECT_EQ(Allocator::GetLiveCount(), live);
  EXPECT_EQ(Counted::live, counted);
}

TEST(HashMap, MoveTransfersTheEntries)
{
  IdMap a;
  InsertAll(a, {5, 2, 9});
  IdMap b(std::move(a));
  EXPECT_EQ(a.GetCount(), 0);
  EXPECT_EQ(a.GetBucketCount(), 0);
  EXPECT_EQ(Keys(b), (std::vector<UInt>{5, 2, 9}));

  IdMap c;
  InsertAll(c, {1});
  c = std::move(b);
  EXPECT_EQ(Keys(c), (std::vector<UInt>{5, 2, 9}));
  EXPECT_EQ(b.Find(5), nullptr);
  // A moved-from map is usable.
  InsertAll(b, {4});
  EXPECT_EQ(Keys(b), (std::vector<UInt>{4}));
}

TEST(HashMap, CopyIteratesAndGrowsIdentically)
{
  IdMap src;
  InsertAll(src, {1, 33, 65, 2, 18, 3, 4, 5, 6, 7, 8, 9, 41});
  src.SetLoadFactor(0.5);
  IdMap dst;
  InsertAll(dst, {100, 200, 300});

  ASSERT_TRUE(dst.CopyFrom(src).IsOk());
  EXPECT_EQ(dst.GetBucketCount(), src.GetBucketCount());
  EXPECT_EQ(dst.GetCount(), src.GetCount());
  EXPECT_EQ(Keys(dst), Keys(src));
  EXPECT_EQ(dst.Find(100), nullptr);
  EXPECT_EQ(*dst.Find(41), 410);

  // Same structure and load factor: the next growth reorders both the same way.
  for (UInt key : {10, 11, 12, 74})
  {
    ASSERT_TRUE(src.Insert(key, 0).IsOk());
    ASSERT_TRUE(dst.Insert(key, 0).IsOk());
  }
  EXPECT_EQ(dst.GetBucketCount(), 64);
  EXPECT_EQ(Keys(dst), Keys(src));
}

TEST(HashMap, CopyOfAnEmptyMapAndOntoItself)
{
  IdMap map;
  InsertAll(map, {5, 2, 9});
  const Int live = Allocator::GetLiveCount();
  ASSERT_TRUE(map.CopyFrom(map).IsOk());
  EXPECT_EQ(Keys(map), (std::vector<UInt>{5, 2, 9}));
  EXPECT_EQ(Allocator::GetLiveCount(), live);

  const IdMap empty;
  ASSERT_TRUE(map.CopyFrom(empty).IsOk());
  EXPECT_EQ(map.GetCount(), 0);
  EXPECT_EQ(map.GetBucketCount(), 0);
}

TEST(HashMap, DefaultHashSpreadsIntegralKeys)
{
  // Multiples of 16 all share bucket 0 under an identity hash; the mixed hash spreads them.
  HashMap<Int, Int> map;
  for (Int i = 0; i < 10; ++i)
    ASSERT_TRUE(map.Insert(i * 16, i).IsOk());
  std::vector<UInt> buckets;
  for (const auto& entry : map)
    buckets.push_back(DefaultHash<Int>::Hash(entry.GetKey()) % 16);
  std::sort(buckets.begin(), buckets.end());
  EXPECT_GE(std::unique(buckets.begin(), buckets.end()) - buckets.begin(), 5);

  // Negative and narrow keys work and stay distinct.
  HashMap<Int32, Int> narrow;
  ASSERT_TRUE(narrow.Insert(-1, 1).IsOk());
  ASSERT_TRUE(narrow.Insert(1, 2).IsOk());
  EXPECT_EQ(*narrow.Find(-1), 1);
  EXPECT_EQ(*narrow.Find(1), 2);
  EXPECT_NE(DefaultHash<Int>::Hash(1), DefaultHash<Int>::Hash(2));
}

TEST(HashMap, StringAndUuidKeysCompareByValue)
{
  HashMap<String, Int> strings;
  Result<String> a1 = String::Create("hip");
  Result<String> a2 = String::Create("hip");
  Result<String> b = String::Create("Hip");
  ASSERT_TRUE(a1.IsOk() && a2.IsOk() && b.IsOk());
  ASSERT_FALSE(a1.GetValue().IsSameBuffer(a2.GetValue()));
  ASSERT_TRUE(strings.Insert(a1.GetValue(), 1).IsOk());
  ASSERT_TRUE(strings.Insert(b.GetValue(), 2).IsOk());
  ASSERT_NE(strings.Find(a2.GetValue()), nullptr);
  EXPECT_EQ(*strings.Find(a2.GetValue()), 1);
  EXPECT_EQ(*strings.Find(b.GetValue()), 2);

  HashMap<Uuid, Int> uuids;
  Uuid::Bytes bytes{};
  bytes[3] = 7;
  Result<Uuid> u1 = Uuid::Create(bytes);
  Result<Uuid> u2 = Uuid::Create(bytes);
  ASSERT_TRUE(u1.IsOk() && u2.IsOk());
  ASSERT_FALSE(u1.GetValue().IsSameObject(u2.GetValue()));
  ASSERT_TRUE(uuids.Insert(u1.GetValue(), 5).IsOk());
  ASSERT_TRUE(uuids.Insert(u2.GetValue(), 6).IsOk());
  EXPECT_EQ(uuids.GetCount(), 1);
  EXPECT_EQ(*uuids.Find(u1.GetValue()), 6);
}

TEST(HashMap, InternedIdKeysCompareByIdentity)
{
  Result<InternedId> interned = InternedId::Intern("elbow");
  Result<InternedId> again = InternedId::Intern("elbow");
  Result<InternedId> detached = InternedId::CreateDetached("elbow");
  ASSERT_TRUE(interned.IsOk() && again.IsOk() && detached.IsOk());
  HashMap<InternedId, Int> map;
  ASSERT_TRUE(map.Insert(interned.GetValue(), 1).IsOk());
  ASSERT_NE(map.Find(again.GetValue()), nullptr);
  // Equal text and hash, but another object: a different key.
  EXPECT_EQ(map.Find(detached.GetValue()), nullptr);
  ASSERT_TRUE(map.Insert(detached.GetValue(), 2).IsOk());
  EXPECT_EQ(map.GetCount(), 2);
}

// Fails the 1st, 2nd, ... allocation of op until it succeeds; every failing run must report
// OutOfMemoryError, leave the map as it was and leak nothing. Returns the number of failed runs.
template <typename OP>
Int SweepOutOfMemory(HashMap<UInt, Counted, IdentityHash>& map, OP op)
{
  const auto before = Contents(map);
  const Int buckets = map.GetBucketCount();
  for (Int n = 1;; ++n)
  {
    const Int live = Allocator::GetLiveCount();
    const Int counted = Counted::live;
    Allocator::FailNthAllocation(n);
    Result<void> result = op();
    const Bool delivered = Allocator::FailureDelivered();
    Allocator::FailNthAllocation(0);
    if (!delivered)
    {
      EXPECT_TRUE(result.IsOk()) << "n = " << n;
      return n - 1;
    }
    EXPECT_TRUE(result.IsError()) << "n = " << n;
    EXPECT_TRUE(result.GetError().IsClass(OutOfMemoryError)) << "n = " << n;
    EXPECT_EQ(Contents(map), before) << "n = " << n;
    EXPECT_EQ(map.GetBucketCount(), buckets) << "n = " << n;
    EXPECT_EQ(Allocator::GetLiveCount(), live) << "n = " << n;
    EXPECT_EQ(Counted::live, counted) << "n = " << n;
    if (n == 100)
      return -1;
  }
}

TEST(HashMapOutOfMemory, FirstInsert)
{
  HashMap<UInt, Counted, IdentityHash> map;
  // Buckets and entry.
  EXPECT_EQ(SweepOutOfMemory(map, [&] { return map.Insert(1, Counted(1)); }), 2);
  EXPECT_EQ(Contents(map), (std::vector<std::pair<UInt, Int>>{{1, 1}}));
}

TEST(HashMapOutOfMemory, PlainAndGrowingInsert)
{
  HashMap<UInt, Counted, IdentityHash> map;
  for (UInt i = 0; i < 9; ++i)
    ASSERT_TRUE(map.Insert(i * 16, Counted(static_cast<Int>(i))).IsOk());
  EXPECT_EQ(SweepOutOfMemory(map, [&] { return map.Insert(5, Counted(5)); }), 1);
  ASSERT_EQ(map.GetBucketCount(), 16);
  EXPECT_EQ(SweepOutOfMemory(map, [&] { return map.Insert(6, Counted(6)); }), 2);
  EXPECT_EQ(map.GetBucketCount(), 32);
  EXPECT_EQ(map.GetCount(), 11);
  EXPECT_EQ(map.Find(6)->value, 6);
}

TEST(HashMapOutOfMemory, CopyFrom)
{
  HashMap<UInt, Counted, IdentityHash> src;
  for (UInt key : {1, 33, 65, 2, 18, 3, 40})
    ASSERT_TRUE(src.Insert(key, Counted(static_cast<Int>(key))).IsOk());
  HashMap<UInt, Counted, IdentityHash> dst;
  for (UInt key : {7, 23})
    ASSERT_TRUE(dst.Insert(key, Counted(0)).IsOk());
  // Buckets and seven entries.
  EXPECT_EQ(SweepOutOfMemory(dst, [&] { return dst.CopyFrom(src); }), 8);
  EXPECT_EQ(Contents(dst), Contents(src));

  // Onto an empty map as well.
  HashMap<UInt, Counted, IdentityHash> fresh;
  EXPECT_EQ(SweepOutOfMemory(fresh, [&] { return fresh.CopyFrom(src); }), 8);
  EXPECT_EQ(Contents(fresh), Contents(src));
}

} // namespace
} // namespace telvo
