#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "support/loaded_module.h"
#include "support/oom_sweep.h"
#include "support/recording_describer.h"
#include "support/values.h"
#include "telvo/characterbodypart.h"
#include "telvo/charactertree.h"

using namespace telvo;
using kelvara_test::Id;
using kelvara_test::MakeString;
using kelvara_test::Strings;
using kelvara_test::Text;

namespace
{

constexpr const char* kBodyPartClassId = "net.telvo.animation.class.characterbodypart";

Uuid MakeUuid(const std::string& tail)
{
  return kelvara_test::MakeUuid("00000000-0000-4000-8000-" + std::string(12 - tail.size(), '0') + tail);
}

BaseArray<Uuid> Uuids(std::initializer_list<const char*> tails)
{
  BaseArray<Uuid> uuids;
  for (const char* tail : tails)
    EXPECT_TRUE(uuids.Append(MakeUuid(tail)).IsOk());
  return uuids;
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
  CharacterBodyPartRef part = kelvara_test::Value(CharacterBodyPartInterface::CreateBodyPart(Id(id), MakeString(name)));
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

  CharacterBodyPartRef Find(const InternedId& id) { return kelvara_test::Value(root->FindBodyPartByID(id)); }
  CharacterBodyPartRef Find(const char* name) { return kelvara_test::Value(root->FindBodyPartByName(MakeString(name))); }

  CharacterBodyPartRef root, a, b, c;
};

TEST_F(CharacterBodyPartTest, TextListsEveryElementOnItsOwnLine)
{
  EXPECT_EQ(Text(kelvara_test::Value(CreateObject<CharacterBodyPartRef>(kBodyPartClassId))->ToString()),
            "Name : \nIdentifier : \nControllers (0) :\nSkeleton Nodes (0) :\nSkeleton Keywords (0) :\n"
            "Skeleton Discard Keywords (0) :\n");

  CharacterBodyPartRef part = MakePart("LeftArm", "Left Arm", {"aa", "bb"});
  BaseArray<Uuid> controllers = Uuids({"cc"});
  ASSERT_TRUE(controllers.Append(Uuid()).IsOk());
  ASSERT_TRUE(part->SetControllers(controllers).IsOk());
  ASSERT_TRUE(part->SetSkeletonKeywords(Strings({"arm", "shoulder"})).IsOk());
  ASSERT_TRUE(part->SetSkeletonDiscardKeywords(Strings({"twist"})).IsOk());
  const std::string expected = "Name : Left Arm\nIdentifier : LeftArm\n"
                               "Controllers (2) :\n\t00000000-0000-4000-8000-0000000000cc\n\t00000000-0000-0000-0000-000000000000\n"
                               "Skeleton Nodes (2) :\n\t00000000-0000-4000-8000-0000000000aa\n\t00000000-0000-4000-8000-0000000000bb\n"
                               "Skeleton Keywords (2) :\n\tarm\n\tshoulder\nSkeleton Discard Keywords (1) :\n\ttwist\n";
  EXPECT_EQ(Text(part->ToString()), expected);
  EXPECT_EQ(Text(static_cast<const ObjectInterface*>(part.GetPointer())->ToString()), expected);
  FormatStatement upper;
  upper.upperCaseHex = true;
  EXPECT_NE(Text(part->ToString(&upper)).find("\t00000000-0000-4000-8000-0000000000CC\n"), std::string::npos);
}

TEST_F(CharacterBodyPartTest, SettersShareElementsAndIgnoreTheirOwnArrays)
{
  const Uuid node = MakeUuid("5");
  BaseArray<Uuid> skeleton = kelvara_test::ArrayOf({node});
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

TEST_F(CharacterBodyPartTest, SkeletonOfTheSubtreeIsCountedListedInPreOrderAndCleared)
{
  EXPECT_EQ(root->GetSkeletonCount(false).GetValue(), 1);
  EXPECT_EQ(root->GetSkeletonCount(true).GetValue(), 5);
  EXPECT_EQ(a->GetSkeletonCount(true).GetValue(), 3);
  EXPECT_EQ(c->GetSkeletonCount(true).GetValue(), 1);

  Result<BaseArray<Uuid>> all = root->GetHierarchySkeleton();
  ASSERT_TRUE(all.IsOk());
  EXPECT_EQ(Tails(all.GetValue()), "000000000001,0000000000a1,0000000000a2,0000000000c1,0000000000b1");
  EXPECT_TRUE(all.GetValue()[3].IsSameObject(c->GetSkeleton()[0]));
  ASSERT_TRUE(b->SetSkeleton(a->GetSkeleton()).IsOk());
  EXPECT_EQ(Tails(root->GetHierarchySkeleton().GetValue()),
            "000000000001,0000000000a1,0000000000a2,0000000000c1,0000000000a1,0000000000a2")
    << "duplicates stay";

  ASSERT_TRUE(root->ClearSkeleton(false).IsOk());
  EXPECT_EQ(root->GetSkeleton().GetCapacity(), 0);
  EXPECT_EQ(root->GetSkeletonCount(true).GetValue(), 5);
  ASSERT_TRUE(a->SetControllers(Uuids({"f"})).IsOk());
  ASSERT_TRUE(root->ClearSkeleton(true).IsOk());
  EXPECT_EQ(root->GetSkeletonCount(true).GetValue(), 0);
  EXPECT_EQ(c->GetSkeleton().GetCapacity(), 0);
  EXPECT_EQ(a->GetControllers().GetCount(), 1) << "controllers are not the skeleton";
}

TEST_F(CharacterBodyPartTest, NodesOfAnotherClassFailTheRecursiveOperations)
{
  // root / A / C; root / tree node; root / B: the tree node sits between A's subtree and B.
  b->Remove();
  Insert(root, kelvara_test::Value(CharacterTreeInterface::CreateTree(Uuid(), MakeString("Hand"), true)));
  Insert(root, b);

  Result<BaseArray<Uuid>> all = root->GetHierarchySkeleton();
  ASSERT_TRUE(all.IsError());
  EXPECT_TRUE(all.GetError().IsClass(NullptrError));
  EXPECT_STREQ(all.GetError().GetUnit(), "source/impl/characterbodypart_impl");
  EXPECT_TRUE(root->GetSkeletonCount(true).GetError().IsClass(NullptrError));
  EXPECT_EQ(root->GetSkeletonCount(false).GetValue(), 1);

  Result<void> cleared = root->ClearSkeleton(true);
  ASSERT_TRUE(cleared.IsError());
  EXPECT_TRUE(cleared.GetError().IsClass(NullptrError));
  EXPECT_EQ(a->GetSkeletonCount(true).GetValue(), 0);
  EXPECT_EQ(b->GetSkeletonCount(false).GetValue(), 1) << "children after the failing one keep their nodes";

  // By id: a match before the foreign node ends the search; one after it is never reached.
  EXPECT_TRUE(Find(Id("C")) == c);
  EXPECT_TRUE(root->FindBodyPartByID(Id("B")).GetError().IsClass(NullptrError));
  // By name the foreign node is a body part without a name.
  EXPECT_TRUE(Find("B") == b);
  EXPECT_FALSE(Find("Hand"));
}

TEST_F(CharacterBodyPartTest, FindTakesSelfFirstThenPreOrderAndGoesDownOnly)
{
  c->SetIdentifier(Id("Root"));
  EXPECT_TRUE(Find(Id("Root")) == root);
  EXPECT_TRUE(a->FindBodyPartByID(Id("Root")).GetValue() == c);
  EXPECT_FALSE(b->FindBodyPartByID(Id("Root")).GetValue());
  b->SetIdentifier(Id("C"));
  a->SetIdentifier(Id("C"));
  EXPECT_TRUE(Find(Id("C")) == a);
  EXPECT_FALSE(Find(Id("Nowhere")));

  // Ids compare by text; the null id only with the null id.
  const InternedId detached = InternedId::CreateDetached("Root").GetValue();
  ASSERT_FALSE(detached.IsSameObject(root->GetIdentifier()));
  EXPECT_TRUE(Find(detached) == root);
  EXPECT_FALSE(Find(InternedId::CreateDetached("root").GetValue()));
  EXPECT_FALSE(Find(InternedId()));
  b->SetIdentifier(InternedId());
  EXPECT_TRUE(Find(InternedId()) == b);

  // Names: whole, case-sensitive, the first in pre-order (C, below A, comes before B).
  ASSERT_TRUE(a->SetName(MakeString("Arm")).IsOk());
  ASSERT_TRUE(b->SetName(MakeString("left arm")).IsOk());
  ASSERT_TRUE(c->SetName(MakeString("left arm")).IsOk());
  EXPECT_FALSE(Find("arm"));
  EXPECT_FALSE(Find("Ar"));
  EXPECT_TRUE(Find("Arm") == a);
  EXPECT_TRUE(Find("left arm") == c);
  EXPECT_TRUE(Find("Root") == root);

  // The name is the observer's name.
  auto* observer = QueryInterface<ObserverObjectInterface>(a.GetPointer());
  ASSERT_NE(observer, nullptr);
  EXPECT_EQ(Text(observer->GetName()), "Arm");
  const String wrist = MakeString("Wrist");
  ASSERT_TRUE(observer->SetName(wrist).IsOk());
  EXPECT_TRUE(a->GetName().IsSameBuffer(wrist));
  EXPECT_TRUE(Find("Wrist") == a);
}

TEST_F(CharacterBodyPartTest, FactorySharesTheIdentifierAndFailsWhenTheClassIsHidden)
{
  const InternedId id = Id("Head");
  CharacterBodyPartRef part = kelvara_test::Value(CharacterBodyPartInterface::CreateBodyPart(id, MakeString("Head")));
  EXPECT_TRUE(part->GetIdentifier().IsSameObject(id));
  EXPECT_EQ(part->GetReferenceCount(), 1);
  EXPECT_EQ(part->GetParent(), nullptr);

  Registry::Get().SetClassHidden(kBodyPartClassId, true);
  const Int liveBefore = Allocator::GetLiveCount();
  Result<CharacterBodyPartRef> hidden = CharacterBodyPartInterface::CreateBodyPart(id, String());
  const Int liveAfter = Allocator::GetLiveCount();
  Registry::Get().SetClassHidden(kBodyPartClassId, false);
  ASSERT_TRUE(hidden.IsError());
  EXPECT_TRUE(hidden.GetError() == NullReturnError(0));
  EXPECT_EQ(liveAfter, liveBefore);

  kelvara_test::RecordingDescriber recorder;
  ASSERT_TRUE(CharacterBodyPartInterface::DescribeIO(recorder).IsOk());
  EXPECT_EQ(recorder.members, (std::vector<kelvara_test::DeclaredMember>{
                                {"_identifier", "InternedId", DESCRIBEFLAGS_NONE, true},
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
  CharacterBodyPartRef copy = kelvara_test::Value(a->GetClass()->CloneInstance(*a)).As<CharacterBodyPartInterface>();
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

  using Op = std::function<Result<void>(CharacterBodyPartRef&)>;
  auto drop = [](auto r) { return r.IsError() ? Result<void>(r.GetError()) : Result<void>(OK()); };
  const std::vector<std::pair<Op, bool>> operations = {  // the operation, whether it allocates
    {[&](CharacterBodyPartRef& p) { return p->SetControllers(uuids); }, true},
    {[&](CharacterBodyPartRef& p) { return p->SetSkeleton(uuids); }, true},
    {[&](CharacterBodyPartRef& p) { return p->SetSkeletonKeywords(words); }, true},
    {[&](CharacterBodyPartRef& p) { return p->SetSkeletonDiscardKeywords(words); }, true},
    {[&](CharacterBodyPartRef& p) { return drop(p->GetHierarchySkeleton()); }, true},
    {[&](CharacterBodyPartRef& p) { return drop(p->GetClass()->CloneInstance(*p)); }, true},
    {[&](CharacterBodyPartRef& p) { return p->ClearSkeleton(true); }, false},
    {[&](CharacterBodyPartRef& p) { return drop(p->GetSkeletonCount(true)); }, false},
    {[&](CharacterBodyPartRef& p) { return drop(p->FindBodyPartByID(id)); }, false},
    {[&](CharacterBodyPartRef& p) { return drop(p->FindBodyPartByName(name)); }, false},
  };
  for (size_t i = 0; i < operations.size(); ++i)
  {
    SCOPED_TRACE("operation " + std::to_string(i));
    EXPECT_EQ(kelvara_test::SweepOutOfMemory(setup, operations[i].first, snapshot) > 0, operations[i].second);
  }

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
  kelvara_test::SweepAllocationFailures(
    setup, [](CharacterBodyPartRef& p) { return Result<String>(p->ToString()); },
    [](CharacterBodyPartRef& p, const Result<String>& text, bool failed) {
      EXPECT_EQ(Text(text.GetValue()) == Text(p->ToString()), !failed);
    });
}

} // namespace
