#include "telvo/string.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <tuple>
#include <vector>

#include "support/oom_sweep.h"

namespace telvo
{
namespace
{

using kelvara_test::SweepAllocationFailures;
using kelvara_test::SweepOutOfMemory;

String Make(std::string_view text)
{
  Result<String> r = String::Create(text);
  EXPECT_TRUE(r.IsOk());
  return std::move(r).GetValue();
}

int Sign(Int v) { return (v > 0) - (v < 0); }

TEST(StringSharing, EmptyNeverAllocatesAndCopiesCountReferences)
{
  Int live = Allocator::GetLiveCount();
  {
    String empty;
    String created = Make("");
    EXPECT_EQ(created.GetReferenceCount(), 0);
    EXPECT_TRUE(empty == created);
    ASSERT_TRUE(empty.Append(std::string_view()).IsOk());
    EXPECT_EQ(Allocator::GetLiveCount(), live);

    String a = Make("hip");
    String b = a;
    EXPECT_TRUE(a.IsSameBuffer(b));
    String c;
    c = b;
    EXPECT_EQ(a.GetReferenceCount(), 3);
    String d = std::move(c);
    EXPECT_EQ(c.GetReferenceCount(), 0);
    EXPECT_EQ(a.GetReferenceCount(), 3);
    String& alias = d;
    d = alias; // self-assignment must not drop the buffer
    EXPECT_EQ(d.View(), "hip");
    EXPECT_EQ(a.GetReferenceCount(), 3);
    b = String();
    EXPECT_EQ(a.GetReferenceCount(), 2);
    EXPECT_EQ(Allocator::GetLiveCount(), live + 1);
  }
  EXPECT_EQ(Allocator::GetLiveCount(), live);
}

TEST(StringSharing, WritesCopyASharedBufferFirst)
{
  // (Edits of a plain shared buffer are checked by the sweeps below.)
  String a = Make("arm");
  String d = a;
  ASSERT_TRUE(d.Reserve(100).IsOk());
  EXPECT_FALSE(a.IsSameBuffer(d));
  // Spare room in a shared buffer must not tempt an in-place write.
  String e = d;
  ASSERT_TRUE(e.Append(std::string_view("_r")).IsOk());
  String f = d;
  ASSERT_TRUE(f.Insert(0, std::string_view("L_")).IsOk());
  EXPECT_EQ(a.View(), "arm");
  EXPECT_EQ(d.View(), "arm");
  EXPECT_EQ(e.View(), "arm_r");
  EXPECT_EQ(f.View(), "L_arm");
  EXPECT_EQ(d.GetReferenceCount(), 1);

  // Appending to an empty string shares the other buffer.
  String g;
  ASSERT_TRUE(g.Append(a).IsOk());
  EXPECT_TRUE(a.IsSameBuffer(g));
  ASSERT_TRUE(g.Append(std::string_view("1")).IsOk());
  EXPECT_EQ(a.View(), "arm");
}

TEST(StringEdit, RepeatedAppendIsAmortised)
{
  String s;
  Int live = Allocator::GetLiveCount();
  const char* last = nullptr;
  int moves = 0;
  for (int i = 0; i < 1000; ++i)
  {
    ASSERT_TRUE(s.Append(std::string_view("ab")).IsOk());
    moves += s.View().data() != last ? 1 : 0;
    last = s.View().data();
  }
  // 1.5x growth needs about log1.5(2000) ~ 19 blocks; linear growth would need 1000.
  EXPECT_LT(moves, 30);
  EXPECT_EQ(s.GetLength(), 2000);
  EXPECT_EQ(Allocator::GetLiveCount(), live + 1);
}

TEST(StringEdit, InsertPositionsAndOwnText)
{
  String s = Make("arm");
  ASSERT_TRUE(s.Insert(0, Make("L_")).IsOk());
  ASSERT_TRUE(s.Insert(s.GetLength(), std::string_view("_end")).IsOk());
  ASSERT_TRUE(s.Insert(2, std::string_view("up")).IsOk());
  EXPECT_EQ(s.View(), "L_uparm_end");
  EXPECT_TRUE(s.Insert(s.GetLength() + 1, std::string_view("x")).GetError().IsClass(IllegalArgumentError));
  EXPECT_TRUE(s.Insert(-1, std::string_view("x")).IsError());
  EXPECT_EQ(s.View(), "L_uparm_end");

  // The argument may point into the buffer being written.
  String own = Make("ab");
  ASSERT_TRUE(own.Reserve(64).IsOk());
  ASSERT_TRUE(own.Append(own.View()).IsOk());
  EXPECT_EQ(own.View(), "abab");
  ASSERT_TRUE(own.Insert(1, own.View()).IsOk());
  EXPECT_EQ(own.View(), "aababbab");
  ASSERT_TRUE(own.Append(own).IsOk());
  EXPECT_EQ(own.View(), "aababbabaababbab");
}

TEST(StringCompare, EqualityHashAndComparePart)
{
  EXPECT_TRUE(Make("arm") == Make("arm"));
  EXPECT_FALSE(Make("arm") == Make("Arm"));
  EXPECT_FALSE(Make("arm") == String());
  EXPECT_NE(Make("arm").GetHash(), Make("Arm").GetHash());
  // FNV-1a 64 reference values: stored hashes depend on them.
  EXPECT_EQ(String().GetHash(), 0xcbf29ce484222325ull);
  EXPECT_EQ(Make("a").GetHash(), 0xaf63dc4c8601ec8cull);

  // {this, other, mode, start, sign of the result}
  const std::tuple<const char*, const char*, Int, Int, int> cases[] = {
    {"arm", "arm", 0, 0, 0},   {"arm", "Arm", 0, 0, 1},       {"arm", "ARM", 1, 0, 0},
    {"ARM", "arm", 1, 0, 0},   {"arm", "left arm", 0, 0, -1}, {"arm", "arms", 0, 0, -1},
    {"arm", "ar", 0, 0, 1},
    {"\xc3\xa9", "z", 0, 0, 1}, // bytes compare unsigned
    {"[", "A", 0, 0, 1},        // mode 1 folds to lower case: '[' sorts between 'A' and 'a'
    {"[", "A", 1, 0, -1},      {"left arm", "arm", 0, 5, 0},  {"left arm", "ARM", 1, 5, 0},
    {"left arm", "arm", 0, 4, -1}, {"left arm", "", 0, 8, 0}, {"left arm", "", 0, 1000, 0},
  };
  for (const auto& [a, b, mode, start, sign] : cases)
  {
    SCOPED_TRACE(std::string(a) + " vs " + b + " mode " + std::to_string(mode) + " from " + std::to_string(start));
    EXPECT_EQ(Sign(Make(a).ComparePart(Make(b), mode, start)), sign);
  }
}

TEST(StringSearch, FindIndexAndSplit)
{
  const char* s = "arm&&left&&arm"; // 14 bytes
  const std::tuple<const char*, const char*, Int, Int> finds[] = {
    {s, "arm", 0, 0},  {s, "arm", 1, 11},   {s, "arm", 12, -1}, {s, "leg", 0, -1}, {s, "arm&&left&&arm!", 0, -1},
    {s, "", 3, 3},     {s, "", 14, 14},     {s, "", 15, -1},    {s, "arm", -5, 0}, {"", "", 0, 0},
    {"", "a", 0, -1},
  };
  for (const auto& [text, sub, start, expected] : finds)
    EXPECT_EQ(Make(text).FindIndex(Make(sub), start), expected) << text << " / " << sub << " from " << start;

  // Split drops empty pieces.
  using V = std::vector<std::string>;
  const std::tuple<const char*, const char*, V> splits[] = {
    {"arm&&left", "&&", {"arm", "left"}}, {"&&arm&&", "&&", {"arm"}}, {"&&", "&&", {}},
    {"&&&&", "&&", {}},                   {"", "&&", {}},            {"a&&&b", "&&", {"a", "&b"}},
    {"a,b,,c", ",", {"a", "b", "c"}},     {"arm", ",", {"arm"}},     {"arm", "", {"arm"}},
    {"", "", {}},
  };
  for (const auto& [text, separator, expected] : splits)
  {
    V pieces;
    Result<BaseArray<String>> r = Make(text).Split(Make(separator));
    for (const String& piece : r.GetValue())
      pieces.emplace_back(piece.View());
    EXPECT_EQ(pieces, expected) << text << " at " << separator;
  }
}

TEST(StringSearch, ToUpperIsAsciiOnly)
{
  String s = Make("left_Arm.\xc3\xa9z");
  EXPECT_EQ(s.ToUpper().GetValue().View(), "LEFT_ARM.\xc3\xa9Z");
  EXPECT_EQ(s.View(), "left_Arm.\xc3\xa9z");
  EXPECT_TRUE(String().ToUpper().GetValue().IsEmpty());
}

TEST(StringText, NumbersBooleansMatricesAndArrays)
{
  const Float64 inf = std::numeric_limits<Float64>::infinity();
  FormatStatement fs;
  FormatStatement padded;
  padded.width = 5;
  padded.precision = 1;
  padded.fill = '*';
  FormatStatement oneDigit;
  oneDigit.precision = 1;
  Matrix m;
  m.off = {1, 2, 3};
  m.v1 = {0.5, -1, 0};
  auto text = [](int v) { return String::IntToString(v); };
  const std::pair<String, const char*> cases[] = {
    {String::IntToString(0), "0"}, {String::IntToString(-42), "-42"},
    {String::IntToString(std::numeric_limits<Int>::min()), "-9223372036854775808"},
    {String::BoolToString(true), "true"}, {String::BoolToString(false), "false"},
    // Default float text is the shortest that reads back exactly.
    {String::FloatToString(1.0), "1"}, {String::FloatToString(-0.0), "-0"}, {String::FloatToString(0.1), "0.1"},
    {String::FloatToString(1e300), "1e+300"}, {String::FloatToString(-2.5), "-2.5"},
    {String::FloatToString(std::nan("")), "nan"}, {String::FloatToString(-std::nan("")), "nan"},
    {String::FloatToString(inf), "inf"}, {String::FloatToString(-inf), "-inf"},
    // The defaults of the long form are those of FormatStatement.
    {String::FloatToString(0.1, fs.width, fs.precision, fs.exponential, fs.fill), "0.1"},
    {String::FloatToString(2.5, 8, 2, false, ' '), "    2.50"},
    {String::FloatToString(-2.5, 6, 1, false, '0'), "00-2.5"},
    {String::FloatToString(123.0, 2, -1, false, ' '), "123"},
    {String::FloatToString(2.0, -1, 0, false, ' '), "2"},
    {String::FloatToString(1234.5, -1, 2, true, ' '), "1.23e+03"},
    {String::FloatToString(1234.5, -1, -3, true, ' '), "1.2345e+03"},
    {String::FloatToString(1.25, &padded), "**1.2"},
    {MatrixToString(Matrix{}), "((1,0,0),(0,1,0),(0,0,1),(0,0,0))"},
    {MatrixToString(m), "((0.5,-1,0),(0,1,0),(0,0,1),(1,2,3))"},
    {MatrixToString(Matrix{}, &oneDigit), "((1.0,0.0,0.0),(0.0,1.0,0.0),(0.0,0.0,1.0),(0.0,0.0,0.0))"},
    {ArrayToString(std::vector<int>{}, text), "{}"},
    {ArrayToString(std::vector<int>{1, 22, 333}, text), "{1,22,333}"},
  };
  for (const auto& [got, expected] : cases)
    EXPECT_EQ(got.View(), expected);
  // Fixed notation writes every digit.
  EXPECT_EQ(String::FloatToString(1e300, -1, 1, false, ' ').GetLength(), 303);
  EXPECT_EQ(String::FloatToString(5e-324, -1, 5000, false, ' ').GetLength(), 2 + 1074);
}

TEST(StringOutOfMemory, ConversionsYieldEmptyOrDropPieces)
{
  Int live = Allocator::GetLiveCount();
  Allocator::FailNthAllocation(1);
  EXPECT_TRUE(String::FloatToString(2.5, 8, 2, false, ' ').IsEmpty());
  Allocator::FailNthAllocation(1);
  EXPECT_TRUE(String::IntToString(5).IsEmpty());
  Allocator::FailNthAllocation(0);
  EXPECT_EQ(Allocator::GetLiveCount(), live);

  SweepAllocationFailures([] { return 0; }, [](int) { return MatrixToString(Matrix{}); },
                          [](int, const String& text, bool failed) {
                            EXPECT_EQ(text.View(), failed ? "" : "((1,0,0),(0,1,0),(0,0,1),(0,0,0))");
                          });

  // Allocation 1: braces; 2: first piece's room; 3: second piece's, which fails.
  String texts[] = {Make("1"), Make(std::string(100, 'a')), Make("3")};
  Allocator::FailNthAllocation(3);
  String text = ArrayToString(std::vector<int>{0, 1, 2}, [&](int i) { return texts[i]; });
  Allocator::FailNthAllocation(0);
  EXPECT_EQ(text.View(), "{1,3}");
}

// Sweeps an edit of s, which shares its buffer with original when shared is set; returns the
// number of failing runs and the state after the run that succeeded.
template <typename EDIT>
std::pair<int, std::string> SweepEdit(const char* text, bool shared, EDIT edit)
{
  struct State
  {
    String original, s;
  };
  std::string after;
  auto snapshot = [](const State& st) {
    return std::string(st.s.View()) + (st.s.IsSameBuffer(st.original) ? " shared " : " ") +
           std::to_string(st.s.GetReferenceCount()) + " " + std::string(st.original.View());
  };
  const int failures = SweepOutOfMemory(
    [&] {
      State st{Make(text), {}};
      st.s = shared ? st.original : Make(text);
      return st;
    },
    [&](State& st) {
      Result<void> r = edit(st.s);
      after = snapshot(st);
      return r;
    },
    snapshot);
  return {failures, after};
}

TEST(StringOutOfMemory, EditsLeaveTheStringAsItWas)
{
  const String def = Make("def");
  using P = std::pair<int, std::string>;
  EXPECT_EQ(SweepEdit("arm", true, [](String& s) { return s.Append(std::string_view("_left")); }), P(1, "arm_left 1 arm"));
  EXPECT_EQ(SweepEdit("arm", true, [](String& s) { return s.Insert(0, std::string_view("left ")); }), P(1, "left arm 1 arm"));
  // A private buffer without room.
  EXPECT_EQ(SweepEdit("abc", false, [&](String& s) { return s.Append(def); }), P(1, "abcdef 1 abc"));
}

TEST(StringOutOfMemory, ToUpperAndSplit)
{
  auto make = [] { return Make("arm&&left&&leg"); };
  auto snapshot = [](const String& s) { return std::string(s.View()) + std::to_string(s.GetReferenceCount()); };
  EXPECT_EQ(SweepOutOfMemory(make, [](String& s) { return s.ToUpper(); }, snapshot), 1);
  // Three pieces and the array: every one of the four allocations may fail.
  const String separator = Make("&&");
  EXPECT_EQ(SweepOutOfMemory(make, [&](String& s) { return s.Split(separator); }, snapshot), 4);
}

} // namespace
} // namespace telvo
