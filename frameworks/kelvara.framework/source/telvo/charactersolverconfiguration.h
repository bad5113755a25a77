// CharacterSolverConfiguration: what one retargeting run needs: the source and the target
// character, the association between them, and whether translation is carried onto the root.
#pragma once

#include "telvo/characterassociation.h"
#include "telvo/characterdefinition.h"

namespace telvo
{

class CharacterSolverConfigurationInterface;
// Copy-on-write reference. The characters and the association are shared, not copied.
using CharacterSolverConfiguration = CowRef<CharacterSolverConfigurationInterface>;

class CharacterSolverConfigurationInterface : public virtual ObjectInterface
{
public:
  using Bases = InterfaceList<ObjectInterface>;
  TELVO_INTERFACE_INFO("net.telvo.animation.interface.charactersolverconfiguration",
                       "telvo.CharacterSolverConfigurationInterface", "telvo/charactersolverconfiguration.h",
                       "SetSourceCharacter", "GetSourceCharacter", "SetTargetCharacter", "GetTargetCharacter",
                       "SetCharacterAssociation", "GetCharacterAssociation", "Setup", "SetApplyTranslationFromRoot",
                       "GetApplyTranslationFromRoot", "Validate", "ToString")

  virtual Result<void> SetSourceCharacter(const CharacterDefinition& source) = 0;
  virtual Result<CharacterDefinition> GetSourceCharacter() const = 0;
  virtual Result<void> SetTargetCharacter(const CharacterDefinition& target) = 0;
  virtual Result<CharacterDefinition> GetTargetCharacter() const = 0;
  virtual Result<void> SetCharacterAssociation(const CharacterAssociation& association) = 0;
  virtual Result<CharacterAssociation> GetCharacterAssociation() const = 0;
  // The three setters above, in that order, through this interface; the first error stops.
  virtual Result<void> Setup(const CharacterDefinition& source, const CharacterDefinition& target,
                             const CharacterAssociation& association) = 0;
  // Stored in the field "_applyTranslationToRoot"; both names are kept as they are.
  virtual void SetApplyTranslationFromRoot(Bool apply) = 0;
  virtual Bool GetApplyTranslationFromRoot() const = 0;
  // UnexpectedError "Invalid Source Character" or "Invalid Target Character".
  virtual Result<void> Validate() const = 0;
  // "Source Character : <name>\nTarget Character : <name>\n".
  String ToString(const FormatStatement* formatStatement = nullptr) const override = 0;

  static Result<void> DescribeIO(DataDescriber& describer)
  {
    return CallDescribeEntry("CharacterSolverConfigurationImpl", describer);
  }
};

} // namespace telvo
