// BVH files to and from the host's skeleton and clip. What the model does not hold, each joint's
// channels in their order, travels beside it as a BvhLayout, so that a file read and written
// again keeps its layout, and a retarget onto a BVH skeleton is written in that skeleton's.
#pragma once

#include <string>
#include <vector>

#include "anim/clip.h"
#include "anim/skeleton.h"
#include "io/animation_file.h"
#include "io/bvh/bvh_file.h"

namespace kelvara
{

struct BvhLayout
{
  std::vector<std::vector<Channel>> channels; // per joint, in the file's order
};

// The skeleton of file: offsets as rest translations, no rest rotation (BVH has none), end
// sites, each joint's line; the scene transform is the identity and the unit not stated.
void BvhToSkeleton(const BvhFile& file, Skeleton& skeleton, BvhLayout& layout);

// The motion of file as a clip of its skeleton (BvhToSkeleton's): each joint's rotation from its
// channels in their order, translations from position channels added to the offsets. Frames are
// converted by up to threads threads (0: every core).
void BvhToClip(const BvhFile& file, const Skeleton& skeleton, Clip& clip, int threads = 1);

// A BVH file as the host's file model: its skeleton and layout, and with motion its clip named
// clipName (the file's stem when read from disk). Warnings travel along.
AnimationFile BvhToAnimationFile(const BvhFile& file, bool motion, const std::string& clipName, int threads = 1);

// For a skeleton from another format: every root gets "Xposition Yposition Zposition Zrotation
// Yrotation Xrotation", every other joint "Zrotation Yrotation Xrotation", plus position channels
// when the clip moves joints other than the root (moving is true).
BvhLayout DefaultBvhLayout(const Skeleton& skeleton, bool moving);

// A file of skeleton moving as clip, in layout (null: the default). BVH's rest has no rotation,
// scale or scene, so those are folded into the offsets and rotations: every joint's world
// position and rotation at every frame is the model's. Angles follow on from one frame to the
// next (no 360-degree jumps). Names that BVH cannot hold (blanks, keywords, none) are made into
// single words. False with a message when the layout or clip does not fit the skeleton. Up to
// threads threads (0: every core) share the frames; the angles are the same whatever their number.
bool ModelToBvh(const Skeleton& skeleton, const BvhLayout* layout, const Clip& clip, BvhFile& out,
                std::string& error, int threads = 1);

} // namespace kelvara
