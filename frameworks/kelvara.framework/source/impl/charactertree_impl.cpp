#include "impl/characternodeinfo_impl.h"
#include "telvo/charactertree.h"

namespace telvo::kelvara
{

namespace
{

constexpr const char* kUnitName = "source/impl/charactertree_impl";
constexpr const char* kTreeClassId = "net.telvo.animation.class.charactertree";
constexpr const char* kTreeImplementation = "CharacterTreeImpl";

// A skeleton node: node info (the scene node it stands for), the transform-node flag, and the
// hierarchy links that the framework's hierarchy operations keep.
class CharacterTreeImpl final
  : public ObjectImpl<CharacterTreeImpl, CharacterNodeInfoComponent<CharacterTreeInterface>>
{
public:
  ObjectInterface* GetParent() const override { return _links.GetParent(); }
  const BaseArray<ObjectRef>& GetChildren() const override { return _links.GetChildren(); }
  Result<void> InsertChildLast(const ObjectRef& child) override { return _links.InsertChildLast(this, child); }
  void Remove() override { _links.Remove(this); }
  HierarchyLinks& GetHierarchyLinks() override { return _links; }

  Bool IsTransformNode() const override { return _isTransformNode; }
  void SetTransformNode(Bool isTransformNode) override { _isTransformNode = isTransformNode; }

  Result<Int> GetHiearchyCount(Bool onlyTransformNodes) const override
  {
    Int count = 0;
    TELVO_TRY(WalkHierarchy(this, [&](const ObjectInterface* node, const ObjectInterface*, Int) -> Result<WalkAnswer> {
      const CharacterTreeInterface* tree = telvo::QueryInterface<CharacterTreeInterface>(node);
      if (!onlyTransformNodes || (tree != nullptr && tree->IsTransformNode()))
        ++count;
      // A node that is not a tree has no tree children to enumerate: the count fails.
      if (tree == nullptr)
        return NullReturnError(0);
      return WalkAnswer::Continue;
    }));
    return count;
  }

  String ToString(const FormatStatement* formatStatement = nullptr) const override
  {
    String result;
    if (const CharacterNodeInfoPart* info = FindNodeInfoPart(this))
      AppendPiece(result, Result<String>(info->ToString(formatStatement)));
    // A flag always prints: an empty text found no memory, and its line is dropped.
    AppendHandleLine(result, "Is Transform Node : ", String::BoolToString(_isTransformNode), false);
    return result;
  }

  static Result<CharacterTreeRef> CreateTree(const Uuid& uuid, const String& name, Bool isTransformNode)
  {
    TELVO_TRY_ASSIGN(CharacterTreeRef tree, NewInstance<CharacterTreeRef>(kTreeClassId));
    TELVO_TRY_ASSIGN(CharacterTreeInterface * writable, WritableForFactory(tree));
    TELVO_TRY(writable->SetUuid(uuid));
    TELVO_TRY_ASSIGN(writable, WritableForFactory(tree));
    TELVO_TRY(writable->SetName(name));
    TELVO_TRY_ASSIGN(writable, WritableForFactory(tree));
    writable->SetTransformNode(isTransformNode);
    return tree;
  }

  // A copy is the node with its whole subtree, and without a parent.
  Result<void> CopyFrom(const CharacterTreeImpl& src)
  {
    TELVO_TRY(CharacterNodeInfoPart::CopyFrom(src));
    _isTransformNode = src._isTransformNode;
    return _links.CloneChildrenFrom(this, src._links);
  }

  // Only the tree's own member: node info describes its part itself. The key has no underscore:
  // stored data uses it so.
  static Result<void> DescribeIO(DataDescriber& describer)
  {
    static constinit DataTypeReference boolType{"Bool"};
    return DeclareMember(describer, "IsTransformNode", boolType, DESCRIBEFLAGS_NONE,
                         [](void* impl) -> void* { return &static_cast<CharacterTreeImpl*>(impl)->_isTransformNode; });
  }

private:
  HierarchyLinks _links;
  // Construction does not set the flag elsewhere; a tree made without CreateTree is a grouping node.
  Bool _isTransformNode = false;
};

constinit DataTypeReference g_dataType{"telvo::CharacterTreeRef"};
constexpr ComponentInfo kComponents[] = {NodeInfoComponent<CharacterTreeImpl>(),
                                         OwnComponent<CharacterTreeImpl>(kTreeImplementation)};
constexpr InterfaceInfoFn kInterfaces[] = {&CharacterTreeInterface::GetInterfaceInfo};
constexpr ClassInfo g_class = MakeClassInfo<CharacterTreeImpl>(kTreeClassId, &g_dataType, kTreeImplementation,
                                                               kNodeInfoClassId, kComponents, kInterfaces);
const ImplementationInfo g_implementation{kTreeImplementation, &g_class,
                                          reinterpret_cast<void (*)()>(&CharacterTreeImpl::CreateTree),
                                          &CharacterTreeImpl::DescribeIO};
const UnitAnnouncer g_announcer{g_telvo,
                                kUnitName,
                                {KELVARA_COMMON_HEADERS, "telvo/uuid.h", "telvo/hierarchyobject.h",
                                 "telvo/observerobject.h", "telvo/charactertree.h", KELVARA_TRAILING_HEADERS},
                                &g_class,
                                &g_implementation};

} // namespace

} // namespace telvo::kelvara
