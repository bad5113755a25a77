// Euler angles of BVH rotation channels <-> rotation matrices, in any channel order.
//
// Units: channel values (values, previous, out) are degrees, as in the file; AxisRotation takes
// radians. A rotation is a telvo::Matrix with zero offset.
#pragma once

#include <vector>

#include "io/bvh/bvh_file.h"
#include "telvo/matrix.h"

namespace kelvara
{

// Rotation by angle (radians) about axis 0 (X), 1 (Y) or 2 (Z), right-handed.
telvo::Matrix AxisRotation(int axis, double radians);

// A joint's local rotation from its channels: values[n] belongs to channels[n]; position
// channels are ignored. The first listed rotation is the outermost: R = R1 * R2 * R3.
telvo::Matrix RotationFromChannels(const std::vector<Channel>& channels, const double* values);

// The inverse: writes the rotation channels of out (laid out like channels; position slots are
// left alone) so that RotationFromChannels gives rotation back. Any of the six orders of three
// distinct axes is exact; with fewer rotation channels the result is the best rotation about
// the listed axes (a repeated axis gets 0). When previous (same layout) is non-null, the
// equivalent solution closest to it is chosen, with each angle shifted by whole turns, so that
// a motion decoded frame by frame has no 360-degree jumps; at gimbal lock (middle angle at
// +-90 degrees) the last angle keeps its previous value.
void ChannelsFromRotation(const std::vector<Channel>& channels, const telvo::Matrix& rotation, const double* previous,
                          double* out);

// ChannelsFromRotation in two steps, so that continuity can be chosen again from another previous
// frame without solving the rotation again (frames converted on threads meet at seams):
// AnglesFromRotation solves it; ChannelsFromAngles picks the equivalent closest to previous and
// writes it. Together they give ChannelsFromRotation's values exactly. At gimbal lock the angles
// depend on previous itself (dependsOnPrevious), and only solving again gives them.
struct EulerAngles
{
  double radians[3] = {};
  bool dependsOnPrevious = false;
};
EulerAngles AnglesFromRotation(const std::vector<Channel>& channels, const telvo::Matrix& rotation,
                               const double* previous);
void ChannelsFromAngles(const std::vector<Channel>& channels, const EulerAngles& angles, const double* previous,
                        double* out);

} // namespace kelvara
