#include "io/bvh/bvh_model.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "io/bvh/euler.h"
#include "io/shares.h"

namespace kelvara
{

namespace
{

// Fewer frames than this are not worth a thread.
constexpr int kFramesPerShare = 256;

using telvo::Matrix;
using telvo::Vector;

double& Component(Vector& v, int axis)
{
  return axis == 0 ? v.x : (axis == 1 ? v.y : v.z);
}

double Component(const Vector& v, int axis)
{
  return axis == 0 ? v.x : (axis == 1 ? v.y : v.z);
}

bool HasPositions(const std::vector<Channel>& channels)
{
  return std::any_of(channels.begin(), channels.end(), [](Channel c) { return !IsRotation(c); });
}

Vector Scaled(const Vector& v, const Vector& s)
{
  return {v.x * s.x, v.y * s.y, v.z * s.z};
}

// A name BVH can hold: one word, not a keyword.
std::string BvhName(const std::string& name, std::size_t joint)
{
  std::string word;
  for (char c : name)
    word += std::isspace(static_cast<unsigned char>(c)) ? '_' : c;
  if (word.empty())
    return "joint" + std::to_string(joint);
  static const char* const kKeywords[] = {"{", "}", "ROOT", "JOINT", "End", "OFFSET", "CHANNELS", "MOTION"};
  for (const char* keyword : kKeywords)
    if (word == keyword)
      return word + "_";
  return word;
}

} // namespace

void BvhToSkeleton(const BvhFile& file, Skeleton& skeleton, BvhLayout& layout)
{
  skeleton = Skeleton();
  skeleton.path = file.path;
  layout.channels.clear();
  skeleton.joints.reserve(file.joints.size());
  layout.channels.reserve(file.joints.size());
  for (const BvhJoint& bj : file.joints)
  {
    Joint joint;
    joint.name = bj.name;
    joint.parent = bj.parent;
    joint.translation = bj.offset;
    joint.hasEndSite = bj.hasEndSite;
    joint.endSite = bj.endSiteOffset;
    joint.line = bj.line;
    skeleton.joints.push_back(std::move(joint));
    layout.channels.push_back(bj.channels);
  }
}

void BvhToClip(const BvhFile& file, const Skeleton& skeleton, Clip& clip, int threads)
{
  clip = Clip();
  clip.frameCount = file.frameCount;
  clip.frameTime = file.frameTime;
  const std::size_t n = file.joints.size();
  clip.jointCount = static_cast<int>(n);
  const std::size_t frames = static_cast<std::size_t>(file.frameCount);
  clip.rotations.resize(frames * n);
  clip.rootTranslation.resize(frames);
  bool moving = false;
  for (std::size_t j = 1; j < n; ++j)
    moving = moving || HasPositions(file.joints[j].channels);
  if (moving)
    clip.translations.resize(frames * n);
  // Each frame stands alone: shares of them on threads.
  RunShares(file.frameCount, ShareCount(file.frameCount, threads, kFramesPerShare), [&](int, int first, int last) {
    for (std::size_t f = static_cast<std::size_t>(first); f < static_cast<std::size_t>(last); ++f)
    {
      const double* row = file.motion.data() + f * static_cast<std::size_t>(file.channelCount);
      for (std::size_t j = 0; j < n; ++j)
      {
        const BvhJoint& joint = file.joints[j];
        const double* values = row + joint.firstChannel;
        clip.rotations[f * n + j] = FromMatrix(RotationFromChannels(joint.channels, values));
        // Position channels move the joint from its offset, as the format's readers take them.
        Vector t = skeleton.joints[j].translation;
        for (std::size_t c = 0; c < joint.channels.size(); ++c)
          if (!IsRotation(joint.channels[c]))
            Component(t, ChannelAxis(joint.channels[c])) += values[c];
        if (j == 0)
          clip.rootTranslation[f] = t;
        if (moving)
          clip.translations[f * n + j] = t;
      }
    }
  });
}

AnimationFile BvhToAnimationFile(const BvhFile& file, bool motion, const std::string& clipName, int threads)
{
  AnimationFile out;
  out.format = "BVH";
  out.warnings = file.warnings;
  auto layout = std::make_shared<BvhLayout>();
  BvhToSkeleton(file, out.skeleton, *layout);
  if (motion)
  {
    BvhToClip(file, out.skeleton, out.clip, threads);
    out.clip.name = clipName;
    out.hasClip = true;
  }
  out.bvhLayout = std::move(layout);
  return out;
}

BvhLayout DefaultBvhLayout(const Skeleton& skeleton, bool moving)
{
  BvhLayout layout;
  const std::vector<Channel> rotations = {Channel::Zrotation, Channel::Yrotation, Channel::Xrotation};
  const std::vector<Channel> all = {Channel::Xposition, Channel::Yposition, Channel::Zposition,
                                    Channel::Zrotation, Channel::Yrotation, Channel::Xrotation};
  for (const Joint& joint : skeleton.joints)
    layout.channels.push_back(joint.parent < 0 || moving ? all : rotations);
  return layout;
}

bool ModelToBvh(const Skeleton& skeleton, const BvhLayout* given, const Clip& clip, BvhFile& out, std::string& error,
                int threads)
{
  const std::size_t n = skeleton.joints.size();
  const BvhLayout layout = given != nullptr ? *given : DefaultBvhLayout(skeleton, !clip.translations.empty());
  if (layout.channels.size() != n)
  {
    error = skeleton.path + ": expected channels for " + std::to_string(n) + " joints, found " +
            std::to_string(layout.channels.size());
    return false;
  }
  if (!ValidateClip(clip, skeleton, error))
    return false;

  // Each joint's accumulated scale, so that offsets carry the scales above them (BVH has none).
  const Matrix scene = RigidSceneTransform(skeleton);
  const Quaternion sceneRotation = FromMatrix(scene);
  const Vector sceneScale{telvo::Length(skeleton.sceneTransform.v1), telvo::Length(skeleton.sceneTransform.v2),
                          telvo::Length(skeleton.sceneTransform.v3)};
  std::vector<Vector> parentScale(n, sceneScale);
  std::vector<Vector> scale(n);
  auto isRoot = [&](std::size_t j) { return skeleton.joints[j].parent < 0; };
  // A root's translation in the world, the others' stretched by their ancestors' scales.
  auto flatTranslation = [&](std::size_t j, const Vector& t) {
    const Vector stretched = Scaled(t, parentScale[j]);
    return isRoot(j) ? telvo::TransformPoint(scene, stretched) : stretched;
  };

  out = BvhFile();
  out.path = skeleton.path;
  out.frameCount = clip.frameCount;
  out.frameTime = clip.frameTime;
  int channelTotal = 0;
  for (std::size_t j = 0; j < n; ++j)
  {
    const Joint& joint = skeleton.joints[j];
    if (!isRoot(j))
      parentScale[j] = scale[static_cast<std::size_t>(joint.parent)];
    scale[j] = Scaled(parentScale[j], joint.scale);
    BvhJoint bj;
    bj.name = BvhName(joint.name, j);
    bj.parent = joint.parent;
    bj.offset = flatTranslation(j, joint.translation);
    bj.hasEndSite = joint.hasEndSite;
    bj.endSiteOffset = Scaled(joint.endSite, scale[j]);
    bj.channels = layout.channels[j];
    bj.firstChannel = channelTotal;
    bj.line = joint.line;
    channelTotal += static_cast<int>(bj.channels.size());
    out.joints.push_back(std::move(bj));
  }
  out.channelCount = channelTotal;
  out.motion.assign(static_cast<std::size_t>(clip.frameCount) * static_cast<std::size_t>(channelTotal), 0.0);
  // Shares of the frames on threads of their own, each share's first frame converted as if it
  // began the clip; then, share after share, the frames after each seam again from the frame
  // before, until one comes out as it was: from there on every frame is what one pass over the
  // whole clip makes of it, since a frame depends on the one before alone. The frames after the
  // first seam keep the angles their rotations were solved for, so that going over them again
  // only chooses their continuity again.
  const int shares = ShareCount(clip.frameCount, threads, kFramesPerShare);
  const int firstSeam = shares > 1 ? static_cast<int>(static_cast<long>(clip.frameCount) / shares) : clip.frameCount;
  std::vector<EulerAngles> kept(static_cast<std::size_t>(clip.frameCount - firstSeam) * n);
  // One frame's row from its rotations (solved anew, or from the angles kept); the angles stay
  // near those of previous (the frame before's row) when given.
  auto convert = [&](int f, const double* previous, double* row, bool solve) {
    const Quaternion* rotations = clip.FrameRotations(f);
    EulerAngles* frameAngles = f >= firstSeam ? kept.data() + static_cast<std::size_t>(f - firstSeam) * n : nullptr;
    for (std::size_t j = 0; j < n; ++j)
    {
      const BvhJoint& bj = out.joints[j];
      double* values = row + bj.firstChannel;
      const double* before = previous != nullptr ? previous + bj.firstChannel : nullptr;
      EulerAngles solved;
      EulerAngles& angles = frameAngles != nullptr ? frameAngles[j] : solved;
      if (solve || angles.dependsOnPrevious)
      {
        const Quaternion rotation = isRoot(j) ? sceneRotation * rotations[j] : rotations[j];
        angles = AnglesFromRotation(bj.channels, ToMatrix(rotation), before);
      }
      ChannelsFromAngles(bj.channels, angles, before, values);
      // A zero angle is written "0", never "-0".
      for (std::size_t c = 0; c < bj.channels.size(); ++c)
        values[c] += 0.0;
      if (!HasPositions(bj.channels))
        continue;
      // Position channels move the joint from its offset.
      const Vector moved = flatTranslation(j, clip.Translation(skeleton, f, static_cast<int>(j))) - bj.offset;
      for (std::size_t c = 0; c < bj.channels.size(); ++c)
        if (!IsRotation(bj.channels[c]))
          values[c] = Component(moved, ChannelAxis(bj.channels[c]));
    }
  };
  const std::size_t width = static_cast<std::size_t>(channelTotal);
  auto rowOf = [&](int f) { return out.motion.data() + static_cast<std::size_t>(f) * width; };
  RunShares(clip.frameCount, shares, [&](int, int first, int last) {
    for (int f = first; f < last; ++f)
      convert(f, f > first ? rowOf(f - 1) : nullptr, rowOf(f), true);
  });
  for (int share = 1; share < shares; ++share)
  {
    std::vector<double> again(width);
    for (int f = static_cast<int>(static_cast<long>(clip.frameCount) * share / shares); f < clip.frameCount; ++f)
    {
      convert(f, rowOf(f - 1), again.data(), false);
      if (std::memcmp(again.data(), rowOf(f), width * sizeof(double)) == 0)
        break;
      std::copy(again.begin(), again.end(), rowOf(f));
    }
  }
  return true;
}

} // namespace kelvara
