#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/loaded_module.h"
#include "support/oom_sweep.h"
#include "support/recording_describer.h"
#include "support/values.h"
#include "telvo/characterbodypart.h"
#include "telvo/charactertree.h"

using namespace telvo;
using kelvara_test::MakeString;
using kelvara_test::Text;

namespace
{

constexpr const char* kTreeClassId = "net.telvo.animation.class.charactertree";

Uuid MakeUuid(int n)
{
  return kelvara_test::TaggedUuid(n, 0x7e);
}

CharacterTreeRef MakeNode(int n, Bool isTransformNode)
{
  return kelvara_test::Value(
    CharacterTreeInterface::CreateTree(MakeUuid(n), MakeString("node" + std::to_string(n)), isTransformNode));
}

void Insert(const CharacterTreeRef& parent, const ObjectRef& child)
{
  ASSERT_TRUE(parent->InsertChildLast(child).IsOk());
}

Int Count(const CharacterTreeRef& tree, Bool onlyTransformNodes)
{
  return kelvara_test::Value(tree->GetHiearchyCount(onlyTransformNodes));
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

TEST_F(CharacterTreeTest, CountFilterSkipsGroupingNodesButDescendsThroughThem)
{
  EXPECT_EQ(Count(MakeNode(1, true), true), 1);
  EXPECT_EQ(Count(MakeNode(2, false), false), 1);
  EXPECT_EQ(Count(MakeNode(2, false), true), 0);

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
  EXPECT_EQ(Count(tip, false), 1 + 25 + 10) << "only what lies below";
}

TEST_F(CharacterTreeTest, ANodeThatIsNotATreeFailsTheCount)
{
  CharacterTreeRef root = MakeNode(1, true);
  CharacterTreeRef arm = MakeNode(2, true);
  CharacterTreeRef hand = MakeNode(3, true);
  Insert(root, arm);
  Insert(root, hand);
  Insert(arm, kelvara_test::Value(CharacterBodyPartInterface::CreateBodyPart(InternedId(), String())));
  for (Bool filter : {false, true})
  {
    Result<Int> count = root->GetHiearchyCount(filter);
    ASSERT_TRUE(count.IsError());
    EXPECT_TRUE(count.GetError() == NullReturnError(0));
  }
  EXPECT_EQ(Count(hand, false), 1) << "a subtree that does not reach the body part still counts";
}

TEST_F(CharacterTreeTest, TextIsTheNodeAloneAndItsNameIsTheObserversName)
{
  CharacterTreeRef fresh = kelvara_test::Value(CreateObject<CharacterTreeRef>(kTreeClassId));
  EXPECT_EQ(Text(fresh->ToString()),
            "Object ID : 00000000-0000-0000-0000-000000000000\nObject Name : \nIs Transform Node : false\n");

  CharacterTreeRef hips = kelvara_test::Value(CharacterTreeInterface::CreateTree(
    kelvara_test::MakeUuid("a1b2c3d4-0000-4000-8000-0000000000ff"), MakeString("Hips"), true));
  Insert(hips, MakeNode(2, false));
  const std::string expected = "Object ID : a1b2c3d4-0000-4000-8000-0000000000ff\nObject Name : Hips\nIs Transform Node : true\n";
  EXPECT_EQ(Text(hips->ToString()), expected);
  const ObjectInterface* object = hips.GetPointer();
  EXPECT_EQ(Text(object->ToString()), expected);
  auto* info = QueryInterface<CharacterNodeInfoInterface>(object);
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(Text(info->ToString()), expected);
  FormatStatement upper;
  upper.upperCaseHex = true;
  EXPECT_EQ(Text(object->ToString(&upper)),
            "Object ID : A1B2C3D4-0000-4000-8000-0000000000FF\nObject Name : Hips\nIs Transform Node : true\n");

  auto* observer = QueryInterface<ObserverObjectInterface>(hips.GetPointer());
  ASSERT_NE(observer, nullptr);
  const String spine = MakeString("Spine");
  ASSERT_TRUE(observer->SetName(spine).IsOk());
  EXPECT_TRUE(info->GetName().IsSameBuffer(spine));
  ASSERT_TRUE(info->SetName(MakeString("Neck")).IsOk());
  EXPECT_EQ(Text(observer->GetName()), "Neck");
}

TEST_F(CharacterTreeTest, FactorySharesItsValuesOrFailsWhenTheClassIsHidden)
{
  const Uuid uuid = MakeUuid(7);
  const String name = MakeString("LeftArm");
  CharacterTreeRef tree = kelvara_test::Value(CharacterTreeInterface::CreateTree(uuid, name, true));
  EXPECT_TRUE(tree->GetUuid().IsSameObject(uuid));
  EXPECT_TRUE(tree->GetName().IsSameBuffer(name));
  EXPECT_TRUE(tree->IsTransformNode());
  EXPECT_EQ(tree->GetParent(), nullptr);
  EXPECT_EQ(tree->GetReferenceCount(), 1);

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
  kelvara_test::RecordingDescriber whole;
  ASSERT_TRUE(DescribeClass(*MakeNode(1, true)->GetClass(), whole).IsOk());
  EXPECT_EQ(whole.members, (std::vector<DeclaredMember>{{"_objectID", "Uuid", DESCRIBEFLAGS_NONE, true},
                                                        {"_objectName", "String", DESCRIBEFLAGS_NONE, true},
                                                        {"IsTransformNode", "Bool", DESCRIBEFLAGS_NONE, true}}));
  kelvara_test::RecordingDescriber own;
  ASSERT_TRUE(CharacterTreeInterface::DescribeIO(own).IsOk());
  EXPECT_EQ(own.members, std::vector<DeclaredMember>{whole.members.back()});
}

TEST_F(CharacterTreeTest, CopyIsTheWholeSubtreeWithoutTheParent)
{
  CharacterTreeRef root = MakeNode(1, false);
  CharacterTreeRef spine = MakeNode(2, true);
  Insert(root, spine);
  Insert(spine, MakeNode(3, true));
  Insert(spine, MakeNode(4, false));
  const std::string before = Dump(root.GetPointer());

  CharacterTreeRef copy = kelvara_test::Value(spine->GetClass()->CloneInstance(*spine)).As<CharacterTreeInterface>();
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
              [&](const auto& state) { return snapshot(state.first) + "|" + std::to_string(state.second->GetParent() != nullptr); }),
            0);
  EXPECT_GT(kelvara_test::SweepOutOfMemory(
              setup, [](CharacterTreeRef& root) { return root->GetClass()->CloneInstance(*root); }, snapshot),
            0);
  // A node without an id must allocate one of its own first.
  EXPECT_GT(kelvara_test::SweepOutOfMemory(
              [] { return CreateObject<CharacterTreeRef>(kTreeClassId).GetValue(); },
              [&](CharacterTreeRef& root) { return root->SetUuid(uuid); }, snapshot),
            0);
  EXPECT_EQ(kelvara_test::SweepOutOfMemory(
              setup, [](CharacterTreeRef& root) { return root->GetHiearchyCount(true); }, snapshot),
            0)
    << "counting allocates nothing";
  kelvara_test::SweepAllocationFailures(
    setup, [](CharacterTreeRef& root) { return Result<String>(root->ToString()); },
    [](CharacterTreeRef& root, const Result<String>& text, bool failed) {
      EXPECT_EQ(Text(text.GetValue()) == Text(root->ToString()), !failed);
    });
}

} // namespace
