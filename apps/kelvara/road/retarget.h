// Clips retargeted from a source character onto a target character through the module: a part
// prepared once per pair of characters, and a per-clip part that runs the frames.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <unordered_map>
#include <vector>

#include "anim/clip.h"
#include "anim/pose.h"
#include "character/character.h"
#include "road/chains.h"
#include "road/joint_map.h"
#include "telvo/charactersolver.h"

namespace kelvara
{

// Both halves of the id mixed: a few instructions, where the id's own hash goes over every byte
// (it is taken for every joint of every frame).
struct UuidHash
{
  std::size_t operator()(const telvo::Uuid& uuid) const
  {
    std::uint64_t half[2];
    std::memcpy(half, uuid.GetBytes().data(), sizeof half);
    return static_cast<std::size_t>(half[0] ^ (half[1] * 0x9e3779b97f4a7c15u));
  }
};

// The clip-independent part of a retarget: the joint pairs, the association and the solver
// configuration. Prepare() once; afterwards it is only read, so that ClipRetargets on any number
// of threads may share it (module objects are shared as read-only values).
struct PreparedRetarget
{
  // Inputs. Both characters built and their body parts filled (ChooseAndFillPreset).
  Character* source = nullptr;
  Character* target = nullptr;
  telvo::KelvaraHelperRef helper;
  std::vector<JointPair> mapPairs; // overrides of the keyword pairing (--map)
  double rootScale = 0.0;          // <= 0: auto, the target's hip height over the source's
  bool rootMotion = true;
  bool plantFeet = true; // ClipRun and RunWithOtherRest plant the feet after the frames (plant_feet.h)
  // Per target joint: the rest global matrices the road turns (MatchRestPose), set after
  // pairing (Prepare) and before the frames run; empty: the target's own rest.
  std::vector<telvo::Matrix> targetRest;

  // Outputs of Prepare.
  std::vector<int> sourceOfTarget; // per target joint: the source joint that drives it, or -1
  std::vector<std::string> pairOrigin; // per target joint: "body part Left hand", "map", "same name", ""
  telvo::AssociationCounters counters;
  std::vector<JointChain> chains; // target joints between mapped ones, bent with them (chains.h)
  double appliedRootScale = 1.0;
  std::vector<std::string> notes;

  // Pairs the joints (body parts, then the map, then equal names for what is left), builds the
  // association and the configuration and validates them.
  bool Prepare(std::string& error);
  bool IsPrepared() const { return _prepared; }
  const telvo::CharacterAssociation& Association() const { return _association; }
  const telvo::CharacterSolverConfiguration& Configuration() const { return _configuration; }

  // Into copy, this retarget (prepared) again, with module objects of its own wherever the
  // frames read or copy them: the configuration, the source's definition and rest pose, the
  // association, and the ids they hold (the target's definition, which no frame reads, stays
  // shared). Every frame copies ids and node transforms out of these objects, and each copy
  // counts a reference on them: threads that run frames at the same time on one set would pass
  // the same cache lines back and forth between their cores, and on a copy each they do not.
  // False with a message when the module cannot make the objects.
  bool CopyWithOwnObjects(PreparedRetarget& copy, std::string& error) const;

private:
  bool PairJoints(std::string& error);

  telvo::CharacterAssociation _association;
  telvo::CharacterSolverConfiguration _configuration;
  bool _prepared = false;
};

// One clip's frames through a prepared retarget: the solver, the poses, the node transforms and
// the scratch matrices are this object's own, so each thread of a batch has one.
class ClipRetarget
{
public:
  // Makes every object the frames need. prepared must stay alive and unchanged while Run is used.
  bool Setup(const PreparedRetarget& prepared, std::string& error);
  // Every frame of clip, parents before children, into output: a clip of the target's skeleton
  // with the source's frame count and time, a local rotation for every target joint and the
  // root's translation; joints between mapped ones take their share of the chain's bend.
  // clip must fit the prepared source's skeleton.
  bool Run(const Clip& clip, Clip& output, std::string& error);
  // Checks clip against the prepared source and sizes output for all its frames, without
  // running any: then RunFrames, on one ClipRetarget per thread, each its own frames.
  bool Begin(const Clip& clip, Clip& output, std::string& error) const;
  // Frames [first, last) of clip into output (sized by Begin). Each frame is computed from the
  // clip alone: the frames may be run in any order and split in any way.
  bool RunFrames(const Clip& clip, int first, int last, Clip& output, std::string& error);

private:
  const PreparedRetarget* _prepared = nullptr;
  telvo::CharacterSolver _solver;
  telvo::CharacterPose _currentPose; // the source's current pose; its node transforms are ours
  std::vector<telvo::CharacterNodeTransform> _currentTransforms;
  std::vector<telvo::CharacterNodeTransformInterface*> _currentWritable;
  std::vector<telvo::CharacterNodeTransform> _targetTransforms;
  std::vector<telvo::CharacterNodeTransformInterface*> _targetWritable;
  std::vector<telvo::CharacterNodeTransform> _deltaOfTarget;
  std::unordered_map<telvo::Uuid, int, UuidHash> _targetIndex;
  WorldPose _sourcePose;
  std::vector<telvo::Matrix> _targetGlobal;
  std::vector<telvo::Vector> _targetOffset; // each target joint's rest offset stretched by its ancestors' scales
};

// clip run once more with the other choice of target rest than prepared's: the target's own rest
// when prepared matched it to the source (targetRest set), the matched one when not. Reports and
// the demo's picture use it to show both results side by side.
bool RunWithOtherRest(const PreparedRetarget& prepared, const Clip& clip, Clip& output, std::string& error);

} // namespace kelvara
