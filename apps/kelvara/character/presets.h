// The humanoid body-part template every character gets, and the keyword presets that fill it
// from the joint names of the common naming families.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kelvara
{

// The template's body parts, in the pre-order of the body-part tree (parents before children).
enum BodyPart : int
{
  kHips,
  kSpine,
  kChest,
  kNeck,
  kHead,
  kLeftClavicle,
  kLeftUpperArm,
  kLeftForearm,
  kLeftHand,
  kRightClavicle,
  kRightUpperArm,
  kRightForearm,
  kRightHand,
  kLeftThigh,
  kLeftShin,
  kLeftFoot,
  kLeftToes,
  kRightThigh,
  kRightShin,
  kRightFoot,
  kRightToes,
  kBodyPartCount
};

struct BodyPartInfo
{
  const char* identifier; // stable: source and target body parts are paired by it
  const char* name;       // for people
  int parent;             // BodyPart of the parent in the template; -1 for the hips
  int mirror;             // the same part on the other side; itself for the middle parts
};

const BodyPartInfo& GetBodyPartInfo(int part);
bool IsLeftPart(int part);

// Keywords of one body part in one preset: a node is taken when its name contains any keyword
// ("&&" joins pieces that must all be present) and no discard keyword, case-insensitively.
struct PartKeywords
{
  std::vector<std::string> keywords;
  std::vector<std::string> discard;
};

struct Preset
{
  std::string name;
  std::string description;
  PartKeywords parts[kBodyPartCount];
};

// The built-in presets, in the order that breaks remaining ties: game, cmu, studio, generic.
const std::vector<Preset>& GetPresets();
// nullptr when no preset has that name.
const Preset* FindPreset(std::string_view name);
// "game, cmu, studio, generic".
std::string PresetNames();

} // namespace kelvara
