#include "telvo/internedid.h"

#include <gtest/gtest.h>

#include <atomic>
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
    InternedId a = Id("test.hip");
    InternedId b = Id("test.hip");
    EXPECT_TRUE(a == b);
    EXPECT_FALSE(a == Id("test.Hip"));
    EXPECT_EQ(a.View(), "test.hip");
    EXPECT_EQ(a.GetHash(), String::HashText("test.hip"));
    InternedId moved = std::move(b);
    EXPECT_TRUE(b.IsEmpty());
    EXPECT_EQ(a.GetReferenceCount(), 2);
    EXPECT_EQ(InternedId::GetTableCount(), entries + 1);
    moved = InternedId();
    EXPECT_EQ(a.GetReferenceCount(), 1);
  }
  EXPECT_EQ(InternedId::GetTableCount(), entries);
  EXPECT_EQ(Allocator::GetLiveCount(), live);
  EXPECT_EQ(Id("test.hip").GetReferenceCount(), 1); // a fresh entry after the removal
}

TEST(InternedIdTable, ManyEntriesSurviveTableGrowthAndRemovals)
{
  const Int entries = InternedId::GetTableCount();
  std::vector<InternedId> ids;
  for (int i = 0; i < 1000; ++i)
    ids.push_back(Id("test.bone" + std::to_string(i)));
  for (std::size_t i = 0; i < ids.size(); i += 2)
    ids[i] = InternedId();
  EXPECT_EQ(InternedId::GetTableCount(), entries + 500);
  for (std::size_t i = 1; i < ids.size(); i += 2)
    ASSERT_TRUE(Id("test.bone" + std::to_string(i)) == ids[i]) << i;
  ids.clear();
  EXPECT_EQ(InternedId::GetTableCount(), entries);
}

TEST(InternedIdRules, EmptyTextIsTheNullIdAndAllocatesNothing)
{
  const Int live = Allocator::GetLiveCount();
  const InternedId empty = Id("");
  EXPECT_EQ(Allocator::GetLiveCount(), live);
  EXPECT_TRUE(empty == InternedId());
  EXPECT_EQ(empty.GetHash(), 0u);
  EXPECT_TRUE(empty.ToString().IsEmpty());
  const InternedId a = Id("test.null");
  EXPECT_FALSE(empty == a);
  EXPECT_FALSE(empty.IsSameText(a));
  EXPECT_FALSE(a.IsSameText(empty));
}

TEST(InternedIdRules, DetachedIdsMatchOnlyByTextAndStayOutOfTheTable)
{
  const InternedId interned = Id("test.arm");
  const Int entries = InternedId::GetTableCount();
  const Int live = Allocator::GetLiveCount();
  auto detached = [](std::string_view text) { return kelvara_test::Value(InternedId::CreateDetached(text)); };
  {
    InternedId d = detached("test.arm");
    const InternedId copy = d;
    EXPECT_EQ(d.GetReferenceCount(), 2);
    EXPECT_FALSE(interned == d);
    EXPECT_TRUE(interned.IsSameText(d));
    EXPECT_TRUE(d.IsSameText(interned));
    EXPECT_EQ(interned.GetHash(), d.GetHash());
    EXPECT_FALSE(detached("test.Arm").IsSameText(interned));
    EXPECT_FALSE(detached("test.arm.l").IsSameText(interned));
    EXPECT_TRUE(Id("test.arm") == interned); // interning never returns a detached object
    EXPECT_EQ(InternedId::GetTableCount(), entries);
  }
  EXPECT_EQ(Allocator::GetLiveCount(), live);
}

TEST(InternedIdThreads, ConcurrentInternAndRelease)
{
  const InternedId keep = Id("test.keep");
  const Int entries = InternedId::GetTableCount();
  const Int live = Allocator::GetLiveCount();
  InternedId held = Id("test.thread0");
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([t, &failures, &held] {
      for (int i = 0; i < 4000; ++i)
      {
        const std::string name = "test.thread" + std::to_string((i + t) % 4);
        Result<InternedId> r = InternedId::Intern(name);
        if (r.IsError() || r.GetValue().View() != name || (name == "test.thread0" && !(r.GetValue() == held)))
          ++failures;
      }
    });
  for (std::thread& t : threads)
    t.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(held.GetReferenceCount(), 1);
  held = InternedId();
  EXPECT_EQ(InternedId::GetTableCount(), entries);
  EXPECT_EQ(Allocator::GetLiveCount(), live);
}

TEST(InternedIdOutOfMemory, InternLeavesTheTableUnchanged)
{
  const InternedId keep = Id("test.keep");
  auto tableCount = [](int) { return std::to_string(InternedId::GetTableCount()); };
  // The text, then the entry.
  auto intern = [](int) { return InternedId::Intern("test.oom"); };
  EXPECT_EQ(kelvara_test::SweepOutOfMemory([] { return 0; }, intern, tableCount), 2);
  Allocator::FailNthAllocation(1);
  EXPECT_TRUE(InternedId::CreateDetached("test.oom").GetError().IsClass(OutOfMemoryError));
  Allocator::FailNthAllocation(1);
  EXPECT_TRUE(InternedId::Intern("test.keep").IsOk()); // found without allocating
  Allocator::FailNthAllocation(0);
}

} // namespace
} // namespace telvo
