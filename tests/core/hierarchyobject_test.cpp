#include "telvo/hierarchyobject.h"

#include <gtest/gtest.h>

#include <pthread.h>

#include <array>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "support/oom_sweep.h"
#include "support/values.h"

namespace telvo
{
namespace
{

constexpr const char* kUnitName = "tests/core/hierarchyobject_test";

class Node final : public ObjectImpl<Node, HierarchyObjectInterface>
{
public:
  ObjectInterface* GetParent() const override { return _links.GetParent(); }
  const BaseArray<ObjectRef>& GetChildren() const override { return _links.GetChildren(); }
  Result<void> InsertChildLast(const ObjectRef& child) override { return _links.InsertChildLast(this, child); }
  void Remove() override { _links.Remove(this); }
  HierarchyLinks& GetHierarchyLinks() override { return _links; }
  Result<void> CopyFrom(const Node& src)
  {
    label = src.label;
    return _links.CloneChildrenFrom(this, src._links);
  }
  static Result<void> DescribeIO(DataDescriber&) { return OK(); }

  Int label = 0;

private:
  HierarchyLinks _links;
};

constexpr InterfaceInfoFn kNodeInterfaces[] = {&HierarchyObjectInterface::GetInterfaceInfo};
constexpr ClassInfo kNodeClass{"net.telvo.test.class.labellednode", MakeLifecycleOperations<Node>(), nullptr,
                               "LabelledNodeImpl", nullptr, {}, kNodeInterfaces, sizeof(Node), alignof(Node),
                               &Node::ToObject};

Node* AsNode(const ObjectInterface* o) { return static_cast<Node*>(QueryInterface<HierarchyObjectInterface>(o)); }
Int LabelOf(const ObjectInterface* object) { return object != nullptr ? AsNode(object)->label : -1; }

// "label@depth<parent " per node visited (-1: none), then any error; the visit stops at, skips
// below or fails at the node of the given label (0: none).
std::string Walk(const ObjectInterface* start, Int stopAt = 0, Int skipBelow = 0, Int failAt = 0)
{
  std::string trace;
  auto visit = [&](const ObjectInterface* node, const ObjectInterface* parent, Int depth) -> Result<WalkAnswer> {
    const Int label = LabelOf(node);
    trace += std::to_string(label) + "@" + std::to_string(depth) + "<" + std::to_string(LabelOf(parent)) + " ";
    if (label == failAt)
      return TELVO_ERROR(UnexpectedError, "visit failed");
    if (label == stopAt)
      return WalkAnswer::Stop;
    return label == skipBelow ? WalkAnswer::SkipChildren : WalkAnswer::Continue;
  };
  Result<void> result = WalkHierarchy(start, visit);
  return result.IsOk() ? trace : trace + result.GetError().GetMessage();
}

// 1 ( 2 ( 4 ( 7 ), 5 ), 3 ( 6 ) ); n[0] stays null.
auto Tree()
{
  std::array<StrongRef<HierarchyObjectInterface>, 8> n;
  const Int parents[8] = {0, 0, 1, 1, 2, 2, 3, 4};
  for (Int i = 1; i < 8; ++i)
  {
    n[i] = StrongRef<HierarchyObjectInterface>(AsNode(kNodeClass.CreateInstance().GetValue().GetPointer()));
    AsNode(n[i].GetPointer())->label = i;
    EXPECT_TRUE(parents[i] == 0 || n[parents[i]]->InsertChildLast(n[i]).IsOk());
  }
  return n;
}

TEST(HierarchyWalk, ParentsBeforeChildrenAndEachSubtreeBeforeTheNextSibling)
{
  const auto n = Tree();
  // {start, stop at, skip below, fail at, trace}
  const std::tuple<Int, Int, Int, Int, const char*> cases[] = {
    {1, 0, 0, 0, "1@0<-1 2@1<1 4@2<2 7@3<4 5@2<2 3@1<1 6@2<3 "},
    {2, 0, 0, 0, "2@0<1 4@1<2 7@2<4 5@1<2 "}, // the start's real parent, nothing above it
    {1, 7, 0, 0, "1@0<-1 2@1<1 4@2<2 7@3<4 "}, // a stop deep inside ends the whole walk
    {1, 0, 2, 0, "1@0<-1 2@1<1 3@1<1 6@2<3 "}, // skips below 2
    {1, 0, 0, 4, "1@0<-1 2@1<1 4@2<2 visit failed"},
  };
  for (const auto& [start, stop, skip, fail, trace] : cases)
    EXPECT_EQ(Walk(n[start].GetPointer(), stop, skip, fail), trace);
}

TEST(HierarchyLinks, InsertRefusesCyclesAndSecondParentsAndRemoveDetaches)
{
  const Int live = Allocator::GetLiveCount();
  {
    auto n = Tree();
    kelvara_test::ExpectError(n[3]->InsertChildLast(n[4]), IllegalArgumentError,
                              "Illegal argument: the child already has a parent");
    kelvara_test::ExpectError(n[7]->InsertChildLast(n[1]), IllegalArgumentError,
                              "Illegal argument: the child is an ancestor of the parent");
    n[2]->Remove();
    EXPECT_EQ(Walk(n[1].GetPointer()), "1@0<-1 3@1<1 6@2<3 ");
    EXPECT_EQ(Walk(n[2].GetPointer()), "2@0<-1 4@1<2 7@2<4 5@1<2 ");
    // With the parent holding the only reference, removing frees the node.
    HierarchyObjectInterface* six = n[6].GetPointer();
    n[6].Reset();
    six->Remove();
    EXPECT_EQ(n[3]->GetChildren().GetCount(), 0);
    n[1].Reset(); // a parent that goes away leaves its children as roots
    EXPECT_EQ(n[3]->GetParent(), nullptr);
  }
  EXPECT_EQ(Allocator::GetLiveCount(), live); // a child does not hold its parent
}

TEST(HierarchyLinks, CloneCopiesTheWholeSubtreeWithoutTheParent)
{
  const int failures = kelvara_test::SweepAllocationFailures(
    [] { return Tree(); }, [](auto& n) { return kNodeClass.CloneInstance(*n[2]); },
    [](auto& n, const Result<ObjectRef>& clone, bool failed) {
      EXPECT_EQ(Walk(n[1].GetPointer()), "1@0<-1 2@1<1 4@2<2 7@3<4 5@2<2 3@1<1 6@2<3 ");
      ASSERT_EQ(clone.IsError(), failed);
      ASSERT_TRUE(!failed || clone.GetError().IsClass(OutOfMemoryError));
      if (failed)
        return;
      EXPECT_EQ(Walk(clone.GetValue().GetPointer()), "2@0<-1 4@1<2 7@2<4 5@1<2 ");
    });
  EXPECT_EQ(failures, 6); // four nodes and two child lists
}

StrongRef<HierarchyObjectInterface> NewNode(Int label)
{
  StrongRef<HierarchyObjectInterface> node(AsNode(kNodeClass.CreateInstance().GetValue().GetPointer()));
  AsNode(node.GetPointer())->label = label;
  return node;
}

// A chain 1, 2, ..., depth (each the only chain child of the one before) where every tenth
// chain node also has a leaf (label depth + i), in front of the chain child or behind it by
// turns. expected receives the pre-order walk as (label, depth, parent label) triples: the leaves
// behind come last, the deepest first.
StrongRef<HierarchyObjectInterface> Chain(Int depth, std::vector<std::array<Int, 3>>* expected)
{
  StrongRef<HierarchyObjectInterface> root = NewNode(1);
  StrongRef<HierarchyObjectInterface> at = root;
  std::vector<std::array<Int, 3>> behind;
  if (expected != nullptr)
    expected->push_back({1, 0, -1});
  for (Int i = 1; i <= depth; ++i)
  {
    const bool leaf = i % 10 == 0;
    const bool leafInFront = (i / 10) % 2 == 0;
    StrongRef<HierarchyObjectInterface> next = i < depth ? NewNode(i + 1) : StrongRef<HierarchyObjectInterface>();
    if (leaf && leafInFront)
    {
      EXPECT_TRUE(at->InsertChildLast(NewNode(depth + i)).IsOk());
      if (expected != nullptr)
        expected->push_back({depth + i, i, i});
    }
    if (next)
    {
      EXPECT_TRUE(at->InsertChildLast(next).IsOk());
      if (expected != nullptr)
        expected->push_back({i + 1, i, i});
    }
    if (leaf && !leafInFront)
    {
      EXPECT_TRUE(at->InsertChildLast(NewNode(depth + i)).IsOk());
      behind.push_back({depth + i, i, i});
    }
    if (next)
      at = next;
  }
  if (expected != nullptr)
    expected->insert(expected->end(), behind.rbegin(), behind.rend());
  return root;
}

std::vector<std::array<Int, 3>> WalkTriples(const ObjectInterface* start)
{
  std::vector<std::array<Int, 3>> visited;
  EXPECT_TRUE(WalkHierarchy(start, [&](const ObjectInterface* node, const ObjectInterface* parent, Int depth) {
                visited.push_back({LabelOf(node), depth, LabelOf(parent)});
                return Result<WalkAnswer>(WalkAnswer::Continue);
              }).IsOk());
  return visited;
}

// Runs work on a thread with a small stack: recursion as deep as the tree would overflow it.
void OnSmallStack(const std::function<void()>& work)
{
  pthread_attr_t attr;
  ASSERT_EQ(pthread_attr_init(&attr), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&attr, 1 << 20), 0);
  pthread_t thread;
  auto call = [](void* w) -> void* {
    (*static_cast<const std::function<void()>*>(w))();
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, &attr, call, const_cast<std::function<void()>*>(&work)), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attr);
}

