#include "telvo/hierarchyobject.h"

#include <gtest/gtest.h>

#include <string>

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

void Insert(const NodeRef& parent, const NodeRef& child)
{
  ASSERT_TRUE(parent->InsertChildLast(child).IsOk());
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
    for (Int i = 1; i < 8; ++i)
      n[i] = MakeNode(i);
    Insert(n[1], n[2]);
    Insert(n[1], n[3]);
    Insert(n[2], n[4]);
    Insert(n[2], n[5]);
    Insert(n[3], n[6]);
    Insert(n[4], n[7]);
  }
};

std::string Labels(const NodeRef& root)
{
  std::string labels;
  EXPECT_TRUE(WalkHierarchy(root.GetPointer(), [&](const ObjectInterface* node, const ObjectInterface*, Int depth) {
                labels += std::to_string(LabelOf(node)) + "@" + std::to_string(depth) + " ";
                return Result<WalkAnswer>(WalkAnswer::Continue);
              }).IsOk());
  return labels;
}

TEST(HierarchyWalkTest, VisitsParentsBeforeChildrenAndEachSubtreeBeforeTheNextSibling)
{
  Tree t;
  EXPECT_EQ(Walk(t.n[1].GetPointer()), "1@0<-1 2@1<1 4@2<2 7@3<4 5@2<2 3@1<1 6@2<3 ");
  // A walk from an inner node stays below it, and hands the start its real parent.
  EXPECT_EQ(Walk(t.n[2].GetPointer()), "2@0<1 4@1<2 7@2<4 5@1<2 ");
  EXPECT_EQ(Walk(t.n[7].GetPointer()), "7@0<4 ");
}

TEST(HierarchyWalkTest, StopEndsTheWholeWalkAndSkipLeavesOneSubtreeOut)
{
  Tree t;
  // Stopping deep inside the first branch visits nothing of the second.
  EXPECT_EQ(Walk(t.n[1].GetPointer(), 7), "1@0<-1 2@1<1 4@2<2 7@3<4 ");
  EXPECT_EQ(Walk(t.n[1].GetPointer(), 1), "1@0<-1 ");
  EXPECT_EQ(Walk(t.n[1].GetPointer(), 0, 2), "1@0<-1 2@1<1 3@1<1 6@2<3 ");
  EXPECT_EQ(Walk(t.n[1].GetPointer(), 0, 1), "1@0<-1 ");
}

TEST(HierarchyWalkTest, FirstErrorEndsTheWalkAndIsReturned)
{
  Tree t;
  Result<void> outcome;
  EXPECT_EQ(Walk(t.n[1].GetPointer(), 0, 0, 4, &outcome), "1@0<-1 2@1<1 4@2<2 ");
  ASSERT_TRUE(outcome.IsError());
  EXPECT_STREQ(outcome.GetError().GetMessage(), "visit failed");
  EXPECT_STREQ(outcome.GetError().GetUnit(), kUnitName);
}

TEST(HierarchyWalkTest, NullStartIsVisitedOnceWithNothingBelow)
{
  EXPECT_EQ(Walk(nullptr), "-1@0<-1 ");
}

TEST(HierarchyLinksTest, InsertKeepsOrderAndParentLinks)
{
  NodeRef root = MakeNode(1);
  NodeRef a = MakeNode(2);
  NodeRef b = MakeNode(3);
  Insert(root, a);
  Insert(root, b);
  ASSERT_EQ(root->GetChildren().GetCount(), 2);
  EXPECT_EQ(root->GetChildren()[0].GetPointer(), static_cast<ObjectInterface*>(a.GetPointer()));
  EXPECT_EQ(root->GetChildren()[1].GetPointer(), static_cast<ObjectInterface*>(b.GetPointer()));
  EXPECT_EQ(a->GetParent(), static_cast<ObjectInterface*>(root.GetPointer()));
  EXPECT_EQ(root->GetParent(), nullptr);
  // The parent holds its children; a child does not hold its parent.
  EXPECT_EQ(a->GetReferenceCount(), 2);
  EXPECT_EQ(root->GetReferenceCount(), 1);
}

