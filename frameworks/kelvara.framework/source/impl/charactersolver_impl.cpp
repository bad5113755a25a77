#include "impl/kelvara_module.h"
#include "telvo/characterdefinition.h"
#include "telvo/charactersolver.h"
#include "telvo/matrix.h"

namespace telvo::kelvara
{

namespace
{

constexpr const char* kUnitName = "source/impl/charactersolver_impl";
constexpr const char* kClassId = "net.telvo.animation.class.charactersolver";
constexpr const char* kImplementation = "CharacterSolverImpl";

// A null node transform reads as the default (identity) matrices.
const Matrix& GlobalOf(const CharacterNodeTransform& transform)
{
  static const Matrix identity;
  return transform ? transform->GetGlobalMatrix() : identity;
}

const Matrix& ParentGlobalOf(const CharacterNodeTransform& transform)
{
  static const Matrix identity;
  return transform ? transform->GetParentGlobalMatrix() : identity;
}

// The delta of one node between its rest transform and its current one. The current global matrix
// is first moved back under the rest parent (C = (Pc * Pr^-1)^-1 * Gc), so that a parent that moved
// does not count as this node's own change; the axes are then the global rotation that carries the
// rest orientation onto C's, and the offset is C's position itself, not a difference.
Matrix NodeDelta(const CharacterNodeTransform& rest, const CharacterNodeTransform& current)
{
  const Matrix& restParent = ParentGlobalOf(rest);
  const Matrix& currentParent = ParentGlobalOf(current);
  // Two inverses rather than Pr * Pc^-1 directly: each one falls back to the identity on its own
  // when its determinant is exactly 0.
  const Matrix a = currentParent * Inverse(restParent);
  const Matrix c = Inverse(a) * GlobalOf(current);
  Matrix delta = Rotation3(c) * Inverse(Rotation3(GlobalOf(rest)));
  delta.off = c.off;
  return delta;
}

class CharacterSolverImpl final : public ObjectImpl<CharacterSolverImpl, CharacterSolverInterface>
{
public:
  Result<CharacterPose> ExtractGlobalDeltaPose(const CharacterSolverConfiguration& configuration,
                                               const CharacterPose& pose) const override
  {
    if (!configuration)
      return TELVO_NULLPTR_ERROR();
    TELVO_TRY_ASSIGN(const CharacterDefinition source, configuration->GetSourceCharacter());
    if (!source)
      return TELVO_NULLPTR_ERROR();
    const CharacterPose& restPose = source->GetSkeletonRestPose();
    // The current pose is read for every node; without one there is nothing to measure against.
    if (!restPose || !pose)
      return TELVO_NULLPTR_ERROR();

    // The new array shares the rest node transforms; each is copied when its delta is stored.
    BaseArray<CharacterNodeTransform> deltas;
    TELVO_TRY(deltas.CopyFrom(restPose->GetNodeTransformArray()));
    for (CharacterNodeTransform& element : deltas)
    {
      // A null slot has no id to look up and nothing to store a delta in.
      if (!element)
        return TELVO_NULLPTR_ERROR();
      const Uuid& id = element->GetUuid();
      TELVO_TRY_ASSIGN(const CharacterNodeTransform rest, restPose->GetNodeTransformByID(id));
      TELVO_TRY_ASSIGN(const CharacterNodeTransform current, pose->GetNodeTransformByID(id));
      const Matrix delta = NodeDelta(rest, current);
      // The parent global and pre-multiply matrices keep their rest values.
      TELVO_TRY_ASSIGN(CharacterNodeTransformInterface * writable, element.MakeWritable());
      writable->SetGlobalMatrix(delta);
    }

    // A private copy of the rest pose: the definition's own pose never changes.
    CharacterPose result = restPose;
    TELVO_TRY_ASSIGN(CharacterPoseInterface * writablePose, result.MakeWritable());
    TELVO_TRY(writablePose->SetNodeTransformArray(deltas));
    return result;
  }

  // The delta rotation is applied after the node's own orientation, in global space; the node keeps
  // its global position unless the delta's offset is to be added (unrotated).
  Matrix ApplyGlobalRotationDelta(const CharacterNodeTransform& node, const CharacterNodeTransform& delta,
                                  Bool applyTranslation) const override
  {
    const Matrix& global = GlobalOf(node);
    const Matrix& deltaGlobal = GlobalOf(delta);
    Matrix newGlobal = Rotation3(deltaGlobal) * Rotation3(global);
    newGlobal.off = applyTranslation ? global.off + deltaGlobal.off : global.off;
    return Inverse(ParentGlobalOf(node)) * newGlobal;
  }

  // No fields: nothing to copy or describe.
  Result<void> CopyFrom(const CharacterSolverImpl&) { return OK(); }
  static Result<void> DescribeIO(DataDescriber&) { return OK(); }
};

// The solver has no Create... factory: callers create it by its class id.
constinit DataTypeReference g_dataType{"telvo::CharacterSolver"};
constexpr ComponentInfo kComponents[] = {OwnComponent<CharacterSolverImpl>(kImplementation)};
constexpr InterfaceInfoFn kInterfaces[] = {&CharacterSolverInterface::GetInterfaceInfo};
constexpr ClassInfo g_class =
  MakeClassInfo<CharacterSolverImpl>(kClassId, &g_dataType, kImplementation, nullptr, kComponents, kInterfaces);
const ImplementationInfo g_implementation{kImplementation, &g_class, nullptr, &CharacterSolverImpl::DescribeIO};
const UnitAnnouncer g_announcer{g_telvo,
                                kUnitName,
                                {KELVARA_COMMON_HEADERS, "telvo/matrix.h", "telvo/characternodetransform.h",
                                 "telvo/characterpose.h", "telvo/characterdefinition.h",
                                 "telvo/charactersolverconfiguration.h", "telvo/charactersolver.h",
                                 KELVARA_TRAILING_HEADERS},
                                &g_class,
                                &g_implementation};

} // namespace

} // namespace telvo::kelvara
