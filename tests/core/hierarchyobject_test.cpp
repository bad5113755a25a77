#include "telvo/hierarchyobject.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "support/oom_sweep.h"
#include "telvo/registrybase.h"

namespace telvo
{
namespace
{

constexpr const char* kUnitName = "tests/core/hierarchyobject_test";
constexpr const char* kNodeClassId = "net.telvo.test.class.labellednode";

// A hierarchy node carrying one number, so that walks and clones can be read back.
class LabelledNodeInterface : public HierarchyObjectInterface
{
public:
  using Bases = InterfaceList<HierarchyObjectInterface>;
  TELVO_INTERFACE_INFO("net.telvo.test.interface.labellednode", "telvo.LabelledNodeInterface",
                       "tests/core/hierarchyobject_test.cpp", "GetLabel", "SetLabel")

  virtual Int GetLabel() const = 0;
  virtual void SetLabel(Int label) = 0;
};
using NodeRef = StrongRef<LabelledNodeInterface>;

class LabelledNode final : public ObjectImpl<LabelledNode, LabelledNodeInterface>
{
public:
  ObjectInterface* GetParent() const override { return _links.GetParent(); }
  const BaseArray<ObjectRef>& GetChildren() const override { return _links.GetChildren(); }
  Result<void> InsertChildLast(const ObjectRef& child) override { return _links.InsertChildLast(this, child); }
  void Remove() override { _links.Remove(this); }
  HierarchyLinks& GetHierarchyLinks() override { return _links; }

  Int GetLabel() const override { return _label; }
  void SetLabel(Int label) override { _label = label; }

