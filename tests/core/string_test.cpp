#include "telvo/string.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "support/oom_sweep.h"
#include "support/values.h"

namespace telvo
{
namespace
{

using kelvara_test::MakeString;

TEST(StringBuffer, SharingCopyOnWriteAndEditsOfItsOwnText)
{
  const Int live = Allocator::GetLiveCount();
  {
    String empty = MakeString("");
    ASSERT_TRUE(empty.Append(std::string_view()).IsOk());
    EXPECT_EQ(Allocator::GetLiveCount(), live);
    String a = MakeString("hip");
    String d;
    d = a;
    ASSERT_TRUE(empty.Append(a).IsOk()); // appending to an empty string shares the other buffer
    EXPECT_TRUE(empty.IsSameBuffer(d));
    EXPECT_EQ(a.GetReferenceCount(), 3);
    ASSERT_TRUE(d.Reserve(100).IsOk());
    String e = d;
    ASSERT_TRUE(e.Insert(0, std::string_view("L_")).IsOk()); // spare room in a shared buffer is not written
    EXPECT_EQ(d.View(), "hip");
    String solo = MakeString("arm");
    String& alias = solo;
    solo = alias; // must not drop the only reference first
    EXPECT_EQ(Allocator::GetLiveCount(), live + 4);
  }
  EXPECT_EQ(Allocator::GetLiveCount(), live);
  String s = MakeString("arm");
  ASSERT_TRUE(s.Insert(0, MakeString("L_")).IsOk());
  ASSERT_TRUE(s.Insert(s.GetLength(), std::string_view("_end")).IsOk());
  kelvara_test::ExpectError(s.Insert(s.GetLength() + 1, std::string_view("x")), IllegalArgumentError);
  EXPECT_EQ(s.View(), "L_arm_end");
  // The argument may point into the buffer being written.
  String own = MakeString("ab");
  ASSERT_TRUE(own.Reserve(64).IsOk());
  ASSERT_TRUE(own.Append(own.View()).IsOk());
  ASSERT_TRUE(own.Insert(1, own.View()).IsOk());
  EXPECT_EQ(own.View(), "aababbab");
}

TEST(StringSearch, CompareFindSplitAndUpperCase)
{
  // FNV-1a 64 reference values: stored hashes depend on them.
  EXPECT_EQ(String().GetHash(), 0xcbf29ce484222325ull);
  EXPECT_EQ(MakeString("a").GetHash(), 0xaf63dc4c8601ec8cull);
  // {this, other, mode, start, sign of the result}; bytes are unsigned, mode 1 folds to lower case.
  const std::tuple<const char*, const char*, Int, Int, Int> compares[] = {
    {"arm", "Arm", 0, 0, 1}, {"ARM", "arm", 1, 0, 0},      {"arm", "arms", 0, 0, -1},    {"\xc3\xa9", "z", 0, 0, 1},
    {"[", "A", 0, 0, 1},     {"[", "A", 1, 0, -1},         {"left arm", "ARM", 1, 5, 0}, {"left arm", "", 0, 1000, 0},
  };
  for (const auto& [a, b, mode, start, sign] : compares)
    EXPECT_EQ(std::clamp<Int>(MakeString(a).ComparePart(MakeString(b), mode, start), -1, 1), sign) << a << " " << b;
  const char* s = "arm&&left&&arm"; // 14 bytes
  const std::tuple<const char*, const char*, Int, Int> finds[] = {
    {s, "arm", 1, 11}, {s, "arm", 12, -1}, {s, "arm&&left&&arm!", 0, -1}, {s, "", 14, 14},
    {s, "", 15, -1},   {s, "arm", -5, 0},  {"", "", 0, 0},
  };
  for (const auto& [text, sub, start, expected] : finds)
    EXPECT_EQ(MakeString(text).FindIndex(MakeString(sub), start), expected) << text << " / " << sub << " " << start;
  const std::tuple<const char*, const char*, std::vector<std::string>> splits[] = {
    {"&&arm&&left", "&&", {"arm", "left"}}, {"&&&&", "&&", {}}, {"a&&&b", "&&", {"a", "&b"}},
    {"arm", "", {"arm"}},                   {"", "", {}},
  };
  for (const auto& [text, separator, expected] : splits)
  {
    std::vector<std::string> pieces;
    for (const String& piece : kelvara_test::Value(MakeString(text).Split(MakeString(separator))))
      pieces.emplace_back(piece.View());
    EXPECT_EQ(pieces, expected) << text << " at " << separator;
  }
  EXPECT_EQ(kelvara_test::Value(MakeString("left_Arm.\xc3\xa9z").ToUpper()).View(), "LEFT_ARM.\xc3\xa9Z");
}

TEST(StringText, NumbersMatricesAndArraysNeverFail)
{
  const FormatStatement padded{.width = 5, .precision = 1, .fill = '*'};
  auto text = [](int v) { return String::IntToString(v); };
  const std::pair<String, const char*> cases[] = {
    // By default the shortest text that reads back exactly.
    {String::FloatToString(1.0), "1"}, {String::FloatToString(-0.0), "-0"}, {String::FloatToString(0.1), "0.1"},
    {String::FloatToString(1e300), "1e+300"}, {String::FloatToString(-std::nan("")), "nan"},
    {String::FloatToString(-HUGE_VAL), "-inf"}, {String::FloatToString(2.5, 8, 2, false, ' '), "    2.50"},
    {String::FloatToString(-2.5, 6, 1, false, '0'), "00-2.5"}, {String::FloatToString(1.25, &padded), "**1.2"},
    {String::FloatToString(1234.5, -1, 2, true, ' '), "1.23e+03"},
    {String::FloatToString(1234.5, -1, -3, true, ' '), "1.2345e+03"},
    {MatrixToString(Matrix{{1, 2, 3}, {0.5, -1, 0}}), "((0.5,-1,0),(0,1,0),(0,0,1),(1,2,3))"},
    {ArrayToString(std::vector<int>{}, text), "{}"}, {ArrayToString(std::vector<int>{1, 22, 333}, text), "{1,22,333}"},
  };
  for (const auto& [got, expected] : cases)
    EXPECT_EQ(got.View(), expected);
  EXPECT_EQ(String::FloatToString(5e-324, -1, 5000, false, ' ').GetLength(), 2 + 1074); // every digit
  // Out of memory, conversions yield the empty text or drop pieces.
  kelvara_test::SweepAllocationFailures([] { return 0; }, [](int) { return MatrixToString(Matrix{}); },
                                        [](int, const String& text, bool failed) {
                                          EXPECT_EQ(text.View(), failed ? "" : "((1,0,0),(0,1,0),(0,0,1),(0,0,0))");
                                        });
  // Allocation 1: braces; 2: first piece's room; 3: second piece's, which fails.
  String texts[] = {MakeString("1"), MakeString(std::string(100, 'a')), MakeString("3")};
  Allocator::FailNthAllocation(3);
  const String dropped = ArrayToString(std::vector<int>{0, 1, 2}, [&](int i) { return texts[i]; });
  Allocator::FailNthAllocation(0);
  EXPECT_EQ(dropped.View(), "{1,3}");
}

template <typename T>
Result<void> Void(const Result<T>& r)
{
  if (r.IsError())
    return r.GetError();
  return OK();
}

TEST(StringOutOfMemory, OperationsLeaveTheStringAsItWas)
{
  using State = std::pair<String, String>; // the original and s, which may share its buffer
  auto snapshot = [](const State& st) {
    return testing::PrintToString(std::tuple(st.second.View(), st.second.IsSameBuffer(st.first),
                                             st.second.GetReferenceCount(), st.first.View()));
  };
  const String def = MakeString("def");
  const String separator = MakeString("&&");
  // {name, s shares the original's buffer (which has room to spare), operation, failing runs}
  const std::tuple<const char*, bool, std::function<Result<void>(String&)>, int> cases[] = {
    {"Append", true, [](String& s) { return s.Append(std::string_view("_l")); }, 1},
    {"Insert", true, [](String& s) { return s.Insert(0, std::string_view("l_")); }, 1},
    {"Reserve", true, [](String& s) { return s.Reserve(10); }, 1},
    {"Append without room", false, [&](String& s) { return s.Append(def); }, 1},
    {"Split", true, [&](String& s) { return Void(s.Split(separator)); }, 3}, // two pieces and the array
  };
  for (const auto& [name, shared, op, failures] : cases)
  {
    SCOPED_TRACE(name);
    auto make = [&] {
      State st{MakeString("a&&b"), MakeString("a&&b")};
      EXPECT_TRUE(st.first.Reserve(100).IsOk());
      if (shared)
        st.second = st.first;
      return st;
    };
    EXPECT_EQ(kelvara_test::SweepOutOfMemory(make, [&](State& st) { return op(st.second); }, snapshot), failures);
  }
}

} // namespace
} // namespace telvo
