#include "telvo/hashmap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "support/oom_sweep.h"

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
using Keys = std::vector<UInt>;

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
using CountedMap = HashMap<UInt, Counted, IdentityHash>;

template <typename MAP>
Keys KeysOf(const MAP& map)
{
  Keys keys;
  for (const auto& entry : map)
    keys.push_back(static_cast<UInt>(entry.GetKey()));
  return keys;
}

// Inserts key -> key * 10 for each key.
IdMap MapOf(const Keys& keys)
{
  IdMap map;
  for (UInt key : keys)
    EXPECT_TRUE(map.Insert(key, static_cast<Int>(key) * 10).IsOk());
  return map;
}

TEST(HashMap, NewMapHasNoStorageAndMissesEverything)
{
  const Int live = Allocator::GetLiveCount();
  const IdMap map;
  EXPECT_EQ(map.GetBucketCount(), 0);
  EXPECT_EQ(map.GetLoadFactor(), 0.65);
  EXPECT_EQ(map.Find(7), nullptr);
  EXPECT_EQ(map.begin(), map.end());
  EXPECT_EQ(Allocator::GetLiveCount(), live);
}

TEST(HashMap, LookupsCompareKeysNotJustBuckets)
{
  IdMap map = MapOf({1, 17, 33, 4});
  EXPECT_EQ(map.GetCount(), 4);
  EXPECT_EQ(*map.Find(17), 170);
  // Same bucket as stored keys, but absent.
  EXPECT_EQ(map.Find(49), nullptr);
  EXPECT_EQ(map.Find(2), nullptr);
  for (auto& entry : map)
    entry.GetValue() += 1;
  EXPECT_EQ(*std::as_const(map).Find(33), 331);

  // Every key collides: lookups must fall back on Equal.
  struct ConstantHash
  {
    static UInt Hash(const Int&) { return 3; }
    static Bool Equal(const Int& a, const Int& b) { return a == b; }
  };
  HashMap<Int, Int, ConstantHash> same;
  for (Int i = 0; i < 30; ++i)
    ASSERT_TRUE(same.Insert(i, -i).IsOk());
  for (Int i = 0; i < 30; ++i)
    ASSERT_EQ(*same.Find(i), -i);
  EXPECT_EQ(same.Find(30), nullptr);
}

TEST(HashMap, IterationOrder)
{
  // Buckets in the order they filled, the newest entry of a bucket first; an overwrite keeps its
  // place. Growth relinks entries in iteration order, each to the head of its new chain.
  const std::pair<Keys, Keys> cases[] = {
    {{5, 2, 9}, {5, 2, 9}},
    {{3, 5, 19, 35}, {35, 19, 3, 5}},
    {{3, 5, 19, 3, 19}, {19, 3, 5}},
    // The 11th entry grows 16 -> 32 first: 17 is relinked first, so bucket 17 now precedes
    // bucket 1, and 33 lands in bucket 1 at the head of its chain.
    {{1, 17, 2, 3, 4, 5, 6, 7, 8, 9, 33}, {17, 33, 1, 2, 3, 4, 5, 6, 7, 8, 9}},
    // 1, 33 and 65 share bucket 1 at 32 buckets too: their chain comes out reversed.
    {{1, 33, 65, 2, 3, 4, 5, 6, 7, 8, 9}, {1, 33, 65, 2, 3, 4, 5, 6, 7, 8, 9}},
  };
  for (const auto& [inserted, expected] : cases)
  {
    IdMap map = MapOf(inserted);
    EXPECT_EQ(KeysOf(map), expected);
    EXPECT_EQ(map.GetCount(), static_cast<Int>(expected.size()));
  }
  EXPECT_EQ(*MapOf({1, 33, 65, 2, 3, 4, 5, 6, 7, 8, 9}).Find(65), 650);
  IdMap overwritten = MapOf({3, 5});
  ASSERT_TRUE(overwritten.Insert(3, 99).IsOk());
  EXPECT_EQ(*overwritten.Find(3), 99);
}

