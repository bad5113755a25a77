// One clip retargeted from a source character onto a target character through the module:
// set the job's inputs, Validate() once, Run() over every frame.
#pragma once

#include <string>
#include <unordered_map>
#include <vector>

#include "bvh.h"
#include "character.h"
#include "mapping.h"
#include "telvo/charactersolver.h"

namespace kelvara
{

struct UuidHash
{
  std::size_t operator()(const telvo::Uuid& uuid) const { return static_cast<std::size_t>(uuid.GetHash()); }
};

struct RetargetJob
{
  // Inputs. Both characters built and their body parts filled (ChooseAndFillPreset).
  Character* source = nullptr;
  Character* target = nullptr;
  telvo::KelvaraHelperRef helper;
  std::vector<JointPair> mapPairs; // overrides of the keyword pairing (--map)
  double rootScale = 0.0;          // <= 0: auto, the target's hip height over the source's
  bool rootMotion = true;

  // Outputs of Validate.
  std::vector<int> sourceOfTarget; // per target joint: the source joint that drives it, or -1
  std::vector<std::string> pairOrigin; // per target joint: "body part Left hand", "map", "same name", ""
  telvo::AssociationCounters counters;
  double appliedRootScale = 1.0;
  std::vector<std::string> notes;
  // Output of Run: the target's hierarchy with the source's frames.
  BvhFile output;

  // Pairs the joints (body parts, then the map, then equal names for what is left), builds the
  // association and the configuration and validates them, and makes every object the frames need.
  bool Validate(std::string& error);
  // Every frame, parents before children. No allocation of its own in the frame loop.
  bool Run(std::string& error);

private:
  bool PairJoints(std::string& error);
  bool MakeFrameObjects(std::string& error);

  telvo::CharacterAssociation _association;
  telvo::CharacterSolverConfiguration _configuration;
  telvo::CharacterSolver _solver;
  telvo::CharacterPose _currentPose; // the source's current pose; its node transforms are ours
  std::vector<telvo::CharacterNodeTransform> _currentTransforms;
  std::vector<telvo::CharacterNodeTransformInterface*> _currentWritable;
  std::vector<telvo::CharacterNodeTransform> _targetTransforms;
  std::vector<telvo::CharacterNodeTransformInterface*> _targetWritable;
  std::vector<telvo::CharacterNodeTransform> _deltaOfTarget;
  std::unordered_map<telvo::Uuid, int, UuidHash> _targetIndex;
  std::vector<telvo::Matrix> _sourceGlobal;
  std::vector<telvo::Matrix> _targetGlobal;
  bool _validated = false;
};

// A BVH joint's local matrix in one frame: the offset with any position channel replacing its
// component, and the channels' rotation.
telvo::Matrix JointLocalMatrix(const BvhJoint& joint, const double* row);

} // namespace kelvara
