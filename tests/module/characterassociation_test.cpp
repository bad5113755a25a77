#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "support/loaded_module.h"
#include "support/oom_sweep.h"
#include "support/recording_describer.h"
#include "support/values.h"
#include "telvo/characterassociation.h"
#include "telvo/dataserialize.h"

using namespace telvo;

namespace
{

constexpr const char* kClassId = "net.telvo.animation.class.characterassociation";
constexpr const char* kInvalidMessage = "Illegal argument: Source or Target doesn't have a valid Uuid";
constexpr const char* kMissMessage = "No value associated to this Uuid";

Uuid MakeUuid(unsigned n)
{
  char text[40];
  std::snprintf(text, sizeof(text), "6d1f0000-0000-4000-8000-%012x", n);
  return Uuid::FromString(text).GetValue();
}

using kelvara_test::Id;

std::string UuidText(const Uuid& u)
{
  return std::string(u.ToString().View());
}

UInt BucketOf(const Uuid& u)
{
  return u.GetHash() % 16;
}

class CharacterAssociationTest : public ::testing::Test
{
protected:
  void SetUp() override { kelvara_test::LoadedModuleForTests(); }

  static CharacterAssociation Make() { return CreateObject<CharacterAssociation>(kClassId).GetValue(); }
  static CharacterAssociationInterface* W(CharacterAssociation& a) { return a.MakeWritable().GetValue(); }
  static std::string Text(const CharacterAssociation& a) { return std::string(a->ToString().View()); }

