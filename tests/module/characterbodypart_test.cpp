#include <gtest/gtest.h>

#include <functional>

#include "support/loaded_module.h"
#include "support/oom_sweep.h"
#include "support/recording_describer.h"
#include "support/values.h"
#include "telvo/characterbodypart.h"
#include "telvo/charactertree.h"

using namespace telvo;
using kelvara_test::ArrayOf;
using kelvara_test::Id;
using kelvara_test::MakeString;
using kelvara_test::TextOf;
using kelvara_test::Value;

namespace
{

constexpr const char* kClassId = "net.telvo.animation.class.characterbodypart";

// Node n's Uuid ends in n, in hexadecimal; Tails gives the last three digits of each node back.
Uuid Node(int n)
{
  return kelvara_test::TaggedUuid(n, 0);
}

std::string Tails(const BaseArray<Uuid>& uuids)
{
  std::string tails;
  for (const Uuid& uuid : uuids)
    tails += (tails.empty() ? "" : ",") + kelvara_test::Text(uuid.ToString()).substr(33);
  return tails;
}

CharacterBodyPartRef MakePart(const char* id, std::initializer_list<Uuid> skeleton = {})
{
  CharacterBodyPartRef part = Value(CharacterBodyPartInterface::CreateBodyPart(Id(id), MakeString(id)));
  EXPECT_TRUE(part->SetSkeleton(ArrayOf(skeleton)).IsOk());
  return part;
}

// Root (001) / A (0a1, 0a2) / C (0c1); Root / B (0b1). Ids and names are the letters.
class CharacterBodyPartTest : public ::testing::Test
{
protected:
  void SetUp() override
  {
    kelvara_test::LoadedModuleForTests();
    root = MakePart("Root", {Node(1)});
    a = MakePart("A", {Node(0xa1), Node(0xa2)});
    b = MakePart("B", {Node(0xb1)});
    c = MakePart("C", {Node(0xc1)});
    ASSERT_TRUE(root->InsertChildLast(a).IsOk() && a->InsertChildLast(c).IsOk() && root->InsertChildLast(b).IsOk());
  }

  CharacterBodyPartRef Find(const InternedId& id) { return Value(root->FindBodyPartByID(id)); }
  CharacterBodyPartRef Find(const char* name) { return Value(root->FindBodyPartByName(MakeString(name))); }

