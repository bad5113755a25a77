#include <gtest/gtest.h>

#include <cstdio>
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

constexpr const char* kTreeClassId = "net.telvo.animation.class.charactertree";
constexpr const char* kZeroUuid = "00000000-0000-0000-0000-000000000000";

Uuid MakeUuid(int n)
{
  char text[40];
  std::snprintf(text, sizeof(text), "00000000-0000-4000-8000-%012d", n);
  return Uuid::FromString(text).GetValue();
}

String MakeString(const std::string& text)
{
  return String::Create(text).GetValue();
}

std::string Text(const String& s)
{
  return std::string(s.View());
}

CharacterTreeRef MakeNode(int n, Bool isTransformNode)
{
  return CharacterTreeInterface::CreateTree(MakeUuid(n), MakeString("node" + std::to_string(n)), isTransformNode)
    .GetValue();
}

void Insert(const CharacterTreeRef& parent, const ObjectRef& child)
{
  ASSERT_TRUE(parent->InsertChildLast(child).IsOk());
}

Int Count(const CharacterTreeRef& tree, Bool onlyTransformNodes)
{
  Result<Int> count = tree->GetHiearchyCount(onlyTransformNodes);
  EXPECT_TRUE(count.IsOk());
  return count.GetValue();
}

// The whole subtree as text: each node's own text, indented by depth.
std::string Dump(const ObjectInterface* root)
{
  std::string dump;
  (void)WalkHierarchy(root, [&](const ObjectInterface* node, const ObjectInterface*, Int depth) {
    dump += std::string(static_cast<std::size_t>(depth), '>') + Text(node->ToString());
    return Result<WalkAnswer>(WalkAnswer::Continue);
  });
  return dump;
}

class CharacterTreeTest : public ::testing::Test
{
protected:
  void SetUp() override { kelvara_test::LoadedModuleForTests(); }
};

TEST_F(CharacterTreeTest, FilterSkipsGroupingNodesButDescendsThroughThem)
{
  CharacterTreeRef joint = MakeNode(1, true);
  CharacterTreeRef single = MakeNode(2, false);
  EXPECT_EQ(Count(joint, true), 1);
  EXPECT_EQ(Count(single, false), 1);
  EXPECT_EQ(Count(single, true), 0);

  // A grouping root with three joints.
  CharacterTreeRef root = MakeNode(1, false);
  for (int i = 2; i <= 4; ++i)
    Insert(root, MakeNode(i, true));
  EXPECT_EQ(Count(root, false), 4);
  EXPECT_EQ(Count(root, true), 3);

  // root(T) / group(F) / joint(T): the joint below the group still counts.
  CharacterTreeRef top = MakeNode(10, true);
  CharacterTreeRef group = MakeNode(11, false);
  Insert(top, group);
  Insert(group, MakeNode(12, true));
  EXPECT_EQ(Count(top, false), 3);
  EXPECT_EQ(Count(top, true), 2);
  EXPECT_EQ(Count(group, true), 1);
}

TEST_F(CharacterTreeTest, CountsDeepAndWideTrees)
{
  // A chain of 40 alternating grouping and transform nodes, with 25 joints hanging off its tip
  // and every fifth joint carrying a grouping node with one joint under it.
  CharacterTreeRef root = MakeNode(0, false);
  CharacterTreeRef tip = root;
  for (int i = 1; i < 40; ++i)
  {
    CharacterTreeRef next = MakeNode(i, i % 2 == 1);
    Insert(tip, next);
    tip = next;
  }
  for (int i = 0; i < 25; ++i)
  {
    CharacterTreeRef leaf = MakeNode(100 + i, true);
    Insert(tip, leaf);
    if (i % 5 == 0)
    {
      CharacterTreeRef group = MakeNode(200 + i, false);
      Insert(leaf, group);
      Insert(group, MakeNode(300 + i, true));
    }
  }
  EXPECT_EQ(Count(root, false), 40 + 25 + 5 + 5);
  EXPECT_EQ(Count(root, true), 20 + 25 + 5);
  // Counting from the tip covers only what lies below it.
  EXPECT_EQ(Count(tip, false), 1 + 25 + 10);
}

