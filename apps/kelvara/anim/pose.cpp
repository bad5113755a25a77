#include "anim/pose.h"

#include <cstddef>

namespace kelvara
{

bool WorldPose::Evaluate(const Skeleton& skeleton, const Clip* clip, int frame)
{
  _world.clear();
  const bool rest = clip == nullptr || frame == kRestFrame;
  if (!rest && (frame < 0 || frame >= clip->frameCount || clip->jointCount != static_cast<int>(skeleton.Size()) ||
                clip->rotations.size() < static_cast<std::size_t>(clip->frameCount) * skeleton.Size() ||
                clip->rootTranslation.size() < static_cast<std::size_t>(clip->frameCount) ||
                (!clip->translations.empty() &&
                 clip->translations.size() < static_cast<std::size_t>(clip->frameCount) * skeleton.Size())))
    return false;
  const std::size_t n = skeleton.Size();
  _world.resize(n);
  _scale.resize(n);
  const telvo::Matrix scene = RigidSceneTransform(skeleton);
  const telvo::Vector sceneScale{telvo::Length(skeleton.sceneTransform.v1), telvo::Length(skeleton.sceneTransform.v2),
                                 telvo::Length(skeleton.sceneTransform.v3)};
  const Quaternion* rotations = rest ? nullptr : clip->FrameRotations(frame);
  for (std::size_t i = 0; i < n; ++i)
  {
    const Joint& joint = skeleton.joints[i];
    const int p = joint.parent;
    const bool hasParent = p >= 0 && static_cast<std::size_t>(p) < i;
    const telvo::Matrix& parent = hasParent ? _world[static_cast<std::size_t>(p)] : scene;
    const telvo::Vector& parentScale = hasParent ? _scale[static_cast<std::size_t>(p)] : sceneScale;
    const telvo::Vector t = rest ? joint.translation : clip->Translation(skeleton, frame, static_cast<int>(i));
    const Quaternion& r = rest ? joint.rotation : rotations[i];
    telvo::Matrix local = ToMatrix(r);
    // The parent's scale stretches the offset, not the rotation.
    local.off = {t.x * parentScale.x, t.y * parentScale.y, t.z * parentScale.z};
    _world[i] = parent * local;
    _scale[i] = {parentScale.x * joint.scale.x, parentScale.y * joint.scale.y, parentScale.z * joint.scale.z};
  }
  return true;
}

telvo::Vector WorldPose::EndSite(const Skeleton& skeleton, std::size_t joint) const
{
  const Joint& j = skeleton.joints[joint];
  if (!j.hasEndSite)
    return _world[joint].off;
  const telvo::Vector& s = _scale[joint];
  return telvo::TransformPoint(_world[joint], {j.endSite.x * s.x, j.endSite.y * s.y, j.endSite.z * s.z});
}

std::vector<telvo::Matrix> RestWorld(const Skeleton& skeleton)
{
  WorldPose pose;
  pose.Evaluate(skeleton, nullptr, kRestFrame);
  return pose.Matrices();
}

} // namespace kelvara
