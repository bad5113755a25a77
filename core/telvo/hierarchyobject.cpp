#include "telvo/hierarchyobject.h"

namespace telvo
{

namespace
{
constexpr const char* kUnitName = "telvo/hierarchyobject";
}

HierarchyLinks::~HierarchyLinks()
{
  DetachChildren();
}

void HierarchyLinks::DetachChildren()
{
  for (const ObjectRef& child : _children)
    if (auto* node = QueryInterface<HierarchyObjectInterface>(child.GetPointer()))
      node->GetHierarchyLinks()._parent = nullptr;
  _children.Flush();
}

Result<void> HierarchyLinks::InsertChildLast(ObjectInterface* self, const ObjectRef& child)
{
  auto* node = QueryInterface<HierarchyObjectInterface>(child.GetPointer());
  if (node == nullptr)
    return TELVO_ERROR(IllegalArgumentError, "Illegal argument: the child is not a hierarchy object");
  if (node->GetParent() != nullptr)
    return TELVO_ERROR(IllegalArgumentError, "Illegal argument: the child already has a parent");
  for (ObjectInterface* ancestor = self; ancestor != nullptr;)
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
  TELVO_TRY(_children.EnsureCapacity(src._children.GetCount()));
  for (const ObjectRef& child : src._children)
  {
    Result<ObjectRef> clone = child->GetClass()->CloneInstance(*child);
    if (clone.IsError())
      return clone.GetError();
    TELVO_TRY(InsertChildLast(self, clone.GetValue()));
  }
  return OK();
}

} // namespace telvo
