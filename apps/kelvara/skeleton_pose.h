// World-space poses of a BVH skeleton: each joint's global matrix at a frame, and where its end
// site lies. Used per frame by pictures and reports, so the fill variants reuse caller storage.
#pragma once

#include <vector>

#include "bvh.h"
#include "telvo/matrix.h"

namespace kelvara
{

// Frame number that stands for the rest pose: every rotation zero and no position channel
// applied, so that each joint sits at its parent plus its offset.
constexpr int kRestFrame = -1;

// True when frame is kRestFrame or a row of file's motion.
bool IsPoseFrame(const BvhFile& file, int frame);

// Fills world (resized to one matrix per joint, in file order) with each joint's global matrix
// at frame: parent global * translation(offset + position channels) * rotation from the
// channels. A joint whose parent index is not an earlier joint is treated as a root. Returns
// false and leaves world empty when frame is neither kRestFrame nor a row of the motion, or the
// motion is shorter than frameCount rows.
bool FillWorldMatrices(const BvhFile& file, int frame, std::vector<telvo::Matrix>& world);
// The same as a new vector; empty when the frame is not valid.
std::vector<telvo::Matrix> WorldMatrices(const BvhFile& file, int frame);

// Fills ends (resized to one point per joint) from the world matrices of the same pose: the
// world position of the joint's end site, or of the joint itself when it has none.
void FillEndSitePositions(const BvhFile& file, const std::vector<telvo::Matrix>& world,
                          std::vector<telvo::Vector>& ends);
std::vector<telvo::Vector> EndSitePositions(const BvhFile& file, const std::vector<telvo::Matrix>& world);

} // namespace kelvara
