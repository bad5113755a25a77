#include "telvo/uuid.h"

#include <gtest/gtest.h>

namespace telvo
{
namespace
{

constexpr std::string_view kText = "0123abcd-4567-89ef-0a1b-2c3d4e5f6a7b";

Uuid::Bytes SampleBytes()
{
  return {0x01, 0x23, 0xab, 0xcd, 0x45, 0x67, 0x89, 0xef, 0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f, 0x6a, 0x7b};
}

Uuid Make(const Uuid::Bytes& bytes)
{
  Result<Uuid> r = Uuid::Create(bytes);
  EXPECT_TRUE(r.IsOk());
  return std::move(r).GetValue();
}

TEST(UuidText, CanonicalLowerAndUpper)
{
  Uuid u = Make(SampleBytes());
  EXPECT_EQ(u.ToString().View(), kText);
  FormatStatement fs;
  fs.upperCaseHex = true;
  EXPECT_EQ(u.ToString(&fs).View(), "0123ABCD-4567-89EF-0A1B-2C3D4E5F6A7B");
  EXPECT_EQ(Uuid().ToString().View(), "00000000-0000-0000-0000-000000000000");
}

TEST(UuidText, FromStringRoundTrip)
{
  Result<Uuid> lower = Uuid::FromString(kText);
  ASSERT_TRUE(lower.IsOk());
  EXPECT_EQ(lower.GetValue().GetBytes(), SampleBytes());
  EXPECT_EQ(lower.GetValue().ToString().View(), kText);

  Result<Uuid> upper = Uuid::FromString("0123ABCD-4567-89EF-0A1B-2C3D4E5F6A7B");
  ASSERT_TRUE(upper.IsOk());
  EXPECT_TRUE(upper.GetValue() == lower.GetValue());
}

TEST(UuidText, FromStringRejectsOtherTexts)
{
  for (std::string_view bad : {
           "",
           "0123abcd-4567-89ef-0a1b-2c3d4e5f6a7",   // short
           "0123abcd-4567-89ef-0a1b-2c3d4e5f6a7b0", // long
           "0123abcd04567-89ef-0a1b-2c3d4e5f6a7b",  // dash missing
           "0123abc-d4567-89ef-0a1b-2c3d4e5f6a7b",  // dash misplaced
           "0123abcg-4567-89ef-0a1b-2c3d4e5f6a7b",  // not hex
           "{123abcd-4567-89ef-0a1b-2c3d4e5f6a7b}",
           "0123abcd456789ef0a1b2c3d4e5f6a7b",
       })
  {
    Result<Uuid> r = Uuid::FromString(bad);
    ASSERT_TRUE(r.IsError()) << bad;
    EXPECT_TRUE(r.GetError().IsClass(IllegalArgumentError));
    EXPECT_STREQ(r.GetError().GetMessage(), "Illegal argument: not a Uuid text");
  }
}

TEST(UuidValue, NullEqualsEmptyAndNoValidOne)
{
  Uuid null;
  Uuid zero = Make(Uuid::Bytes{});
  Uuid valid = Make(SampleBytes());
  EXPECT_TRUE(null.IsNull());
  EXPECT_FALSE(null.IsValid());
  EXPECT_FALSE(zero.IsNull());
  EXPECT_FALSE(zero.IsValid());
  EXPECT_TRUE(valid.IsValid());
  EXPECT_EQ(null.GetBytes(), Uuid::Bytes{});

  EXPECT_TRUE(null == zero);
  EXPECT_TRUE(zero == null);
  EXPECT_TRUE(null == Uuid());
  EXPECT_FALSE(null == valid);
  EXPECT_FALSE(zero == valid);
  EXPECT_EQ(null.GetHash(), zero.GetHash());
  EXPECT_NE(null.GetHash(), valid.GetHash());
}

TEST(UuidValue, CompareOrdersBytesLikeMemcmp)
{
  Uuid::Bytes low{};
  low[15] = 0xff;
  Uuid::Bytes high{};
  high[0] = 0x01;
  Uuid a = Make(low);
  Uuid b = Make(high);
  EXPECT_LT(a.Compare(b), 0);
  EXPECT_GT(b.Compare(a), 0);
  EXPECT_GT(a.Compare(Uuid()), 0);
  EXPECT_LT(Uuid().Compare(a), 0);
  EXPECT_EQ(a.Compare(a), 0);
  Uuid::Bytes top{};
  top[0] = 0x80; // bytes compare unsigned
  EXPECT_GT(Make(top).Compare(b), 0);

  Uuid equal = Make(low);
  EXPECT_FALSE(equal.IsSameObject(a));
  EXPECT_EQ(equal.Compare(a), 0);
  EXPECT_EQ(equal.GetHash(), a.GetHash());
}

TEST(UuidSharing, CopiesShareAndWritesCopyFirst)
{
  Int live = Allocator::GetLiveCount();
  {
    Uuid a = Make(SampleBytes());
    Uuid b = a;
    EXPECT_TRUE(a.IsSameObject(b));
    EXPECT_EQ(a.GetReferenceCount(), 2);
    Uuid c = std::move(b);
    EXPECT_TRUE(b.IsNull());
    EXPECT_EQ(b.GetReferenceCount(), 0);
    EXPECT_EQ(a.GetReferenceCount(), 2);

    Uuid::Bytes other{};
    other[3] = 7;
    ASSERT_TRUE(c.SetBytes(other).IsOk());
    EXPECT_EQ(a.GetBytes(), SampleBytes());
    EXPECT_EQ(c.GetBytes(), other);
    EXPECT_EQ(a.GetReferenceCount(), 1);
    EXPECT_EQ(c.GetReferenceCount(), 1);

    // A private block is written in place: no new block.
    Int blocks = Allocator::GetLiveCount();
    ASSERT_TRUE(c.SetBytes(SampleBytes()).IsOk());
    EXPECT_EQ(Allocator::GetLiveCount(), blocks);
    EXPECT_EQ(blocks, live + 2);
  }
  EXPECT_EQ(Allocator::GetLiveCount(), live);
}

TEST(UuidSharing, MakeWritableOnNullGivesZeroBlock)
{
  Uuid u;
  ASSERT_TRUE(u.MakeWritable().IsOk());
  EXPECT_FALSE(u.IsNull());
  EXPECT_EQ(u.GetReferenceCount(), 1);
  EXPECT_TRUE(u == Uuid());
}

TEST(UuidOutOfMemory, MakeWritableLeavesHandleUnchanged)
{
  Uuid original = Make(SampleBytes());
  Uuid shared = original;
  Uuid null;
  for (Uuid* u : {&shared, &null})
  {
    Uuid before = *u;
    Int live = Allocator::GetLiveCount();
    Allocator::FailNthAllocation(1);
    Result<void> r = u->MakeWritable();
    Allocator::FailNthAllocation(0);
    ASSERT_TRUE(r.IsError());
    EXPECT_TRUE(r.GetError().IsClass(OutOfMemoryError));
    EXPECT_TRUE(u->IsSameObject(before));
    EXPECT_EQ(Allocator::GetLiveCount(), live);

    Allocator::FailNthAllocation(1);
    EXPECT_TRUE(u->SetBytes(Uuid::Bytes{}).GetError().IsClass(OutOfMemoryError));
    Allocator::FailNthAllocation(0);
    EXPECT_TRUE(u->IsSameObject(before));

    ASSERT_TRUE(u->MakeWritable().IsOk());
    EXPECT_FALSE(u->IsSameObject(before));
    EXPECT_EQ(u->GetReferenceCount(), 1);
  }
  EXPECT_EQ(original.GetBytes(), SampleBytes());

  Allocator::FailNthAllocation(1);
  EXPECT_TRUE(original.ToString().IsEmpty());
  Allocator::FailNthAllocation(1);
  EXPECT_TRUE(Uuid::FromString(kText).GetError().IsClass(OutOfMemoryError));
  Allocator::FailNthAllocation(0);
}

} // namespace
} // namespace telvo
