// The declarations of the module's interfaces and data types, in the framework's order.
#include "impl/kelvara_module.h"
#include "telvo/characterassociation.h"
#include "telvo/characterbodypart.h"
#include "telvo/characterbodypartsolversetting.h"
#include "telvo/characterdefinition.h"
#include "telvo/characternodeinfo.h"
#include "telvo/characternodetransform.h"
#include "telvo/characterpose.h"
#include "telvo/charactersolver.h"
#include "telvo/charactersolverconfiguration.h"
#include "telvo/charactertree.h"
#include "telvo/kelvarahelper.h"

namespace telvo::kelvara
{

namespace
{

constexpr const char* kUnitName = "generated/hxx/interface_registration";

constexpr InterfaceInfoFn kInterfaces[] = {
  &CharacterBodyPartInterface::GetInterfaceInfo,
  &CharacterNodeTransformInterface::GetInterfaceInfo,
  &CharacterTreeInterface::GetInterfaceInfo,
  &CharacterBodyPartSolverSettingInterface::GetInterfaceInfo,
  &CharacterPoseInterface::GetInterfaceInfo,
  &KelvaraHelperInterface::GetInterfaceInfo,
  &CharacterDefinitionInterface::GetInterfaceInfo,
  &CharacterSolverInterface::GetInterfaceInfo,
  &CharacterAssociationInterface::GetInterfaceInfo,
  &CharacterNodeInfoInterface::GetInterfaceInfo,
  &CharacterSolverConfigurationInterface::GetInterfaceInfo,
};

// Three types are registered under their reference-type name, the others under the class name.
constexpr DataType kDataTypes[] = {
  {"telvo::CharacterAssociation", DataTypeKind::CowReference, "net.telvo.animation.class.characterassociation"},
  {"telvo::CharacterNodeInfo", DataTypeKind::CowReference, "net.telvo.animation.class.characternodeinfo"},
  {"telvo::CharacterSolverConfiguration", DataTypeKind::CowReference,
   "net.telvo.animation.class.charactersolverconfiguration"},
  {"telvo::CharacterBodyPartRef", DataTypeKind::Reference, "net.telvo.animation.class.characterbodypart"},
  {"telvo::CharacterNodeTransform", DataTypeKind::CowReference, "net.telvo.animation.class.characternodetransform"},
  {"telvo::CharacterTreeRef", DataTypeKind::Reference, "net.telvo.animation.class.charactertree"},
  {"telvo::CharacterBodyPartSolverSetting", DataTypeKind::CowReference,
   "net.telvo.animation.class.characterbodypartsolversetting"},
  {"telvo::CharacterPose", DataTypeKind::CowReference, "net.telvo.animation.class.characterpose"},
  {"telvo::KelvaraHelperRef", DataTypeKind::Reference, "net.telvo.animation.class.kelvarahelper"},
  {"telvo::CharacterDefinition", DataTypeKind::CowReference, "net.telvo.animation.class.characterdefinition"},
  {"telvo::CharacterSolver", DataTypeKind::CowReference, "net.telvo.animation.class.charactersolver"},
};

struct DeclarationAnnouncer
{
  DeclarationAnnouncer()
  {
    Announce(g_telvo, AnnouncementKind::Unit, kUnitName, nullptr, kUnitName);
    for (const InterfaceInfoFn& info : kInterfaces)
      Announce(g_telvo, AnnouncementKind::Interface, info().id, &info, kUnitName);
    for (const DataType& type : kDataTypes)
      Announce(g_telvo, AnnouncementKind::DataType, type.name, &type, kUnitName);
  }
};
const DeclarationAnnouncer g_declarationAnnouncer;

} // namespace

} // namespace telvo::kelvara
