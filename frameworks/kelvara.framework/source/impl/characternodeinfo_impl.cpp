#include "impl/characternodeinfo_impl.h"

namespace telvo::kelvara
{

namespace
{
constexpr const char* kUnitName = "source/impl/characternodeinfo_impl";
}

Result<void> CharacterNodeInfoPart::SetUuid(const Uuid& uuid)
{
  // uuid may be this very field: hold its object before the field changes.
  const Uuid incoming = uuid;
  // Making the id writable first is what lets SetUuid fail on memory exhaustion (while SetName
  // never fails); the private id is then replaced by the shared one. Keep this order.
  if (_objectId.MakeWritable().IsError())
    return TELVO_OUT_OF_MEMORY();
  if (_objectId.IsSameObject(incoming))
    return OK();
  _objectId = incoming;
  if (_indexedById.load(std::memory_order_acquire))
    IndexedIdChanges().fetch_add(1, std::memory_order_acq_rel);
  return OK();
}

std::atomic<UInt>& IndexedIdChanges()
{
  static std::atomic<UInt> changes{0};
  return changes;
}

Result<void> CharacterNodeInfoPart::SetName(const String& name)
{
  _objectName = name;
  return OK();
}

String CharacterNodeInfoPart::ToString(const FormatStatement* formatStatement) const
{
  String result;
  // A null id prints the framework's default (empty) Uuid, so an empty text means the conversion
  // found no memory: that line is dropped.
  String idText = _objectId.ToString(formatStatement);
  if (!idText.IsEmpty())
    AppendPiece(result, MakeLine("Object ID : ", std::move(idText)));
  Result<String> nameLine = String::Create("Object Name : ");
  if (nameLine.IsOk() && nameLine.GetValue().Append(_objectName).IsOk() &&
      nameLine.GetValue().Append(std::string_view("\n")).IsOk())
    AppendPiece(result, nameLine);
  return result;
}

Result<void> CharacterNodeInfoPart::CopyFrom(const CharacterNodeInfoPart& src)
{
  if (!_objectId.IsSameObject(src._objectId))
    _objectId = src._objectId;
  if (!_objectName.IsSameBuffer(src._objectName))
    _objectName = src._objectName;
  return OK();
}

Result<void> CharacterNodeInfoPart::DescribeIO(DataDescriber& describer)
{
  static constinit DataTypeReference uuidType{"Uuid"};
  static constinit DataTypeReference stringType{"String"};
  TELVO_TRY(DeclareMember(describer, "_objectID", uuidType, DESCRIBEFLAGS_NONE,
                          [](void* part) -> void* { return &static_cast<CharacterNodeInfoPart*>(part)->_objectId; }));
  return DeclareMember(describer, "_objectName", stringType, DESCRIBEFLAGS_NONE,
                       [](void* part) -> void* { return &static_cast<CharacterNodeInfoPart*>(part)->_objectName; });
}

namespace
{

class CharacterNodeInfoImpl final
  : public ObjectImpl<CharacterNodeInfoImpl, CharacterNodeInfoComponent<CharacterNodeInfoInterface>>
{
public:
  static Result<CharacterNodeInfo> CreateNodeInfo(const Uuid& uuid, const String& name)
  {
    TELVO_TRY_ASSIGN(CharacterNodeInfo info, NewInstance<CharacterNodeInfo>(kNodeInfoClassId));
    TELVO_TRY_ASSIGN(CharacterNodeInfoInterface* writable, WritableForFactory(info));
    TELVO_TRY(writable->SetUuid(uuid));
    TELVO_TRY_ASSIGN(writable, WritableForFactory(info));
    TELVO_TRY(writable->SetName(name));
    return info;
  }

  Result<void> CopyFrom(const CharacterNodeInfoImpl& src) { return CharacterNodeInfoPart::CopyFrom(src); }
  static Result<void> DescribeIO(DataDescriber& describer) { return CharacterNodeInfoPart::DescribeIO(describer); }
};

constinit DataTypeReference g_dataType{"telvo::CharacterNodeInfo"};
constexpr ComponentInfo kComponents[] = {NodeInfoComponent<CharacterNodeInfoImpl>()};
constexpr InterfaceInfoFn kInterfaces[] = {&CharacterNodeInfoInterface::GetInterfaceInfo};
constexpr ClassInfo g_class = MakeClassInfo<CharacterNodeInfoImpl>(kNodeInfoClassId, &g_dataType, kNodeInfoImplementation,
                                                                  nullptr, kComponents, kInterfaces);
const ImplementationInfo g_implementation{kNodeInfoImplementation, &g_class,
                                          reinterpret_cast<void (*)()>(&CharacterNodeInfoImpl::CreateNodeInfo),
                                          &CharacterNodeInfoImpl::DescribeIO};
const UnitAnnouncer g_announcer{g_telvo,
                                kUnitName,
                                {KELVARA_COMMON_HEADERS, "telvo/uuid.h", "telvo/characternodeinfo.h", KELVARA_TRAILING_HEADERS},
                                &g_class,
                                &g_implementation};

} // namespace

} // namespace telvo::kelvara
