#include "impl/kelvara_module.h"
#include "telvo/charactersolverconfiguration.h"

namespace telvo::kelvara
{

namespace
{

constexpr const char* kUnitName = "source/impl/charactersolverconfiguration_impl";
constexpr const char* kClassId = "net.telvo.animation.class.charactersolverconfiguration";
constexpr const char* kImplementation = "CharacterSolverConfigurationImpl";

// A character's name as a ToString piece under its label; a null character gives the label alone.
Result<String> CharacterLine(std::string_view label, const CharacterDefinition& character)
{
  return MakeLine(label, character ? character->GetName() : String());
}

class CharacterSolverConfigurationImpl final
  : public ObjectImpl<CharacterSolverConfigurationImpl, CharacterSolverConfigurationInterface>
{
public:
  // The references are shared, never copied; storing the held object again changes nothing.
  Result<void> SetSourceCharacter(const CharacterDefinition& source) override
  {
    _sourceCharacter = source;
    return OK();
  }
  Result<CharacterDefinition> GetSourceCharacter() const override { return _sourceCharacter; }

  Result<void> SetTargetCharacter(const CharacterDefinition& target) override
  {
    _targetCharacter = target;
    return OK();
  }
  Result<CharacterDefinition> GetTargetCharacter() const override { return _targetCharacter; }

  Result<void> SetCharacterAssociation(const CharacterAssociation& association) override
  {
    _associationSourceTarget = association;
    return OK();
  }
  Result<CharacterAssociation> GetCharacterAssociation() const override { return _associationSourceTarget; }

  // Through the interface, so that a component replacing a setter is honoured here too.
  Result<void> Setup(const CharacterDefinition& source, const CharacterDefinition& target,
                     const CharacterAssociation& association) override
  {
    CharacterSolverConfigurationInterface& self = *this;
    TELVO_TRY(self.SetSourceCharacter(source));
    TELVO_TRY(self.SetTargetCharacter(target));
    return self.SetCharacterAssociation(association);
  }

  void SetApplyTranslationFromRoot(Bool apply) override { _applyTranslationToRoot = apply; }
  Bool GetApplyTranslationFromRoot() const override { return _applyTranslationToRoot; }

  // The association and the flag play no part: a run without an association is valid.
  Result<void> Validate() const override
  {
    if (!_sourceCharacter)
      return TELVO_ERROR(UnexpectedError, "Invalid Source Character");
    if (!_targetCharacter)
      return TELVO_ERROR(UnexpectedError, "Invalid Target Character");
    return OK();
  }

  // Names only; the association and the flag are not printed.
  String ToString(const FormatStatement* = nullptr) const override
  {
    String result;
    AppendPiece(result, CharacterLine("Source Character : ", _sourceCharacter));
    AppendPiece(result, CharacterLine("Target Character : ", _targetCharacter));
    return result;
  }

  Result<void> CopyFrom(const CharacterSolverConfigurationImpl& src)
  {
    _sourceCharacter = src._sourceCharacter;
    _targetCharacter = src._targetCharacter;
    _associationSourceTarget = src._associationSourceTarget;
    _applyTranslationToRoot = src._applyTranslationToRoot;
    return OK();
  }

  // Field order; the flag keeps its field name although its accessors say "FromRoot". No flags:
  // each member is a single value.
  static Result<void> DescribeIO(DataDescriber& describer)
  {
    static constinit DataTypeReference definitionType{"telvo::CharacterDefinition"};
    static constinit DataTypeReference associationType{"telvo::CharacterAssociation"};
    static constinit DataTypeReference boolType{"Bool"};
    TELVO_TRY(DeclareMember(describer, "_sourceCharacter", definitionType, DESCRIBEFLAGS_NONE, [](void* self) -> void* {
      return &static_cast<CharacterSolverConfigurationImpl*>(self)->_sourceCharacter;
    }));
    TELVO_TRY(DeclareMember(describer, "_targetCharacter", definitionType, DESCRIBEFLAGS_NONE, [](void* self) -> void* {
      return &static_cast<CharacterSolverConfigurationImpl*>(self)->_targetCharacter;
    }));
    TELVO_TRY(DeclareMember(describer, "_associationSourceTarget", associationType, DESCRIBEFLAGS_NONE,
                            [](void* self) -> void* {
                              return &static_cast<CharacterSolverConfigurationImpl*>(self)->_associationSourceTarget;
                            }));
    return DeclareMember(describer, "_applyTranslationToRoot", boolType, DESCRIBEFLAGS_NONE, [](void* self) -> void* {
      return &static_cast<CharacterSolverConfigurationImpl*>(self)->_applyTranslationToRoot;
    });
  }

private:
  CharacterDefinition _sourceCharacter;
  CharacterDefinition _targetCharacter;
  CharacterAssociation _associationSourceTarget;
  // Root translation is off until asked for.
  Bool _applyTranslationToRoot = false;
};

// No Create... factory: callers create the configuration by its class id.
constinit DataTypeReference g_dataType{"telvo::CharacterSolverConfiguration"};
constexpr ComponentInfo kComponents[] = {OwnComponent<CharacterSolverConfigurationImpl>(kImplementation)};
constexpr InterfaceInfoFn kInterfaces[] = {&CharacterSolverConfigurationInterface::GetInterfaceInfo};
constexpr ClassInfo g_class = MakeClassInfo<CharacterSolverConfigurationImpl>(kClassId, &g_dataType, kImplementation,
                                                                             nullptr, kComponents, kInterfaces);
const ImplementationInfo g_implementation{kImplementation, &g_class, nullptr,
                                          &CharacterSolverConfigurationImpl::DescribeIO};
const UnitAnnouncer g_announcer{g_telvo,
                                kUnitName,
                                {KELVARA_COMMON_HEADERS, "telvo/characterassociation.h", "telvo/characterdefinition.h",
                                 "telvo/charactersolverconfiguration.h", KELVARA_TRAILING_HEADERS},
                                &g_class,
                                &g_implementation};

} // namespace

} // namespace telvo::kelvara
