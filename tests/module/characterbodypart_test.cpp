#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/loaded_module.h"
#include "support/oom_sweep.h"
#include "support/recording_describer.h"
#include "telvo/characterbodypart.h"
#include "telvo/charactertree.h"

using namespace telvo;

namespace
{

constexpr const char* kBodyPartClassId = "net.telvo.animation.class.characterbodypart";
constexpr const char* kZeroUuid = "00000000-0000-0000-0000-000000000000";

Uuid MakeUuid(const std::string& tail)
{
  return Uuid::FromString("00000000-0000-4000-8000-" + std::string(12 - tail.size(), '0') + tail).GetValue();
}

String MakeString(const std::string& text)
{
  return String::Create(text).GetValue();
}

InternedId Id(const std::string& text)
{
  return InternedId::Intern(text).GetValue();
}

std::string Text(const String& s)
{
  return std::string(s.View());
}

BaseArray<Uuid> Uuids(std::initializer_list<const char*> tails)
{
  BaseArray<Uuid> uuids;
  for (const char* tail : tails)
    EXPECT_TRUE(uuids.Append(MakeUuid(tail)).IsOk());
  return uuids;
}

BaseArray<String> Strings(std::initializer_list<const char*> texts)
{
  BaseArray<String> strings;
  for (const char* text : texts)
    EXPECT_TRUE(strings.Append(MakeString(text)).IsOk());
  return strings;
}

// The last block of each node's Uuid text, joined by ",".
std::string Tails(const BaseArray<Uuid>& uuids)
{
  std::string tails;
  for (const Uuid& uuid : uuids)
    tails += (tails.empty() ? "" : ",") + Text(uuid.ToString()).substr(24);
  return tails;
}

CharacterBodyPartRef MakePart(const std::string& id, const std::string& name, std::initializer_list<const char*> skeleton = {})
{
  CharacterBodyPartRef part = CharacterBodyPartInterface::CreateBodyPart(Id(id), MakeString(name)).GetValue();
  EXPECT_TRUE(part->SetSkeleton(Uuids(skeleton)).IsOk());
  return part;
}

void Insert(const CharacterBodyPartRef& parent, const ObjectRef& child)
{
  ASSERT_TRUE(parent->InsertChildLast(child).IsOk());
}

// The whole subtree as text: each body part's own text, indented by depth.
std::string Dump(const ObjectInterface* root)
{
  std::string dump;
  (void)WalkHierarchy(root, [&](const ObjectInterface* node, const ObjectInterface*, Int depth) {
    dump += std::string(static_cast<std::size_t>(depth), '>') + Text(node->ToString());
    return Result<WalkAnswer>(WalkAnswer::Continue);
  });
  return dump;
}

// root (r1) / A (a1, a2) / C (c1); root / B (b1). Ids and names are the letters.
class CharacterBodyPartTest : public ::testing::Test
{
protected:
  void SetUp() override
  {
    kelvara_test::LoadedModuleForTests();
    root = MakePart("Root", "Root", {"1"});
    a = MakePart("A", "A", {"a1", "a2"});
    b = MakePart("B", "B", {"b1"});
    c = MakePart("C", "C", {"c1"});
    Insert(root, a);
    Insert(a, c);
    Insert(root, b);
  }

  static CharacterTreeRef ForeignNode()
  {
    return CharacterTreeInterface::CreateTree(Uuid(), MakeString("Hand"), true).GetValue();
  }

