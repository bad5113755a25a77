// Out-of-memory sweeps: run an operation with the N-th allocation failing, for N = 1, 2, ...
// until a run in which no allocation failed, and check every run.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "telvo/errorbase.h"
#include "telvo/system.h"

namespace kelvara_test
{

// setup() builds a fresh state with the hook disarmed; operation(state) runs under the armed
// hook and returns a Result; checkRun(state, result, failed) checks one run (failed: an
// allocation of this run failed). Every run must leave no allocation alive once the state and the
// result are gone. Returns the number of runs in which an allocation failed.
template <typename SETUP, typename OPERATION, typename CHECK>
int SweepAllocationFailures(SETUP&& setup, OPERATION&& operation, CHECK&& checkRun)
{
  // One set-up before counting, so that state the framework makes once on first use (the
  // interning table's buckets) is not taken for a leak of the first run.
  {
    auto warmUp = setup();
    (void)warmUp;
  }
  for (int n = 1; n < 1000000; ++n)
  {
    const telvo::Int liveBefore = telvo::Allocator::GetLiveCount();
    bool failed = false;
    {
      auto state = setup();
      telvo::Allocator::FailNthAllocation(n);
      auto result = operation(state);
      failed = telvo::Allocator::FailureDelivered();
      telvo::Allocator::FailNthAllocation(0);
      SCOPED_TRACE("allocation " + std::to_string(n) + " failing");
      checkRun(state, result, failed);
    }
    EXPECT_EQ(telvo::Allocator::GetLiveCount(), liveBefore) << "leak with allocation " << n << " failing";
    if (!failed)
      return n - 1;
    if (::testing::Test::HasFailure())
      return n;
  }
  ADD_FAILURE() << "the operation never ran without an allocation failing";
  return 0;
}

// The usual sweep: every run in which an allocation failed returns OutOfMemoryError and leaves
// the state as snapshot(state) showed it before; the run without a failure succeeds.
template <typename SETUP, typename OPERATION, typename SNAPSHOT>
int SweepOutOfMemory(SETUP&& setup, OPERATION&& operation, SNAPSHOT&& snapshot)
{
  std::string before;
  auto setupAndSnapshot = [&] {
    auto state = setup();
    before = snapshot(state);
    return state;
  };
  return SweepAllocationFailures(setupAndSnapshot, operation, [&](auto& state, const auto& result, bool failed) {
    if (!failed)
    {
      EXPECT_TRUE(result.IsOk()) << "the run without a failing allocation failed: " << result.GetError().GetMessage();
      return;
    }
    ASSERT_TRUE(result.IsError()) << "an allocation failed but the operation reported success";
    EXPECT_STREQ(result.GetError().GetClass().name, "OutOfMemoryError") << result.GetError().GetMessage();
    EXPECT_EQ(snapshot(state), before) << "the failing operation changed the object";
  });
}

} // namespace kelvara_test

#include <algorithm>
#include <string_view>
#include <vector>

#include "telvo/registrybase.h"

namespace kelvara_test
{

// Sweeps a factory that needs no state: every failing run returns OutOfMemoryError and leaks
// nothing. Returns the number of failing runs.
template <typename CREATE>
int SweepCreation(CREATE&& create)
{
  return SweepOutOfMemory([] { return 0; }, [&](int&) { return create(); }, [](const int&) { return std::string(); });
}

// True when text is some of pieces, in their order, each whole.
inline bool IsMadeOfPieces(std::string_view text, const std::vector<std::string>& pieces, size_t from = 0)
{
  if (text.empty())
    return true;
  for (size_t k = from; k < pieces.size(); ++k)
    if (!pieces[k].empty() && text.starts_with(pieces[k]) && IsMadeOfPieces(text.substr(pieces[k].size()), pieces, k + 1))
      return true;
  return false;
}

// The lines of text, each with its line feed.
inline std::vector<std::string> Lines(std::string_view text)
{
  std::vector<std::string> lines;
  for (size_t start = 0; start < text.size();)
  {
    const size_t end = std::min(text.find('\n', start), text.size() - 1) + 1;
    lines.emplace_back(text.substr(start, end - start));
    start = end;
  }
  return lines;
}

// Sweeps toString(), which returns a telvo::String: the run without a failure gives all pieces
// joined; a run with a failure drops whole pieces only. Returns the number of failing runs.
template <typename TO_STRING>
int SweepTextPieces(TO_STRING&& toString, const std::vector<std::string>& pieces)
{
  std::string whole;
  for (const std::string& piece : pieces)
    whole += piece;
  return SweepAllocationFailures(
    [] { return 0; }, [&](int&) { return std::string(toString().View()); },
    [&](int&, const std::string& text, bool failed) {
      if (!failed)
        EXPECT_EQ(text, whole);
      else
        EXPECT_TRUE(IsMadeOfPieces(text, pieces)) << text;
    });
}

// create() with classId hidden from the registry fails with the reason-zero null-return error and
// leaves nothing alive.
template <typename CREATE>
void ExpectHiddenClassRefused(const char* classId, CREATE&& create)
{
  telvo::Registry::Get().SetClassHidden(classId, true);
  const telvo::Int liveBefore = telvo::Allocator::GetLiveCount();
  auto result = create();
  const telvo::Int liveAfter = telvo::Allocator::GetLiveCount();
  telvo::Registry::Get().SetClassHidden(classId, false);
  ASSERT_TRUE(result.IsError());
  EXPECT_TRUE(result.GetError() == telvo::NullReturnError(0));
  EXPECT_EQ(liveAfter, liveBefore);
}

} // namespace kelvara_test

namespace kelvara_test
{

// Sweeps change(writable) on one of two holders of make()'s object, so that the change has to copy
// first: each failing run returns OutOfMemoryError and leaves both holders as snapshot showed them.
// Returns the number of failing runs.
template <typename MAKE, typename CHANGE, typename SNAPSHOT>
int SweepSharedChange(MAKE&& make, CHANGE&& change, SNAPSHOT&& snapshot)
{
  return SweepOutOfMemory(
    [&] {
      auto object = make();
      return std::pair{object, object};
    },
    [&](auto& state) -> telvo::Result<void> {
      auto writable = state.first.MakeWritable();
      if (writable.IsError())
        return writable.GetError();
      return change(writable.GetValue());
    },
    [&](const auto& state) { return snapshot(state.first) + "|" + snapshot(state.second); });
}

// The same, with the objects' texts as the snapshot.
template <typename MAKE, typename CHANGE>
int SweepSharedChange(MAKE&& make, CHANGE&& change)
{
  return SweepSharedChange(make, change, [](const auto& object) { return std::string(object->ToString().View()); });
}

} // namespace kelvara_test

namespace kelvara_test
{

// The pieces one after the other: the whole text SweepTextPieces expects.
inline std::string Joined(const std::vector<std::string>& pieces)
{
  std::string whole;
  for (const std::string& piece : pieces)
    whole += piece;
  return whole;
}

} // namespace kelvara_test
