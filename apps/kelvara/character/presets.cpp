#include "character/presets.h"

#include <initializer_list>

namespace kelvara
{

namespace
{

// Identifiers are the pairing key between characters: never rename them.
constexpr BodyPartInfo kTemplate[kBodyPartCount] = {
  {"hips", "Hips", -1, kHips},
  {"spine", "Spine", kHips, kSpine},
  {"chest", "Chest", kSpine, kChest},
  {"neck", "Neck", kChest, kNeck},
  {"head", "Head", kNeck, kHead},
  {"left_clavicle", "Left clavicle", kChest, kRightClavicle},
  {"left_upper_arm", "Left upper arm", kLeftClavicle, kRightUpperArm},
  {"left_forearm", "Left forearm", kLeftUpperArm, kRightForearm},
  {"left_hand", "Left hand", kLeftForearm, kRightHand},
  {"right_clavicle", "Right clavicle", kChest, kLeftClavicle},
  {"right_upper_arm", "Right upper arm", kRightClavicle, kLeftUpperArm},
  {"right_forearm", "Right forearm", kRightUpperArm, kLeftForearm},
  {"right_hand", "Right hand", kRightForearm, kLeftHand},
  {"left_thigh", "Left thigh", kHips, kRightThigh},
  {"left_shin", "Left shin", kLeftThigh, kRightShin},
  {"left_foot", "Left foot", kLeftShin, kRightFoot},
  {"left_toes", "Left toes", kLeftFoot, kRightToes},
  {"right_thigh", "Right thigh", kHips, kLeftThigh},
  {"right_shin", "Right shin", kRightThigh, kLeftShin},
  {"right_foot", "Right foot", kRightShin, kLeftFoot},
  {"right_toes", "Right toes", kRightFoot, kLeftToes},
};

using Words = std::initializer_list<const char*>;

void Set(Preset& preset, int part, Words keywords, Words discard = {})
{
  for (const char* k : keywords)
    preset.parts[part].keywords.emplace_back(k);
  for (const char* d : discard)
    preset.parts[part].discard.emplace_back(d);
}

// Families that spell the side as a word glued to the part name ("LeftForeArm"): the left part
// gets prefix "left" + word, the right part "right" + word.
void SetSided(Preset& preset, int leftPart, const std::string& prefix, Words words, Words discard = {})
{
  for (int part : {leftPart, kTemplate[leftPart].mirror})
  {
    const std::string side = part == leftPart ? "left" : "right";
    for (const char* w : words)
      preset.parts[part].keywords.push_back(prefix + side + w);
    for (const char* d : discard)
      preset.parts[part].discard.emplace_back(d);
  }
}

Preset MakeCmu()
{
  Preset p;
  p.name = "cmu";
  p.description = "Hips, LowerBack, Spine, Spine1, LeftShoulder (clavicle), LeftArm, LeftForeArm, LeftUpLeg, LeftLeg";
  Set(p, kHips, {"hips"});
  // LowerBack sits just above the hips and is no template part; Spine bends the back. It is
  // paired by its name when both skeletons have one.
  Set(p, kSpine, {"spine"}, {"spine1"});
  Set(p, kChest, {"spine1"});
  // Neck before Neck1 in pre-order; the head's end site is no joint.
  Set(p, kNeck, {"neck"});
  Set(p, kHead, {"head"});
  SetSided(p, kLeftClavicle, "", {"shoulder"});
  // "LeftArm" is no substring of "LeftForeArm", so the upper arm needs no discard keyword.
  SetSided(p, kLeftUpperArm, "", {"arm"});
  SetSided(p, kLeftForearm, "", {"forearm"});
  SetSided(p, kLeftHand, "", {"hand"});
  SetSided(p, kLeftThigh, "", {"upleg"});
  SetSided(p, kLeftShin, "", {"leg"});
  SetSided(p, kLeftFoot, "", {"foot"});
  SetSided(p, kLeftToes, "", {"toe"});
  return p;
}

Preset MakeStudio()
{
  Preset p;
  p.name = "studio";
  p.description = "Hips, Ab or Spine, Chest, LeftCollar (clavicle), LeftShoulder (upper arm), LeftElbow, "
                  "LeftWrist, LeftHip, LeftKnee, LeftAnkle, LeftToe";
  Set(p, kHips, {"hips", "pelvis"});
  // "Ab" is short: keep it off the limbs, whose names carry a side.
  Set(p, kSpine, {"ab", "spine"}, {"left", "right"});
  Set(p, kChest, {"chest"}, {"left", "right"});
  Set(p, kNeck, {"neck"});
  Set(p, kHead, {"head"});
  SetSided(p, kLeftClavicle, "", {"collar"});
  SetSided(p, kLeftUpperArm, "", {"shoulder", "uparm"});
  SetSided(p, kLeftForearm, "", {"elbow", "lowarm", "forearm"});
  SetSided(p, kLeftHand, "", {"wrist", "hand"});
  SetSided(p, kLeftThigh, "", {"hip", "upleg"});
  SetSided(p, kLeftShin, "", {"knee", "lowleg"});
  SetSided(p, kLeftFoot, "", {"ankle", "foot"});
  SetSided(p, kLeftToes, "", {"toe"});
  return p;
}

Preset MakeGame()
{
  Preset p;
  p.name = "game";
  p.description = "prefix:Hips, prefix:Spine, prefix:Spine1, prefix:LeftShoulder (clavicle), prefix:LeftArm, "
                  "prefix:LeftForeArm, prefix:LeftUpLeg, prefix:LeftLeg";
  // Every keyword starts at the prefix's colon, so unprefixed rigs fill nothing here.
  Set(p, kHips, {":hips"});
  Set(p, kSpine, {":spine"});
  // Spine1 exists in rigs with two spine joints as well as in those with three.
  Set(p, kChest, {":spine1"});
  Set(p, kNeck, {":neck"});
  Set(p, kHead, {":head"}, {"headtop", "_end"});
  SetSided(p, kLeftClavicle, ":", {"shoulder"});
  SetSided(p, kLeftUpperArm, ":", {"arm"});
  SetSided(p, kLeftForearm, ":", {"forearm"});
  SetSided(p, kLeftHand, ":", {"hand"});
  SetSided(p, kLeftThigh, ":", {"upleg"});
  SetSided(p, kLeftShin, ":", {"leg"});
  SetSided(p, kLeftFoot, ":", {"foot"});
  SetSided(p, kLeftToes, ":", {"toe"});
  return p;
}

// Generic names carry the side as a word or a marker before or after the part ("upperarm_l",
// "l_thigh", "forearm.L", "Bip01 L Calf"). Substrings cannot anchor a marker to the end of a
// name, so a marker may be met by chance ("ball_r" holds "l_"); the geometric side check that
// follows the filling puts such sides right.
Preset MakeGeneric()
{
  Preset p;
  p.name = "generic";
  p.description = "pelvis, spine, chest, upperarm, forearm or lowerarm, thigh, calf or shin, foot, toe or ball, "
                  "with left/right, l_/r_, _l/_r, .L/.R";
  const Words common = {"twist", "roll", "nub", "end"};
  Set(p, kHips, {"hips", "pelvis"});
  Set(p, kSpine, {"spine", "torso", "abdomen"}, {"left", "right"});
  Set(p, kChest, {"chest", "spine1", "spine_02", "spine02", "spine.001"}, {"left", "right"});
  Set(p, kNeck, {"neck"}, common);
  Set(p, kHead, {"head"}, common);
  static const std::vector<std::string> leftMarkers = {"left", "l_", "_l", ".l", " l "};
  static const std::vector<std::string> rightMarkers = {"right", "r_", "_r", ".r", " r "};
  static const std::vector<std::string> notLeft = {"right", ".r", " r "};
  static const std::vector<std::string> notRight = {"left", ".l", " l "};
  auto sided = [&](int leftPart, Words words) {
    for (int part : {leftPart, kTemplate[leftPart].mirror})
    {
      const bool left = part == leftPart;
      for (const char* w : words)
        for (const std::string& m : left ? leftMarkers : rightMarkers)
          p.parts[part].keywords.push_back(std::string(w) + "&&" + m);
      for (const char* d : common)
        p.parts[part].discard.emplace_back(d);
      for (const std::string& d : left ? notLeft : notRight)
        p.parts[part].discard.push_back(d);
    }
  };
  sided(kLeftClavicle, {"clavicle", "collar", "shoulder"});
  sided(kLeftUpperArm, {"upperarm", "uparm"});
  sided(kLeftForearm, {"forearm", "lowerarm", "lowarm"});
  sided(kLeftHand, {"hand", "wrist"});
  sided(kLeftThigh, {"thigh", "upperleg", "upleg", "hip"});
  sided(kLeftShin, {"calf", "shin", "lowerleg", "knee"});
  sided(kLeftFoot, {"foot", "ankle"});
  sided(kLeftToes, {"toe", "ball"});
  return p;
}

} // namespace

const BodyPartInfo& GetBodyPartInfo(int part)
{
  return kTemplate[part];
}

bool IsLeftPart(int part)
{
  return (part >= kLeftClavicle && part <= kLeftHand) || (part >= kLeftThigh && part <= kLeftToes);
}

const std::vector<Preset>& GetPresets()
{
  // The prefixed family first: its keywords are the plain ones behind a colon, so on a prefixed
  // rig it ties with the plain family and should win, while it never fills a plain rig.
  static const std::vector<Preset> presets = {MakeGame(), MakeCmu(), MakeStudio(), MakeGeneric()};
  return presets;
}

const Preset* FindPreset(std::string_view name)
{
  for (const Preset& p : GetPresets())
    if (p.name == name)
      return &p;
  return nullptr;
}

std::string PresetNames()
{
  std::string names;
  for (const Preset& p : GetPresets())
    names += (names.empty() ? "" : ", ") + p.name;
  return names;
}

} // namespace kelvara
