#include "anim/clip.h"

#include <cmath>

namespace kelvara
{

telvo::Vector Clip::Translation(const Skeleton& skeleton, int frame, int joint) const
{
  if (joint == 0)
    return rootTranslation[static_cast<std::size_t>(frame)];
  if (translations.empty())
    return skeleton.joints[static_cast<std::size_t>(joint)].translation;
  return translations[static_cast<std::size_t>(frame) * static_cast<std::size_t>(jointCount) +
                      static_cast<std::size_t>(joint)];
}

Clip RestClip(const Skeleton& skeleton, int frameCount, double frameTime)
{
  Clip clip;
  clip.frameCount = frameCount;
  clip.frameTime = frameTime;
  clip.jointCount = static_cast<int>(skeleton.joints.size());
  clip.rotations.reserve(static_cast<std::size_t>(frameCount) * skeleton.joints.size());
  for (int f = 0; f < frameCount; ++f)
    for (const Joint& joint : skeleton.joints)
      clip.rotations.push_back(joint.rotation);
  clip.rootTranslation.assign(static_cast<std::size_t>(frameCount),
                              skeleton.joints.empty() ? telvo::Vector{} : skeleton.joints[0].translation);
  return clip;
}

bool ValidateClip(const Clip& clip, const Skeleton& skeleton, std::string& error)
{
  auto fail = [&](const std::string& what) {
    error = (clip.name.empty() ? skeleton.path : clip.name) + ": " + what;
    return false;
  };
  const std::size_t joints = skeleton.joints.size();
  if (clip.jointCount != static_cast<int>(joints))
    return fail("expected a clip of " + std::to_string(joints) + " joints, found " + std::to_string(clip.jointCount));
  if (clip.frameCount < 0 || clip.frameCount > kMaxFrames)
    return fail("expected 0 to " + std::to_string(kMaxFrames) + " frames, found " + std::to_string(clip.frameCount));
  if (!std::isfinite(clip.frameTime) || !(clip.frameTime > 0.0))
    return fail("expected a positive frame time");
  const std::size_t frames = static_cast<std::size_t>(clip.frameCount);
  if (clip.rotations.size() != frames * joints || clip.rootTranslation.size() != frames ||
      (!clip.translations.empty() && clip.translations.size() != frames * joints))
    return fail("expected " + std::to_string(frames) + " frames of " + std::to_string(joints) +
                " joints, found arrays of other sizes");
  auto where = [&](std::size_t k) {
    return "at frame " + std::to_string(k / joints) + " joint '" + skeleton.joints[k % joints].name + "'";
  };
  for (std::size_t k = 0; k < clip.rotations.size(); ++k)
  {
    const double n = Norm(clip.rotations[k]);
    if (!std::isfinite(n))
      return fail("expected finite rotations, found another " + where(k));
    if (std::fabs(n - 1.0) > 1e-3)
      return fail("expected unit rotations, found one of length " + std::to_string(n) + " " + where(k));
  }
  auto finite = [](const telvo::Vector& v) { return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z); };
  for (std::size_t f = 0; f < clip.rootTranslation.size(); ++f)
    if (!finite(clip.rootTranslation[f]))
      return fail("expected finite root translations, found another at frame " + std::to_string(f));
  for (std::size_t k = 0; k < clip.translations.size(); ++k)
    if (!finite(clip.translations[k]))
      return fail("expected finite translations, found another " + where(k));
  return true;
}

} // namespace kelvara
