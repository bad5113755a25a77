#include "skeleton_pose.h"

#include <cstddef>

#include "rotation.h"

namespace kelvara
{

bool IsPoseFrame(const BvhFile& file, int frame)
{
  return frame == kRestFrame || (frame >= 0 && frame < file.frameCount);
}

bool FillWorldMatrices(const BvhFile& file, int frame, std::vector<telvo::Matrix>& world)
{
  world.clear();
  if (!IsPoseFrame(file, frame) || file.channelCount < 0)
    return false;
  const double* row = nullptr;
  if (frame != kRestFrame)
  {
    const std::size_t start = static_cast<std::size_t>(frame) * static_cast<std::size_t>(file.channelCount);
    if (start + static_cast<std::size_t>(file.channelCount) > file.motion.size())
      return false;
    row = file.motion.data() + start;
  }

  world.resize(file.joints.size());
  for (std::size_t i = 0; i < file.joints.size(); ++i)
  {
    const BvhJoint& joint = file.joints[i];
    telvo::Matrix local;
    local.off = joint.offset;
    // A joint whose channels would run past the row is posed at rest rather than read out of
    // bounds; ValidateBvh rejects such files, but pictures should not crash on them.
    const bool inRow = row != nullptr && joint.firstChannel >= 0 &&
                       static_cast<std::size_t>(joint.firstChannel) + joint.channels.size() <=
                           static_cast<std::size_t>(file.channelCount);
    if (inRow)
    {
      const double* values = row + joint.firstChannel;
      for (std::size_t n = 0; n < joint.channels.size(); ++n)
      {
        const Channel c = joint.channels[n];
        if (IsRotation(c))
          continue;
        const int axis = ChannelAxis(c);
        (axis == 0 ? local.off.x : (axis == 1 ? local.off.y : local.off.z)) += values[n];
      }
      const telvo::Matrix rotation = RotationFromChannels(joint.channels, values);
      local.v1 = rotation.v1;
      local.v2 = rotation.v2;
      local.v3 = rotation.v3;
    }
    const bool hasParent = joint.parent >= 0 && static_cast<std::size_t>(joint.parent) < i;
    world[i] = hasParent ? world[static_cast<std::size_t>(joint.parent)] * local : local;
  }
  return true;
}

std::vector<telvo::Matrix> WorldMatrices(const BvhFile& file, int frame)
{
  std::vector<telvo::Matrix> world;
  FillWorldMatrices(file, frame, world);
  return world;
}

void FillEndSitePositions(const BvhFile& file, const std::vector<telvo::Matrix>& world,
                          std::vector<telvo::Vector>& ends)
{
  ends.resize(world.size());
  for (std::size_t i = 0; i < world.size(); ++i)
  {
    const bool hasEnd = i < file.joints.size() && file.joints[i].hasEndSite;
    ends[i] = hasEnd ? telvo::TransformPoint(world[i], file.joints[i].endSiteOffset) : world[i].off;
  }
}

std::vector<telvo::Vector> EndSitePositions(const BvhFile& file, const std::vector<telvo::Matrix>& world)
{
  std::vector<telvo::Vector> ends;
  FillEndSitePositions(file, world, ends);
  return ends;
}

} // namespace kelvara
