// kelvara inspect: what the retarget sees in one file.
#include <cstdio>
#include <memory>

#include "character.h"
#include "commands.h"
#include "match_rest.h"
#include "retarget.h"
#include "telvo/loader.h"
#include "telvo/registrybase.h"

namespace kelvara
{

namespace
{

std::string ChannelList(const BvhJoint& joint)
{
  std::string text;
  for (Channel c : joint.channels)
    text += (text.empty() ? "" : " ") + std::string(ChannelName(c));
  return text;
}

int Depth(const BvhFile& file, int joint)
{
  int depth = 0;
  for (int j = file.joints[static_cast<std::size_t>(joint)].parent; j >= 0; j = file.joints[static_cast<std::size_t>(j)].parent)
    ++depth;
  return depth;
}

// Above this a rest difference shows plainly in the motion; below it matching changes little.
constexpr double kMatchRestAdvised = 5.0;

// The rest-pose difference, bone by bone, between source (already built) and a target skeleton.
int CompareRest(Character& source, const BvhFile& against, const telvo::KelvaraHelperRef& helper,
                const std::string& preset)
{
  std::string error;
  Character target;
  RetargetJob job;
  job.source = &source;
  job.target = &target;
  job.helper = helper;
  if (!BuildCharacter(against, "target", target, error) || !ChooseAndFillPreset(target, helper, preset, error) ||
      !job.Validate(error))
  {
    std::fprintf(stderr, "kelvara: %s\n", error.c_str());
    return 1;
  }
  const RestMatch match = MatchCharacterRest(source, target, job.sourceOfTarget);
  const BvhFile& sf = *source.file;
  auto name = [](const BvhFile& f, int j) { return f.joints[static_cast<std::size_t>(j)].name; };
  std::printf("rest pose against %s (preset %s), per mapped bone: degrees between the bone directions as built and "
              "with --match-rest:\n",
              against.path.c_str(), target.preset.c_str());
  for (std::size_t b = 0; b < match.bones.size(); ++b)
  {
    const MappedBone& bone = match.bones[b];
    const std::string targetBone = name(against, bone.targetJoint) + " -> " + name(against, bone.targetChild);
    const std::string sourceBone = name(sf, bone.sourceJoint) + " -> " + name(sf, bone.sourceChild);
    std::printf("  %-32s %-32s %7.2f %7.2f\n", targetBone.c_str(), sourceBone.c_str(), match.before[b],
                match.after[b]);
  }
  if (match.bones.empty())
  {
    std::printf("no mapped bones: nothing to compare\n");
    return 0;
  }
  // Judged by what matching removes: a difference of proportions (a wider pelvis) stays anyway.
  std::size_t worst = 0;
  for (std::size_t b = 1; b < match.bones.size(); ++b)
    if (match.before[b] - match.after[b] > match.before[worst] - match.after[worst])
      worst = b;
  const MappedBone& bone = match.bones[worst];
  const double removed = match.before[worst] - match.after[worst];
  std::printf("largest rest difference that matching removes: %.3g degrees (%s -> %s): --match-rest is %s\n",
              removed, name(against, bone.targetJoint).c_str(), name(against, bone.targetChild).c_str(),
              removed > kMatchRestAdvised ? "advised" : "not needed");
  return 0;
}

// Holds every module object of the command, released before the module is unloaded.
int Inspect(const BvhFile& file, const std::string& preset, const BvhFile* against)
{
  std::string error;
  telvo::KelvaraHelperRef helper;
  if (!MakeHelper(helper, error))
  {
    std::fprintf(stderr, "kelvara: %s\n", error.c_str());
    return 1;
  }
  Character c;
  if (!BuildCharacter(file, "source", c, error) || !ChooseAndFillPreset(c, helper, preset, error))
  {
    std::fprintf(stderr, "kelvara: %s\n", error.c_str());
    return 1;
  }
  std::vector<int> partOfJoint(file.joints.size(), -1);
  for (int part = 0; part < kBodyPartCount; ++part)
    if (c.partJoint[static_cast<std::size_t>(part)] >= 0)
      partOfJoint[static_cast<std::size_t>(c.partJoint[static_cast<std::size_t>(part)])] = part;

  std::printf("%s\njoints (%zu):\n", file.path.c_str(), file.joints.size());
  for (std::size_t j = 0; j < file.joints.size(); ++j)
  {
    const BvhJoint& joint = file.joints[j];
    const std::string indent(static_cast<std::size_t>(2 + 2 * Depth(file, static_cast<int>(j))), ' ');
    std::string line = indent + joint.name;
    std::printf("%-40s offset (%g, %g, %g)  [%s]%s%s\n", line.c_str(), joint.offset.x, joint.offset.y,
                joint.offset.z, ChannelList(joint).c_str(), joint.hasEndSite ? "  + end site" : "",
                partOfJoint[j] >= 0 ? ("  = " + std::string(GetBodyPartInfo(partOfJoint[j]).name)).c_str() : "");
  }
  std::printf("frames: %d\nframe time: %g s (%.4g frames a second)\nchannels: %d a frame\n", file.frameCount,
              file.frameTime, file.frameTime > 0.0 ? 1.0 / file.frameTime : 0.0, file.channelCount);
  int filled = 0;
  for (int j : c.partJoint)
    filled += j >= 0 ? 1 : 0;
  std::printf("preset: %s (%d of %d body parts filled)\nbody parts:\n", c.preset.c_str(), filled, kBodyPartCount);
  for (int part = 0; part < kBodyPartCount; ++part)
  {
    const int j = c.partJoint[static_cast<std::size_t>(part)];
    std::printf("  %-16s %s\n", GetBodyPartInfo(part).name,
                j >= 0 ? file.joints[static_cast<std::size_t>(j)].name.c_str() : "(empty)");
  }
  if (c.orientation.known)
    std::printf("rest pose: up (%.3g, %.3g, %.3g), facing (%.3g, %.3g, %.3g), left (%.3g, %.3g, %.3g); hips %.4g "
                "above the feet\n",
                c.orientation.up.x, c.orientation.up.y, c.orientation.up.z, c.orientation.forward.x,
                c.orientation.forward.y, c.orientation.forward.z, c.orientation.left.x, c.orientation.left.y,
                c.orientation.left.z, HipHeight(c));
  for (const std::string& note : c.notes)
    std::printf("note: %s\n", note.c_str());
  return against != nullptr ? CompareRest(c, *against, helper, preset) : 0;
}

} // namespace

int RunInspectCommand(const std::string& path, const std::string& preset, const std::string& againstPath)
{
  BvhFile file;
  BvhFile against;
  std::string error;
  if (!ReadBvh(path, file, error) || (!againstPath.empty() && !ReadBvh(againstPath, against, error)))
  {
    std::fprintf(stderr, "kelvara: %s\n", error.c_str());
    return 2;
  }
  if (!preset.empty() && FindPreset(preset) == nullptr)
  {
    std::fprintf(stderr, "kelvara: expected a preset name (%s), found \"%s\"\n", PresetNames().c_str(),
                 preset.c_str());
    return 2;
  }
  std::unique_ptr<telvo::LoadedModule> module = LoadModuleOrSayWhy();
  if (!module)
    return 1;
  const int status = Inspect(file, preset, againstPath.empty() ? nullptr : &against);
  module->Unload();
  return status;
}

} // namespace kelvara
