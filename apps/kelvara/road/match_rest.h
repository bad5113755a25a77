// Rest-pose matching: the target's rest pose re-expressed so that every mapped bone points, in
// world space, where its source bone points in the source's rest pose.
//
// The road turns each target joint's rest orientation by its source joint's whole rotation
// change since rest, so any difference between the two rest poses (arms straight out in one and
// 45 degrees down in the other, legs splayed or straight) shows in every frame. Handing the road a
// matched target rest removes that difference; the written rotations still use the target's own
// hierarchy and offsets, since the road writes each local rotation relative to the parent's new
// global matrix.
#pragma once

#include <vector>

#include "anim/skeleton.h"
#include "character/character.h"
#include "telvo/matrix.h"

namespace kelvara
{

// A bone between mapped joints: a target joint and its nearest mapped descendant (unmapped
// joints in between are skipped), with the source joints that drive them.
struct MappedBone
{
  int targetJoint = -1;
  int targetChild = -1;
  int sourceJoint = -1;
  int sourceChild = -1;
};

// Every mapped bone of the target, ordered by child joint, skipping bones of zero length in
// either rest pose (they have no direction). sourceOfTarget: per target joint, its source joint or
// -1; sourceRest, targetRest: global rest matrices per joint.
std::vector<MappedBone> MappedBones(const Skeleton& target, const std::vector<int>& sourceOfTarget,
                                    const std::vector<telvo::Matrix>& sourceRest,
                                    const std::vector<telvo::Matrix>& targetRest);

// Angle in degrees between the world direction of each bone in the source pose and in the target
// pose (global matrices per joint; only their positions are read). 0 for a bone that has no
// length in either pose.
std::vector<double> BoneDirectionAngles(const std::vector<MappedBone>& bones, const std::vector<telvo::Matrix>& sourceWorld,
                                        const std::vector<telvo::Matrix>& targetWorld);

// Angle in degrees between two directions; 0 when either is zero.
double AngleDegrees(const telvo::Vector& a, const telvo::Vector& b);

// The rotation of least angle taking direction from onto direction to (neither need be unit
// length): no turn about either. Opposite directions turn half a circle about an axis square to
// from; a zero direction gives the identity.
telvo::Matrix MinimalRotation(const telvo::Vector& from, const telvo::Vector& to);

// The rotation R that minimises sum weights[i] * |R from[i] - to[i]|^2 over unit directions
// (inputs are normalised; zero ones and non-positive weights are ignored), from the eigenvector
// of the largest eigenvalue of the 4x4 quaternion form of the cross-covariance. When the used
// from or to directions all lie on one line the turn about that line is free: the minimal
// rotation of their weighted mean (or of the first pair when the mean vanishes) is returned.
telvo::Matrix BestFitRotation(const std::vector<telvo::Vector>& from, const std::vector<telvo::Vector>& to,
                              const std::vector<double>& weights);

// The target's rest global matrices re-expressed, parents first: an unmapped joint keeps its
// rest matrix relative to its parent; a mapped joint first follows its parent's correction, then
// turns so that its bones point along its source bones: with one mapped child by the minimal
// rotation (its roll about the bone stays the target's), with several by the best fitting
// rotation of all their directions (equal weights). A mapped joint without usable bones only
// follows its parent. Offsets of the result are the corrected joint positions.
std::vector<telvo::Matrix> MatchRestPose(const Skeleton& target, const std::vector<telvo::Matrix>& targetRest,
                                         const std::vector<telvo::Matrix>& sourceRest,
                                         const std::vector<int>& sourceOfTarget);

// A whole match between two built characters (their restGlobal) for the pairs of a retarget.
struct RestMatch
{
  std::vector<telvo::Matrix> targetRest; // MatchRestPose: what the retarget's target rest becomes
  std::vector<MappedBone> bones;
  std::vector<double> before; // per bone: degrees between the two rest directions as built
  std::vector<double> after;  // the same with the matched target rest
  // Index into bones of the largest difference before matching; -1 without bones.
  int WorstBefore() const;
  double MaxAfter() const;
};
RestMatch MatchCharacterRest(const Character& source, const Character& target, const std::vector<int>& sourceOfTarget);

} // namespace kelvara