TEST_F(CharacterTreeTest, ANodeThatIsNotATreeFailsTheCount)
{
  CharacterTreeRef root = MakeNode(1, true);
  CharacterTreeRef arm = MakeNode(2, true);
  CharacterTreeRef hand = MakeNode(3, true);
  Insert(root, arm);
  Insert(root, hand);
  CharacterBodyPartRef part = CharacterBodyPartInterface::CreateBodyPart(InternedId(), String()).GetValue();
  Insert(arm, part);

  for (Bool filter : {false, true})
  {
    Result<Int> count = root->GetHiearchyCount(filter);
    ASSERT_TRUE(count.IsError());
    EXPECT_TRUE(count.GetError() == NullReturnError(0));
  }
  // A subtree that does not reach the body part still counts.
  EXPECT_EQ(Count(hand, false), 1);
}

TEST_F(CharacterTreeTest, TextIsTheNodeAloneWhicheverInterfaceAsks)
{
  Result<CharacterTreeRef> fresh = CreateObject<CharacterTreeRef>(kTreeClassId);
  ASSERT_TRUE(fresh.IsOk());
  EXPECT_FALSE(fresh.GetValue()->IsTransformNode());
  EXPECT_EQ(Text(fresh.GetValue()->ToString()),
            std::string("Object ID : ") + kZeroUuid + "\nObject Name : \nIs Transform Node : false\n");

  CharacterTreeRef hips = CharacterTreeInterface::CreateTree(Uuid::FromString("a1b2c3d4-0000-4000-8000-0000000000ff").GetValue(),
                                                             MakeString("Hips"), true)
                            .GetValue();
  Insert(hips, MakeNode(2, false));
  const std::string expected =
    "Object ID : a1b2c3d4-0000-4000-8000-0000000000ff\nObject Name : Hips\nIs Transform Node : true\n";
  EXPECT_EQ(Text(hips->ToString()), expected);
  const ObjectInterface* object = hips.GetPointer();
  EXPECT_EQ(Text(object->ToString()), expected);
  const CharacterNodeInfoInterface* info = QueryInterface<CharacterNodeInfoInterface>(object);
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(Text(info->ToString()), expected);

  FormatStatement upper;
  upper.upperCaseHex = true;
  EXPECT_EQ(Text(object->ToString(&upper)),
            "Object ID : A1B2C3D4-0000-4000-8000-0000000000FF\nObject Name : Hips\nIs Transform Node : true\n");
}

TEST_F(CharacterTreeTest, ObserverAndNodeInfoShareOneName)
{
  CharacterTreeRef node = MakeNode(1, true);
  auto* observer = QueryInterface<ObserverObjectInterface>(node.GetPointer());
  auto* info = QueryInterface<CharacterNodeInfoInterface>(node.GetPointer());
  ASSERT_NE(observer, nullptr);
  ASSERT_NE(info, nullptr);

  const String spine = MakeString("Spine");
  ASSERT_TRUE(observer->SetName(spine).IsOk());
  EXPECT_TRUE(info->GetName().IsSameBuffer(spine));
  ASSERT_TRUE(info->SetName(MakeString("Neck")).IsOk());
  EXPECT_EQ(Text(observer->GetName()), "Neck");
  EXPECT_NE(Text(node->ToString()).find("Object Name : Neck\n"), std::string::npos);
}

TEST_F(CharacterTreeTest, FactorySharesItsValuesOrFailsWhenTheClassIsHidden)
{
  const Uuid uuid = MakeUuid(7);
  const String name = MakeString("LeftArm");
  Result<CharacterTreeRef> tree = CharacterTreeInterface::CreateTree(uuid, name, true);
  ASSERT_TRUE(tree.IsOk());
  EXPECT_TRUE(tree.GetValue()->GetUuid().IsSameObject(uuid));
  EXPECT_TRUE(tree.GetValue()->GetName().IsSameBuffer(name));
  EXPECT_TRUE(tree.GetValue()->IsTransformNode());
  EXPECT_EQ(tree.GetValue()->GetParent(), nullptr);
  EXPECT_EQ(tree.GetValue()->GetReferenceCount(), 1);

  Registry::Get().SetClassHidden(kTreeClassId, true);
  const Int liveBefore = Allocator::GetLiveCount();
  Result<CharacterTreeRef> hidden = CharacterTreeInterface::CreateTree(uuid, name, true);
  const Int liveAfter = Allocator::GetLiveCount();
  Registry::Get().SetClassHidden(kTreeClassId, false);
  ASSERT_TRUE(hidden.IsError());
  EXPECT_TRUE(hidden.GetError() == NullReturnError(0));
  EXPECT_EQ(liveAfter, liveBefore);
}

