#include "telvo/internedid.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

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

InternedId Detached(std::string_view text)
{
  Result<InternedId> r = InternedId::CreateDetached(text);
  EXPECT_TRUE(r.IsOk());
  return std::move(r).GetValue();
}

TEST(InternedIdTable, SameTextGivesSameObject)
{
  Int entries = InternedId::GetTableCount();
  InternedId a = Intern("test.hip");
  InternedId b = Intern("test.hip");
  InternedId c = Intern("test.Hip");
  EXPECT_TRUE(a.IsSameObject(b));
  EXPECT_TRUE(a == b);
  EXPECT_FALSE(a == c);
  EXPECT_EQ(a.GetReferenceCount(), 2);
  EXPECT_EQ(c.GetReferenceCount(), 1);
  EXPECT_EQ(InternedId::GetTableCount(), entries + 2);
  EXPECT_EQ(a.View(), "test.hip");
  EXPECT_EQ(a.ToString().View(), "test.hip");
  EXPECT_EQ(a.GetHash(), a.GetString().GetHash());
  EXPECT_EQ(a.GetHash(), String::HashText("test.hip"));
}

TEST(InternedIdTable, LastHandleRemovesTheEntry)
{
  Int entries = InternedId::GetTableCount();
  Int live = Allocator::GetLiveCount();
  {
    InternedId a = Intern("test.knee");
    InternedId b = a;
    EXPECT_EQ(a.GetReferenceCount(), 2);
    InternedId c = std::move(b);
    EXPECT_TRUE(b.IsEmpty());
    EXPECT_EQ(a.GetReferenceCount(), 2);
    c = InternedId();
    EXPECT_EQ(a.GetReferenceCount(), 1);
    EXPECT_EQ(InternedId::GetTableCount(), entries + 1);
  }
  EXPECT_EQ(InternedId::GetTableCount(), entries);
  EXPECT_EQ(Allocator::GetLiveCount(), live);

  // Interning again after removal makes a fresh entry with the right count.
  InternedId again = Intern("test.knee");
  EXPECT_EQ(again.GetReferenceCount(), 1);
  EXPECT_EQ(InternedId::GetTableCount(), entries + 1);
}

TEST(InternedIdTable, ManyEntriesSurviveTableGrowth)
{
  Int entries = InternedId::GetTableCount();
  std::vector<InternedId> ids;
  for (int i = 0; i < 1000; ++i)
    ids.push_back(Intern("test.bone" + std::to_string(i)));
  EXPECT_EQ(InternedId::GetTableCount(), entries + 1000);
  for (int i = 0; i < 1000; ++i)
    EXPECT_TRUE(Intern("test.bone" + std::to_string(i)) == ids[static_cast<std::size_t>(i)]) << i;
  // Release every other one, then the rest: lookups must still find the survivors.
  for (std::size_t i = 0; i < ids.size(); i += 2)
    ids[i] = InternedId();
  EXPECT_EQ(InternedId::GetTableCount(), entries + 500);
  EXPECT_TRUE(Intern("test.bone1") == ids[1]);
  ids.clear();
  EXPECT_EQ(InternedId::GetTableCount(), entries);
}

TEST(InternedIdRules, NullId)
{
  Int live = Allocator::GetLiveCount();
  InternedId null;
  InternedId empty = Intern("");
  EXPECT_EQ(Allocator::GetLiveCount(), live);
  EXPECT_TRUE(null.IsEmpty());
  EXPECT_TRUE(empty.IsEmpty());
  EXPECT_TRUE(null == empty);
  EXPECT_TRUE(null.IsSameText(empty));
  EXPECT_EQ(null.GetHash(), 0u);
  EXPECT_EQ(null.GetReferenceCount(), 0);
  EXPECT_EQ(null.View(), "");
  EXPECT_TRUE(null.ToString().IsEmpty());

  InternedId a = Intern("test.null");
  EXPECT_FALSE(null == a);
  EXPECT_FALSE(a == null);
  EXPECT_FALSE(null.IsSameText(a));
  EXPECT_FALSE(a.IsSameText(null));
}

TEST(InternedIdRules, DetachedIdsMatchOnlyByText)
{
  Int entries = InternedId::GetTableCount();
  InternedId interned = Intern("test.arm");
  InternedId detached = Detached("test.arm");
  EXPECT_EQ(InternedId::GetTableCount(), entries + 1);
  EXPECT_FALSE(interned.IsSameObject(detached));
  EXPECT_FALSE(interned == detached);
  EXPECT_TRUE(interned.IsSameText(detached));
  EXPECT_TRUE(detached.IsSameText(interned));
  EXPECT_EQ(interned.GetHash(), detached.GetHash());
  EXPECT_FALSE(Detached("test.Arm").IsSameText(interned));
  EXPECT_FALSE(Detached("test.arm.l").IsSameText(interned));
  // Interning never returns a detached object.
  EXPECT_TRUE(Intern("test.arm") == interned);

  Int live = Allocator::GetLiveCount();
  {
    InternedId copy = detached;
    EXPECT_EQ(detached.GetReferenceCount(), 2);
  }
  detached = InternedId();
  EXPECT_EQ(Allocator::GetLiveCount(), live - 2);
  EXPECT_EQ(InternedId::GetTableCount(), entries + 1);
}

TEST(InternedIdThreads, ConcurrentInternAndRelease)
{
  Int entries = InternedId::GetTableCount();
  Int live = Allocator::GetLiveCount();
  InternedId held = Intern("test.thread0");
  constexpr int kThreads = 8;
  constexpr int kRounds = 4000;
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
  {
    threads.emplace_back([t, &failures, &held] {
      const std::string names[] = {"test.thread0", "test.thread1", "test.thread2", "test.thread3"};
      for (int i = 0; i < kRounds; ++i)
      {
        const std::string& name = names[(i + t) % 4];
        Result<InternedId> r = InternedId::Intern(name);
        if (r.IsError() || r.GetValue().View() != name)
        {
          ++failures;
          continue;
        }
        InternedId copy = r.GetValue();
        if (name == "test.thread0" && !(copy == held))
          ++failures;
      }
    });
  }
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
  Int entries = InternedId::GetTableCount();
  Int failures = 0;
  for (Int n = 1; n < 16; ++n)
  {
    Int live = Allocator::GetLiveCount();
    Allocator::FailNthAllocation(n);
    Result<InternedId> r = InternedId::Intern("test.oom");
    Allocator::FailNthAllocation(0);
    if (r.IsOk())
    {
      EXPECT_EQ(r.GetValue().View(), "test.oom");
      break;
    }
    ++failures;
    EXPECT_TRUE(r.GetError().IsClass(OutOfMemoryError));
    EXPECT_EQ(InternedId::GetTableCount(), entries);
    EXPECT_EQ(Allocator::GetLiveCount(), live);
  }
  EXPECT_EQ(failures, 2); // the text, then the entry
  Allocator::FailNthAllocation(1);
  EXPECT_TRUE(InternedId::CreateDetached("test.oom").GetError().IsClass(OutOfMemoryError));
  Allocator::FailNthAllocation(0);
  // An existing entry is found without allocating.
  Allocator::FailNthAllocation(1);
  EXPECT_TRUE(InternedId::Intern("test.keep").IsOk());
  Allocator::FailNthAllocation(0);
}

} // namespace
} // namespace telvo
