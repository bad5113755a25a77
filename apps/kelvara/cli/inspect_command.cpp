// kelvara inspect: what the retarget sees in one file.
#include <cstdio>
#include <memory>

#include "cli/command.h"
#include "io/animation_file.h"
#include "io/bvh/bvh_model.h"
#include "road/contacts.h"
#include "road/match_rest.h"

namespace kelvara
{

namespace
{

// Above this a rest difference shows plainly in the motion; below it matching changes little.
constexpr double kMatchRestAdvised = 5.0;

std::string ChannelList(const std::vector<Channel>& channels)
{
  std::string text;
  for (Channel c : channels)
    text += (text.empty() ? "" : " ") + std::string(ChannelName(c));
  return text;
}

// The rest-pose difference, bone by bone, between the file (source) and road's target.
void CompareRest(const SourceSide& side, const Road& road)
{
  const Skeleton& against = road.Target().skeleton;
  const Skeleton& source = *side.character.skeleton;
  const RestMatch match = MatchCharacterRest(side.character, road.TargetCharacter(), side.prepared.sourceOfTarget);
  auto name = [](const Skeleton& s, int j) { return s.joints[static_cast<std::size_t>(j)].name; };
  std::printf("rest pose against %s (preset %s), per mapped bone: degrees between the bone directions as built and "
              "with rest matching:\n",
              against.path.c_str(), road.TargetCharacter().preset.c_str());
  for (std::size_t b = 0; b < match.bones.size(); ++b)
  {
    const MappedBone& bone = match.bones[b];
    const std::string targetBone = name(against, bone.targetJoint) + " -> " + name(against, bone.targetChild);
    const std::string sourceBone = name(source, bone.sourceJoint) + " -> " + name(source, bone.sourceChild);
    std::printf("  %-32s %-32s %7.2f %7.2f\n", targetBone.c_str(), sourceBone.c_str(), match.before[b],
                match.after[b]);
  }
  if (match.bones.empty())
  {
    std::printf("no mapped bones: nothing to compare\n");
    return;
  }
  // Judged by what matching removes: a difference of proportions (a wider pelvis) stays anyway.
  std::size_t worst = 0;
  for (std::size_t b = 1; b < match.bones.size(); ++b)
    if (match.before[b] - match.after[b] > match.before[worst] - match.after[worst])
      worst = b;
  const MappedBone& bone = match.bones[worst];
  const double removed = match.before[worst] - match.after[worst];
  std::printf("largest rest difference that matching removes: %.3g degrees (%s -> %s): rest matching is %s\n",
              removed, name(against, bone.targetJoint).c_str(), name(against, bone.targetChild).c_str(),
              removed > kMatchRestAdvised ? "needed (on by default)" : "hardly needed (--keep-rest changes little)");
}

void PrintFile(const AnimationFile& file, const Character& c)
{
  const Skeleton& skeleton = file.skeleton;
  std::vector<int> partOfJoint(skeleton.joints.size(), -1);
  for (int part = 0; part < kBodyPartCount; ++part)
    if (c.partJoint[static_cast<std::size_t>(part)] >= 0)
      partOfJoint[static_cast<std::size_t>(c.partJoint[static_cast<std::size_t>(part)])] = part;
  const std::vector<int> depth = JointDepths(skeleton);
  std::printf("%s (%s)\njoints (%zu):\n", skeleton.path.c_str(), file.format.c_str(), skeleton.joints.size());
  for (std::size_t j = 0; j < skeleton.joints.size(); ++j)
  {
    const Joint& joint = skeleton.joints[j];
    const std::string line = std::string(static_cast<std::size_t>(2 + 2 * depth[j]), ' ') + joint.name;
    std::printf("%-40s offset (%g, %g, %g)", line.c_str(), joint.translation.x, joint.translation.y,
                joint.translation.z);
    if (!(joint.rotation == Quaternion{}))
      std::printf("  rotation (%.4g, %.4g, %.4g, %.4g)", joint.rotation.w, joint.rotation.x, joint.rotation.y,
                  joint.rotation.z);
    if (!(joint.scale == telvo::Vector{1.0, 1.0, 1.0}))
      std::printf("  scale (%g, %g, %g)", joint.scale.x, joint.scale.y, joint.scale.z);
    if (file.bvhLayout && j < file.bvhLayout->channels.size())
      std::printf("  [%s]", ChannelList(file.bvhLayout->channels[j]).c_str());
    std::printf("%s%s\n", joint.hasEndSite ? "  + end site" : "",
                partOfJoint[j] >= 0 ? ("  = " + std::string(GetBodyPartInfo(partOfJoint[j]).name)).c_str() : "");
  }
  if (!(skeleton.sceneTransform == telvo::Matrix{}))
  {
    const telvo::Matrix& m = skeleton.sceneTransform;
    std::printf("scene transform: x (%.4g, %.4g, %.4g), y (%.4g, %.4g, %.4g), z (%.4g, %.4g, %.4g), offset (%g, %g, "
                "%g)\n",
                m.v1.x, m.v1.y, m.v1.z, m.v2.x, m.v2.y, m.v2.z, m.v3.x, m.v3.y, m.v3.z, m.off.x, m.off.y, m.off.z);
  }
  if (skeleton.metresPerUnit > 0.0)
    std::printf("unit: %g m\n", skeleton.metresPerUnit);
  else
    std::printf("unit: not stated by the file\n");
  if (file.hasClip)
    std::printf("animation: %s\nframes: %d\nframe time: %g s (%.4g frames a second)\n", file.clip.name.c_str(),
                file.clip.frameCount, file.clip.frameTime,
                file.clip.frameTime > 0.0 ? 1.0 / file.clip.frameTime : 0.0);
  else
    std::printf("frames: none\n");
  int filled = 0;
  for (int j : c.partJoint)
    filled += j >= 0 ? 1 : 0;
  std::printf("preset: %s (%d of %d body parts filled)\nbody parts:\n", c.preset.c_str(), filled, kBodyPartCount);
  for (int part = 0; part < kBodyPartCount; ++part)
  {
    const int j = c.partJoint[static_cast<std::size_t>(part)];
    std::printf("  %-16s %s\n", GetBodyPartInfo(part).name,
                j >= 0 ? skeleton.joints[static_cast<std::size_t>(j)].name.c_str() : "(empty)");
  }
  if (c.orientation.known)
    std::printf("rest pose: up (%.3g, %.3g, %.3g), facing (%.3g, %.3g, %.3g), left (%.3g, %.3g, %.3g); hips %.4g "
                "above the feet\n",
                c.orientation.up.x, c.orientation.up.y, c.orientation.up.z, c.orientation.forward.x,
                c.orientation.forward.y, c.orientation.forward.z, c.orientation.left.x, c.orientation.left.y,
                c.orientation.left.z, HipHeight(c));
  for (const std::string& note : c.notes)
    std::printf("note: %s\n", note.c_str());
  if (!file.hasClip || !c.orientation.known)
    return;
  const std::vector<FootContacts> feet = FindFeetContacts(c, file.clip);
  for (bool left : {true, false})
    if (const Leg leg = LegOf(c, left); leg.Complete())
    {
      const FootContacts& contacts = feet[left ? 0 : 1];
      std::printf("ground contacts, %s ankle %s (frames): %s\n", left ? "left" : "right",
                  skeleton.joints[static_cast<std::size_t>(leg.foot)].name.c_str(), RangesText(contacts.ankle).c_str());
      if (leg.toe >= 0)
        std::printf("ground contacts, %s toe %s (frames): %s\n", left ? "left" : "right",
                    skeleton.joints[static_cast<std::size_t>(leg.toe)].name.c_str(), RangesText(contacts.toe).c_str());
    }
}

class InspectCommand : public Command
{
public:
  CLI::App* Register(CLI::App& app) override
  {
    CLI::App* c = app.add_subcommand("inspect", "Print a file's joints as a tree, its frames and frame time, the preset "
                                                "chosen and which joint fills which body part.");
    c->add_option("FILE", _path, "File to inspect (" + ReadableFormats() + ")")->required();
    AddPresetOption(*c, _preset, "the file");
    AddSkeletonRootOption(*c, _request.skeletonRoot, "--skeleton-root", "the file");
    AddAnimationOption(*c, _request.animation);
    c->add_option("--against", _road.targetPath,
                  "Target file: print, per mapped bone, how far its rest pose differs from FILE's (degrees)");
    return c;
  }

