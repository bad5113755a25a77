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
  // returned and self keeps the children cloned so far. Far below the outermost copy, the
  // children are filled in by that copy once the levels above are done, so that copying never
  // recurses deeper than a fixed number of levels.
  Result<void> CloneChildrenFrom(ObjectInterface* self, const HierarchyLinks& src);

private:
  void DetachChildren();
  Result<void> CloneChildrenNow(ObjectInterface* self, const HierarchyLinks& src);

  ObjectInterface* _parent = nullptr;
  BaseArray<ObjectRef> _children;
  // While the subtree is released: the next subtree whose release waits for the outermost one.
  ObjectRef _releaseNext;
};

// What a visitor of WalkHierarchy answers for a node.
enum class WalkAnswer
{
  Continue,     // go on, below this node first
  SkipChildren, // go on with the next sibling, leaving this node's subtree out
  Stop,         // end the whole walk at once, without error
};

// Depth-first pre-order walk of start's subtree: a node is visited before its children, children
// in their stored order, a child's whole subtree before the next child. The walk never goes up.
//
// visit(const ObjectInterface* node, const ObjectInterface* parent, Int depth) returns
// Result<WalkAnswer>; start is visited at depth 0 with its own parent (nullptr for a root). Nodes
// are handed as plain objects, possibly nullptr: each caller views them through QueryInterface and
// decides what a node of another class means to it. The first error ends the walk and is
// returned; Stop ends it with success.
//
// Nothing is allocated and nothing recurses, so that no depth of tree can exhaust the stack: the
// walk climbs back through the parent links, and finds where it was among a node's children from
// a fixed array for the first levels and by a search among the siblings below them.
template <typename VISIT>
Result<void> WalkHierarchy(const ObjectInterface* start, VISIT&& visit)
{
  const auto* startLinks = QueryInterface<HierarchyObjectInterface>(start);
  const ObjectInterface* startParent = startLinks != nullptr ? startLinks->GetParent() : nullptr;
  Result<WalkAnswer> startAnswer = visit(start, startParent, Int(0));
  if (startAnswer.IsError())
    return startAnswer.GetError();
  if (startAnswer.GetValue() != WalkAnswer::Continue || startLinks == nullptr)
    return OK();

  constexpr Int kRememberedLevels = 64;
  Int nextOfLevel[kRememberedLevels];
  const ObjectInterface* node = start; // whose children are being walked
  const HierarchyObjectInterface* links = startLinks;
  Int next = 0;  // the next child of node to visit
  Int level = 0; // node's depth below start
  for (;;)
  {
    const BaseArray<ObjectRef>& children = links->GetChildren();
    if (next < children.GetCount())
    {
      const ObjectInterface* child = children[next].GetPointer();
      ++next;
      Result<WalkAnswer> answer = visit(child, node, level + 1);
      if (answer.IsError())
        return answer.GetError();
      if (answer.GetValue() == WalkAnswer::Stop)
        return OK();
      // A child that is not a hierarchy object (or a null slot) has nothing below it.
      const auto* childLinks = QueryInterface<HierarchyObjectInterface>(child);
      if (answer.GetValue() == WalkAnswer::SkipChildren || childLinks == nullptr)
        continue;
      if (level < kRememberedLevels)
        nextOfLevel[level] = next;
      node = child;
      links = childLinks;
      next = 0;
      ++level;
      continue;
    }
    if (level == 0)
      return OK();
    // node's subtree is done: back to its parent, after node among the parent's children.
    const ObjectInterface* parent = links->GetParent();
    links = QueryInterface<HierarchyObjectInterface>(parent);
    --level;
    if (level < kRememberedLevels)
      next = nextOfLevel[level];
    else
    {
      const BaseArray<ObjectRef>& siblings = links->GetChildren();
      next = 0;
      while (next < siblings.GetCount() && siblings[next].GetPointer() != node)
        ++next;
      ++next;
    }
    node = parent;
  }
}

} // namespace telvo
