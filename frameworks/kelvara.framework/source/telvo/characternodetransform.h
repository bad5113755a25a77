// CharacterNodeTransform: the placement of one character node in one pose: which node it is (a
// node info) and three world-space matrices: the node's global matrix, its parent's global
// matrix and a pre-multiply matrix. Poses are arrays of node transforms.
#pragma once

#include "telvo/characternodeinfo.h"
#include "telvo/matrix.h"

namespace telvo
{

class CharacterNodeTransformInterface;
// Copy-on-write reference.
using CharacterNodeTransform = CowRef<CharacterNodeTransformInterface>;

class CharacterNodeTransformInterface : public CharacterNodeInfoInterface
{
public:
  using Bases = InterfaceList<CharacterNodeInfoInterface>;
  TELVO_INTERFACE_INFO("net.telvo.animation.interface.characternodetransform",
                       "telvo.CharacterNodeTransformInterface", "telvo/characternodetransform.h",
                       "SetGlobalMatrix", "GetGlobalMatrix", "SetParentGlobalMatrix", "GetParentGlobalMatrix",
                       "SetPreMultiplyMatrix", "GetPreMultiplyMatrix", "ToString")

  // The node's transform in world space; copied in, identity until set.
  virtual void SetGlobalMatrix(const Matrix& m) = 0;
  virtual const Matrix& GetGlobalMatrix() const = 0;
  // The world-space transform of the node's parent.
  virtual void SetParentGlobalMatrix(const Matrix& m) = 0;
  virtual const Matrix& GetParentGlobalMatrix() const = 0;
  // A correction applied before the global matrix.
  virtual void SetPreMultiplyMatrix(const Matrix& m) = 0;
  virtual const Matrix& GetPreMultiplyMatrix() const = 0;
  // The node-info lines, then each matrix under its label; the format statement goes to the
  // matrices' numbers.
  String ToString(const FormatStatement* formatStatement = nullptr) const override = 0;

  // Sets the id and the two matrices; the name stays empty and the pre-multiply matrix identity.
  static Result<CharacterNodeTransform> CreateNodeTransform(const Uuid& uuid, const Matrix& globalMatrix,
                                                            const Matrix& parentGlobalMatrix)
  {
    return CallCreateEntry<decltype(CreateNodeTransform)>("CharacterNodeTransformImpl", uuid, globalMatrix,
                                                          parentGlobalMatrix);
  }
  static Result<void> DescribeIO(DataDescriber& describer)
  {
    return CallDescribeEntry("CharacterNodeTransformImpl", describer);
  }
};

} // namespace telvo
