// kelvara character: builds a character from a file once and saves it (skeleton, rest pose, body
// parts with their keywords and filled nodes) for later runs.
#include <cstdio>
#include <memory>

#include "cli/command.h"
#include "io/animation_file.h"
#include "io/json/saved_character.h"

namespace kelvara
{

namespace
{

class CharacterCommand : public Command
{
public:
  CLI::App* Register(CLI::App& app) override
  {
    CLI::App* c = app.add_subcommand(
      "character", "Build a character from a file (skeleton, rest pose, body parts filled by a preset) and save it "
                   "as JSON, to be given later as --target CHAR.json or --source-character CHAR.json.");
    c->add_option("FILE", _path, "File that gives the skeleton (" + ReadableFormats() + ")")->required();
    c->add_option("-o,--output", _out, "JSON file to write")->required();
    AddPresetOption(*c, _preset, "the character");
    AddSkeletonRootOption(*c, _request.skeletonRoot, "--skeleton-root", "the character");
    return c;
  }

  ExitCode Run() override
  {
    AnimationFile file;
    _request.motion = false;
    if (const ExitCode read = ReadCommandFile(_path, _request, _preset, file); read != ExitCode::kOk)
      return read;
    return RunWithModule([&] {
      std::string error;
      Character character;
      telvo::KelvaraHelperRef helper;
      if (!MakeHelper(helper, error) || !BuildCharacter(file.skeleton, "saved", character, error) ||
          !ChooseAndFillPreset(character, helper, _preset, error) ||
          !SaveCharacter(character, file.bvhLayout.get(), _out, error))
        return Report(ExitCode::kFailure, error);
      int filled = 0;
      for (int joint : character.partJoint)
        filled += joint >= 0 ? 1 : 0;
      std::printf("saved %s: %zu joints, preset %s, %d of %d body parts filled\n", _out.c_str(),
                  file.skeleton.joints.size(), character.preset.c_str(), filled, kBodyPartCount);
      return ExitCode::kOk;
    });
  }

private:
  std::string _path;
  std::string _out;
  std::string _preset;
  ReadRequest _request;
};

} // namespace

std::unique_ptr<Command> MakeCharacterCommand()
{
  return std::make_unique<CharacterCommand>();
}

} // namespace kelvara