  CharacterBodyPartRef root, a, b, c;
};

TEST_F(CharacterBodyPartTest, TextListsEveryElementOnItsOwnLine)
{
  ASSERT_TRUE(a->SetName(MakeString("Left Arm")).IsOk());
  ASSERT_TRUE(a->SetControllers(ArrayOf({Node(0xcc), Uuid()})).IsOk());
  ASSERT_TRUE(a->SetSkeletonKeywords(kelvara_test::Strings({"arm", "shoulder"})).IsOk());
  ASSERT_TRUE(a->SetSkeletonDiscardKeywords(kelvara_test::Strings({"twist"})).IsOk());
  EXPECT_EQ(TextOf(a), "Name : Left Arm\nIdentifier : A\nControllers (2) :\n\t00000000-0000-0000-0000-0000000000cc\n"
                       "\t00000000-0000-0000-0000-000000000000\nSkeleton Nodes (2) :\n"
                       "\t00000000-0000-0000-0000-0000000000a1\n\t00000000-0000-0000-0000-0000000000a2\n"
                       "Skeleton Keywords (2) :\n\tarm\n\tshoulder\nSkeleton Discard Keywords (1) :\n\ttwist\n");
}

TEST_F(CharacterBodyPartTest, SkeletonOfTheSubtreeIsCountedListedInPreOrderAndCleared)
{
  EXPECT_EQ(root->GetSkeletonCount(false).GetValue(), 1);
  EXPECT_EQ(root->GetSkeletonCount(true).GetValue(), 5);
  EXPECT_EQ(Tails(Value(root->GetHierarchySkeleton())), "001,0a1,0a2,0c1,0b1");
  EXPECT_TRUE(Value(root->GetHierarchySkeleton())[3].IsSameObject(c->GetSkeleton()[0])) << "shared, not copied";
  ASSERT_TRUE(b->SetSkeleton(a->GetSkeleton()).IsOk());
  EXPECT_EQ(Tails(Value(root->GetHierarchySkeleton())), "001,0a1,0a2,0c1,0a1,0a2") << "duplicates stay";

  ASSERT_TRUE(root->ClearSkeleton(false).IsOk());
  EXPECT_EQ(root->GetSkeletonCount(true).GetValue(), 5) << "only Root's own node is gone";
  ASSERT_TRUE(a->SetControllers(ArrayOf({Node(0xf)})).IsOk());
  ASSERT_TRUE(root->ClearSkeleton(true).IsOk());
  EXPECT_EQ(root->GetSkeletonCount(true).GetValue(), 0);
  EXPECT_EQ(a->GetControllers().GetCount(), 1) << "controllers are not the skeleton";
}

TEST_F(CharacterBodyPartTest, NodesOfAnotherClassFailTheRecursiveOperations)
{
  // A tree node between A's subtree and B.
  b->Remove();
  CharacterTreeRef hand = Value(CharacterTreeInterface::CreateTree(Uuid(), MakeString("Hand"), true));
  ASSERT_TRUE(root->InsertChildLast(hand).IsOk());
  ASSERT_TRUE(root->InsertChildLast(b).IsOk());

  kelvara_test::ExpectError(root->GetHierarchySkeleton(), NullptrError);
  kelvara_test::ExpectError(root->GetSkeletonCount(true), NullptrError);
  kelvara_test::ExpectError(root->ClearSkeleton(true), NullptrError);
  EXPECT_EQ(a->GetSkeletonCount(true).GetValue(), 0);
  EXPECT_EQ(b->GetSkeletonCount(false).GetValue(), 1) << "children after the failing one keep their nodes";

  // By id: a match before the foreign node ends the search; one after it is never reached.
  EXPECT_TRUE(Find(Id("C")) == c);
  kelvara_test::ExpectError(root->FindBodyPartByID(Id("B")), NullptrError);
  // By name the foreign node is a body part without a name.
  EXPECT_TRUE(Find("B") == b);
  EXPECT_FALSE(Find("Hand"));
}

TEST_F(CharacterBodyPartTest, FindTakesSelfFirstThenPreOrderAndGoesDownOnly)
{
  c->SetIdentifier(Id("Root"));
  EXPECT_TRUE(Find(Id("Root")) == root);
  EXPECT_TRUE(Value(a->FindBodyPartByID(Id("Root"))) == c);
  EXPECT_FALSE(Value(b->FindBodyPartByID(Id("Root"))));

  // Ids compare by text; the null id only with the null id.
  EXPECT_TRUE(Find(Value(InternedId::CreateDetached("Root"))) == root);
  EXPECT_FALSE(Find(Value(InternedId::CreateDetached("root"))));
  EXPECT_FALSE(Find(InternedId()));
  b->SetIdentifier(InternedId());
  EXPECT_TRUE(Find(InternedId()) == b);

  // Names, the observer's too: whole, case-sensitive, the first in pre-order (C, below A, before B).
  ASSERT_TRUE(b->SetName(MakeString("left arm")).IsOk());
  ASSERT_TRUE(c->SetName(MakeString("left arm")).IsOk());
  EXPECT_FALSE(Find("root") || Find("Roo"));
  EXPECT_TRUE(Find("left arm") == c);
  ASSERT_TRUE(QueryInterface<ObserverObjectInterface>(a.GetPointer())->SetName(MakeString("Wrist")).IsOk());
  EXPECT_TRUE(Find("Wrist") == a);
}

TEST_F(CharacterBodyPartTest, CopyIsTheWholeSubtreeWithoutTheParent)
{
  CharacterBodyPartRef copy = Value(a->GetClass()->CloneInstance(*a)).As<CharacterBodyPartInterface>();
  EXPECT_EQ(copy->GetParent(), nullptr);
  EXPECT_EQ(TextOf(copy), TextOf(a));
  EXPECT_TRUE(copy->GetSkeleton()[0].IsSameObject(a->GetSkeleton()[0]));
  EXPECT_FALSE(Value(copy->FindBodyPartByID(Id("C"))) == c);
}

TEST_F(CharacterBodyPartTest, FactorySharesTheIdentifierAndFailsWholeAndDescribesEveryMember)
{
  const InternedId id = Id("Head");
  auto create = [&] { return CharacterBodyPartInterface::CreateBodyPart(id, String()); };
  EXPECT_TRUE(Value(create())->GetIdentifier().IsSameObject(id));
  kelvara_test::ExpectHiddenClassRefused(kClassId, create);
  EXPECT_GT(kelvara_test::SweepCreation(create), 0);
  kelvara_test::ExpectDescribes(CharacterBodyPartInterface::DescribeIO,
                                {{"_identifier", "InternedId", DESCRIBEFLAGS_NONE, true},
                                 {"_name", "String", DESCRIBEFLAGS_NONE, true},
                                 {"_controllers", "Uuid", DESCRIBEFLAGS_ARRAY, true},
                                 {"_skeletonNodes", "Uuid", DESCRIBEFLAGS_ARRAY, true},
                                 {"_skeletonKeywords", "String", DESCRIBEFLAGS_ARRAY, true},
                                 {"_skeletonDiscardKeywords", "String", DESCRIBEFLAGS_ARRAY, true}});
}

TEST_F(CharacterBodyPartTest, OutOfMemoryLeavesTheTreeUnchanged)
{
  // More nodes than the first block of an array holds.
  BaseArray<Uuid> uuids;
  for (int i = 1; i <= 20; ++i)
    ASSERT_TRUE(uuids.Append(Node(i)).IsOk());
  const BaseArray<String> words = kelvara_test::Strings({"hand", "wrist"});
  auto drop = [](const auto& r) { return r.IsError() ? Result<void>(r.GetError()) : Result<void>(OK()); };
  const std::vector<std::function<Result<void>(CharacterBodyPartRef&)>> operations = {
    [&](CharacterBodyPartRef& p) { return p->SetControllers(uuids); },
    [&](CharacterBodyPartRef& p) { return p->SetSkeleton(uuids); },
    [&](CharacterBodyPartRef& p) { return p->SetSkeletonKeywords(words); },
    [&](CharacterBodyPartRef& p) { return p->SetSkeletonDiscardKeywords(words); },
    [&](CharacterBodyPartRef& p) { return drop(p->GetHierarchySkeleton()); },
    [&](CharacterBodyPartRef& p) { return drop(p->GetClass()->CloneInstance(*p)); },
  };
  auto snapshot = [](const auto& p) { return TextOf(p) + std::to_string(Value(p->GetSkeletonCount(true))); };
  for (size_t i = 0; i < operations.size(); ++i)
  {
    SCOPED_TRACE("operation " + std::to_string(i));
    // Each run works on a fresh copy of Root's subtree.
    EXPECT_GT(kelvara_test::SweepOutOfMemory(
                [&] { return Value(root->GetClass()->CloneInstance(*root)).As<CharacterBodyPartInterface>(); },
                operations[i], snapshot),
              0);
  }
  // A failing run drops whole lines, section headers with their counts included.
  EXPECT_GT(kelvara_test::SweepTextPieces([&] { return a->ToString(); }, kelvara_test::Lines(TextOf(a))), 0);
}

} // namespace