  CharacterBodyPartRef root, a, b, c;
};

TEST_F(CharacterBodyPartTest, FreshBodyPartPrintsSixEmptySections)
{
  Result<CharacterBodyPartRef> part = CreateObject<CharacterBodyPartRef>(kBodyPartClassId);
  ASSERT_TRUE(part.IsOk());
  EXPECT_EQ(Text(part.GetValue()->ToString()), "Name : \n"
                                                "Identifier : \n"
                                                "Controllers (0) :\n"
                                                "Skeleton Nodes (0) :\n"
                                                "Skeleton Keywords (0) :\n"
                                                "Skeleton Discard Keywords (0) :\n");
}

TEST_F(CharacterBodyPartTest, FilledBodyPartPrintsEveryElementOnItsOwnLine)
{
  CharacterBodyPartRef part = MakePart("LeftArm", "Left Arm", {"aa", "bb"});
  BaseArray<Uuid> controllers = Uuids({"cc"});
  ASSERT_TRUE(controllers.Append(Uuid()).IsOk());
  ASSERT_TRUE(part->SetControllers(controllers).IsOk());
  ASSERT_TRUE(part->SetSkeletonKeywords(Strings({"arm", "shoulder"})).IsOk());
  ASSERT_TRUE(part->SetSkeletonDiscardKeywords(Strings({"twist"})).IsOk());

  const std::string expected = std::string("Name : Left Arm\n"
                                           "Identifier : LeftArm\n"
                                           "Controllers (2) :\n"
                                           "\t00000000-0000-4000-8000-0000000000cc\n"
                                           "\t") +
                               kZeroUuid +
                               "\n"
                               "Skeleton Nodes (2) :\n"
                               "\t00000000-0000-4000-8000-0000000000aa\n"
                               "\t00000000-0000-4000-8000-0000000000bb\n"
                               "Skeleton Keywords (2) :\n"
                               "\tarm\n"
                               "\tshoulder\n"
                               "Skeleton Discard Keywords (1) :\n"
                               "\ttwist\n";
  EXPECT_EQ(Text(part->ToString()), expected);
  // The generic object text is the body part's.
  EXPECT_EQ(Text(static_cast<const ObjectInterface*>(part.GetPointer())->ToString()), expected);

  FormatStatement upper;
  upper.upperCaseHex = true;
  EXPECT_NE(Text(part->ToString(&upper)).find("\t00000000-0000-4000-8000-0000000000CC\n"), std::string::npos);
}

TEST_F(CharacterBodyPartTest, SettersShareElementsAndIgnoreTheirOwnArrays)
{
  const Uuid node = MakeUuid("5");
  BaseArray<Uuid> skeleton;
  ASSERT_TRUE(skeleton.Append(node).IsOk());
  ASSERT_TRUE(a->SetSkeleton(skeleton).IsOk());
  EXPECT_NE(&a->GetSkeleton(), &skeleton);
  EXPECT_TRUE(a->GetSkeleton()[0].IsSameObject(node));
  EXPECT_EQ(node.GetReferenceCount(), 3);

  ASSERT_TRUE(a->SetSkeleton(a->GetSkeleton()).IsOk());
  ASSERT_TRUE(a->SetControllers(a->GetControllers()).IsOk());
  ASSERT_TRUE(a->SetSkeletonKeywords(a->GetSkeletonKeywords()).IsOk());
  EXPECT_EQ(Tails(a->GetSkeleton()), "000000000005");
  EXPECT_EQ(node.GetReferenceCount(), 3);

  const InternedId id = Id("Spine");
  a->SetIdentifier(id);
  a->SetIdentifier(a->GetIdentifier());
  EXPECT_TRUE(a->GetIdentifier().IsSameObject(id));
  EXPECT_EQ(id.GetReferenceCount(), 2);
}

TEST_F(CharacterBodyPartTest, SkeletonCountsOwnOrWholeSubtree)
{
  EXPECT_EQ(root->GetSkeletonCount(false).GetValue(), 1);
  EXPECT_EQ(root->GetSkeletonCount(true).GetValue(), 5);
  EXPECT_EQ(a->GetSkeletonCount(true).GetValue(), 3);
  EXPECT_EQ(c->GetSkeletonCount(true).GetValue(), c->GetSkeletonCount(false).GetValue());
}

TEST_F(CharacterBodyPartTest, HierarchySkeletonIsPreOrderWithDuplicates)
{
  Result<BaseArray<Uuid>> all = root->GetHierarchySkeleton();
  ASSERT_TRUE(all.IsOk());
  EXPECT_EQ(Tails(all.GetValue()), "000000000001,0000000000a1,0000000000a2,0000000000c1,0000000000b1");
  EXPECT_TRUE(all.GetValue()[3].IsSameObject(c->GetSkeleton()[0]));

  ASSERT_TRUE(b->SetSkeleton(a->GetSkeleton()).IsOk());
  EXPECT_EQ(Tails(a->GetHierarchySkeleton().GetValue()), "0000000000a1,0000000000a2,0000000000c1");
  EXPECT_EQ(Tails(root->GetHierarchySkeleton().GetValue()),
            "000000000001,0000000000a1,0000000000a2,0000000000c1,0000000000a1,0000000000a2");
}

TEST_F(CharacterBodyPartTest, ClearSkeletonReachesChildrenOnlyWhenRecursive)
{
  ASSERT_TRUE(root->ClearSkeleton(false).IsOk());
  EXPECT_EQ(root->GetSkeleton().GetCapacity(), 0);
  EXPECT_EQ(root->GetSkeletonCount(true).GetValue(), 4);

  ASSERT_TRUE(a->SetControllers(Uuids({"f"})).IsOk());
  ASSERT_TRUE(root->ClearSkeleton(true).IsOk());
  EXPECT_EQ(root->GetSkeletonCount(true).GetValue(), 0);
  EXPECT_EQ(c->GetSkeleton().GetCapacity(), 0);
  EXPECT_EQ(a->GetControllers().GetCount(), 1);
}

TEST_F(CharacterBodyPartTest, NodesOfAnotherClassFailTheRecursiveOperations)
{
  // root / A / C; root / tree node; root / B: the tree node sits between A's subtree and B.
  b->Remove();
  Insert(root, ForeignNode());
  Insert(root, b);

  Result<BaseArray<Uuid>> all = root->GetHierarchySkeleton();
  ASSERT_TRUE(all.IsError());
  EXPECT_TRUE(all.GetError().IsClass(NullptrError));
  EXPECT_STREQ(all.GetError().GetUnit(), "source/impl/characterbodypart_impl");
  EXPECT_TRUE(root->GetSkeletonCount(true).GetError().IsClass(NullptrError));
  EXPECT_EQ(root->GetSkeletonCount(false).GetValue(), 1);

  // Children after the failing one keep their nodes.
  Result<void> cleared = root->ClearSkeleton(true);
  ASSERT_TRUE(cleared.IsError());
  EXPECT_TRUE(cleared.GetError().IsClass(NullptrError));
  EXPECT_EQ(a->GetSkeletonCount(true).GetValue(), 0);
  EXPECT_EQ(b->GetSkeletonCount(false).GetValue(), 1);

  // By id: a match before the foreign node ends the search; one after it is never reached.
  EXPECT_TRUE(root->FindBodyPartByID(Id("C")).GetValue() == c);
  EXPECT_TRUE(root->FindBodyPartByID(Id("B")).GetError().IsClass(NullptrError));
  // By name the foreign node is a body part without a name.
  EXPECT_TRUE(root->FindBodyPartByName(MakeString("B")).GetValue() == b);
  EXPECT_FALSE(root->FindBodyPartByName(MakeString("Hand")).GetValue());
}

TEST_F(CharacterBodyPartTest, FindByIdTakesSelfFirstThenPreOrder)
{
  c->SetIdentifier(Id("Root"));
  EXPECT_TRUE(root->FindBodyPartByID(Id("Root")).GetValue() == root);
  EXPECT_TRUE(a->FindBodyPartByID(Id("Root")).GetValue() == c);
  b->SetIdentifier(Id("C"));
  a->SetIdentifier(Id("C"));
  EXPECT_TRUE(root->FindBodyPartByID(Id("C")).GetValue() == a);

  Result<CharacterBodyPartRef> miss = root->FindBodyPartByID(Id("Nowhere"));
  ASSERT_TRUE(miss.IsOk());
  EXPECT_FALSE(miss.GetValue());
  // Searches go down only.
  EXPECT_FALSE(b->FindBodyPartByID(Id("Root")).GetValue());
}

TEST_F(CharacterBodyPartTest, FindByIdComparesTextsOfDistinctIdsAndNullOnlyWithNull)
{
  const InternedId detached = InternedId::CreateDetached("B").GetValue();
  ASSERT_FALSE(detached.IsSameObject(b->GetIdentifier()));
  EXPECT_TRUE(root->FindBodyPartByID(detached).GetValue() == b);
  EXPECT_FALSE(root->FindBodyPartByID(InternedId::CreateDetached("b").GetValue()).GetValue());

  EXPECT_FALSE(root->FindBodyPartByID(InternedId()).GetValue());
  b->SetIdentifier(InternedId());
  EXPECT_TRUE(root->FindBodyPartByID(InternedId()).GetValue() == b);
  EXPECT_FALSE(b->FindBodyPartByID(Id("B")).GetValue());
}

TEST_F(CharacterBodyPartTest, FindByNameIsWholeAndCaseSensitive)
{
  ASSERT_TRUE(a->SetName(MakeString("Arm")).IsOk());
  ASSERT_TRUE(b->SetName(MakeString("left arm")).IsOk());
  EXPECT_FALSE(root->FindBodyPartByName(MakeString("arm")).GetValue());
  EXPECT_FALSE(root->FindBodyPartByName(MakeString("Ar")).GetValue());
  EXPECT_TRUE(root->FindBodyPartByName(MakeString("Arm")).GetValue() == a);

  // Two of one name: the first in pre-order wins (C, below A, comes before B).
  ASSERT_TRUE(c->SetName(MakeString("left arm")).IsOk());
  EXPECT_TRUE(root->FindBodyPartByName(MakeString("left arm")).GetValue() == c);
  EXPECT_TRUE(root->FindBodyPartByName(MakeString("Root")).GetValue() == root);
}

TEST_F(CharacterBodyPartTest, NameIsTheObserverName)
{
  auto* observer = QueryInterface<ObserverObjectInterface>(a.GetPointer());
  ASSERT_NE(observer, nullptr);
  EXPECT_EQ(Text(observer->GetName()), "A");
  const String wrist = MakeString("Wrist");
  ASSERT_TRUE(observer->SetName(wrist).IsOk());
  EXPECT_TRUE(a->GetName().IsSameBuffer(wrist));
  EXPECT_EQ(Text(a->ToString()).substr(0, 13), "Name : Wrist\n");
  EXPECT_TRUE(root->FindBodyPartByName(wrist).GetValue() == a);
}

TEST_F(CharacterBodyPartTest, FactorySharesTheIdentifierAndFailsWhenTheClassIsHidden)
{
  const InternedId id = Id("Head");
  Result<CharacterBodyPartRef> part = CharacterBodyPartInterface::CreateBodyPart(id, MakeString("Head"));
  ASSERT_TRUE(part.IsOk());
  EXPECT_TRUE(part.GetValue()->GetIdentifier().IsSameObject(id));
  EXPECT_EQ(part.GetValue()->GetReferenceCount(), 1);
  EXPECT_EQ(part.GetValue()->GetParent(), nullptr);

  Registry::Get().SetClassHidden(kBodyPartClassId, true);
  const Int liveBefore = Allocator::GetLiveCount();
  Result<CharacterBodyPartRef> hidden = CharacterBodyPartInterface::CreateBodyPart(id, String());
  const Int liveAfter = Allocator::GetLiveCount();
  Registry::Get().SetClassHidden(kBodyPartClassId, false);
  ASSERT_TRUE(hidden.IsError());
  EXPECT_TRUE(hidden.GetError() == NullReturnError(0));
  EXPECT_EQ(liveAfter, liveBefore);
}

TEST_F(CharacterBodyPartTest, DescribesSixMembersInFieldOrder)
{
  using kelvara_test::DeclaredMember;
  kelvara_test::RecordingDescriber recorder;
  ASSERT_TRUE(CharacterBodyPartInterface::DescribeIO(recorder).IsOk());
  EXPECT_EQ(recorder.members, (std::vector<DeclaredMember>{{"_identifier", "InternedId", DESCRIBEFLAGS_NONE, true},
                                                           {"_name", "String", DESCRIBEFLAGS_NONE, true},
                                                           {"_controllers", "Uuid", DESCRIBEFLAGS_ARRAY, true},
                                                           {"_skeletonNodes", "Uuid", DESCRIBEFLAGS_ARRAY, true},
                                                           {"_skeletonKeywords", "String", DESCRIBEFLAGS_ARRAY, true},
                                                           {"_skeletonDiscardKeywords", "String", DESCRIBEFLAGS_ARRAY, true}}));
}

TEST_F(CharacterBodyPartTest, CopyIsTheWholeSubtreeWithoutTheParent)
{
  ASSERT_TRUE(a->SetSkeletonKeywords(Strings({"arm"})).IsOk());
  const std::string before = Dump(root.GetPointer());
  Result<ObjectRef> clone = a->GetClass()->CloneInstance(*a);
  ASSERT_TRUE(clone.IsOk());
  CharacterBodyPartRef copy = clone.GetValue().As<CharacterBodyPartInterface>();
  EXPECT_EQ(copy->GetParent(), nullptr);
  EXPECT_EQ(Dump(copy.GetPointer()), Dump(a.GetPointer()));
  EXPECT_TRUE(copy->GetSkeleton()[0].IsSameObject(a->GetSkeleton()[0]));
  CharacterBodyPartRef copiedC = copy->FindBodyPartByID(Id("C")).GetValue();
  EXPECT_FALSE(copiedC == c);

  ASSERT_TRUE(copiedC->ClearSkeleton(false).IsOk());
  EXPECT_EQ(Dump(root.GetPointer()), before);
}

TEST_F(CharacterBodyPartTest, OutOfMemoryLeavesTheTreeUnchangedAndLeaksNothing)
{
  // Each state is a fresh copy of root's subtree, so runs do not see each other's changes.
  auto setup = [&] { return root->GetClass()->CloneInstance(*root).GetValue().As<CharacterBodyPartInterface>(); };
  auto snapshot = [](const CharacterBodyPartRef& part) { return part ? Dump(part.GetPointer()) : std::string("null"); };
  // Values made before the hook is armed; more nodes than the first block of root's skeleton holds.
  BaseArray<Uuid> uuids;
  for (int i = 0; i < 20; ++i)
    ASSERT_TRUE(uuids.Append(MakeUuid(std::to_string(i))).IsOk());
  const BaseArray<String> words = Strings({"hand", "wrist"});
  const InternedId id = Id("Hand");
  const String name = MakeString("Hand");

  using Op = Result<void> (*)(CharacterBodyPartRef&, const BaseArray<Uuid>&, const BaseArray<String>&);
  const Op setters[] = {
    [](CharacterBodyPartRef& p, const BaseArray<Uuid>& u, const BaseArray<String>&) { return p->SetControllers(u); },
    [](CharacterBodyPartRef& p, const BaseArray<Uuid>& u, const BaseArray<String>&) { return p->SetSkeleton(u); },
    [](CharacterBodyPartRef& p, const BaseArray<Uuid>&, const BaseArray<String>& w) { return p->SetSkeletonKeywords(w); },
    [](CharacterBodyPartRef& p, const BaseArray<Uuid>&, const BaseArray<String>& w) {
      return p->SetSkeletonDiscardKeywords(w);
    },
  };
  for (Op op : setters)
    EXPECT_GT(kelvara_test::SweepOutOfMemory(setup, [&](CharacterBodyPartRef& p) { return op(p, uuids, words); }, snapshot),
              0);

  EXPECT_GT(kelvara_test::SweepOutOfMemory(setup, [](CharacterBodyPartRef& p) { return p->GetHierarchySkeleton(); }, snapshot),
            0);
  EXPECT_GT(kelvara_test::SweepOutOfMemory(
              setup, [](CharacterBodyPartRef& p) { return p->GetClass()->CloneInstance(*p); }, snapshot),
            0);
  EXPECT_GT(kelvara_test::SweepOutOfMemory(
              [] { return CharacterBodyPartRef(); },
              [&](CharacterBodyPartRef& p) -> Result<void> {
                TELVO_TRY_ASSIGN(p, CharacterBodyPartInterface::CreateBodyPart(id, name));
                return OK();
              },
              snapshot),
            0);
  // Sixteen children fill the first block of the list: the next insert has to grow it.
  EXPECT_GT(kelvara_test::SweepOutOfMemory(
              [&] {
                CharacterBodyPartRef parent = MakePart("P", "P");
                for (int i = 0; i < 16; ++i)
                  Insert(parent, MakePart("K", "K"));
                return std::pair{parent, MakePart("L", "L")};
              },
              [](auto& state) { return state.first->InsertChildLast(state.second); },
              [&](const auto& state) { return snapshot(state.first) + snapshot(state.second); }),
            0);

  // Nothing below allocates.
  EXPECT_EQ(kelvara_test::SweepOutOfMemory(setup, [](CharacterBodyPartRef& p) { return p->ClearSkeleton(true); }, snapshot),
            0);
  EXPECT_EQ(kelvara_test::SweepOutOfMemory(setup, [](CharacterBodyPartRef& p) { return p->GetSkeletonCount(true); }, snapshot),
            0);
  EXPECT_EQ(kelvara_test::SweepOutOfMemory(
              setup, [&](CharacterBodyPartRef& p) { return p->FindBodyPartByID(id); }, snapshot),
            0);
  EXPECT_EQ(kelvara_test::SweepOutOfMemory(
              setup, [&](CharacterBodyPartRef& p) { return p->FindBodyPartByName(name); }, snapshot),
            0);

  kelvara_test::SweepAllocationFailures(
    setup, [](CharacterBodyPartRef& p) { return Result<String>(p->ToString()); },
    [](CharacterBodyPartRef& p, const Result<String>& text, bool failed) {
      const std::string full = Text(p->ToString());
      if (failed)
        EXPECT_NE(Text(text.GetValue()), full);
      else
        EXPECT_EQ(Text(text.GetValue()), full);
    });
}

} // namespace