TEST(HierarchyLinksTest, RefusesACycleAndAChildThatHasAParent)
{
  Tree t;
  const std::string before = Labels(t.n[1]);

  Result<void> again = t.n[3]->InsertChildLast(t.n[4]);
  ASSERT_TRUE(again.IsError());
  EXPECT_TRUE(again.GetError().IsClass(IllegalArgumentError));
  EXPECT_STREQ(again.GetError().GetMessage(), "Illegal argument: the child already has a parent");

  Result<void> cycle = t.n[7]->InsertChildLast(t.n[1]);
  ASSERT_TRUE(cycle.IsError());
  EXPECT_STREQ(cycle.GetError().GetMessage(), "Illegal argument: the child is an ancestor of the parent");
  Result<void> self = t.n[1]->InsertChildLast(t.n[1]);
  ASSERT_TRUE(self.IsError());
  EXPECT_STREQ(self.GetError().GetMessage(), "Illegal argument: the child is an ancestor of the parent");

  EXPECT_EQ(Labels(t.n[1]), before);
  EXPECT_EQ(t.n[1]->GetParent(), nullptr);
  EXPECT_EQ(t.n[4]->GetParent(), static_cast<ObjectInterface*>(t.n[2].GetPointer()));
}

TEST(HierarchyLinksTest, RemoveDetachesAndMayReleaseTheLastReference)
{
  const Int liveBefore = Allocator::GetLiveCount();
  {
    Tree t;
    t.n[2]->Remove();
    EXPECT_EQ(t.n[2]->GetParent(), nullptr);
    EXPECT_EQ(Labels(t.n[1]), "1@0 3@1 6@2 ");
    EXPECT_EQ(Labels(t.n[2]), "2@0 4@1 7@2 5@1 ");
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

TEST(HierarchyLinksTest, CloneCopiesTheWholeSubtreeWithoutTheParent)
{
  Tree t;
  Result<ObjectRef> clone = kNodeClass.CloneInstance(*t.n[2]);
  ASSERT_TRUE(clone.IsOk());
  NodeRef copy(QueryInterface<LabelledNodeInterface>(clone.GetValue().GetPointer()));
  EXPECT_EQ(copy->GetParent(), nullptr);
  EXPECT_EQ(Labels(copy), Labels(t.n[2]));

  // New nodes, linked to each other and not to the source.
  const auto* first = QueryInterface<LabelledNodeInterface>(copy->GetChildren()[0].GetPointer());
  EXPECT_NE(first, t.n[4].GetPointer());
  EXPECT_EQ(first->GetParent(), static_cast<ObjectInterface*>(copy.GetPointer()));
  EXPECT_EQ(first->GetChildren()[0]->GetReferenceCount(), 1);
  EXPECT_EQ(t.n[4]->GetChildren().GetCount(), 1);
  EXPECT_EQ(t.n[2]->GetParent(), static_cast<ObjectInterface*>(t.n[1].GetPointer()));
}

TEST(HierarchyLinksTest, CloneRunsOutOfMemoryWithoutLeaking)
{
  kelvara_test::SweepAllocationFailures(
    [] { return Tree(); },
    [](Tree& t) { return kNodeClass.CloneInstance(*t.n[1]); },
    [](Tree& t, const Result<ObjectRef>& clone, bool failed) {
      if (failed)
      {
        ASSERT_TRUE(clone.IsError());
        EXPECT_TRUE(clone.GetError().IsClass(OutOfMemoryError));
      }
      else
      {
        ASSERT_TRUE(clone.IsOk());
        EXPECT_EQ(Labels(NodeRef(QueryInterface<LabelledNodeInterface>(clone.GetValue().GetPointer()))),
                  Labels(t.n[1]));
      }
      EXPECT_EQ(Labels(t.n[1]), "1@0 2@1 4@2 7@3 5@2 3@1 6@2 ");
    });
}

} // namespace
} // namespace telvo
