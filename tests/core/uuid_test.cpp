#include "telvo/uuid.h"

#include <gtest/gtest.h>

namespace telvo
{
namespace
{

constexpr std::string_view kText = "0123abcd-4567-89ef-0a1b-2c3d4e5f6a7b";
constexpr Uuid::Bytes kBytes = {0x01, 0x23, 0xab, 0xcd, 0x45, 0x67, 0x89, 0xef,
                                0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f, 0x6a, 0x7b};

Uuid Make(const Uuid::Bytes& bytes)
{
  Result<Uuid> r = Uuid::Create(bytes);
  EXPECT_TRUE(r.IsOk());
  return std::move(r).GetValue();
}

TEST(UuidText, CanonicalFormReadsBackInEitherCase)
{
  Uuid u = Make(kBytes);
  EXPECT_EQ(u.ToString().View(), kText);
  FormatStatement fs;
  fs.upperCaseHex = true;
  EXPECT_EQ(u.ToString(&fs).View(), "0123ABCD-4567-89EF-0A1B-2C3D4E5F6A7B");
  EXPECT_EQ(Uuid().ToString().View(), "00000000-0000-0000-0000-000000000000");

  EXPECT_EQ(Uuid::FromString(kText).GetValue().GetBytes(), kBytes);
  EXPECT_EQ(Uuid::FromString("0123ABCD-4567-89EF-0A1B-2C3D4E5F6A7B").GetValue().GetBytes(), kBytes);
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

TEST(UuidValue, NullEqualsZeroAndBytesCompareUnsigned)
{
  Uuid null;
  Uuid zero = Make(Uuid::Bytes{});
  Uuid valid = Make(kBytes);
  EXPECT_TRUE(null.IsNull());
  EXPECT_FALSE(null.IsValid());
  EXPECT_FALSE(zero.IsNull());
  EXPECT_FALSE(zero.IsValid());
  EXPECT_TRUE(valid.IsValid());
  EXPECT_TRUE(null == zero);
  EXPECT_TRUE(zero == null);
  EXPECT_FALSE(zero == valid);
  EXPECT_EQ(null.GetHash(), zero.GetHash());
  EXPECT_NE(null.GetHash(), valid.GetHash());

  Uuid::Bytes low{}, high{}, top{};
  low[15] = 0xff;
  high[0] = 0x01;
  top[0] = 0x80;
  Uuid a = Make(low);
  Uuid b = Make(high);
  EXPECT_LT(a.Compare(b), 0);
  EXPECT_GT(b.Compare(a), 0);
  EXPECT_GT(a.Compare(Uuid()), 0);
  EXPECT_LT(Uuid().Compare(a), 0);
  EXPECT_GT(Make(top).Compare(b), 0);
  Uuid equal = Make(low);
  EXPECT_EQ(equal.Compare(a), 0);
  EXPECT_EQ(equal.GetHash(), a.GetHash());
}

TEST(UuidSharing, CopiesShareAndWritesCopyFirst)
{
  Int live = Allocator::GetLiveCount();
  {
    Uuid a = Make(kBytes);
    Uuid b = a;
    EXPECT_TRUE(a.IsSameObject(b));
    Uuid c = std::move(b);
    EXPECT_TRUE(b.IsNull());
    EXPECT_EQ(a.GetReferenceCount(), 2);

    Uuid::Bytes other{};
    other[3] = 7;
    ASSERT_TRUE(c.SetBytes(other).IsOk());
    EXPECT_EQ(a.GetBytes(), kBytes);
    EXPECT_EQ(c.GetBytes(), other);
    EXPECT_EQ(a.GetReferenceCount(), 1);
    EXPECT_EQ(c.GetReferenceCount(), 1);
    // A private block is written in place: no new block.
    ASSERT_TRUE(c.SetBytes(kBytes).IsOk());
    EXPECT_EQ(Allocator::GetLiveCount(), live + 2);

    // A null handle gets a zero block of its own.
    Uuid n;
    ASSERT_TRUE(n.MakeWritable().IsOk());
    EXPECT_FALSE(n.IsNull());
    EXPECT_EQ(n.GetReferenceCount(), 1);
    EXPECT_TRUE(n == Uuid());
  }
  EXPECT_EQ(Allocator::GetLiveCount(), live);
}

TEST(UuidOutOfMemory, FailedWritesLeaveTheHandleUnchanged)
{
  Uuid original = Make(kBytes);
  Uuid shared = original;
  Uuid null;
  for (Uuid* u : {&shared, &null})
  {
    Uuid before = *u;
    Int live = Allocator::GetLiveCount();
    Allocator::FailNthAllocation(1);
    Result<void> r = u->MakeWritable();
    Allocator::FailNthAllocation(1);
    Result<void> s = u->SetBytes(Uuid::Bytes{});
    Allocator::FailNthAllocation(0);
    EXPECT_TRUE(r.GetError().IsClass(OutOfMemoryError));
    EXPECT_TRUE(s.GetError().IsClass(OutOfMemoryError));
    EXPECT_TRUE(u->IsSameObject(before));
    EXPECT_EQ(Allocator::GetLiveCount(), live);
  }
  EXPECT_EQ(original.GetBytes(), kBytes);

  Allocator::FailNthAllocation(1);
  EXPECT_TRUE(original.ToString().IsEmpty());
  Allocator::FailNthAllocation(1);
  EXPECT_TRUE(Uuid::FromString(kText).GetError().IsClass(OutOfMemoryError));
  Allocator::FailNthAllocation(0);
}

} // namespace
} // namespace telvo
