// CharacterSolver: the retargeting arithmetic. ExtractGlobalDeltaPose turns an animated source
// pose into per-node global deltas against the source's rest pose; ApplyGlobalRotationDelta
// applies one delta to one target node. Stateless: one solver serves any number of threads.
//
// Matrices are affine, world space unless named otherwise; A * B applies B first. Inverses use the
// framework's rule: a 3x3 part with a determinant of exactly 0 inverts to the identity.
#pragma once

#include "telvo/characterpose.h"
#include "telvo/charactersolverconfiguration.h"

namespace telvo
{

class CharacterSolverInterface;
// Copy-on-write reference (the solver has no state to copy).
using CharacterSolver = CowRef<CharacterSolverInterface>;

class CharacterSolverInterface : public virtual ObjectInterface
{
public:
  using Bases = InterfaceList<ObjectInterface>;
  TELVO_INTERFACE_INFO("net.telvo.animation.interface.charactersolver", "telvo.CharacterSolverInterface",
                       "telvo/charactersolver.h", "ExtractGlobalDeltaPose", "ApplyGlobalRotationDelta")

  // A new pose with exactly the nodes of the source's skeleton rest pose, in its order: each
  // node's global matrix is its delta, axes rot(C) * rot(Grest)^-1 and offset C's, where
  // C = Prest * Pcurrent^-1 * Gcurrent moves the current global matrix back under the rest parent.
  // The rest pose is never changed.
  virtual Result<CharacterPose> ExtractGlobalDeltaPose(const CharacterSolverConfiguration& configuration,
                                                       const CharacterPose& pose) const = 0;
  // The node's new matrix relative to its parent: P^-1 * (rot(D) * rot(G), G's offset plus D's
  // offset when applyTranslation), with G and P the node's global and parent global matrices and
  // D the delta's global matrix.
  virtual Matrix ApplyGlobalRotationDelta(const CharacterNodeTransform& node, const CharacterNodeTransform& delta,
                                          Bool applyTranslation) const = 0;

  static Result<void> DescribeIO(DataDescriber& describer)
  {
    return CallDescribeEntry("CharacterSolverImpl", describer);
  }
};

} // namespace telvo
