#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "support/loaded_module.h"
#include "support/oom_sweep.h"
#include "support/recording_describer.h"
#include "support/values.h"
#include "telvo/characterassociation.h"

using namespace telvo;
using kelvara_test::ExpectError;
using kelvara_test::Id;
using kelvara_test::TextOf;
using kelvara_test::Value;

namespace
{

constexpr const char* kClassId = "net.telvo.animation.class.characterassociation";
constexpr const char* kInvalid = "Illegal argument: Source or Target doesn't have a valid Uuid";
constexpr const char* kMiss = "No value associated to this Uuid";

Uuid NthUuid(int n)
{
  return kelvara_test::TaggedUuid(n, 0x6d);
}

class CharacterAssociationTest : public ::testing::Test
{
protected:
  void SetUp() override { kelvara_test::LoadedModuleForTests(); }

  static CharacterAssociation Make() { return Value(CreateObject<CharacterAssociation>(kClassId)); }
  static CharacterAssociationInterface* W(CharacterAssociation& a) { return Value(a.MakeWritable()); }

  const Uuid A = NthUuid(1), B = NthUuid(2);
};

TEST_F(CharacterAssociationTest, MissesAndInvalidArgumentsAreIllegalAndChangeNothing)
{
  CharacterAssociation a = Make();
  const std::string empty = "Uuid Association Table : \n{}InternedId Association Table : \n{}";
  EXPECT_EQ(TextOf(a), empty);
  ExpectError(a->GetAssociatedUuid(A), IllegalArgumentError, kMiss);
  ExpectError(a->GetAssociatedId(Id("Hips")), IllegalArgumentError, kMiss);
  const Uuid zero = Value(Uuid::Create(Uuid::Bytes{}));
  const std::vector<std::pair<Uuid, Uuid>> invalid{{Uuid(), B}, {A, Uuid()}, {zero, B}, {A, zero}};
  for (const auto& [source, target] : invalid)
    ExpectError(W(a)->AssociateUuid(source, target), IllegalArgumentError, kInvalid);
  // Ids carry the Uuid wording too.
  ExpectError(W(a)->AssociateId(InternedId(), Id("Hips")), IllegalArgumentError, kInvalid);
  ExpectError(W(a)->AssociateId(Id("Hips"), InternedId()), IllegalArgumentError, kInvalid);
  EXPECT_EQ(TextOf(a), empty);
}

TEST_F(CharacterAssociationTest, BodyPartsAreAssociatedByTheirIdentifiers)
{
  auto part = [](const InternedId& id) { return Value(CharacterBodyPartInterface::CreateBodyPart(id, String())); };
  const InternedId x = Id("LeftLeg"), y = Id("Leg_L");
  CharacterBodyPartRef p = part(x), q = part(y), unnamed = part(InternedId());
  CharacterAssociation a = Make();
  ASSERT_TRUE(W(a)->AssociateBodyPart(p, q).IsOk());
  EXPECT_TRUE(a->GetAssociatedId(x).GetValue().IsSameObject(y));
  EXPECT_TRUE(a->GetAssociatedId(y).GetValue().IsSameObject(x));
  ExpectError(W(a)->AssociateBodyPart(CharacterBodyPartRef(), q), NullptrError);
  ExpectError(W(a)->AssociateBodyPart(p, CharacterBodyPartRef()), NullptrError);
  ExpectError(W(a)->AssociateBodyPart(p, unnamed), IllegalArgumentError, kInvalid);
  ExpectError(W(a)->AssociateBodyPart(unnamed, q), IllegalArgumentError, kInvalid);
}

// The text lists the entries in the map's order, also once the table has grown (16 buckets hold 10).
TEST_F(CharacterAssociationTest, PairsGoBothWaysInTheTableOrderThroughGrowthAndCopies)
{
  CharacterAssociation a = Make();
  HashMap<Uuid, Uuid> uuids;
  auto associate = [&](const Uuid& s, const Uuid& t) {
    ASSERT_TRUE(W(a)->AssociateUuid(s, t).IsOk());
    ASSERT_TRUE(uuids.Insert(s, t).IsOk() && uuids.Insert(t, s).IsOk());
  };
  for (int n = 0; n < 9; ++n)
    associate(NthUuid(0x100 + n), NthUuid(0x200 + n));
  // A self association is one entry; a new target keeps the entry's place.
  associate(A, A);
  associate(NthUuid(0x100), B);
  ASSERT_TRUE(W(a)->AssociateId(Id("Spine"), Id("Spine")).IsOk());
  ASSERT_EQ(uuids.GetBucketCount(), 32);
  std::string expected = "Uuid Association Table : \n{";
  for (const auto& e : uuids)
    expected += kelvara_test::Text(e.GetKey().ToString()) + "->" + kelvara_test::Text(e.GetValue().ToString()) + ",";
  expected.back() = '}';
  expected += "InternedId Association Table : \n{Spine->Spine}";
  EXPECT_EQ(TextOf(a), expected);
  // Lookups go by value; stored handles are shares of the caller's (A: a key and a value in each map).
  EXPECT_TRUE(a->GetAssociatedUuid(NthUuid(0x100)).GetValue().IsSameObject(B));
  EXPECT_EQ(A.GetReferenceCount(), 1 + 2 + 2);

  CharacterAssociation copy = a;
  ASSERT_TRUE(copy.MakeWritable().IsOk());
  EXPECT_FALSE(copy.IsSameObject(a));
  EXPECT_EQ(TextOf(copy), expected);
}

// With the buckets in place an insert makes one allocation: fail the second.
TEST_F(CharacterAssociationTest, FailedReverseInsertKeepsTheForwardEntry)
{
  CharacterAssociation a = Make();
  ASSERT_TRUE(W(a)->AssociateUuid(NthUuid(10), NthUuid(11)).IsOk());
  CharacterAssociationInterface* writable = W(a);
  Allocator::FailNthAllocation(2);
  const Result<void> r = writable->AssociateUuid(A, B);
  Allocator::FailNthAllocation(0);
  ExpectError(r, OutOfMemoryError);
  EXPECT_TRUE(a->GetAssociatedUuid(A).GetValue().IsSameObject(B));
  EXPECT_TRUE(a->GetAssociatedUuid(B).IsError());
}

TEST_F(CharacterAssociationTest, DescribesEachTableAsKeyThenValue)
{
  kelvara_test::ExpectDescribes(CharacterAssociationInterface::DescribeIO,
                                {{"_uuidAssTable", "Uuid", DESCRIBEFLAGS_MAP, true},
                                 {"_uuidAssTable", "Uuid", DESCRIBEFLAGS_MAP, false},
                                 {"_idAssTable", "InternedId", DESCRIBEFLAGS_MAP, true},
                                 {"_idAssTable", "InternedId", DESCRIBEFLAGS_MAP, false}});
}

TEST_F(CharacterAssociationTest, OutOfMemoryLeavesTheOtherHolderAndEveryEntryWhole)
{
  EXPECT_GT(kelvara_test::SweepCreation([] { return CreateObject<CharacterAssociation>(kClassId); }), 0);
  // Ten uuid entries: one more grows the table.
  auto filled = [] {
    CharacterAssociation a = Make();
    for (int n = 0; n < 5; ++n)
      EXPECT_TRUE(W(a)->AssociateUuid(NthUuid(0x40 + n), NthUuid(0x50 + n)).IsOk());
    EXPECT_TRUE(W(a)->AssociateId(Id("Hips"), Id("Pelvis")).IsOk());
    return a;
  };
  // Self associations are one entry each, so that no failure leaves half a pair in the copy.
  const InternedId hand = Id("Hand");
  EXPECT_GT(kelvara_test::SweepSharedChange(filled, [&](auto* w) { return w->AssociateUuid(A, A); }), 0);
  EXPECT_GT(kelvara_test::SweepSharedChange(filled, [&](auto* w) { return w->AssociateId(hand, hand); }), 0);

  // Lookups allocate nothing: no run of their sweeps meets an allocation.
  CharacterAssociation a = filled();
  const Uuid probe = NthUuid(0x41);
  const InternedId pelvis = Id("Pelvis");
  EXPECT_EQ(kelvara_test::SweepCreation([&] { return a->GetAssociatedUuid(probe); }), 0);
  EXPECT_EQ(kelvara_test::SweepCreation([&] { return a->GetAssociatedId(pelvis); }), 0);

  // ToString drops whole entries or labels, never a part of one.
  const std::regex separators("[{},\n]");
  auto pieces = [&](const std::string& text) {
    return std::set<std::string>(std::sregex_token_iterator(text.begin(), text.end(), separators, -1), {});
  };
  const std::set<std::string> full = pieces(TextOf(a));
  kelvara_test::SweepAllocationFailures(
    [] { return 0; }, [&](int&) { return TextOf(a); },
    [&](int&, const std::string& text, bool) {
      for (const std::string& piece : pieces(text))
        EXPECT_TRUE(full.count(piece)) << "half piece: " << piece;
    });
}

} // namespace