TEST(HashMap, GrowsWhenTheCountWouldExceedTheLoadFactor)
{
  HashMap<Int, Int> map;
  // 16 * 0.65 = 10.4, 32 * 0.65 = 20.8, 64 * 0.65 = 41.6.
  std::vector<std::pair<Int, Int>> steps;
  for (Int i = 1; i <= 42; ++i)
  {
    const Int buckets = map.GetBucketCount();
    ASSERT_TRUE(map.Insert(i, i).IsOk());
    if (map.GetBucketCount() != buckets)
      steps.emplace_back(i, map.GetBucketCount());
  }
  EXPECT_EQ(steps, (std::vector<std::pair<Int, Int>>{{1, 16}, {11, 32}, {21, 64}, {42, 128}}));
  for (Int i = 1; i <= 42; ++i)
    ASSERT_NE(map.Find(i), nullptr) << i;

  // Overwriting at the threshold does not grow.
  IdMap ten = MapOf({0, 1, 2, 3, 4, 5, 6, 7, 8, 9});
  ASSERT_TRUE(ten.Insert(4, 1).IsOk());
  EXPECT_EQ(ten.GetBucketCount(), 16);
  // Values stay put across growth.
  const Int* value = ten.Find(7);
  for (UInt i = 100; i < 200; ++i)
    ASSERT_TRUE(ten.Insert(i, 0).IsOk());
  EXPECT_EQ(ten.Find(7), value);

  IdMap full;
  full.SetLoadFactor(1.0);
  for (UInt i = 0; i < 16; ++i)
    ASSERT_TRUE(full.Insert(i, 0).IsOk());
  EXPECT_EQ(full.GetBucketCount(), 16);
  ASSERT_TRUE(full.Insert(16, 0).IsOk());
  EXPECT_EQ(full.GetBucketCount(), 32);
}

