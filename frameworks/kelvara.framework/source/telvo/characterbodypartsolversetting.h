// CharacterBodyPartSolverSetting: the solver's setting for one body part: which body part (its
// identifier) and how strongly the solver weighs it.
#pragma once

#include "telvo/internedid.h"
#include "telvo/objectbase.h"
#include "telvo/registrybase.h"

namespace telvo
{

class CharacterBodyPartSolverSettingInterface;
// Copy-on-write reference.
using CharacterBodyPartSolverSetting = CowRef<CharacterBodyPartSolverSettingInterface>;

class CharacterBodyPartSolverSettingInterface : public virtual ObjectInterface
{
public:
  using Bases = InterfaceList<ObjectInterface>;
  TELVO_INTERFACE_INFO("net.telvo.animation.interface.characterbodypartsolversetting",
                       "telvo.CharacterBodyPartSolverSettingInterface", "telvo/characterbodypartsolversetting.h",
                       "SetBodyPartIdentifier", "GetBodyPartIdentifier", "SetBodyPartWeight", "GetBodyPartWeight",
                       "ToString")

  // Takes over the given reference; never fails.
  virtual Result<void> SetBodyPartIdentifier(InternedId identifier) = 0;
  virtual InternedId GetBodyPartIdentifier() const = 0;
  // Any value is stored as it is (no range check); 1.0 until set.
  virtual Result<void> SetBodyPartWeight(Float64 weight) = 0;
  virtual Float64 GetBodyPartWeight() const = 0;
  // "Identifier : <id>\nWeight : <weight>\n".
  String ToString(const FormatStatement* formatStatement = nullptr) const override = 0;

  static Result<CharacterBodyPartSolverSetting> CreateBodyPartSolverSetting(const InternedId& identifier,
                                                                            Float64 weight)
  {
    return CallCreateEntry<decltype(CreateBodyPartSolverSetting)>("CharacterBodyPartSolverSettingImpl", identifier,
                                                                  weight);
  }
  static Result<void> DescribeIO(DataDescriber& describer)
  {
    return CallDescribeEntry("CharacterBodyPartSolverSettingImpl", describer);
  }
};

} // namespace telvo
