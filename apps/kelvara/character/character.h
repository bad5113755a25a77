// A skeleton turned into a character of the module: the skeleton tree, the rest pose, the
// humanoid body-part tree and the definition that holds them, plus what the host needs beside
// them (node ids per joint, rest matrices, the body part each joint fills).
#pragma once

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "anim/skeleton.h"
#include "character/presets.h"
#include "telvo/characterdefinition.h"
#include "telvo/kelvarahelper.h"

namespace kelvara
{

// How a character stands in its rest pose, read from the filled body parts.
struct Orientation
{
  bool known = false;     // false when hips, feet or toes are missing: no side can be decided
  telvo::Vector up;       // from the feet to the hips
  telvo::Vector forward;  // where the toes point, square to up
  telvo::Vector left;     // up x forward: the character's own left (right-handed axes)
};

// One preset tried by ChooseAndFillPreset: how many body parts it filled and how well the filled
// joints fit a humanoid (the tie breaker), so that a report can say why a preset was chosen.
struct PresetTrial
{
  std::string preset;
  int filled = 0;
  int geometryScore = 0;
};

struct Character
{
  std::string role;               // "source" or "target": part of every node id
  const Skeleton* skeleton = nullptr; // not owned; must outlive the character
  std::vector<telvo::Uuid> uuids;      // per joint, in the skeleton's order
  std::vector<telvo::CharacterTreeRef> nodes;
  telvo::CharacterTreeRef skeletonRoot; // the root joint, or a grouping node over several roots
  // Per joint, rigid world matrices of the rest pose (pose.h's WorldPose): the scene transform
  // applied, so that characters from different files stand in one world frame.
  std::vector<telvo::Matrix> restGlobal;
  telvo::CharacterPose restPose;
  telvo::CharacterBodyPartRef bodyParts[kBodyPartCount]; // [kHips] is the root of the tree
  telvo::CharacterDefinition definition;

  // Filled by ChooseAndFillPreset.
  std::string preset;
  std::array<int, kBodyPartCount> partJoint{}; // joint index per body part, -1 when empty
  Orientation orientation;
  std::vector<std::string> notes; // sides swapped, joints claimed twice: for the report
  std::vector<PresetTrial> presetTrials; // every candidate, in the order tried

  int FindJoint(std::string_view name) const;
};

// Node id of a joint: a 128-bit FNV-1a hash of role + ":" + the joint's path of names from its
// root ("Hips/Spine/Neck"), with the variant and version bits of a name-based id. The role keeps
// the ids of a source and a target read from the same file apart: the association's tables are
// symmetric, so a shared id would pair a node with itself.
telvo::Uuid::Bytes JointIdBytes(std::string_view role, std::string_view path);
// JointIdBytes of every joint's path, in time linear in the joints whatever the depth: the hash
// of a path goes on from its parent's.
std::vector<telvo::Uuid::Bytes> JointIdsBytes(std::string_view role, const Skeleton& skeleton);
// Builds the skeleton tree, the rest pose, an empty body-part tree of the template and the
// definition. Needs the module loaded. false with a message on failure.
bool BuildCharacter(const Skeleton& skeleton, std::string_view role, Character& out, std::string& error);

// Fills the body parts with the named preset, or, when presetName is empty, with the preset that
// fills the most body parts (FindBodyPartMatchingCount over the rest pose); ties go to the preset
// whose filled joints agree best with the character's geometry, then to the earlier preset.
// Afterwards a joint claimed by two body parts stays with the first (pre-order), and a limb
// whose "left" joints lie on the character's right is swapped with its mirror.
bool ChooseAndFillPreset(Character& character, const telvo::KelvaraHelperRef& helper,
                         const std::string& presetName, std::string& error);

// Reads the body parts' skeletons back into partJoint.
bool ReadFilledParts(Character& character, std::string& error);

// Up, forward and left from the filled hips, feet and toes (see Orientation).
Orientation ComputeOrientation(const Character& character);

// Height of the hips above the lowest foot or toe joint along up, in world units; 0 when it
// cannot be told.
double HipHeight(const Character& character);

// Text of a module error for messages.
std::string ErrorText(const telvo::Error& error);

// Turns a module result into a message; the caller says what failed ("cannot make ...: why").
template <typename R>
bool Check(const R& result, const char* what, std::string& error)
{
  if (result.IsOk())
    return true;
  error = std::string(what) + ": " + ErrorText(result.GetError());
  return false;
}

// The module's helper; false with "cannot make the helper: why" when the module cannot make it.
bool MakeHelper(telvo::KelvaraHelperRef& helper, std::string& error);

} // namespace kelvara
