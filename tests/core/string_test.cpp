#include "telvo/string.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

namespace telvo
{
namespace
{

String Make(std::string_view text)
{
  Result<String> r = String::Create(text);
  EXPECT_TRUE(r.IsOk());
  return std::move(r).GetValue();
}

std::vector<std::string> Pieces(const String& s, std::string_view separator)
{
  Result<BaseArray<String>> r = s.Split(Make(separator));
  EXPECT_TRUE(r.IsOk());
  std::vector<std::string> out;
  for (const String& piece : r.GetValue())
    out.emplace_back(piece.View());
  return out;
}

// Makes the n-th allocation fail for n = 1, 2, ... until op succeeds. Every failing run must
// report OutOfMemoryError, keep the value unchanged and leave no block behind. Returns the
// number of failing runs.
template <typename OP, typename UNCHANGED>
Int FailEachAllocation(OP&& op, UNCHANGED&& unchanged)
{
  for (Int n = 1; n < 64; ++n)
  {
    Int live = Allocator::GetLiveCount();
    Allocator::FailNthAllocation(n);
    Error error = op();
    Bool delivered = Allocator::FailureDelivered();
    Allocator::FailNthAllocation(0);
    if (!error.IsSet())
    {
      EXPECT_FALSE(delivered) << "an allocation failed but the operation reported success";
      return n - 1;
    }
    EXPECT_TRUE(error.IsClass(OutOfMemoryError)) << "run " << n;
    EXPECT_TRUE(unchanged()) << "run " << n;
    EXPECT_EQ(Allocator::GetLiveCount(), live) << "run " << n;
  }
  ADD_FAILURE() << "never succeeded";
  return 0;
}

TEST(StringSharing, EmptyStringNeverAllocates)
{
  Int live = Allocator::GetLiveCount();
  {
    String a;
    Result<String> b = String::Create("");
    ASSERT_TRUE(b.IsOk());
    String c = b.GetValue();
    EXPECT_EQ(a.GetReferenceCount(), 0);
    EXPECT_EQ(c.GetReferenceCount(), 0);
    EXPECT_TRUE(c.IsEmpty());
    EXPECT_EQ(c.View(), "");
    EXPECT_TRUE(a == c);
    ASSERT_TRUE(a.Append(std::string_view()).IsOk());
    EXPECT_EQ(Allocator::GetLiveCount(), live);
  }
  EXPECT_EQ(Allocator::GetLiveCount(), live);
}

TEST(StringSharing, CopyMoveAndReleaseCounts)
{
  Int live = Allocator::GetLiveCount();
  {
    String a = Make("hip");
    EXPECT_EQ(a.GetReferenceCount(), 1);
    String b = a;
    EXPECT_TRUE(a.IsSameBuffer(b));
    EXPECT_EQ(a.GetReferenceCount(), 2);
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

TEST(StringSharing, MutatingOneHolderLeavesTheOtherAlone)
{
  String a = Make("arm");
  String b = a;
  ASSERT_TRUE(b.Append(std::string_view("_l")).IsOk());
  EXPECT_EQ(a.View(), "arm");
  EXPECT_EQ(b.View(), "arm_l");
  EXPECT_FALSE(a.IsSameBuffer(b));
  EXPECT_EQ(a.GetReferenceCount(), 1);
  EXPECT_EQ(b.GetReferenceCount(), 1);

  String c = a;
  ASSERT_TRUE(c.Insert(0, std::string_view("left ")).IsOk());
  EXPECT_EQ(a.View(), "arm");
  EXPECT_EQ(c.View(), "left arm");

  String d = a;
  ASSERT_TRUE(d.Reserve(100).IsOk());
  EXPECT_FALSE(a.IsSameBuffer(d));
  EXPECT_EQ(d.View(), "arm");

  // Spare room in a shared buffer must not tempt an in-place write.
  String e = d;
  ASSERT_TRUE(e.Append(std::string_view("_r")).IsOk());
  String f = d;
  ASSERT_TRUE(f.Insert(0, std::string_view("L_")).IsOk());
  EXPECT_EQ(d.View(), "arm");
  EXPECT_EQ(e.View(), "arm_r");
  EXPECT_EQ(f.View(), "L_arm");
}

TEST(StringSharing, AppendToEmptySharesTheOtherBuffer)
{
  String a = Make("spine");
  String b;
  ASSERT_TRUE(b.Append(a).IsOk());
  EXPECT_TRUE(a.IsSameBuffer(b));
  ASSERT_TRUE(b.Append(std::string_view("1")).IsOk());
  EXPECT_EQ(a.View(), "spine");
  EXPECT_EQ(b.View(), "spine1");
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
    if (s.View().data() != last)
      ++moves;
    last = s.View().data();
  }
  // 1.5x growth needs about log1.5(2000) ~ 19 blocks; linear growth would need 1000.
  EXPECT_LT(moves, 30);
  EXPECT_EQ(s.GetLength(), 2000);
  EXPECT_EQ(Allocator::GetLiveCount(), live + 1);
}

TEST(StringEdit, AppendAndInsertOwnText)
{
  String s = Make("ab");
  ASSERT_TRUE(s.Reserve(64).IsOk());
  ASSERT_TRUE(s.Append(s.View()).IsOk());
  EXPECT_EQ(s.View(), "abab");
  ASSERT_TRUE(s.Insert(1, s.View()).IsOk());
  EXPECT_EQ(s.View(), "aababbab");
  ASSERT_TRUE(s.Append(s).IsOk());
  EXPECT_EQ(s.View(), "aababbabaababbab");
}

TEST(StringEdit, InsertPositions)
{
  String s = Make("arm");
  ASSERT_TRUE(s.Insert(0, Make("L_")).IsOk());
  EXPECT_EQ(s.View(), "L_arm");
  ASSERT_TRUE(s.Insert(s.GetLength(), std::string_view("_end")).IsOk());
  EXPECT_EQ(s.View(), "L_arm_end");
  ASSERT_TRUE(s.Insert(2, std::string_view("up")).IsOk());
  EXPECT_EQ(s.View(), "L_uparm_end");

  Result<void> bad = s.Insert(s.GetLength() + 1, std::string_view("x"));
  EXPECT_TRUE(bad.GetError().IsClass(IllegalArgumentError));
  EXPECT_TRUE(s.Insert(-1, std::string_view("x")).IsError());
  EXPECT_EQ(s.View(), "L_uparm_end");

  String e;
  ASSERT_TRUE(e.Insert(0, std::string_view("x")).IsOk());
  EXPECT_EQ(e.View(), "x");
}

TEST(StringCompare, EqualityIsExact)
{
  EXPECT_TRUE(Make("arm") == Make("arm"));
  EXPECT_FALSE(Make("arm") == Make("Arm"));
  EXPECT_FALSE(Make("arm") == Make("left arm"));
  EXPECT_FALSE(Make("arm") == String());
  EXPECT_EQ(Make("arm").GetHash(), Make("arm").GetHash());
  EXPECT_NE(Make("arm").GetHash(), Make("Arm").GetHash());
  // FNV-1a 64 reference values: stored hashes depend on them.
  EXPECT_EQ(String().GetHash(), 0xcbf29ce484222325ull);
  EXPECT_EQ(Make("a").GetHash(), 0xaf63dc4c8601ec8cull);
}

TEST(StringCompare, ComparePartModes)
{
  String arm = Make("arm");
  EXPECT_EQ(arm.ComparePart(Make("arm"), 0), 0);
  EXPECT_NE(arm.ComparePart(Make("Arm"), 0), 0);
  EXPECT_EQ(arm.ComparePart(Make("ARM"), 1), 0);
  EXPECT_EQ(Make("ARM").ComparePart(arm, 1), 0);
  EXPECT_NE(arm.ComparePart(Make("left arm"), 0), 0);
  EXPECT_LT(arm.ComparePart(Make("arms"), 0), 0);
  EXPECT_GT(arm.ComparePart(Make("ar"), 0), 0);
  EXPECT_LT(Make("a").ComparePart(Make("b"), 0), 0);
  // Bytes compare unsigned: UTF-8 lead bytes sort after ASCII.
  EXPECT_GT(Make("\xc3\xa9").ComparePart(Make("z"), 0), 0);
  // Mode 1 folds to lower case: '[' (0x5B) sorts after 'A' but before 'a'.
  EXPECT_GT(Make("[").ComparePart(Make("A"), 0), 0);
  EXPECT_LT(Make("[").ComparePart(Make("A"), 1), 0);

  String left = Make("left arm");
  EXPECT_EQ(left.ComparePart(arm, 0, 5), 0);
  EXPECT_EQ(left.ComparePart(Make("ARM"), 1, 5), 0);
  EXPECT_NE(left.ComparePart(arm, 0, 4), 0);
  EXPECT_EQ(left.ComparePart(String(), 0, left.GetLength()), 0);
  EXPECT_EQ(left.ComparePart(String(), 0, 1000), 0);
}

TEST(StringSearch, FindIndex)
{
  String s = Make("arm&&left&&arm");
  EXPECT_EQ(s.FindIndex(Make("arm")), 0);
  EXPECT_EQ(s.FindIndex(Make("arm"), 1), 11);
  EXPECT_EQ(s.FindIndex(Make("arm"), 12), -1);
  EXPECT_EQ(s.FindIndex(Make("leg")), -1);
  EXPECT_EQ(s.FindIndex(Make("arm&&left&&arm!")), -1);
  EXPECT_EQ(s.FindIndex(String(), 3), 3);
  EXPECT_EQ(s.FindIndex(String(), s.GetLength()), s.GetLength());
  EXPECT_EQ(s.FindIndex(String(), s.GetLength() + 1), -1);
  EXPECT_EQ(s.FindIndex(Make("arm"), -5), 0);
  EXPECT_EQ(String().FindIndex(String()), 0);
  EXPECT_EQ(String().FindIndex(Make("a")), -1);
}

TEST(StringSearch, SplitDropsEmptyPieces)
{
  using V = std::vector<std::string>;
  EXPECT_EQ(Pieces(Make("arm&&left"), "&&"), (V{"arm", "left"}));
  EXPECT_EQ(Pieces(Make("&&arm&&"), "&&"), (V{"arm"}));
  EXPECT_EQ(Pieces(Make("&&"), "&&"), V{});
  EXPECT_EQ(Pieces(Make("&&&&"), "&&"), V{});
  EXPECT_EQ(Pieces(String(), "&&"), V{});
  EXPECT_EQ(Pieces(Make("a&&&b"), "&&"), (V{"a", "&b"}));
  EXPECT_EQ(Pieces(Make("a,b,,c"), ","), (V{"a", "b", "c"}));
  EXPECT_EQ(Pieces(Make("arm"), ","), (V{"arm"}));
  EXPECT_EQ(Pieces(Make("arm"), ""), (V{"arm"}));
  EXPECT_EQ(Pieces(String(), ""), V{});
}

TEST(StringSearch, ToUpperIsAsciiOnly)
{
  String s = Make("left_Arm.\xc3\xa9z");
  Result<String> up = s.ToUpper();
  ASSERT_TRUE(up.IsOk());
  EXPECT_EQ(up.GetValue().View(), "LEFT_ARM.\xc3\xa9Z");
  EXPECT_EQ(s.View(), "left_Arm.\xc3\xa9z");
  Result<String> empty = String().ToUpper();
  ASSERT_TRUE(empty.IsOk());
  EXPECT_TRUE(empty.GetValue().IsEmpty());
}

TEST(StringText, IntAndBool)
{
  EXPECT_EQ(String::IntToString(0).View(), "0");
  EXPECT_EQ(String::IntToString(-42).View(), "-42");
  EXPECT_EQ(String::IntToString(std::numeric_limits<Int>::min()).View(), "-9223372036854775808");
  EXPECT_EQ(String::BoolToString(true).View(), "true");
  EXPECT_EQ(String::BoolToString(false).View(), "false");
}

TEST(StringText, FloatDefaultsAreShortestExact)
{
  EXPECT_EQ(String::FloatToString(1.0).View(), "1");
  EXPECT_EQ(String::FloatToString(0.0).View(), "0");
  EXPECT_EQ(String::FloatToString(-0.0).View(), "-0");
  EXPECT_EQ(String::FloatToString(0.1).View(), "0.1");
  EXPECT_EQ(String::FloatToString(1e300).View(), "1e+300");
  EXPECT_EQ(String::FloatToString(-2.5).View(), "-2.5");
  EXPECT_EQ(String::FloatToString(std::nan("")).View(), "nan");
  EXPECT_EQ(String::FloatToString(-std::nan("")).View(), "nan");
  EXPECT_EQ(String::FloatToString(std::numeric_limits<Float64>::infinity()).View(), "inf");
  EXPECT_EQ(String::FloatToString(-std::numeric_limits<Float64>::infinity()).View(), "-inf");
  // The defaults of the long form are those of FormatStatement.
  FormatStatement fs;
  EXPECT_EQ(String::FloatToString(0.1, fs.width, fs.precision, fs.exponential, fs.fill).View(), "0.1");
}

TEST(StringText, FloatWidthPrecisionExponential)
{
  EXPECT_EQ(String::FloatToString(2.5, 8, 2, false, ' ').View(), "    2.50");
  EXPECT_EQ(String::FloatToString(-2.5, 6, 1, false, '0').View(), "00-2.5");
  EXPECT_EQ(String::FloatToString(123.0, 2, -1, false, ' ').View(), "123");
  EXPECT_EQ(String::FloatToString(2.0, -1, 0, false, ' ').View(), "2");
  EXPECT_EQ(String::FloatToString(1234.5, -1, 2, true, ' ').View(), "1.23e+03");
  EXPECT_EQ(String::FloatToString(1234.5, -1, -3, true, ' ').View(), "1.2345e+03");
  EXPECT_EQ(String::FloatToString(1e300, -1, 1, false, ' ').GetLength(), 303);
  EXPECT_EQ(String::FloatToString(5e-324, -1, 5000, false, ' ').GetLength(), 2 + 1074);
  FormatStatement fs;
  fs.width = 5;
  fs.precision = 1;
  fs.fill = '*';
  EXPECT_EQ(String::FloatToString(1.25, &fs).View(), "**1.2");
}

TEST(StringText, Matrices)
{
  EXPECT_EQ(MatrixToString(Matrix{}).View(), "((1,0,0),(0,1,0),(0,0,1),(0,0,0))");
  Matrix m;
  m.off = {1, 2, 3};
  m.v1 = {0.5, -1, 0};
  String text = MatrixToString(m);
  EXPECT_EQ(text.View(), "((0.5,-1,0),(0,1,0),(0,0,1),(1,2,3))");
  FormatStatement fs;
  fs.precision = 1;
  EXPECT_EQ(MatrixToString(Matrix{}, &fs).View(),
            "((1.0,0.0,0.0),(0.0,1.0,0.0),(0.0,0.0,1.0),(0.0,0.0,0.0))");
}

TEST(StringText, Arrays)
{
  std::vector<int> none;
  auto text = [](int v) { return String::IntToString(v); };
  EXPECT_EQ(ArrayToString(none, text).View(), "{}");
  EXPECT_EQ(ArrayToString(std::vector<int>{7}, text).View(), "{7}");
  EXPECT_EQ(ArrayToString(std::vector<int>{1, 22, 333}, text).View(), "{1,22,333}");
  std::vector<const int*> pointers{nullptr};
  EXPECT_EQ(ArrayToString(pointers, [](const int* p) {
              return p == nullptr ? String::Create("nullptr").GetValue() : String::IntToString(*p);
            }).View(),
            "{nullptr}");
}

TEST(StringText, ArrayDropsPiecesThatFindNoMemory)
{
  String texts[] = {Make("1"), Make(std::string(100, 'a')), Make("3")};
  std::vector<int> three{0, 1, 2};
  // Allocation 1: braces; 2: first piece's room; 3: second piece's, which fails.
  Allocator::FailNthAllocation(3);
  String text = ArrayToString(three, [&](int i) { return texts[i]; });
  Allocator::FailNthAllocation(0);
  EXPECT_EQ(text.View(), "{1,3}");

  Int live = Allocator::GetLiveCount();
  Allocator::FailNthAllocation(1);
  String none = ArrayToString(three, [](int v) { return String::IntToString(v); });
  Allocator::FailNthAllocation(0);
  EXPECT_TRUE(none.IsEmpty());
  EXPECT_EQ(Allocator::GetLiveCount(), live);
}

TEST(StringText, ConversionsYieldEmptyWithoutMemory)
{
  Int live = Allocator::GetLiveCount();
  Allocator::FailNthAllocation(1);
  EXPECT_TRUE(String::FloatToString(2.5, 8, 2, false, ' ').IsEmpty());
  Allocator::FailNthAllocation(1);
  EXPECT_TRUE(String::IntToString(5).IsEmpty());
  for (Int n = 1; n < 40; ++n)
  {
    Allocator::FailNthAllocation(n);
    String m = MatrixToString(Matrix{});
    Bool delivered = Allocator::FailureDelivered();
    Allocator::FailNthAllocation(0);
    if (!delivered)
    {
      EXPECT_EQ(m.View(), "((1,0,0),(0,1,0),(0,0,1),(0,0,0))");
      break;
    }
    EXPECT_TRUE(m.IsEmpty()) << n;
  }
  Allocator::FailNthAllocation(0);
  EXPECT_EQ(Allocator::GetLiveCount(), live);
}

TEST(StringOutOfMemory, AppendOnSharedAndFullBuffers)
{
  String original = Make("arm");
  String s = original;
  Int failures = FailEachAllocation(
      [&] { return s.Append(std::string_view("_left")).GetError(); },
      [&] { return s.View() == "arm" && s.IsSameBuffer(original); });
  EXPECT_EQ(failures, 1);
  EXPECT_EQ(s.View(), "arm_left");
  EXPECT_EQ(original.View(), "arm");

  String u = Make("abc");
  String def = Make("def");
  FailEachAllocation([&] { return u.Append(def).GetError(); },
                     [&] { return u.View() == "abc" && u.GetReferenceCount() == 1; });
  EXPECT_EQ(u.View(), "abcdef");
}

TEST(StringOutOfMemory, Insert)
{
  String original = Make("arm");
  String s = original;
  Int failures = FailEachAllocation([&] { return s.Insert(0, std::string_view("left ")).GetError(); },
                                    [&] { return s.View() == "arm" && s.IsSameBuffer(original); });
  EXPECT_EQ(failures, 1);
  EXPECT_EQ(s.View(), "left arm");
}

TEST(StringOutOfMemory, ToUpperAndSplit)
{
  String s = Make("arm&&left&&leg");
  Int failures = FailEachAllocation(
      [&] {
        Result<String> r = s.ToUpper();
        return r.GetError();
      },
      [&] { return s.View() == "arm&&left&&leg" && s.GetReferenceCount() == 1; });
  EXPECT_EQ(failures, 1);

  // Three pieces and the array: every one of the four allocations may fail.
  String separator = Make("&&");
  failures = FailEachAllocation(
      [&] {
        Result<BaseArray<String>> r = s.Split(separator);
        return r.GetError();
      },
      [&] { return s.View() == "arm&&left&&leg"; });
  EXPECT_EQ(failures, 4);
}

} // namespace
} // namespace telvo
