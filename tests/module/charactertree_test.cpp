#include <gtest/gtest.h>

#include <functional>

#include "support/helper_fixture.h"
#include "support/oom_sweep.h"

using namespace telvo;
using namespace kelvara_test; // character builders

namespace
{

constexpr const char* kTreeClassId = "net.telvo.animation.class.charactertree";

CharacterTreeRef Node(int n, Bool isTransformNode, std::initializer_list<CharacterTreeRef> children = {})
{
  LoadedModuleForTests();
  return MakeNode(n, "node", children, isTransformNode);
}

Int Count(const CharacterTreeRef& tree, Bool onlyTransformNodes)
{
  return Value(tree->GetHiearchyCount(onlyTransformNodes));
}

std::string Dump(const CharacterTreeRef& root)
{
  std::string dump;
  (void)WalkHierarchy(root.GetPointer(), [&](const ObjectInterface* node, const ObjectInterface*, Int depth) {
    dump += std::string(static_cast<std::size_t>(depth), '>') + Text(node->ToString());
    return Result<WalkAnswer>(WalkAnswer::Continue);
  });
  return dump;
}

TEST(CharacterTreeCount, FilterSkipsGroupingNodesButDescendsThroughThemAndOtherNodesFailIt)
{
  CharacterTreeRef joint = Node(3, true);
  CharacterTreeRef root = Node(0, false, {Node(1, true, {Node(2, false, {joint}), Node(4, false)}), Node(5, true)});
  EXPECT_EQ(Count(root, false), 6);
  EXPECT_EQ(Count(root, true), 3);
  ASSERT_TRUE(root->InsertChildLast(Value(CharacterBodyPartInterface::CreateBodyPart({}, {}))).IsOk());
  for (Bool filter : {false, true})
    EXPECT_TRUE(root->GetHiearchyCount(filter).GetError() == NullReturnError(0));
  EXPECT_EQ(Count(joint, false), 1) << "a subtree that does not reach the body part still counts";
}

TEST(CharacterTreeNode, TextIsTheNodeAloneAndItsNameIsTheObserversName)
{
  LoadedModuleForTests();
  CharacterTreeRef hips = MakeNode(255, "Hips", {Node(2, false)});
  auto* info = QueryInterface<CharacterNodeInfoInterface>(hips.GetPointer());
  ASSERT_NE(info, nullptr);
  for (const String& text : {hips->ToString(), info->ToString()})
    EXPECT_EQ(Text(text),
              "Object ID : 11000000-0000-0000-0000-0000000000ff\nObject Name : Hips\nIs Transform Node : true\n");
  // A line whose value finds no memory is dropped whole.
  EXPECT_GT(SweepTextPieces([&] { return hips->ToString(); }, Lines(Text(hips->ToString()))), 0);
  auto* observer = QueryInterface<ObserverObjectInterface>(hips.GetPointer());
  ASSERT_NE(observer, nullptr);
  const String spine = MakeString("Spine");
  ASSERT_TRUE(observer->SetName(spine).IsOk());
  EXPECT_TRUE(info->GetName().IsSameBuffer(spine));
}

TEST(CharacterTreeNode, CopyIsTheWholeSubtreeWithoutTheParent)
{
  CharacterTreeRef spine = Node(2, true, {Node(3, true), Node(4, false)});
  CharacterTreeRef root = Node(1, false, {spine});
  const std::string before = Dump(root);
  CharacterTreeRef copy = Value(spine->GetClass()->CloneInstance(*spine)).As<CharacterTreeInterface>();
  EXPECT_EQ(copy->GetParent(), nullptr);
  EXPECT_EQ(Dump(copy), Dump(spine));
  EXPECT_NE(copy->GetChildren()[0].GetPointer(), spine->GetChildren()[0].GetPointer());
  EXPECT_EQ(Dump(root), before);
}

template <typename T>
Result<void> Discard(Result<T>&& result)
{
  return result.IsError() ? Result<void>(result.GetError()) : OK();
}

TEST(CharacterTreeOutOfMemory, FailingOperationsLeaveTheTreesUnchangedAndLeakNothing)
{
  struct State
  {
    CharacterTreeRef root, bare;
  };
  // Sixteen children fill the first block of the list: the next insert has to grow it.
  auto setup = [] {
    State state{Node(1, false), Value(CreateObject<CharacterTreeRef>(kTreeClassId))};
    for (int i = 2; i <= 17; ++i)
      EXPECT_TRUE(state.root->InsertChildLast(Node(i, true)).IsOk());
    return state;
  };
  auto snapshot = [](const State& s) {
    return Dump(s.root) + "|" + Text(s.bare->ToString()) + std::to_string(s.bare->GetParent() != nullptr);
  };
  // Values made before the hook is armed: only the operation's own allocations may fail.
  const Uuid uuid = TaggedUuid(9, 0x7e);
  const String name = MakeString("Head");
  const std::vector<std::pair<const char*, std::function<Result<void>(State&)>>> operations{
    {"create", [&](State&) { return Discard(CharacterTreeInterface::CreateTree(uuid, name, true)); }},
    {"insert", [](State& s) { return s.root->InsertChildLast(s.bare); }},
    {"clone", [](State& s) { return Discard(s.root->GetClass()->CloneInstance(*s.root)); }},
    {"set id of a node without one", [&](State& s) { return s.bare->SetUuid(uuid); }}};
  for (const auto& [operation, run] : operations)
  {
    SCOPED_TRACE(operation);
    EXPECT_GT(SweepOutOfMemory(setup, run, snapshot), 0);
  }
}

} // namespace
