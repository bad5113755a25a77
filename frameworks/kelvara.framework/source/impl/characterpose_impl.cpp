#include "impl/kelvara_module.h"
#include "telvo/characterpose.h"
#include "telvo/uuid.h"

namespace telvo::kelvara
{

namespace
{

constexpr const char* kUnitName = "source/impl/characterpose_impl";
constexpr const char* kClassId = "net.telvo.animation.class.characterpose";
constexpr const char* kImplementation = "CharacterPoseImpl";

class CharacterPoseImpl final : public ObjectImpl<CharacterPoseImpl, CharacterPoseInterface>
{
public:
  // The array's own errors (OutOfMemoryError, the array unchanged) pass through as they are.
  Result<void> SetNodeTransformArray(const BaseArray<CharacterNodeTransform>& nodeTransforms) override
  {
    if (&nodeTransforms == &_nodeTransforms)
      return OK();
    return _nodeTransforms.CopyFrom(nodeTransforms);
  }

  const BaseArray<CharacterNodeTransform>& GetNodeTransformArray() const override { return _nodeTransforms; }

  Int GetNodeTransformCount() const override { return _nodeTransforms.GetCount(); }

  // Runs per node and per frame while retargeting: a linear scan that allocates nothing. A null
  // slot reads as the empty Uuid, so a lookup of the empty (or null) Uuid can answer with it.
  Result<CharacterNodeTransform> GetNodeTransformByID(const Uuid& uuid) const override
  {
    for (const CharacterNodeTransform& element : _nodeTransforms)
    {
      // Uuid equality takes the very same handle as equal without reading bytes, and reads a null
      // handle as the all-zero Uuid: a null slot therefore matches exactly the ids that are not valid.
      if (element ? element->GetUuid() == uuid : !uuid.IsValid())
        return element;
    }
    return CharacterNodeTransform();
  }

  // "Node Transform :\n{" + the elements' texts joined by "," + "}", with no line feed at the end.
  String ToString(const FormatStatement* formatStatement = nullptr) const override
  {
    String result;
    AppendPiece(result, std::string_view("Node Transform :\n"));
    AppendPiece(result, ArrayToString(_nodeTransforms, [formatStatement](const CharacterNodeTransform& element) {
                  if (!element)
                  {
                    Result<String> null = String::Create("nullptr");
                    return null.IsOk() ? null.GetValue() : String();
                  }
                  return element->ToString(formatStatement);
                }));
    return result;
  }

  // Copies share the node-transform objects; assigning a pose to itself does nothing.
  Result<void> CopyFrom(const CharacterPoseImpl& src)
  {
    if (&src == this)
      return OK();
    return SetNodeTransformArray(src._nodeTransforms);
  }

  static Result<void> DescribeIO(DataDescriber& describer)
  {
    static constinit DataTypeReference nodeTransformType{"telvo::CharacterNodeTransform"};
    return DeclareMember(describer, "NodeTransform", nodeTransformType, DESCRIBEFLAGS_ARRAY,
                         [](void* self) -> void* { return &static_cast<CharacterPoseImpl*>(self)->_nodeTransforms; });
  }

private:
  BaseArray<CharacterNodeTransform> _nodeTransforms;
};

// The pose has no Create... factory: callers create it by its class id.
constinit DataTypeReference g_dataType{"telvo::CharacterPose"};
constexpr ComponentInfo kComponents[] = {OwnComponent<CharacterPoseImpl>(kImplementation)};
constexpr InterfaceInfoFn kInterfaces[] = {&CharacterPoseInterface::GetInterfaceInfo};
constexpr ClassInfo g_class =
  MakeClassInfo<CharacterPoseImpl>(kClassId, &g_dataType, kImplementation, nullptr, kComponents, kInterfaces);
const ImplementationInfo g_implementation{kImplementation, &g_class, nullptr, &CharacterPoseImpl::DescribeIO};
const UnitAnnouncer g_announcer{g_telvo,
                                kUnitName,
                                {KELVARA_COMMON_HEADERS, "telvo/uuid.h", "telvo/characternodetransform.h",
                                 "telvo/characterpose.h", KELVARA_TRAILING_HEADERS},
                                &g_class,
                                &g_implementation};

} // namespace

} // namespace telvo::kelvara
