// CharacterTree: one node of a character's skeleton hierarchy. A tree node is a hierarchy object
// (parent and ordered children, kept by the framework), an observer object and a node info (the
// scene node it stands for), plus a flag saying whether it is a transform node.
#pragma once

#include "telvo/characternodeinfo.h"
#include "telvo/hierarchyobject.h"
#include "telvo/observerobject.h"

namespace telvo
{

class CharacterTreeInterface;
// Shared reference: tree nodes are changed in place, visible to every holder.
using CharacterTreeRef = StrongRef<CharacterTreeInterface>;

class CharacterTreeInterface : public ObserverObjectInterface,
                               public HierarchyObjectInterface,
                               public CharacterNodeInfoInterface
{
public:
  using Bases = InterfaceList<ObserverObjectInterface, HierarchyObjectInterface, CharacterNodeInfoInterface>;
  TELVO_INTERFACE_INFO("net.telvo.animation.interface.charactertree", "telvo.CharacterTreeInterface",
                       "telvo/charactertree.h", "IsTransformNode", "SetTransformNode", "GetHiearchyCount",
                       "ToString")

  // The observer's name is the node's name.
  using CharacterNodeInfoInterface::GetName;
  using CharacterNodeInfoInterface::SetName;

  // True for a node that carries a transform (a joint or controller), false for a grouping node.
  virtual Bool IsTransformNode() const = 0;
  virtual void SetTransformNode(Bool isTransformNode) = 0;
  // Nodes in this node's subtree, itself included, depth first; with onlyTransformNodes only the
  // transform nodes count (grouping nodes are still descended into). The misspelt name is the
  // interface's own and is kept.
  virtual Result<Int> GetHiearchyCount(Bool onlyTransformNodes) const = 0;
  // The node-info lines and "Is Transform Node : <flag>\n"; children are not printed.
  String ToString(const FormatStatement* formatStatement = nullptr) const override = 0;

  static Result<CharacterTreeRef> CreateTree(const Uuid& uuid, const String& name, Bool isTransformNode)
  {
    return CallCreateEntry<decltype(CreateTree)>("CharacterTreeImpl", uuid, name, isTransformNode);
  }
  static Result<void> DescribeIO(DataDescriber& describer) { return CallDescribeEntry("CharacterTreeImpl", describer); }
};

} // namespace telvo
