#include "telvo/hashmap.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <tuple>
#include <vector>

#include "support/oom_sweep.h"
#include "support/values.h"

namespace telvo
{
namespace
{

// A test chooses the bucket of every key (hash % bucket count); keys 1000 apart share a hash.
struct ChosenHash
{
  static UInt Hash(const UInt& key) { return key % 1000; }
  static Bool Equal(const UInt& a, const UInt& b) { return a == b; }
};
using IdMap = HashMap<UInt, Int, ChosenHash>;
using Keys = std::vector<UInt>;

template <typename MAP>
Keys KeysOf(const MAP& map)
{
  Keys keys;
  for (const auto& entry : map)
    keys.push_back(entry.GetKey());
  return keys;
}

IdMap MapOf(const Keys& keys)
{
  IdMap map;
  for (UInt key : keys)
    EXPECT_TRUE(map.Insert(key, static_cast<Int>(key) * 10).IsOk());
  return map;
}

TEST(HashMap, IterationOrderAndLookups)
{
  // Buckets in the order they filled, newest entry first; growth relinks entries in that order.
  const std::pair<Keys, Keys> cases[] = {
    {{5, 2, 9}, {5, 2, 9}},
    {{3, 5, 19, 35}, {35, 19, 3, 5}},
    {{3, 5, 19, 3, 19}, {19, 3, 5}}, // overwrites keep their place
    // The 11th entry grows 16 -> 32 first: bucket 17 then precedes bucket 1, where 33 lands.
    {{1, 17, 2, 3, 4, 5, 6, 7, 8, 9, 33}, {17, 33, 1, 2, 3, 4, 5, 6, 7, 8, 9}},
    {{1, 33, 65, 2, 3, 4, 5, 6, 7, 8, 9}, {1, 33, 65, 2, 3, 4, 5, 6, 7, 8, 9}},
  };
  for (const auto& [inserted, expected] : cases)
    EXPECT_EQ(KeysOf(MapOf(inserted)), expected);

  IdMap map = MapOf({1, 17, 33, 4});
  EXPECT_EQ(map.Find(49), nullptr);   // in the bucket of stored keys
  EXPECT_EQ(map.Find(1001), nullptr); // with the hash of a stored key
  ASSERT_TRUE(map.Insert(1001, 5).IsOk());
  for (auto& entry : map)
    entry.GetValue() += 1;
  EXPECT_EQ(*std::as_const(map).Find(1), 11);
  EXPECT_EQ(*map.Find(1001), 6);
}

TEST(HashMap, GrowsWhenTheCountWouldExceedTheLoadFactor)
{
  HashMap<Int, Int> map;
  std::vector<std::pair<Int, Int>> steps; // 16 * 0.65 = 10.4, 32 * 0.65 = 20.8, 64 * 0.65 = 41.6
  for (Int i = 1; i <= 42; ++i)
  {
    const Int buckets = map.GetBucketCount();
    ASSERT_TRUE(map.Insert(i, i).IsOk());
    if (map.GetBucketCount() != buckets)
      steps.emplace_back(i, map.GetBucketCount());
  }
  EXPECT_EQ(steps, (std::vector<std::pair<Int, Int>>{{1, 16}, {11, 32}, {21, 64}, {42, 128}}));
  IdMap ten = MapOf({0, 1, 2, 3, 4, 5, 6, 7, 8, 9});
  const Int* value = ten.Find(7);
  ASSERT_TRUE(ten.Insert(4, 1).IsOk()); // an overwrite at the threshold does not grow
  EXPECT_EQ(ten.GetBucketCount(), 16);
  ASSERT_TRUE(ten.Insert(10, 1).IsOk());
  EXPECT_EQ(ten.Find(7), value); // values stay put across growth
}

TEST(HashMap, CopyIsAnExactReplica)
{
  // A copy replicates buckets, order and load factor, so the next growth reorders both alike.
  IdMap src = MapOf({1, 33, 65, 2, 18, 3, 4, 5, 6, 7, 8, 9, 41});
  src.SetLoadFactor(0.5);
  IdMap dst = MapOf({100, 200, 300});
  ASSERT_TRUE(dst.CopyFrom(src).IsOk());
  EXPECT_EQ(dst.Find(100), nullptr);
  EXPECT_EQ(*dst.Find(41), 410);
  for (UInt key : {10, 11, 12, 74})
  {
    ASSERT_TRUE(src.Insert(key, 0).IsOk());
    ASSERT_TRUE(dst.Insert(key, 0).IsOk());
  }
  EXPECT_EQ(dst.GetBucketCount(), 64);
  EXPECT_EQ(KeysOf(dst), KeysOf(src));
}

TEST(HashMap, DefaultHashesOfKeyTypes)
{
  EXPECT_NE(DefaultHash<Int>::Hash(16) % 16, DefaultHash<Int>::Hash(32) % 16); // integers are mixed
  // Interned ids go by identity: another object of equal text and hash is another key.
  HashMap<InternedId, Int> ids;
  ASSERT_TRUE(ids.Insert(kelvara_test::Id("elbow"), 1).IsOk());
  ASSERT_NE(ids.Find(kelvara_test::Id("elbow")), nullptr);
  EXPECT_EQ(ids.Find(kelvara_test::Value(InternedId::CreateDetached("elbow"))), nullptr);
}

TEST(HashMapOutOfMemory, InsertAndCopyFromLeaveTheMapAsItWas)
{
  // Every value is a copy of one token: its use count shows leaked and doubly destroyed values.
  using TokenMap = HashMap<UInt, std::shared_ptr<Int>, ChosenHash>;
  const auto token = std::make_shared<Int>(0);
  auto mapOf = [&](const Keys& keys) {
    TokenMap map;
    for (UInt key : keys)
      EXPECT_TRUE(map.Insert(key, token).IsOk());
    return map;
  };
  auto snapshot = [&](const TokenMap& map) {
    return testing::PrintToString(std::tuple(map.GetBucketCount(), token.use_count(), KeysOf(map)));
  };
  const TokenMap src = mapOf({1, 33, 65, 2, 18, 3, 40});
  const std::tuple<Keys, std::function<Result<void>(TokenMap&)>, int> cases[] = {
    {{}, [&](TokenMap& m) { return m.Insert(1, token); }, 2},
    {{0, 16, 32, 48, 64, 80, 96, 112, 128}, [&](TokenMap& m) { return m.Insert(5, token); }, 1},
    {{0, 16, 32, 48, 64, 80, 96, 112, 128, 5}, [&](TokenMap& m) { return m.Insert(6, token); }, 2},
    {{7, 23}, [&](TokenMap& m) { return m.CopyFrom(src); }, 8},
  };
  for (const auto& [keys, op, failures] : cases)
  {
    SCOPED_TRACE(keys.size());
    EXPECT_EQ(kelvara_test::SweepOutOfMemory([&] { return mapOf(keys); }, op, snapshot), failures);
  }
}

} // namespace
} // namespace telvo