TEST(HashMap, ReassigningTheStoredHandleChangesNothing)
{
  HashMap<Int, String> map;
  Result<String> text = String::Create("shoulder");
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

TEST(HashMap, FlushAndDestructorReleaseEverything)
{
  const Int live = Allocator::GetLiveCount();
  const Int counted = Counted::live;
  {
    CountedMap map;
    map.SetLoadFactor(1.0);
    for (UInt i = 0; i < 40; ++i)
      ASSERT_TRUE(map.Insert(i, Counted(static_cast<Int>(i))).IsOk());
    map.Flush();
    EXPECT_EQ(map.GetCount(), 0);
    EXPECT_EQ(map.GetBucketCount(), 0);
    EXPECT_EQ(map.Find(3), nullptr);
    EXPECT_EQ(Allocator::GetLiveCount(), live);
    EXPECT_EQ(Counted::live, counted);
    // The load factor survives the flush.
    for (UInt i = 0; i < 16; ++i)
      ASSERT_TRUE(map.Insert(i, Counted()).IsOk());
    EXPECT_EQ(map.GetBucketCount(), 16);
  }
  EXPECT_EQ(Allocator::GetLiveCount(), live);
  EXPECT_EQ(Counted::live, counted);
}

TEST(HashMap, MoveAndCopy)
{
  IdMap a = MapOf({5, 2, 9});
  IdMap b(std::move(a));
  EXPECT_EQ(a.GetBucketCount(), 0);
  EXPECT_EQ(KeysOf(b), (Keys{5, 2, 9}));
  IdMap c = MapOf({1});
  c = std::move(b);
  EXPECT_EQ(KeysOf(c), (Keys{5, 2, 9}));
  EXPECT_EQ(b.Find(5), nullptr);
  ASSERT_TRUE(b.Insert(4, 0).IsOk()); // a moved-from map is usable
  EXPECT_EQ(KeysOf(b), (Keys{4}));

  const Int live = Allocator::GetLiveCount();
  ASSERT_TRUE(c.CopyFrom(c).IsOk());
  EXPECT_EQ(KeysOf(c), (Keys{5, 2, 9}));
  EXPECT_EQ(Allocator::GetLiveCount(), live);
  ASSERT_TRUE(c.CopyFrom(IdMap()).IsOk());
  EXPECT_EQ(c.GetBucketCount(), 0);

  IdMap src = MapOf({1, 33, 65, 2, 18, 3, 4, 5, 6, 7, 8, 9, 41});
  src.SetLoadFactor(0.5);
  IdMap dst = MapOf({100, 200, 300});
  ASSERT_TRUE(dst.CopyFrom(src).IsOk());
  EXPECT_EQ(dst.GetBucketCount(), src.GetBucketCount());
  EXPECT_EQ(KeysOf(dst), KeysOf(src));
  EXPECT_EQ(dst.Find(100), nullptr);
  EXPECT_EQ(*dst.Find(41), 410);
  // Same structure and load factor: the next growth reorders both the same way.
  for (UInt key : {10, 11, 12, 74})
  {
    ASSERT_TRUE(src.Insert(key, 0).IsOk());
    ASSERT_TRUE(dst.Insert(key, 0).IsOk());
  }
  EXPECT_EQ(dst.GetBucketCount(), 64);
  EXPECT_EQ(KeysOf(dst), KeysOf(src));
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

  HashMap<Int32, Int> narrow;
  ASSERT_TRUE(narrow.Insert(-1, 1).IsOk());
  ASSERT_TRUE(narrow.Insert(1, 2).IsOk());
  EXPECT_EQ(*narrow.Find(-1), 1);
  EXPECT_EQ(*narrow.Find(1), 2);
}

TEST(HashMap, StringAndUuidKeysCompareByValueInternedIdsByIdentity)
{
  HashMap<String, Int> strings;
  Result<String> a1 = String::Create("hip");
  Result<String> a2 = String::Create("hip");
  ASSERT_FALSE(a1.GetValue().IsSameBuffer(a2.GetValue()));
  ASSERT_TRUE(strings.Insert(a1.GetValue(), 1).IsOk());
  ASSERT_TRUE(strings.Insert(String::Create("Hip").GetValue(), 2).IsOk());
  EXPECT_EQ(*strings.Find(a2.GetValue()), 1);

  HashMap<Uuid, Int> uuids;
  Uuid::Bytes bytes{};
  bytes[3] = 7;
  Result<Uuid> u1 = Uuid::Create(bytes);
  Result<Uuid> u2 = Uuid::Create(bytes);
  ASSERT_TRUE(uuids.Insert(u1.GetValue(), 5).IsOk());
  ASSERT_TRUE(uuids.Insert(u2.GetValue(), 6).IsOk());
  EXPECT_EQ(uuids.GetCount(), 1);
  EXPECT_EQ(*uuids.Find(u1.GetValue()), 6);

  Result<InternedId> interned = InternedId::Intern("elbow");
  Result<InternedId> detached = InternedId::CreateDetached("elbow");
  HashMap<InternedId, Int> ids;
  ASSERT_TRUE(ids.Insert(interned.GetValue(), 1).IsOk());
  ASSERT_NE(ids.Find(InternedId::Intern("elbow").GetValue()), nullptr);
  // Equal text and hash, but another object: a different key.
  EXPECT_EQ(ids.Find(detached.GetValue()), nullptr);
}

// Each failing run must leave the entries, their order, the buckets and the values as they were.
template <typename MAKE, typename OP>
int Sweep(MAKE make, OP op)
{
  return kelvara_test::SweepOutOfMemory(make, op, [](const CountedMap& map) {
    std::string text = std::to_string(map.GetBucketCount()) + " live " + std::to_string(Counted::live) + ":";
    for (const auto& entry : map)
      text += " " + std::to_string(entry.GetKey()) + "=" + std::to_string(entry.GetValue().value);
    return text;
  });
}

CountedMap CountedOf(const Keys& keys)
{
  CountedMap map;
  for (UInt key : keys)
    EXPECT_TRUE(map.Insert(key, Counted(static_cast<Int>(key))).IsOk());
  return map;
}

TEST(HashMapOutOfMemory, InsertAndCopyFrom)
{
  // First insert: buckets and entry.
  EXPECT_EQ(Sweep([] { return CountedMap(); }, [](CountedMap& m) { return m.Insert(1, Counted(1)); }), 2);
  // Nine entries in bucket 0; the tenth fits, the eleventh grows: entry and buckets.
  const Keys nine = {0, 16, 32, 48, 64, 80, 96, 112, 128};
  EXPECT_EQ(Sweep([&] { return CountedOf(nine); }, [](CountedMap& m) { return m.Insert(5, Counted(5)); }), 1);
  Keys ten = nine;
  ten.push_back(5);
  EXPECT_EQ(Sweep([&] { return CountedOf(ten); }, [](CountedMap& m) { return m.Insert(6, Counted(6)); }), 2);
  // Buckets and seven entries, onto a map with entries and onto an empty one.
  const CountedMap src = CountedOf({1, 33, 65, 2, 18, 3, 40});
  EXPECT_EQ(Sweep([] { return CountedOf({7, 23}); }, [&](CountedMap& m) { return m.CopyFrom(src); }), 8);
  EXPECT_EQ(Sweep([] { return CountedMap(); }, [&](CountedMap& m) { return m.CopyFrom(src); }), 8);
}

} // namespace
} // namespace telvo