  ExitCode Run() override
  {
    AnimationFile file;
    if (const ExitCode read = ReadCommandFile(_path, _request, _preset, file); read != ExitCode::kOk)
      return read;
    return RunWithModule([&] { return Inspect(file); });
  }

private:
  ExitCode Inspect(const AnimationFile& file)
  {
    std::string error;
    telvo::KelvaraHelperRef helper;
    Character c;
    if (!MakeHelper(helper, error) || !BuildCharacter(file.skeleton, "source", c, error) ||
        !ChooseAndFillPreset(c, helper, _preset, error))
      return Report(ExitCode::kFailure, error);
    PrintFile(file, c);
    if (_road.targetPath.empty())
      return ExitCode::kOk;
    _road.sourcePreset = _road.targetPreset = _preset;
    Road road(_road);
    Problem problem;
    if (!road.Setup(problem))
      return Report(problem);
    const SourceSide& side = road.SideFor(file.skeleton);
    if (!side.Ok())
      return Report(side.problem);
    CompareRest(side, road);
    return ExitCode::kOk;
  }

  std::string _path;
  std::string _preset;
  ReadRequest _request;
  RoadOptions _road;
};

} // namespace

std::unique_ptr<Command> MakeInspectCommand()
{
  return std::make_unique<InspectCommand>();
}

} // namespace kelvara
