// kelvara inspect: what the retarget sees in one file.
#include <cstdio>
#include <memory>

#include "character.h"
#include "commands.h"
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

// Holds every module object of the command, released before the module is unloaded.
int Inspect(const BvhFile& file, const std::string& preset)
{
  std::string error;
  telvo::Result<telvo::KelvaraHelperRef> helper =
    telvo::CreateObject<telvo::KelvaraHelperRef>("net.telvo.animation.class.kelvarahelper");
  if (helper.IsError())
  {
    std::fprintf(stderr, "kelvara: cannot make the helper: %s\n", ErrorText(helper.GetError()).c_str());
    return 1;
  }
  Character c;
  if (!BuildCharacter(file, "source", c, error) || !ChooseAndFillPreset(c, helper.GetValue(), preset, error))
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
  return 0;
}

} // namespace

int RunInspectCommand(const std::string& path, const std::string& preset)
{
  BvhFile file;
  std::string error;
  if (!ReadBvh(path, file, error))
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
  std::string why;
  std::unique_ptr<telvo::LoadedModule> module = telvo::LoadedModule::Load(DefaultModulePath(), why);
  if (!module)
  {
    std::fprintf(stderr, "kelvara: cannot load the module: %s\n", why.c_str());
    return 1;
  }
  const int status = Inspect(file, preset);
  module->Unload();
  return status;
}

} // namespace kelvara