  static void ExpectMiss(const Result<Uuid>& r)
  {
    ASSERT_TRUE(r.IsError());
    EXPECT_TRUE(r.GetError().IsClass(IllegalArgumentError));
    EXPECT_STREQ(r.GetError().GetMessage(), kMissMessage);
  }
  static void ExpectInvalid(const Result<void>& r)
  {
    ASSERT_TRUE(r.IsError());
    EXPECT_TRUE(r.GetError().IsClass(IllegalArgumentError));
    EXPECT_STREQ(r.GetError().GetMessage(), kInvalidMessage);
    EXPECT_STREQ(r.GetError().GetUnit(), "source/impl/characterassociation_impl");
  }
};

TEST_F(CharacterAssociationTest, NewAssociationIsEmptyAndEveryLookupMisses)
{
  CharacterAssociation a = Make();
  EXPECT_EQ(Text(a), "Uuid Association Table : \n{}InternedId Association Table : \n{}");
  ExpectMiss(a->GetAssociatedUuid(MakeUuid(1)));
  ExpectMiss(a->GetAssociatedUuid(Uuid()));
  for (const InternedId& id : {Id("Hips"), InternedId()})
  {
    Result<InternedId> r = a->GetAssociatedId(id);
    ASSERT_TRUE(r.IsError());
    EXPECT_TRUE(r.GetError().IsClass(IllegalArgumentError));
    EXPECT_STREQ(r.GetError().GetMessage(), kMissMessage);
  }
}

TEST_F(CharacterAssociationTest, UuidsAreAssociatedBothWaysAndTheLastCallWins)
{
  CharacterAssociation a = Make();
  const Uuid A = MakeUuid(1), B = MakeUuid(2), C = MakeUuid(3);
  ASSERT_TRUE(W(a)->AssociateUuid(A, B).IsOk());
  EXPECT_TRUE(a->GetAssociatedUuid(A).GetValue().IsSameObject(B));
  EXPECT_TRUE(a->GetAssociatedUuid(B).GetValue().IsSameObject(A));
  // Lookups go by value: another handle of the same id finds the entry.
  EXPECT_TRUE(a->GetAssociatedUuid(MakeUuid(1)).GetValue().IsSameObject(B));

  ASSERT_TRUE(W(a)->AssociateUuid(A, C).IsOk());
  EXPECT_TRUE(a->GetAssociatedUuid(A).GetValue().IsSameObject(C));
  EXPECT_TRUE(a->GetAssociatedUuid(C).GetValue().IsSameObject(A));
  // The reverse entry of the first call stays.
  EXPECT_TRUE(a->GetAssociatedUuid(B).GetValue().IsSameObject(A));
  // Stored handles are shares of the caller's: the table holds A twice as value and once as key.
  EXPECT_EQ(A.GetReferenceCount(), 1 + 3);
}

TEST_F(CharacterAssociationTest, InvalidArgumentsChangeNothing)
{
  CharacterAssociation a = Make();
  const Uuid A = MakeUuid(1), B = MakeUuid(2);
  ASSERT_TRUE(W(a)->AssociateUuid(A, B).IsOk());
  ASSERT_TRUE(W(a)->AssociateId(Id("Hips"), Id("Pelvis")).IsOk());
  const std::string before = Text(a);

  const Uuid allZero = Uuid::Create(Uuid::Bytes{}).GetValue();
  ExpectInvalid(W(a)->AssociateUuid(Uuid(), B));
  ExpectInvalid(W(a)->AssociateUuid(A, Uuid()));
  ExpectInvalid(W(a)->AssociateUuid(allZero, B));
  ExpectInvalid(W(a)->AssociateUuid(A, allZero));
  // Ids carry the Uuid wording too.
  ExpectInvalid(W(a)->AssociateId(InternedId(), Id("Hips")));
  ExpectInvalid(W(a)->AssociateId(Id("Hips"), InternedId()));
  EXPECT_EQ(Text(a), before);
}

TEST_F(CharacterAssociationTest, BodyPartsAreAssociatedByIdentifierOnly)
{
  CharacterAssociation a = Make();
  const InternedId x = Id("LeftLeg"), y = Id("Leg_L");
  CharacterBodyPartRef p = CharacterBodyPartInterface::CreateBodyPart(x, String()).GetValue();
  CharacterBodyPartRef q = CharacterBodyPartInterface::CreateBodyPart(y, String()).GetValue();
  BaseArray<Uuid> skeleton;
  ASSERT_TRUE(skeleton.Append(MakeUuid(9)).IsOk());
  ASSERT_TRUE(p->SetSkeleton(skeleton).IsOk());
  ASSERT_TRUE(q->SetSkeleton(skeleton).IsOk());

  ASSERT_TRUE(W(a)->AssociateBodyPart(p, q).IsOk());
  EXPECT_TRUE(a->GetAssociatedId(x).GetValue().IsSameObject(y));
  EXPECT_TRUE(a->GetAssociatedId(y).GetValue().IsSameObject(x));
  // Ids match by identity: a detached id of the same text is another object.
  EXPECT_TRUE(a->GetAssociatedId(InternedId::CreateDetached("LeftLeg").GetValue()).IsError());
  // The skeleton nodes are not paired here.
  EXPECT_EQ(Text(a).substr(0, 29), "Uuid Association Table : \n{}I");
  const std::string before = Text(a);

  for (auto [source, target] : {std::pair{CharacterBodyPartRef(), q}, std::pair{p, CharacterBodyPartRef()}})
  {
    Result<void> r = W(a)->AssociateBodyPart(source, target);
    ASSERT_TRUE(r.IsError());
    EXPECT_TRUE(r.GetError().IsClass(NullptrError));
  }
  CharacterBodyPartRef unnamed = CharacterBodyPartInterface::CreateBodyPart(InternedId(), String()).GetValue();
  ExpectInvalid(W(a)->AssociateBodyPart(p, unnamed));
  ExpectInvalid(W(a)->AssociateBodyPart(unnamed, q));
  EXPECT_EQ(Text(a), before);
}

// The text follows the map's order: buckets in the order they first filled, newest entry first
// within a bucket.
TEST_F(CharacterAssociationTest, TextFollowsTheTableOrder)
{
  // Find a pair sharing a bucket and a pair in two buckets.
  const Uuid A = MakeUuid(100);
  Uuid same, other;
  for (unsigned n = 101; same.IsNull() || other.IsNull(); ++n)
  {
    const Uuid u = MakeUuid(n);
    if (BucketOf(u) == BucketOf(A) && same.IsNull())
      same = u;
    if (BucketOf(u) != BucketOf(A) && other.IsNull())
      other = u;
  }

  CharacterAssociation shared = Make();
  ASSERT_TRUE(W(shared)->AssociateUuid(A, same).IsOk());
  EXPECT_EQ(Text(shared), "Uuid Association Table : \n{" + UuidText(same) + "->" + UuidText(A) + "," + UuidText(A) + "->" +
                            UuidText(same) + "}InternedId Association Table : \n{}");

  CharacterAssociation apart = Make();
  ASSERT_TRUE(W(apart)->AssociateUuid(A, other).IsOk());
  // A self association is one entry.
  ASSERT_TRUE(W(apart)->AssociateId(Id("Spine"), Id("Spine")).IsOk());
  CharacterAssociation self = Make();
  ASSERT_TRUE(W(self)->AssociateUuid(A, A).IsOk());
  EXPECT_EQ(Text(self), "Uuid Association Table : \n{" + UuidText(A) + "->" + UuidText(A) + "}InternedId Association Table : \n{}");
  EXPECT_EQ(Text(apart), "Uuid Association Table : \n{" + UuidText(A) + "->" + UuidText(other) + "," + UuidText(other) + "->" +
                           UuidText(A) + "}InternedId Association Table : \n{Spine->Spine}");

  // Overwriting keeps an entry's place.
  Uuid C;
  for (unsigned n = 5000; C.IsNull(); ++n)
    if (BucketOf(MakeUuid(n)) != BucketOf(A))
      C = MakeUuid(n);
  ASSERT_TRUE(W(apart)->AssociateUuid(A, C).IsOk());
  const std::string text = Text(apart);
  EXPECT_EQ(text.find("{" + UuidText(A) + "->" + UuidText(C) + ","), 26u) << text;
}

// Many pairs: the table grows (16 buckets hold 10 entries at the load factor 0.65) and the text
// still follows the order a map with the same inserts has. A copy iterates identically.
TEST_F(CharacterAssociationTest, TextAfterGrowthMatchesTheMapOrderAndSurvivesCopies)
{
  CharacterAssociation a = Make();
  HashMap<Uuid, Uuid> uuids;
  HashMap<InternedId, InternedId> ids;
  std::vector<InternedId> keep;
  for (unsigned n = 0; n < 9; ++n)
  {
    const Uuid s = MakeUuid(0x100 + n), t = MakeUuid(0x200 + n);
    ASSERT_TRUE(W(a)->AssociateUuid(s, t).IsOk());
    ASSERT_TRUE(uuids.Insert(s, t).IsOk());
    ASSERT_TRUE(uuids.Insert(t, s).IsOk());
    const InternedId x = Id("src" + std::to_string(n)), y = Id("dst" + std::to_string(n));
    ASSERT_TRUE(W(a)->AssociateId(x, y).IsOk());
    ASSERT_TRUE(ids.Insert(x, y).IsOk());
    ASSERT_TRUE(ids.Insert(y, x).IsOk());
  }
  ASSERT_EQ(uuids.GetBucketCount(), 32);
  std::string expected = "Uuid Association Table : \n{";
  for (const auto& e : uuids)
    expected += UuidText(e.GetKey()) + "->" + UuidText(e.GetValue()) + ",";
  expected.back() = '}';
  expected += "InternedId Association Table : \n{";
  for (const auto& e : ids)
    expected += std::string(e.GetKey().View()) + "->" + std::string(e.GetValue().View()) + ",";
  expected.back() = '}';
  EXPECT_EQ(Text(a), expected);

  CharacterAssociation copy = a;
  EXPECT_EQ(a.GetStrongRef()->GetReferenceCount(), 2);
  CharacterAssociationInterface* writable = W(copy);
  EXPECT_FALSE(copy.IsSameObject(a));
  EXPECT_EQ(a.GetStrongRef()->GetReferenceCount(), 1);
  EXPECT_EQ(Text(copy), expected);
  ASSERT_TRUE(writable->AssociateUuid(MakeUuid(0x300), MakeUuid(0x301)).IsOk());
  EXPECT_EQ(Text(a), expected);
  EXPECT_TRUE(copy->GetAssociatedUuid(MakeUuid(0x301)).IsOk());
  ExpectMiss(a->GetAssociatedUuid(MakeUuid(0x301)));
}

TEST_F(CharacterAssociationTest, FailedReverseInsertKeepsTheForwardEntry)
{
  CharacterAssociation a = Make();
  const Uuid A = MakeUuid(1), B = MakeUuid(2);
  // With buckets in place each insert makes exactly one allocation: fail the second.
  ASSERT_TRUE(W(a)->AssociateUuid(MakeUuid(10), MakeUuid(11)).IsOk());
  CharacterAssociationInterface* writable = W(a);
  Allocator::FailNthAllocation(2);
  Result<void> r = writable->AssociateUuid(A, B);
  const Bool delivered = Allocator::FailureDelivered();
  Allocator::FailNthAllocation(0);
  ASSERT_TRUE(delivered);
  ASSERT_TRUE(r.IsError());
  EXPECT_TRUE(r.GetError().IsClass(OutOfMemoryError));
  EXPECT_TRUE(a->GetAssociatedUuid(A).GetValue().IsSameObject(B));
  ExpectMiss(a->GetAssociatedUuid(B));

  const InternedId x = Id("Head"), y = Id("Skull");
  ASSERT_TRUE(W(a)->AssociateId(Id("Neck"), Id("Neck1")).IsOk());
  Allocator::FailNthAllocation(2);
  r = writable->AssociateId(x, y);
  Allocator::FailNthAllocation(0);
  ASSERT_TRUE(r.IsError());
  EXPECT_TRUE(a->GetAssociatedId(x).GetValue().IsSameObject(y));
  EXPECT_TRUE(a->GetAssociatedId(y).IsError());
}

TEST_F(CharacterAssociationTest, DescribesEachTableAsKeyThenValue)
{
  kelvara_test::RecordingDescriber describer;
  ASSERT_TRUE(CharacterAssociationInterface::DescribeIO(describer).IsOk());
  EXPECT_EQ(describer.members, (std::vector<kelvara_test::DeclaredMember>{{"_uuidAssTable", "Uuid", DESCRIBEFLAGS_MAP, true},
                                                                        {"_uuidAssTable", "Uuid", DESCRIBEFLAGS_MAP, false},
                                                                        {"_idAssTable", "InternedId", DESCRIBEFLAGS_MAP, true},
                                                                        {"_idAssTable", "InternedId", DESCRIBEFLAGS_MAP, false}}));
  for (int failAt = 1; failAt <= 4; ++failAt)
  {
    kelvara_test::RecordingDescriber refusing(failAt);
    Result<void> r = CharacterAssociationInterface::DescribeIO(refusing);
    ASSERT_TRUE(r.IsError());
    EXPECT_TRUE(r.GetError() == refusing.failure);
    EXPECT_EQ(refusing.calls, failAt);
  }
}

// Pieces of a text between the separators of the table form.
std::set<std::string> Pieces(const std::string& text)
{
  std::set<std::string> pieces;
  std::string piece;
  for (char c : text + "\n")
  {
    if (c == '{' || c == '}' || c == ',' || c == '\n')
    {
      pieces.insert(piece);
      piece.clear();
    }
    else
      piece += c;
  }
  return pieces;
}

TEST_F(CharacterAssociationTest, OutOfMemoryLeavesTheAssociationUnchanged)
{
  const Uuid A = MakeUuid(1), B = MakeUuid(2);
  const InternedId x = Id("Hand_L"), y = Id("LeftHand");
  // A shared association: every change copies first.
  auto setup = [&] {
    CharacterAssociation a = Make();
    for (unsigned n = 0; n < 4; ++n)
      (void)W(a)->AssociateUuid(MakeUuid(0x40 + n), MakeUuid(0x50 + n));
    (void)W(a)->AssociateId(Id("Hips"), Id("Pelvis"));
    return std::pair{a, a};
  };
  // A failed reverse insert keeps the forward entry in the private copy; the other holder never
  // sees anything.
  const std::string untouched = Text(setup().first);
  auto sweepPair = [&](auto associate, auto forwardOnly) {
    return kelvara_test::SweepAllocationFailures(
      setup,
      [&](auto& s) -> Result<void> {
        TELVO_TRY_ASSIGN(CharacterAssociationInterface * w, s.first.MakeWritable());
        return associate(w);
      },
      [&](auto& s, const Result<void>& r, bool failed) {
        EXPECT_EQ(Text(s.second), untouched);
        if (!failed)
          return;
        ASSERT_TRUE(r.IsError());
        EXPECT_TRUE(r.GetError().IsClass(OutOfMemoryError));
        if (Text(s.first) != untouched)
        {
          EXPECT_TRUE(forwardOnly(s.first));
        }
      });
  };
  EXPECT_GT(sweepPair([&](CharacterAssociationInterface* w) { return w->AssociateUuid(A, B); },
                      [&](const CharacterAssociation& a) {
                        return a->GetAssociatedUuid(A).GetValue().IsSameObject(B) &&
                               a->GetAssociatedUuid(B).IsError();
                      }),
            0);
  EXPECT_GT(sweepPair([&](CharacterAssociationInterface* w) { return w->AssociateId(x, y); },
                      [&](const CharacterAssociation& a) {
                        return a->GetAssociatedId(x).GetValue().IsSameObject(y) && a->GetAssociatedId(y).IsError();
                      }),
            0);
  // Growth of a table that is not shared: a first insert that fails changes nothing.
  kelvara_test::SweepOutOfMemory(
    [&] {
      CharacterAssociation a = Make();
      for (unsigned n = 0; n < 5; ++n)
        (void)W(a)->AssociateUuid(MakeUuid(0x40 + n), MakeUuid(0x50 + n));
      return a;
    },
    [&](CharacterAssociation& a) -> Result<void> {
      TELVO_TRY_ASSIGN(CharacterAssociationInterface * w, a.MakeWritable());
      return w->AssociateUuid(A, A);
    },
    [](const CharacterAssociation& a) { return Text(a); });
  kelvara_test::SweepOutOfMemory(
    [] { return CharacterAssociation(); },
    [](CharacterAssociation& a) -> Result<void> {
      TELVO_TRY_ASSIGN(a, CreateObject<CharacterAssociation>(kClassId));
      return OK();
    },
    [](const CharacterAssociation& a) { return a ? Text(a) : std::string("null"); });

  // Lookups allocate nothing: no run of the sweep ever meets an allocation.
  CharacterAssociation filled = setup().first;
  const Uuid probe = MakeUuid(0x41);
  const InternedId pelvis = Id("Pelvis");
  EXPECT_EQ(kelvara_test::SweepAllocationFailures(
              [] { return 0; }, [&](int&) { return filled->GetAssociatedUuid(probe); },
              [](int&, const Result<Uuid>& r, bool) { EXPECT_TRUE(r.IsOk()); }),
            0);
  EXPECT_EQ(kelvara_test::SweepAllocationFailures(
              [] { return 0; }, [&](int&) { return filled->GetAssociatedId(pelvis); },
              [](int&, const Result<InternedId>& r, bool) { EXPECT_TRUE(r.IsOk()); }),
            0);

  // ToString drops whole entries or labels, never a part of one.
  const std::set<std::string> full = Pieces(Text(filled));
  kelvara_test::SweepAllocationFailures(
    [] { return 0; }, [&](int&) { return filled->ToString(); },
    [&](int&, const String& result, bool) {
      for (const std::string& piece : Pieces(std::string(result.View())))
        EXPECT_TRUE(full.count(piece)) << "half piece: " << piece;
    });
}

} // namespace
