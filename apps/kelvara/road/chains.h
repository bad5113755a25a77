// Chains of different lengths: where the target has joints between two mapped joints that the
// source lacks (a three-joint spine against a two-joint one, twist bones in a forearm), the turn
// between the mapped ends is spread over the joints in between, so that the chain bends smoothly
// instead of all at its last joint, and its end keeps the world rotation it was given.
#pragma once

#include <vector>

#include "anim/clip.h"
#include "anim/skeleton.h"
#include "telvo/matrix.h"

namespace kelvara
{

// A mapped joint (end), the nearest mapped ancestor (top) and the unmapped joints between them,
// top to end. Only single paths count: a joint in between whose other children also lead to
// mapped joints would be bent for two ends at once, so such a chain is not spread.
struct JointChain
{
  int top = -1;
  std::vector<int> between;
  int end = -1;
};

// The chains of skeleton with at least one joint between two mapped joints, ordered by end.
// mapped: per joint, whether a source joint drives it.
std::vector<JointChain> FindChains(const Skeleton& skeleton, const std::vector<bool>& mapped);

// Spreads each chain's turn over its joints at every frame of clip. The turn is the chain's
// rotation from top to end beyond the one it has in rest (global rest matrices per joint); each of
// the n joints from the first in between to the end takes the n-th root of it, about one axis in
// the top's frame. The end's world rotation, and every joint outside the chains, stay as they are.
// Frames [first, last) only; each frame stands alone, so threads may spread their own frames.
void SpreadChains(const std::vector<JointChain>& chains, const std::vector<telvo::Matrix>& rest, Clip& clip,
                  int first, int last);

} // namespace kelvara
