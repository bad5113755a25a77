// Saved characters: a character written to a JSON file once (skeleton, rest pose, body parts with
// their keywords and filled nodes) and read back instead of its BVH file.
//
// The file holds the skeleton the host needs to write motion and the module's character
// definition, written through the classes' member descriptions (object_json.h):
//   {"format": "kelvara character", "version": 2, "preset": "cmu",
//    "sceneTransform": [16 numbers, column-major], "metresPerUnit": 0.01,
//    "skeleton": [{"name", "parent", "offset", "rotation": [w, x, y, z], "scale", "channels",
//                  "endSite"}, ...],
//    "definition": {"class": ..., "members": {...}}}
// "channels" (the BVH layout) are there when the character came from a BVH file. Version 1 files
// (BVH skeletons: no rotation, scale or scene transform) are read as well.
#pragma once

#include <string>

#include <memory>

#include "character/character.h"
#include "io/animation_file.h"
#include "io/bvh/bvh_model.h"
#include "telvo/characterdefinition.h"

namespace kelvara
{

struct SavedCharacter
{
  Skeleton skeleton;
  std::shared_ptr<const BvhLayout> bvhLayout; // null unless the character came from BVH
  std::string preset;
  telvo::CharacterDefinition definition;
};

// Writes a built and filled character atomically (a temporary file beside path, then a rename);
// layout, when not null, is kept for writing BVH motion in it later.
bool SaveCharacter(const Character& character, const BvhLayout* layout, const std::string& path, std::string& error);

// Reads a saved character. Malformed JSON gives "FILE:LINE: expected ..., found ..."; a file that
// is well-formed but inconsistent (a skeleton that does not match the definition's tree, rest
// matrices that do not follow the offsets, body parts naming unknown nodes) gives
// "FILE: /json/path: expected ..., found ...". Needs the module loaded.
bool LoadSavedCharacter(const std::string& path, SavedCharacter& out, std::string& error);
bool LoadSavedCharacterFromText(const std::string& text, const std::string& displayName, SavedCharacter& out,
                                std::string& error);

// Only the skeleton of a saved character, as a file without motion (no module needed): the
// hierarchy an output is written in. Errors as LoadSavedCharacter's.
bool ReadSavedSkeleton(const std::string& path, AnimationFile& out, std::string& error);

// A Character made from the saved objects themselves (not rebuilt from the skeleton): the
// definition's tree, rest pose and filled body parts. `saved` must outlive `out`.
bool CharacterFromSaved(const SavedCharacter& saved, Character& out, std::string& error);

// True when path names a saved character rather than a BVH file (by its ".json" ending).
bool IsSavedCharacterPath(const std::string& path);

} // namespace kelvara
