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

} // namespace telvo
