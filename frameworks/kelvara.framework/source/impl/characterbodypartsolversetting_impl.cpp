#include "impl/kelvara_module.h"
#include "telvo/characterbodypartsolversetting.h"

namespace telvo::kelvara
{

namespace
{

constexpr const char* kUnitName = "source/impl/characterbodypartsolversetting_impl";
constexpr const char* kClassId = "net.telvo.animation.class.characterbodypartsolversetting";
constexpr const char* kImplementationName = "CharacterBodyPartSolverSettingImpl";

class CharacterBodyPartSolverSettingImpl final
  : public ObjectImpl<CharacterBodyPartSolverSettingImpl, CharacterBodyPartSolverSettingInterface>
{
public:
  Result<void> SetBodyPartIdentifier(InternedId identifier) override
  {
    // The same reference is kept as it is; the argument's own reference is dropped on return.
    if (!_identifier.IsSameObject(identifier))
      _identifier = std::move(identifier);
    return OK();
  }

  InternedId GetBodyPartIdentifier() const override { return _identifier; }

  Result<void> SetBodyPartWeight(Float64 weight) override
  {
    _weight = weight;
    return OK();
  }

  Float64 GetBodyPartWeight() const override { return _weight; }

  String ToString(const FormatStatement* formatStatement = nullptr) const override
  {
    String result;
    AppendHandleLine(result, "Identifier : ", _identifier.ToString(formatStatement), _identifier.IsEmpty());
    // The weight always prints in the shortest exact form: the caller's format is not applied.
    // A number never prints empty, so an empty text is a conversion that found no memory: the
    // line is dropped rather than printed without its value.
    String weight = String::FloatToString(_weight, -1, -3, false, ' ');
    if (!weight.IsEmpty())
      AppendPiece(result, MakeLine("Weight : ", std::move(weight)));
    return result;
  }

  Result<void> CopyFrom(const CharacterBodyPartSolverSettingImpl& src)
  {
    _identifier = src._identifier;
    _weight = src._weight;
    return OK();
  }

  static Result<void> DescribeIO(DataDescriber& describer)
  {
    static constinit DataTypeReference idType{"InternedId"};
    static constinit DataTypeReference floatType{"Float64"};
    TELVO_TRY(DeclareMember(describer, "_identifier", idType, DESCRIBEFLAGS_NONE, [](void* component) -> void* {
      return &static_cast<CharacterBodyPartSolverSettingImpl*>(component)->_identifier;
    }));
    return DeclareMember(describer, "_weight", floatType, DESCRIBEFLAGS_NONE, [](void* component) -> void* {
      return &static_cast<CharacterBodyPartSolverSettingImpl*>(component)->_weight;
    });
  }

  static Result<CharacterBodyPartSolverSetting> CreateBodyPartSolverSetting(const InternedId& identifier,
                                                                            Float64 weight)
  {
    TELVO_TRY_ASSIGN(CharacterBodyPartSolverSetting setting, NewInstance<CharacterBodyPartSolverSetting>(kClassId));
    TELVO_TRY_ASSIGN(CharacterBodyPartSolverSettingInterface* writable, WritableForFactory(setting));
    TELVO_TRY(writable->SetBodyPartIdentifier(identifier));
    TELVO_TRY_ASSIGN(writable, WritableForFactory(setting));
    TELVO_TRY(writable->SetBodyPartWeight(weight));
    return setting;
  }

private:
  InternedId _identifier;
  // A setting nobody changed weighs its body part fully.
  Float64 _weight = 1.0;
};

constinit DataTypeReference g_dataType{"telvo::CharacterBodyPartSolverSetting"};
constexpr ComponentInfo kComponents[] = {OwnComponent<CharacterBodyPartSolverSettingImpl>(kImplementationName)};
constexpr InterfaceInfoFn kInterfaces[] = {&CharacterBodyPartSolverSettingInterface::GetInterfaceInfo};
constexpr ClassInfo g_class = MakeClassInfo<CharacterBodyPartSolverSettingImpl>(
  kClassId, &g_dataType, kImplementationName, nullptr, kComponents, kInterfaces);
const ImplementationInfo g_implementation{
  kImplementationName, &g_class,
  reinterpret_cast<void (*)()>(&CharacterBodyPartSolverSettingImpl::CreateBodyPartSolverSetting),
  &CharacterBodyPartSolverSettingImpl::DescribeIO};
const UnitAnnouncer g_announcer{
  g_telvo,
  kUnitName,
  {KELVARA_COMMON_HEADERS, "telvo/internedid.h", "telvo/characterbodypartsolversetting.h", KELVARA_TRAILING_HEADERS},
  &g_class,
  &g_implementation};

} // namespace

} // namespace telvo::kelvara
