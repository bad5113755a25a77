#include "telvo/internedid.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/oom_sweep.h"

namespace telvo
{
namespace
{

InternedId Intern(std::string_view text)
{
  Result<InternedId> r = InternedId::Intern(text);
  EXPECT_TRUE(r.IsOk());
  return std::move(r).GetValue();
}

TEST(InternedIdTable, SameTextSharesOneEntryUntilTheLastHandleGoes)
{
  InternedId keep = Intern("test.keep"); // so that the table's buckets exist before counting
  const Int entries = InternedId::GetTableCount();
  const Int live = Allocator::GetLiveCount();
  {
    InternedId a = Intern("test.hip");
    InternedId b = Intern("test.hip");
    InternedId c = Intern("test.Hip");
    EXPECT_TRUE(a.IsSameObject(b));
    EXPECT_FALSE(a == c);
    EXPECT_EQ(c.GetReferenceCount(), 1);
    EXPECT_EQ(InternedId::GetTableCount(), entries + 2);
    EXPECT_EQ(a.View(), "test.hip");
    EXPECT_EQ(a.GetHash(), String::HashText("test.hip"));

    InternedId moved = std::move(b);
    EXPECT_TRUE(b.IsEmpty());
    EXPECT_EQ(a.GetReferenceCount(), 2);
    moved = InternedId();
    EXPECT_EQ(a.GetReferenceCount(), 1);
  }
  EXPECT_EQ(InternedId::GetTableCount(), entries);
  EXPECT_EQ(Allocator::GetLiveCount(), live);
  // Interning again after removal makes a fresh entry with the right count.
  EXPECT_EQ(Intern("test.hip").GetReferenceCount(), 1);
}

TEST(InternedIdTable, ManyEntriesSurviveTableGrowth)
{
  const Int entries = InternedId::GetTableCount();
  std::vector<InternedId> ids;
  for (int i = 0; i < 1000; ++i)
    ids.push_back(Intern("test.bone" + std::to_string(i)));
  EXPECT_EQ(InternedId::GetTableCount(), entries + 1000);
  for (int i = 0; i < 1000; ++i)
    ASSERT_TRUE(Intern("test.bone" + std::to_string(i)) == ids[static_cast<std::size_t>(i)]) << i;
  // Release every other one: lookups must still find the survivors.
  for (std::size_t i = 0; i < ids.size(); i += 2)
    ids[i] = InternedId();
  EXPECT_EQ(InternedId::GetTableCount(), entries + 500);
  EXPECT_TRUE(Intern("test.bone1") == ids[1]);
  ids.clear();
  EXPECT_EQ(InternedId::GetTableCount(), entries);
}

TEST(InternedIdRules, EmptyTextIsTheNullIdAndAllocatesNothing)
{
  const Int live = Allocator::GetLiveCount();
  InternedId null;
  InternedId empty = Intern("");
  EXPECT_EQ(Allocator::GetLiveCount(), live);
  EXPECT_TRUE(null == empty);
  EXPECT_TRUE(null.IsSameText(empty));
  EXPECT_EQ(null.GetHash(), 0u);
  EXPECT_TRUE(null.ToString().IsEmpty());

  InternedId a = Intern("test.null");
  EXPECT_FALSE(null == a);
  EXPECT_FALSE(a == null);
  EXPECT_FALSE(null.IsSameText(a));
  EXPECT_FALSE(a.IsSameText(null));
}

TEST(InternedIdRules, DetachedIdsMatchOnlyByText)
{
  const Int entries = InternedId::GetTableCount();
  InternedId interned = Intern("test.arm");
  auto detached = [](std::string_view text) { return InternedId::CreateDetached(text).GetValue(); };
  InternedId d = detached("test.arm");
  EXPECT_EQ(InternedId::GetTableCount(), entries + 1);
  EXPECT_FALSE(interned == d);
  EXPECT_TRUE(interned.IsSameText(d));
  EXPECT_TRUE(d.IsSameText(interned));
  EXPECT_EQ(interned.GetHash(), d.GetHash());
  EXPECT_FALSE(detached("test.Arm").IsSameText(interned));
  EXPECT_FALSE(detached("test.arm.l").IsSameText(interned));
  // Interning never returns a detached object.
  EXPECT_TRUE(Intern("test.arm") == interned);

  // The text and the object go with the last handle; the table never held them.
  const Int live = Allocator::GetLiveCount();
  InternedId copy = d;
  EXPECT_EQ(d.GetReferenceCount(), 2);
  d = InternedId();
  copy = InternedId();
  EXPECT_EQ(Allocator::GetLiveCount(), live - 2);
  EXPECT_EQ(InternedId::GetTableCount(), entries + 1);
}

TEST(InternedIdThreads, ConcurrentInternAndRelease)
{
  InternedId keep = Intern("test.keep"); // so that the table's buckets exist before counting
  const Int entries = InternedId::GetTableCount();
  const Int live = Allocator::GetLiveCount();
  InternedId held = Intern("test.thread0");
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([t, &failures, &held] {
      const std::string names[] = {"test.thread0", "test.thread1", "test.thread2", "test.thread3"};
      for (int i = 0; i < 4000; ++i)
      {
        const std::string& name = names[(i + t) % 4];
        Result<InternedId> r = InternedId::Intern(name);
        if (r.IsError() || r.GetValue().View() != name || (name == names[0] && !(r.GetValue() == held)))
          ++failures;
      }
    });
  for (std::thread& t : threads)
    t.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(held.GetReferenceCount(), 1);
  EXPECT_EQ(InternedId::GetTableCount(), entries + 1);
  held = InternedId();
  EXPECT_EQ(InternedId::GetTableCount(), entries);
  EXPECT_EQ(Allocator::GetLiveCount(), live);
}

TEST(InternedIdOutOfMemory, InternLeavesTableUnchanged)
{
  // Keep one entry alive so that the table's buckets exist whatever ran before.
  InternedId keep = Intern("test.keep");
  auto tableCount = [](int) { return std::to_string(InternedId::GetTableCount()); };
  // The text, then the entry.
  EXPECT_EQ(kelvara_test::SweepOutOfMemory([] { return 0; }, [](int) { return InternedId::Intern("test.oom"); },
                                           tableCount),
            2);
  Allocator::FailNthAllocation(1);
  EXPECT_TRUE(InternedId::CreateDetached("test.oom").GetError().IsClass(OutOfMemoryError));
  // An existing entry is found without allocating.
  Allocator::FailNthAllocation(1);
  EXPECT_TRUE(InternedId::Intern("test.keep").IsOk());
  Allocator::FailNthAllocation(0);
}

} // namespace
} // namespace telvo
