#include "telvo/hierarchyobject.h"

namespace telvo
{

namespace
{
constexpr const char* kUnitName = "telvo/hierarchyobject";

// Releasing a node releases its children from within its destructor, and copying one copies its
// children from within its copy: beyond these many levels the work waits for the outermost call
// instead, so that a tree of any depth is released and copied on a bounded stack.
constexpr int kNestedLevels = 64;

thread_local int t_releaseLevel = 0;
thread_local bool t_releasing = false;
thread_local ObjectRef t_releaseWaiting; // a list through HierarchyLinks::_releaseNext

struct WaitingCopy
{
  ObjectRef self;
  const HierarchyLinks* src;
};
thread_local int t_copyLevel = 0;
thread_local bool t_copying = false;
thread_local BaseArray<WaitingCopy> t_copyWaiting;

HierarchyLinks& LinksOf(const ObjectRef& node)
{
  return QueryInterface<HierarchyObjectInterface>(node.GetPointer())->GetHierarchyLinks();
}
} // namespace

HierarchyLinks::~HierarchyLinks()
{
  DetachChildren();
}

void HierarchyLinks::DetachChildren()
{
  ++t_releaseLevel;
  for (ObjectRef& child : _children)
    if (auto* node = QueryInterface<HierarchyObjectInterface>(child.GetPointer()))
    {
      node->GetHierarchyLinks()._parent = nullptr;
      if (t_releaseLevel > kNestedLevels)
      {
        node->GetHierarchyLinks()._releaseNext = std::move(t_releaseWaiting);
        t_releaseWaiting = std::move(child);
      }
    }
  _children.Flush();
  --t_releaseLevel;
  if (t_releaseLevel > 0 || t_releasing)
    return;
  t_releasing = true;
  while (t_releaseWaiting)
  {
    ObjectRef waiting = std::move(t_releaseWaiting);
    t_releaseWaiting = std::move(LinksOf(waiting)._releaseNext);
    waiting.Reset();
  }
  t_releasing = false;
}

Result<void> HierarchyLinks::InsertChildLast(ObjectInterface* self, const ObjectRef& child)
{
  auto* node = QueryInterface<HierarchyObjectInterface>(child.GetPointer());
  if (node == nullptr)
    return TELVO_ERROR(IllegalArgumentError, "Illegal argument: the child is not a hierarchy object");
  if (node->GetParent() != nullptr)
    return TELVO_ERROR(IllegalArgumentError, "Illegal argument: the child already has a parent");
  if (child.GetPointer() == self)
    return TELVO_ERROR(IllegalArgumentError, "Illegal argument: the child is an ancestor of the parent");
  // Only a node with children can be an ancestor of another: a tree built from the top down
  // inserts leaves and never climbs.
  for (ObjectInterface* ancestor = self; ancestor != nullptr && !node->GetChildren().IsEmpty();)
  {
    if (ancestor == child.GetPointer())
      return TELVO_ERROR(IllegalArgumentError, "Illegal argument: the child is an ancestor of the parent");
    auto* up = QueryInterface<HierarchyObjectInterface>(ancestor);
    ancestor = up != nullptr ? up->GetParent() : nullptr;
  }
  TELVO_TRY(_children.Append(child));
  node->GetHierarchyLinks()._parent = self;
  return OK();
}

void HierarchyLinks::Remove(ObjectInterface* self)
{
  auto* parent = QueryInterface<HierarchyObjectInterface>(_parent);
  if (parent == nullptr)
    return;
  // The parent's list may hold the last reference: keep self alive until the links are cut.
  ObjectRef keep(self);
  BaseArray<ObjectRef>& siblings = parent->GetHierarchyLinks()._children;
  for (Int i = 0; i < siblings.GetCount(); ++i)
  {
    if (siblings[i].GetPointer() == self)
    {
      siblings.Erase(i);
      break;
    }
  }
  _parent = nullptr;
}

Result<void> HierarchyLinks::CloneChildrenFrom(ObjectInterface* self, const HierarchyLinks& src)
{
  if (&src == this)
    return OK();
  DetachChildren();
  if (t_copyLevel >= kNestedLevels)
    return t_copyWaiting.Append(WaitingCopy{ObjectRef(self), &src});
  ++t_copyLevel;
  Result<void> copied = CloneChildrenNow(self, src);
  --t_copyLevel;
  if (t_copyLevel > 0 || t_copying)
    return copied;
  // The outermost copy: the subtrees left waiting, deepest last, until none is left. Their
  // sources stay alive: they are in the subtree this copy was asked for.
  t_copying = true;
  while (copied.IsOk() && !t_copyWaiting.IsEmpty())
  {
    WaitingCopy waiting = std::move(t_copyWaiting[t_copyWaiting.GetCount() - 1]);
    t_copyWaiting.Erase(t_copyWaiting.GetCount() - 1);
    t_copyLevel = 1;
    copied = LinksOf(waiting.self).CloneChildrenNow(waiting.self.GetPointer(), *waiting.src);
    t_copyLevel = 0;
  }
  t_copyWaiting.Flush();
  t_copying = false;
  return copied;
}

Result<void> HierarchyLinks::CloneChildrenNow(ObjectInterface* self, const HierarchyLinks& src)
{
  TELVO_TRY(_children.EnsureCapacity(src._children.GetCount()));
  for (const ObjectRef& child : src._children)
  {
    Result<ObjectRef> clone = child->GetClass()->CloneInstance(*child);
    if (clone.IsError())
      return clone.GetError();
    // A fresh copy cannot be an ancestor of self: linked without the checks.
    TELVO_TRY(_children.Append(clone.GetValue()));
    LinksOf(clone.GetValue())._parent = self;
  }
  return OK();
}

} // namespace telvo
