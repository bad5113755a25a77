// Hierarchy objects: a parent link and an ordered list of children, kept by the framework.
//
// A parent holds its children (shared references); a child knows its parent without holding it.
// Classes only walk the links; inserting and removing are the operations below.
#pragma once

#include "telvo/array.h"
#include "telvo/objectbase.h"

namespace telvo
{

class TELVO_API HierarchyObjectInterface : public virtual ObjectInterface
{
public:
  using Bases = InterfaceList<ObjectInterface>;
  TELVO_INTERFACE_INFO("net.telvo.interface.hierarchyobject", "telvo.HierarchyObjectInterface",
                       "telvo/hierarchyobject.h", "GetParent", "GetChildren", "InsertChildLast", "Remove")

  // The parent, not owned; nullptr for a root.
  virtual ObjectInterface* GetParent() const = 0;
  // The children in their order.
  virtual const BaseArray<ObjectRef>& GetChildren() const = 0;
  // Appends a child. The child must be a hierarchy object without a parent and must not be this
  // object or one of its ancestors (IllegalArgumentError); OutOfMemoryError when the list cannot
  // grow. The hierarchy is unchanged on failure.
  virtual Result<void> InsertChildLast(const ObjectRef& child) = 0;
  // Detaches this object from its parent (the parent releases it).
  virtual void Remove() = 0;

  // The links themselves, for the hierarchy operations of parents and children; not for callers.
  virtual class HierarchyLinks& GetHierarchyLinks() = 0;
};

// The links of one hierarchy object, with the operations of the interface. Implementations hold
// one and forward to it, passing the object they belong to.
class TELVO_API HierarchyLinks
{
public:
  HierarchyLinks() = default;
  ~HierarchyLinks();
  HierarchyLinks(const HierarchyLinks&) = delete;
  HierarchyLinks& operator=(const HierarchyLinks&) = delete;

  ObjectInterface* GetParent() const { return _parent; }
  const BaseArray<ObjectRef>& GetChildren() const { return _children; }
  Result<void> InsertChildLast(ObjectInterface* self, const ObjectRef& child);
  void Remove(ObjectInterface* self);

  // Makes self's children clones of src's children, each with its whole subtree (a hierarchy
  // object is copied with everything below it; the copy has no parent). On failure the error is
  // returned and self keeps the children cloned so far.
  Result<void> CloneChildrenFrom(ObjectInterface* self, const HierarchyLinks& src);

private:
  void DetachChildren();

  ObjectInterface* _parent = nullptr;
  BaseArray<ObjectRef> _children;
};

// What a visitor of WalkHierarchy answers for a node.
enum class WalkAnswer
{
  Continue,     // go on, below this node first
  SkipChildren, // go on with the next sibling, leaving this node's subtree out
  Stop,         // end the whole walk at once, without error
};

namespace hierarchy_detail
{
template <typename VISIT>
Result<void> WalkChildren(const ObjectInterface* node, Int depth, VISIT& visit, Bool& stopped)
{
  // A node that is not a hierarchy object (or a null slot) has nothing below it.
  const auto* links = QueryInterface<HierarchyObjectInterface>(node);
  if (links == nullptr)
    return OK();
  for (const ObjectRef& child : links->GetChildren())
  {
    Result<WalkAnswer> answer = visit(static_cast<const ObjectInterface*>(child.GetPointer()), node, depth);
    if (answer.IsError())
      return answer.GetError();
    if (answer.GetValue() == WalkAnswer::Stop)
    {
      stopped = true;
      return OK();
    }
    if (answer.GetValue() == WalkAnswer::SkipChildren)
      continue;
    TELVO_TRY(WalkChildren(child.GetPointer(), depth + 1, visit, stopped));
    if (stopped)
      return OK();
  }
  return OK();
}
} // namespace hierarchy_detail

// Depth-first pre-order walk of start's subtree: a node is visited before its children, children
// in their stored order, a child's whole subtree before the next child. The walk never goes up.
//
// visit(const ObjectInterface* node, const ObjectInterface* parent, Int depth) returns
// Result<WalkAnswer>; start is visited at depth 0 with its own parent (nullptr for a root). Nodes
// are handed as plain objects, possibly nullptr: each caller views them through QueryInterface and
// decides what a node of another class means to it. The first error ends the walk and is
// returned; Stop ends it with success. Nothing is allocated: the recursion is as deep as the tree.
template <typename VISIT>
Result<void> WalkHierarchy(const ObjectInterface* start, VISIT&& visit)
{
  const auto* links = QueryInterface<HierarchyObjectInterface>(start);
  const ObjectInterface* parent = links != nullptr ? links->GetParent() : nullptr;
  Result<WalkAnswer> answer = visit(start, parent, Int(0));
  if (answer.IsError())
    return answer.GetError();
  if (answer.GetValue() != WalkAnswer::Continue)
    return OK();
  Bool stopped = false;
  return hierarchy_detail::WalkChildren(start, 1, visit, stopped);
}

} // namespace telvo
