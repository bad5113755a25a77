// kelvara character: builds a character from a BVH file once and saves it (skeleton, rest pose,
// body parts with their keywords and filled nodes) for later runs.
#include <cstdio>
#include <memory>

#include "character_file.h"
#include "commands.h"
#include "telvo/loader.h"

namespace kelvara
{

int RunCharacterCommand(const std::string& bvhPath, const std::string& outPath, const std::string& preset)
{
  BvhFile file;
  std::string error;
  if (!ReadBvh(bvhPath, file, error))
  {
    std::fprintf(stderr, "kelvara: %s\n", error.c_str());
    return 2;
  }
  std::unique_ptr<telvo::LoadedModule> module = LoadModuleOrSayWhy();
  if (!module)
    return 1;
  int status = 0;
  {
    // Every module object is released before the module unloads.
    Character character;
    telvo::KelvaraHelperRef helper;
    if (!MakeHelper(helper, error) || !BuildCharacter(file, "saved", character, error) ||
        !ChooseAndFillPreset(character, helper, preset, error))
    {
      std::fprintf(stderr, "kelvara: %s\n", error.c_str());
      status = error.find("preset") != std::string::npos ? 2 : 1;
    }
    else if (!SaveCharacter(character, outPath, error))
    {
      std::fprintf(stderr, "kelvara: %s\n", error.c_str());
      status = 1;
    }
    else
    {
      int filled = 0;
      for (int joint : character.partJoint)
        filled += joint >= 0 ? 1 : 0;
      std::printf("saved %s: %zu joints, preset %s, %d of %d body parts filled\n", outPath.c_str(),
                  file.joints.size(), character.preset.c_str(), filled, kBodyPartCount);
    }
  }
  module->Unload();
  return status;
}

} // namespace kelvara
