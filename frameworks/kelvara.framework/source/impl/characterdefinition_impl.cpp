#include "impl/characternodeinfo_impl.h"
#include "telvo/characterdefinition.h"

namespace telvo::kelvara
{

namespace
{

constexpr const char* kUnitName = "source/impl/characterdefinition_impl";
constexpr const char* kClassId = "net.telvo.animation.class.characterdefinition";
constexpr const char* kImplementationName = "CharacterDefinitionImpl";

// A new object of root's own class filled by that class's copy operation; for trees and body
// parts that copy takes the whole subtree along.
template <typename I>
Result<StrongRef<I>> CloneThroughClass(const StrongRef<I>& root)
{
  const ObjectInterface* object = root.GetPointer();
  TELVO_TRY_ASSIGN(ObjectRef clone, object->GetClass()->CloneInstance(*object));
  I* typed = QueryInterface<I>(clone.GetPointer());
  if (typed == nullptr)
    return TELVO_NULLPTR_ERROR();
  return StrongRef<I>(typed);
}

class CharacterDefinitionImpl final
  : public ObjectImpl<CharacterDefinitionImpl, CharacterNodeInfoComponent<CharacterDefinitionInterface>>
{
public:
  const CharacterTreeRef& GetSkeletonTree() const override { return _skeletonRoot; }

  Result<void> SetSkeletonTree(const CharacterTreeRef& skeletonRoot) override
  {
    _skeletonRoot = skeletonRoot;
    return OK();
  }

  const CharacterBodyPartRef& GetBodyPartTree() const override { return _bodyPartRoot; }

  Result<void> SetBodyPartTree(const CharacterBodyPartRef& bodyPartRoot) override
  {
    _bodyPartRoot = bodyPartRoot;
    return OK();
  }

  // CopyFrom leaves the array untouched when it fails and does nothing for the array itself.
  Result<void> SetControllers(const BaseArray<Uuid>& controllers) override { return _controllers.CopyFrom(controllers); }

  const BaseArray<Uuid>& GetControllers() const override { return _controllers; }

  Result<void> SetSkeletonRestPose(const CharacterPose& pose) override
  {
    _skeletonRestPose = pose;
    return OK();
  }

  const CharacterPose& GetSkeletonRestPose() const override { return _skeletonRestPose; }

  Result<void> SetControllersRestPose(const CharacterPose& pose) override
  {
    _controllersRestPose = pose;
    return OK();
  }

  const CharacterPose& GetControllersRestPose() const override { return _controllersRestPose; }

  // Only the identity prints: trees, controllers and poses are deliberately left out.
  String ToString(const FormatStatement* formatStatement = nullptr) const override
  {
    String result;
    const CharacterNodeInfoPart* nodeInfo = FindNodeInfoPart(this);
    if (nodeInfo == nullptr)
      return result;
    if (result.Append(nodeInfo->ToString(formatStatement)).IsError())
      return String();
    return result;
  }

  // The roots are cloned and the rest poses shared. A null root in src leaves ours as it was,
  // while poses and controllers are always overwritten: stored definitions rely on this. A root
  // that cannot be cloned is left null and the error returned at once.
  Result<void> CopyFrom(const CharacterDefinitionImpl& src)
  {
    TELVO_TRY(CharacterNodeInfoPart::CopyFrom(src));
    if (src._skeletonRoot)
    {
      Result<CharacterTreeRef> clone = CloneThroughClass(src._skeletonRoot);
      if (clone.IsError())
      {
        _skeletonRoot = nullptr;
        return clone.GetError();
      }
      _skeletonRoot = std::move(clone).GetValue();
    }
    if (src._bodyPartRoot)
    {
      Result<CharacterBodyPartRef> clone = CloneThroughClass(src._bodyPartRoot);
      if (clone.IsError())
      {
        _bodyPartRoot = nullptr;
        return clone.GetError();
      }
      _bodyPartRoot = std::move(clone).GetValue();
    }
    _skeletonRestPose = src._skeletonRestPose;
    TELVO_TRY(_controllers.CopyFrom(src._controllers));
    _controllersRestPose = src._controllersRestPose;
    return OK();
  }

  // Only this component's members: the node-info part describes its own.
  static Result<void> DescribeIO(DataDescriber& describer)
  {
    static constinit DataTypeReference treeType{"telvo::CharacterTreeRef"};
    static constinit DataTypeReference bodyPartType{"telvo::CharacterBodyPartRef"};
    static constinit DataTypeReference poseType{"telvo::CharacterPose"};
    static constinit DataTypeReference uuidType{"Uuid"};
    TELVO_TRY(DeclareMember(describer, "SkeletonRoot", treeType, DESCRIBEFLAGS_NONE,
                            [](void* c) -> void* { return &static_cast<CharacterDefinitionImpl*>(c)->_skeletonRoot; }));
    TELVO_TRY(DeclareMember(describer, "BodyPartRoot", bodyPartType, DESCRIBEFLAGS_NONE,
                            [](void* c) -> void* { return &static_cast<CharacterDefinitionImpl*>(c)->_bodyPartRoot; }));
    TELVO_TRY(DeclareMember(describer, "SkeletonRestPose", poseType, DESCRIBEFLAGS_NONE, [](void* c) -> void* {
      return &static_cast<CharacterDefinitionImpl*>(c)->_skeletonRestPose;
    }));
    TELVO_TRY(DeclareMember(describer, "Controllers", uuidType, DESCRIBEFLAGS_ARRAY,
                            [](void* c) -> void* { return &static_cast<CharacterDefinitionImpl*>(c)->_controllers; }));
    return DeclareMember(describer, "ControllersRestPose", poseType, DESCRIBEFLAGS_NONE, [](void* c) -> void* {
      return &static_cast<CharacterDefinitionImpl*>(c)->_controllersRestPose;
    });
  }

private:
  // Declaration order is serialisation order; members are released in reverse.
  CharacterTreeRef _skeletonRoot;
  CharacterBodyPartRef _bodyPartRoot;
  CharacterPose _skeletonRestPose;
  BaseArray<Uuid> _controllers;
  CharacterPose _controllersRestPose;
};

constinit DataTypeReference g_dataType{"telvo::CharacterDefinition"};
constexpr ComponentInfo kComponents[] = {NodeInfoComponent<CharacterDefinitionImpl>(),
                                         OwnComponent<CharacterDefinitionImpl>(kImplementationName)};
constexpr InterfaceInfoFn kInterfaces[] = {&CharacterDefinitionInterface::GetInterfaceInfo,
                                           &CharacterNodeInfoInterface::GetInterfaceInfo};
constexpr ClassInfo g_class = MakeClassInfo<CharacterDefinitionImpl>(kClassId, &g_dataType, kImplementationName,
                                                                     kNodeInfoClassId, kComponents, kInterfaces);
// Created by class id only: the interface has no factory.
const ImplementationInfo g_implementation{kImplementationName, &g_class, nullptr, &CharacterDefinitionImpl::DescribeIO};
const UnitAnnouncer g_announcer{g_telvo,
                                kUnitName,
                                {KELVARA_COMMON_HEADERS, "telvo/uuid.h", "telvo/charactertree.h",
                                 "telvo/characterbodypart.h", "telvo/characterpose.h", "telvo/characterdefinition.h",
                                 KELVARA_TRAILING_HEADERS},
                                &g_class,
                                &g_implementation};

} // namespace

} // namespace telvo::kelvara
