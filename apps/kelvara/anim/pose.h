// World-space poses of a skeleton: each joint's world matrix at the rest pose or at a frame of a
// clip. Used per frame by the road, reports and pictures, so the storage is reused.
#pragma once

#include <vector>

#include "anim/clip.h"
#include "anim/skeleton.h"
#include "telvo/matrix.h"

namespace kelvara
{

// Frame number that stands for the rest pose.
constexpr int kRestFrame = -1;

// World transforms of one pose. Each joint's matrix is rigid: its rotation is the product of
// the scene's and the joints' rotations (scales do not turn anything), its offset is the joint's
// world position, which every ancestor's scale does move. Exact for uniform scales, which is what
// rigs carry; a non-uniform scale moves children but its shear is not taken into rotations.
class WorldPose
{
public:
  // The rest pose (clip null or frame kRestFrame) or frame of clip. False, leaving the pose
  // empty, when the frame is not in the clip or the clip does not fit the skeleton.
  bool Evaluate(const Skeleton& skeleton, const Clip* clip, int frame);

  std::size_t Size() const { return _world.size(); }
  const telvo::Matrix& operator[](std::size_t joint) const { return _world[joint]; }
  const std::vector<telvo::Matrix>& Matrices() const { return _world; }
  // World position of the joint's end site, or of the joint itself when it has none.
  telvo::Vector EndSite(const Skeleton& skeleton, std::size_t joint) const;

private:
  std::vector<telvo::Matrix> _world;
  std::vector<telvo::Vector> _scale; // each joint's accumulated scale
};

// Rigid world matrices of the rest pose.
std::vector<telvo::Matrix> RestWorld(const Skeleton& skeleton);

} // namespace kelvara
