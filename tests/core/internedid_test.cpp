#include "telvo/internedid.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "support/oom_sweep.h"
#include "support/values.h"

namespace telvo
{
namespace
{

using kelvara_test::Id;

TEST(InternedIdTable, SameTextSharesOneEntryUntilTheLastHandleGoes)
{
  const InternedId keep = Id("test.keep"); // so that the table's buckets exist before counting
  const Int entries = InternedId::GetTableCount();
  const Int live = Allocator::GetLiveCount();
  {
    const InternedId a = Id("test.hip");
    EXPECT_TRUE(a == Id("test.hip"));
    EXPECT_EQ(a.GetHash(), String::HashText("test.hip"));
    // Many entries survive the table's growth and the removal of others.
    std::vector<InternedId> ids;
    for (int i = 0; i < 1000; ++i)
      ids.push_back(Id("test.bone" + std::to_string(i)));
    for (std::size_t i = 0; i < ids.size(); i += 2)
      ids[i] = InternedId();
    EXPECT_EQ(InternedId::GetTableCount(), entries + 501);
    for (std::size_t i = 1; i < ids.size(); i += 2)
      ASSERT_TRUE(Id("test.bone" + std::to_string(i)) == ids[i]) << i;
  }
  EXPECT_EQ(InternedId::GetTableCount(), entries);
  EXPECT_EQ(Allocator::GetLiveCount(), live);
}

TEST(InternedIdRules, NullAndDetachedIdsAndFailedInterning)
{
  const InternedId interned = Id("test.arm");
  const Int entries = InternedId::GetTableCount();
  const Int live = Allocator::GetLiveCount();
  EXPECT_TRUE(Id("") == InternedId());
  const InternedId d = kelvara_test::Value(InternedId::CreateDetached("test.arm"));
  EXPECT_FALSE(interned == d);
  EXPECT_TRUE(d.IsSameText(interned));
  EXPECT_TRUE(Id("test.arm") == interned); // interning never returns a detached object
  EXPECT_EQ(InternedId::GetTableCount(), entries);
  EXPECT_EQ(Allocator::GetLiveCount(), live + 2); // d's text and object: the rest allocated nothing or is gone
  // Out of memory, interning leaves the table as it was: the text, then the entry.
  auto tableCount = [](int) { return std::to_string(InternedId::GetTableCount()); };
  auto intern = [](int) { return InternedId::Intern("test.oom"); };
  EXPECT_EQ(kelvara_test::SweepOutOfMemory([] { return 0; }, intern, tableCount), 2);
  Allocator::FailNthAllocation(1);
  EXPECT_TRUE(InternedId::CreateDetached("test.oom").GetError().IsClass(OutOfMemoryError));
  Allocator::FailNthAllocation(1);
  EXPECT_TRUE(InternedId::Intern("test.arm").IsOk()); // found without allocating
  Allocator::FailNthAllocation(0);
}

// Threads interning and dropping the same few texts at once: an entry must never be handed out
// while its last handle is removing it, and the table ends empty of them.
TEST(InternedIdTable, ConcurrentInterningAndReleasing)
{
  const Int entries = InternedId::GetTableCount();
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([t] {
      for (int i = 0; i < 20000; ++i)
      {
        const std::string text = "test.race" + std::to_string((i + t) % 4);
        const InternedId a = Id(text);
        const InternedId b = Id(text);
        ASSERT_TRUE(a == b && std::string(a.ToString().View()) == text) << text;
      }
    });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(InternedId::GetTableCount(), entries);
}

} // namespace
} // namespace telvo