  Result<void> CopyFrom(const LabelledNode& src)
  {
    _label = src._label;
    return _links.CloneChildrenFrom(this, src._links);
  }
  static Result<void> DescribeIO(DataDescriber&) { return OK(); }

private:
  HierarchyLinks _links;
  Int _label = 0;
};

constexpr InterfaceInfoFn kNodeInterfaces[] = {&LabelledNodeInterface::GetInterfaceInfo};
constexpr ClassInfo kNodeClass{kNodeClassId,
                               MakeLifecycleOperations<LabelledNode>(),
                               nullptr,
                               "LabelledNodeImpl",
                               nullptr,
                               {},
                               kNodeInterfaces,
                               sizeof(LabelledNode),
                               alignof(LabelledNode),
                               &LabelledNode::ToObject};

NodeRef MakeNode(Int label)
{
  static const bool registered = [] {
    std::string why;
    return Registry::Get().RegisterClass(kNodeClass, "tests/core/hierarchyobject_test", why);
  }();
  EXPECT_TRUE(registered);
  NodeRef node = CreateObject<NodeRef>(kNodeClassId).GetValue();
  node->SetLabel(label);
  return node;
}

Int LabelOf(const ObjectInterface* object)
{
  const auto* node = QueryInterface<LabelledNodeInterface>(object);
  return node != nullptr ? node->GetLabel() : -1;
}

// "label@depth<parent" for each node in walk order; the parent is -1 when there is none.
// stopAt, skipBelow and failAt name a label; 0 is no node.
std::string Walk(const ObjectInterface* start, Int stopAt = 0, Int skipBelow = 0, Int failAt = 0,
                 Result<void>* outcome = nullptr)
{
  std::string trace;
  Result<void> result =
    WalkHierarchy(start, [&](const ObjectInterface* node, const ObjectInterface* parent, Int depth) -> Result<WalkAnswer> {
      const Int label = LabelOf(node);
      trace += std::to_string(label) + "@" + std::to_string(depth) + "<" + std::to_string(LabelOf(parent)) + " ";
      if (label == failAt)
        return TELVO_ERROR(UnexpectedError, "visit failed");
      if (label == stopAt)
        return WalkAnswer::Stop;
      return label == skipBelow ? WalkAnswer::SkipChildren : WalkAnswer::Continue;
    });
  if (outcome != nullptr)
    *outcome = result;
  else
    EXPECT_TRUE(result.IsOk());
  return trace;
}

// 1 ( 2 ( 4 ( 7 ), 5 ), 3 ( 6 ) )
struct Tree
{
  NodeRef n[8];
  Tree()
  {
    const Int parents[8] = {0, 0, 1, 1, 2, 2, 3, 4};
    for (Int i = 1; i < 8; ++i)
    {
      n[i] = MakeNode(i);
      if (parents[i] != 0)
      {
        EXPECT_TRUE(n[parents[i]]->InsertChildLast(n[i]).IsOk());
      }
    }
  }
};

std::string Walk(const NodeRef& start) { return Walk(start.GetPointer()); }
ObjectInterface* Object(const NodeRef& node) { return node.GetPointer(); }

TEST(HierarchyWalkTest, ParentsBeforeChildrenAndEachSubtreeBeforeTheNextSibling)
{
  Tree t;
  Result<void> outcome;
  // {start, stop at, skip below, fail at, trace}
  const std::tuple<Int, Int, Int, Int, const char*> cases[] = {
    {1, 0, 0, 0, "1@0<-1 2@1<1 4@2<2 7@3<4 5@2<2 3@1<1 6@2<3 "},
    // A walk from an inner node stays below it, and hands the start its real parent.
    {2, 0, 0, 0, "2@0<1 4@1<2 7@2<4 5@1<2 "},
    {7, 0, 0, 0, "7@0<4 "},
    // Stopping deep inside the first branch visits nothing of the second.
    {1, 7, 0, 0, "1@0<-1 2@1<1 4@2<2 7@3<4 "},
    {1, 1, 0, 0, "1@0<-1 "},
    {1, 0, 2, 0, "1@0<-1 2@1<1 3@1<1 6@2<3 "},
    {1, 0, 1, 0, "1@0<-1 "},
    {1, 0, 0, 4, "1@0<-1 2@1<1 4@2<2 "},
  };
  for (const auto& [start, stop, skip, fail, trace] : cases)
  {
    SCOPED_TRACE(trace);
    EXPECT_EQ(Walk(t.n[start].GetPointer(), stop, skip, fail, &outcome), trace);
    EXPECT_EQ(outcome.IsError(), fail != 0);
  }
  // The first error ends the walk and is returned as it was made.
  EXPECT_STREQ(outcome.GetError().GetMessage(), "visit failed");
  EXPECT_STREQ(outcome.GetError().GetUnit(), kUnitName);
  // A null start is visited once, with nothing below.
  EXPECT_EQ(Walk(nullptr), "-1@0<-1 ");
}

TEST(HierarchyLinksTest, InsertKeepsOrderAndRefusesCyclesAndSecondParents)
{
  Tree t;
  ASSERT_EQ(t.n[2]->GetChildren().GetCount(), 2);
  EXPECT_EQ(t.n[2]->GetChildren()[0].GetPointer(), Object(t.n[4]));
  EXPECT_EQ(t.n[2]->GetChildren()[1].GetPointer(), Object(t.n[5]));
  EXPECT_EQ(t.n[4]->GetParent(), Object(t.n[2]));
  // The parent holds its children; a child does not hold its parent.
  EXPECT_EQ(t.n[4]->GetReferenceCount(), 2);
  EXPECT_EQ(t.n[1]->GetReferenceCount(), 1);

  const std::string before = Walk(t.n[1]);
  const std::pair<Result<void>, const char*> refusals[] = {
    {t.n[3]->InsertChildLast(t.n[4]), "Illegal argument: the child already has a parent"},
    {t.n[7]->InsertChildLast(t.n[1]), "Illegal argument: the child is an ancestor of the parent"},
    {t.n[1]->InsertChildLast(t.n[1]), "Illegal argument: the child is an ancestor of the parent"},
  };
  for (const auto& [result, message] : refusals)
  {
    ASSERT_TRUE(result.IsError());
    EXPECT_TRUE(result.GetError().IsClass(IllegalArgumentError));
    EXPECT_STREQ(result.GetError().GetMessage(), message);
  }
  EXPECT_EQ(Walk(t.n[1]), before);
}

TEST(HierarchyLinksTest, RemoveDetachesAndMayReleaseTheLastReference)
{
  const Int liveBefore = Allocator::GetLiveCount();
  {
    Tree t;
    t.n[2]->Remove();
    EXPECT_EQ(Walk(t.n[1]), "1@0<-1 3@1<1 6@2<3 ");
    EXPECT_EQ(Walk(t.n[2]), "2@0<-1 4@1<2 7@2<4 5@1<2 ");
    EXPECT_EQ(t.n[2]->GetReferenceCount(), 1);
    t.n[2]->Remove(); // a root has nothing to leave

    // With the parent holding the only reference, removing frees the node and its subtree.
    ObjectInterface* six = t.n[6].GetPointer();
    t.n[6].Reset();
    QueryInterface<LabelledNodeInterface>(six)->Remove();
    EXPECT_EQ(t.n[3]->GetChildren().GetCount(), 0);

    // A parent that goes away leaves its children as roots.
    t.n[1].Reset();
    EXPECT_EQ(t.n[3]->GetParent(), nullptr);
  }
  EXPECT_EQ(Allocator::GetLiveCount(), liveBefore);
}

NodeRef AsNode(const ObjectRef& object) { return NodeRef(QueryInterface<LabelledNodeInterface>(object.GetPointer())); }

TEST(HierarchyLinksTest, CloneCopiesTheWholeSubtreeWithoutTheParent)
{
  Tree t;
  NodeRef copy = AsNode(kNodeClass.CloneInstance(*t.n[2]).GetValue());
  EXPECT_EQ(Walk(copy), "2@0<-1 4@1<2 7@2<4 5@1<2 ");
  // New nodes, linked to each other and not to the source.
  const auto* first = QueryInterface<LabelledNodeInterface>(copy->GetChildren()[0].GetPointer());
  EXPECT_NE(first, t.n[4].GetPointer());
  EXPECT_EQ(first->GetParent(), Object(copy));
  EXPECT_EQ(first->GetChildren()[0]->GetReferenceCount(), 1);
  EXPECT_EQ(t.n[4]->GetChildren().GetCount(), 1);
  EXPECT_EQ(t.n[2]->GetParent(), Object(t.n[1]));
}

TEST(HierarchyLinksTest, CloneRunsOutOfMemoryWithoutLeaking)
{
  const char* whole = "1@0<-1 2@1<1 4@2<2 7@3<4 5@2<2 3@1<1 6@2<3 ";
  kelvara_test::SweepAllocationFailures(
    [] { return Tree(); }, [](Tree& t) { return kNodeClass.CloneInstance(*t.n[1]); },
    [&](Tree& t, const Result<ObjectRef>& clone, bool failed) {
      ASSERT_EQ(clone.IsError(), failed);
      if (failed)
        EXPECT_TRUE(clone.GetError().IsClass(OutOfMemoryError));
      else
        EXPECT_EQ(Walk(AsNode(clone.GetValue())), whole);
      EXPECT_EQ(Walk(t.n[1]), whole);
    });
}

} // namespace
} // namespace telvo
