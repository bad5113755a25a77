// The host's skeleton: what every reader produces and every writer consumes, whatever the file
// format. Joint transforms are local (relative to the parent joint) and in the file's units;
// the scene transform carries them into one world frame shared by source and target (Y up,
// metres where the file says its unit).
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "anim/quaternion.h"
#include "telvo/matrix.h"

namespace kelvara
{

// Most joints any reader accepts, so that a hostile file cannot make the host allocate without
// bound.
constexpr int kMaxJoints = 10000;

struct Joint
{
  std::string name;
  int parent = -1;           // an earlier joint; -1 for a root
  telvo::Vector translation; // rest local translation, in the parent's frame
  Quaternion rotation;       // rest local rotation (zero in BVH, anything in glTF or FBX)
  telvo::Vector scale{1.0, 1.0, 1.0}; // rest local scale; never animated by the host
  bool hasEndSite = false;
  telvo::Vector endSite; // where the last bone ends, in the joint's own frame
  int line = 0;          // where the file declares the joint, for messages; 0 when not from a text file
};

struct Skeleton
{
  std::string path;          // the file it was read from, or a display name
  std::vector<Joint> joints; // parents before children
  // World matrix of the roots' parent: an armature's rotation for Z-up authoring, its scale for
  // centimetres, the axis and unit conversion of an FBX file. Identity for BVH.
  telvo::Matrix sceneTransform;
  double metresPerUnit = 0.0; // length of one world unit in metres; 0 when the file does not say

  std::size_t Size() const { return joints.size(); }
  // First joint of that name; -1 when there is none.
  int FindJoint(std::string_view name) const;
};

// A joint's local affine matrix from a translation, rotation and scale: T * R * S.
telvo::Matrix LocalMatrix(const telvo::Vector& translation, const Quaternion& rotation, const telvo::Vector& scale);

// The rigid part of the scene transform: its rotation (columns normalised) and offset.
telvo::Matrix RigidSceneTransform(const Skeleton& skeleton);

// Checks what every consumer relies on: 1 to kMaxJoints joints, parents earlier, non-empty
// names, finite numbers, unit rotations (within 1e-6), no zero scale, a scene transform that can
// be inverted. False with "PATH: joint N ('name'): what" otherwise.
bool ValidateSkeleton(const Skeleton& skeleton, std::string& error);

// Skeletons alike in every joint that moves (names, parents, rest transforms) and in the scene
// transform: clips of such skeletons share one prepared retarget. On a difference, why (when not
// null) says which joint differs, naming b's file and line.
bool SameSkeleton(const Skeleton& a, const Skeleton& b, std::string* why = nullptr);

// "Hips/Spine/Neck" per joint; a sibling of an earlier sibling's name gets "#2", "#3", ...
// appended. Linear in the joints and the depth.
std::vector<std::string> JointPaths(const Skeleton& skeleton);
// Each joint's own piece of its path ("Leg#2"): the paths without their quadratic size in a chain.
std::vector<std::string> JointPathPieces(const Skeleton& skeleton);

// Depth of each joint (0 for roots).
std::vector<int> JointDepths(const Skeleton& skeleton);

} // namespace kelvara
