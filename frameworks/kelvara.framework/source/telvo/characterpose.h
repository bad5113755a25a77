// CharacterPose: the node transforms of a character at one moment, in the order they were set,
// looked up by node Uuid. A plain container: it does not interpret the matrices.
#pragma once

#include "telvo/array.h"
#include "telvo/characternodetransform.h"

namespace telvo
{

class CharacterPoseInterface;
// Copy-on-write reference. Copies of a pose share their node-transform objects.
using CharacterPose = CowRef<CharacterPoseInterface>;

class CharacterPoseInterface : public virtual ObjectInterface
{
public:
  using Bases = InterfaceList<ObjectInterface>;
  TELVO_INTERFACE_INFO("net.telvo.animation.interface.characterpose", "telvo.CharacterPoseInterface",
                       "telvo/characterpose.h", "SetNodeTransformArray", "GetNodeTransformArray",
                       "GetNodeTransformCount", "GetNodeTransformByID", "ToString")

  // Replaces the array by a copy of the given one (the node transforms are shared); the pose's
  // own array is a no-op. OutOfMemoryError when the copy cannot be made.
  virtual Result<void> SetNodeTransformArray(const BaseArray<CharacterNodeTransform>& nodeTransforms) = 0;
  // The stored array itself; a slot may be null.
  virtual const BaseArray<CharacterNodeTransform>& GetNodeTransformArray() const = 0;
  // Elements, null slots included.
  virtual Int GetNodeTransformCount() const = 0;
  // The first element whose node Uuid equals uuid, or a null reference; never an error.
  virtual Result<CharacterNodeTransform> GetNodeTransformByID(const Uuid& uuid) const = 0;
  // "Node Transform :\n{" + the elements' texts joined by "," + "}".
  String ToString(const FormatStatement* formatStatement = nullptr) const override = 0;

  static Result<void> DescribeIO(DataDescriber& describer) { return CallDescribeEntry("CharacterPoseImpl", describer); }
};

} // namespace telvo