TEST_F(CharacterTreeTest, DescribesItsFlagAfterTheNodeInfoMembers)
{
  using kelvara_test::DeclaredMember;
  kelvara_test::RecordingDescriber own;
  ASSERT_TRUE(CharacterTreeInterface::DescribeIO(own).IsOk());
  EXPECT_EQ(own.members, (std::vector<DeclaredMember>{{"IsTransformNode", "Bool", DESCRIBEFLAGS_NONE, true}}));

  kelvara_test::RecordingDescriber whole;
  ASSERT_TRUE(DescribeClass(*MakeNode(1, true)->GetClass(), whole).IsOk());
  EXPECT_EQ(whole.members, (std::vector<DeclaredMember>{{"_objectID", "Uuid", DESCRIBEFLAGS_NONE, true},
                                                        {"_objectName", "String", DESCRIBEFLAGS_NONE, true},
                                                        {"IsTransformNode", "Bool", DESCRIBEFLAGS_NONE, true}}));
}

TEST_F(CharacterTreeTest, CopyIsTheWholeSubtreeWithoutTheParent)
{
  CharacterTreeRef root = MakeNode(1, false);
  CharacterTreeRef spine = MakeNode(2, true);
  Insert(root, spine);
  Insert(spine, MakeNode(3, true));
  Insert(spine, MakeNode(4, false));
  const std::string before = Dump(root.GetPointer());

  Result<ObjectRef> clone = spine->GetClass()->CloneInstance(*spine);
  ASSERT_TRUE(clone.IsOk());
  CharacterTreeRef copy = clone.GetValue().As<CharacterTreeInterface>();
  EXPECT_EQ(copy->GetParent(), nullptr);
  EXPECT_EQ(Dump(copy.GetPointer()), Dump(spine.GetPointer()));
  EXPECT_TRUE(copy->GetUuid().IsSameObject(spine->GetUuid()));
  EXPECT_NE(copy->GetChildren()[0].GetPointer(), spine->GetChildren()[0].GetPointer());
  EXPECT_EQ(Count(copy, true), 2);
  EXPECT_EQ(Dump(root.GetPointer()), before);
}

TEST_F(CharacterTreeTest, OutOfMemoryLeavesTheTreeUnchangedAndLeaksNothing)
{
  auto setup = [] {
    CharacterTreeRef root = MakeNode(1, false);
    for (int i = 2; i <= 4; ++i)
      Insert(root, MakeNode(i, true));
    return root;
  };
  auto snapshot = [](const CharacterTreeRef& root) { return root ? Dump(root.GetPointer()) : std::string("null"); };

  // Values made before the hook is armed: only the operation's own allocations may fail.
  const Uuid uuid = MakeUuid(9);
  const String name = MakeString("Head");
  EXPECT_GT(kelvara_test::SweepOutOfMemory(
              [] { return CharacterTreeRef(); },
              [&](CharacterTreeRef& tree) -> Result<void> {
                TELVO_TRY_ASSIGN(tree, CharacterTreeInterface::CreateTree(uuid, name, true));
                return OK();
              },
              snapshot),
            0);
  // Sixteen children fill the first block of the list: the next insert has to grow it.
  EXPECT_GT(kelvara_test::SweepOutOfMemory(
              [&] {
                CharacterTreeRef root = setup();
                for (int i = 5; i <= 17; ++i)
                  Insert(root, MakeNode(i, true));
                return std::pair{root, MakeNode(99, true)};
              },
              [](auto& state) { return state.first->InsertChildLast(state.second); },
              [&](const auto& state) {
                return snapshot(state.first) + "|" + std::to_string(state.second->GetParent() != nullptr);
              }),
            0);
  EXPECT_GT(kelvara_test::SweepOutOfMemory(
              setup, [](CharacterTreeRef& root) { return root->GetClass()->CloneInstance(*root); }, snapshot),
            0);
  // A node without an id must allocate one of its own first.
  EXPECT_GT(kelvara_test::SweepOutOfMemory(
              [] { return CreateObject<CharacterTreeRef>(kTreeClassId).GetValue(); },
              [&](CharacterTreeRef& root) { return root->SetUuid(uuid); }, snapshot),
            0);
  // Counting allocates nothing.
  EXPECT_EQ(kelvara_test::SweepOutOfMemory(
              setup, [](CharacterTreeRef& root) { return root->GetHiearchyCount(true); }, snapshot),
            0);
  kelvara_test::SweepAllocationFailures(
    setup, [](CharacterTreeRef& root) { return Result<String>(root->ToString()); },
    [](CharacterTreeRef& root, const Result<String>& text, bool failed) {
      const std::string full = Text(root->ToString());
      if (failed)
        EXPECT_NE(Text(text.GetValue()), full);
      else
        EXPECT_EQ(Text(text.GetValue()), full);
    });
}

} // namespace
