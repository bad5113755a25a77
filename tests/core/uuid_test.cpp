#include "telvo/uuid.h"

#include <gtest/gtest.h>

#include <string>

#include "support/values.h"

namespace telvo
{
namespace
{

using namespace kelvara_test;

constexpr const char* kText = "0123abcd-4567-89ef-0a1b-2c3d4e5f6a7b";
constexpr const char* kUpper = "0123ABCD-4567-89EF-0A1B-2C3D4E5F6A7B";

TEST(UuidValue, TextInEitherCaseNullEqualsZeroAndMemcmpOrder)
{
  const FormatStatement upper{.upperCaseHex = true};
  EXPECT_EQ(MakeUuid(kUpper).ToString().View(), kText);
  EXPECT_EQ(MakeUuid(kText).ToString(&upper).View(), kUpper);
  EXPECT_EQ(Uuid().ToString().View(), "00000000-0000-0000-0000-000000000000");
  for (std::string_view bad : {"0123abcd-4567-89ef-0a1b-2c3d4e5f6a7", "0123abcd04567-89ef-0a1b-2c3d4e5f6a7b",
                               "0123abcg-4567-89ef-0a1b-2c3d4e5f6a7b"})
    kelvara_test::ExpectError(Uuid::FromString(bad), IllegalArgumentError, "Illegal argument: not a Uuid text");
  EXPECT_TRUE(TaggedUuid(0, 0) == Uuid());
  EXPECT_EQ(Uuid().GetHash(), String::HashText(std::string(16, '\0')));
  // Ascending, bytes unsigned: byte 15 < byte 14 < byte 0 < byte 0 with the top bit set.
  const Uuid ordered[] = {Uuid(), TaggedUuid(0xff, 0), TaggedUuid(0x100, 0), TaggedUuid(0, 0x01),
                          TaggedUuid(0, 0x80)};
  for (int i = 0; i < 4; ++i)
    EXPECT_LT(ordered[i].Compare(ordered[i + 1]), 0) << i;
}

TEST(UuidSharing, WritesCopyASharedBlockFirstOrFailWithoutChange)
{
  Uuid a = MakeUuid(kText);
  Uuid c = a;
  Allocator::FailNthAllocation(1);
  EXPECT_TRUE(c.MakeWritable().GetError().IsClass(OutOfMemoryError));
  Allocator::FailNthAllocation(1);
  EXPECT_TRUE(c.SetBytes(Uuid::Bytes{}).GetError().IsClass(OutOfMemoryError));
  Allocator::FailNthAllocation(1);
  EXPECT_TRUE(a.ToString().IsEmpty());
  Allocator::FailNthAllocation(0);
  EXPECT_TRUE(c.IsSameObject(a));
  ASSERT_TRUE(c.SetBytes(Uuid::Bytes{}).IsOk());
  EXPECT_EQ(a.ToString().View(), kText);
  EXPECT_EQ(a.GetReferenceCount(), 1);
  Uuid null;
  ASSERT_TRUE(null.MakeWritable().IsOk()); // a null handle gets a zero block of its own
  EXPECT_EQ(null.GetReferenceCount(), 1);
}

} // namespace
} // namespace telvo
