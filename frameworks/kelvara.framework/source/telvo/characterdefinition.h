// CharacterDefinition: the complete static description of one character: the root of its
// skeleton hierarchy, the root of its body-part hierarchy, its controllers and two rest poses.
// A definition is also a node info (its own Uuid and name).
#pragma once

#include "telvo/characterbodypart.h"
#include "telvo/characternodeinfo.h"
#include "telvo/characterpose.h"
#include "telvo/charactertree.h"

namespace telvo
{

class CharacterDefinitionInterface;
// Copy-on-write reference. A copy clones the two roots and shares the rest poses.
using CharacterDefinition = CowRef<CharacterDefinitionInterface>;

class CharacterDefinitionInterface : public CharacterNodeInfoInterface
{
public:
  using Bases = InterfaceList<ObjectInterface, CharacterNodeInfoInterface>;
  TELVO_INTERFACE_INFO("net.telvo.animation.interface.characterdefinition", "telvo.CharacterDefinitionInterface",
                       "telvo/characterdefinition.h", "GetSkeletonTree", "SetSkeletonTree", "GetBodyPartTree",
                       "SetBodyPartTree", "SetControllers", "GetControllers", "SetSkeletonRestPose",
                       "GetSkeletonRestPose", "SetControllersRestPose", "GetControllersRestPose", "ToString")

  // Handles are stored shared (not copied) and never validated; the setters always succeed.
  virtual const CharacterTreeRef& GetSkeletonTree() const = 0;
  virtual Result<void> SetSkeletonTree(const CharacterTreeRef& skeletonRoot) = 0;
  virtual const CharacterBodyPartRef& GetBodyPartTree() const = 0;
  virtual Result<void> SetBodyPartTree(const CharacterBodyPartRef& bodyPartRoot) = 0;
  // The controller array is copied (Uuids shared); OutOfMemoryError when it cannot be.
  virtual Result<void> SetControllers(const BaseArray<Uuid>& controllers) = 0;
  virtual const BaseArray<Uuid>& GetControllers() const = 0;
  // Global and parent-global matrices of every skeleton node at rest.
  virtual Result<void> SetSkeletonRestPose(const CharacterPose& pose) = 0;
  virtual const CharacterPose& GetSkeletonRestPose() const = 0;
  virtual Result<void> SetControllersRestPose(const CharacterPose& pose) = 0;
  virtual const CharacterPose& GetControllersRestPose() const = 0;
  // The node-info text alone: trees, controllers and poses are not printed.
  String ToString(const FormatStatement* formatStatement = nullptr) const override = 0;

  static Result<void> DescribeIO(DataDescriber& describer)
  {
    return CallDescribeEntry("CharacterDefinitionImpl", describer);
  }
};

} // namespace telvo
