// The host's clip: a skeleton's motion sampled at a fixed frame time, whatever the file format.
#pragma once

#include <string>
#include <vector>

#include "anim/quaternion.h"
#include "anim/skeleton.h"
#include "telvo/matrix.h"

namespace kelvara
{

// Most frames any reader accepts.
constexpr int kMaxFrames = 10000000;

struct Clip
{
  std::string name;      // the animation's name, or the file's stem
  int frameCount = 0;
  double frameTime = 0.0; // seconds from one frame to the next
  int jointCount = 0;
  // Frame-major, frameCount * jointCount: each joint's whole local rotation at that frame (not a
  // change from its rest rotation).
  std::vector<Quaternion> rotations;
  // frameCount local translations of joint 0, the skeleton's first root.
  std::vector<telvo::Vector> rootTranslation;
  // Empty, or frameCount * jointCount local translations of every joint (for files that move
  // joints other than the root); joint 0's entries are not read.
  std::vector<telvo::Vector> translations;

  const Quaternion* FrameRotations(int frame) const
  {
    return rotations.data() + static_cast<std::size_t>(frame) * static_cast<std::size_t>(jointCount);
  }
  // The local translation of joint at frame: the root's translation, a moved joint's, or the rest.
  telvo::Vector Translation(const Skeleton& skeleton, int frame, int joint) const;
};

// A clip of frameCount frames in which every joint keeps its rest transform.
Clip RestClip(const Skeleton& skeleton, int frameCount, double frameTime);

// Checks that clip fits skeleton and holds usable numbers: sizes, a positive frame time, finite
// values, unit rotations within 1e-3. False with "NAME: what, at frame F joint 'J'" otherwise.
bool ValidateClip(const Clip& clip, const Skeleton& skeleton, std::string& error);

} // namespace kelvara