TEST(HierarchyLinks, TreesOfAnyDepthAreBuiltWalkedCopiedAndReleasedOnASmallStack)
{
  const Int live = Allocator::GetLiveCount();
  OnSmallStack([] {
    // Deep enough that a stack frame per level, at any size, ends the thread.
    constexpr Int kDepth = 200000;
    std::vector<std::array<Int, 3>> expected;
    StrongRef<HierarchyObjectInterface> root = Chain(kDepth, &expected);
    EXPECT_EQ(WalkTriples(root.GetPointer()), expected);
    Result<ObjectRef> clone = kNodeClass.CloneInstance(*root);
    ASSERT_TRUE(clone.IsOk());
    EXPECT_EQ(WalkTriples(clone.GetValue().GetPointer()), expected);
    // Releasing the original leaves the copy whole: it shares nothing.
    root.Reset();
    EXPECT_EQ(WalkTriples(clone.GetValue().GetPointer()), expected);
  });
  EXPECT_EQ(Allocator::GetLiveCount(), live);
}

TEST(HierarchyLinks, CopyOfADeepTreeFailsCleanlyWhereverMemoryRunsOut)
{
  // Deeper than the levels copied at once, so that failures hit the subtrees copied later too.
  std::vector<std::array<Int, 3>> expected;
  (void)Chain(150, &expected);
  const int failures = kelvara_test::SweepAllocationFailures(
    [] { return Chain(150, nullptr); }, [](auto& root) { return kNodeClass.CloneInstance(*root); },
    [&](auto& root, const Result<ObjectRef>& clone, bool failed) {
      ASSERT_EQ(clone.IsError(), failed);
      ASSERT_TRUE(!failed || clone.GetError().IsClass(OutOfMemoryError));
      EXPECT_EQ(WalkTriples(root.GetPointer()), expected);
      if (!failed)
      {
        EXPECT_EQ(WalkTriples(clone.GetValue().GetPointer()), expected);
      }
    });
  // Every node (165), every non-empty child list (150) and the list of subtrees left waiting.
  EXPECT_EQ(failures, 165 + 150 + 1);
}

} // namespace
} // namespace telvo
