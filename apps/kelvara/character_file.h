// Saved characters: a character written to a JSON file once (skeleton, rest pose, body parts with
// their keywords and filled nodes) and read back instead of its BVH file.
//
// The file holds the BVH hierarchy the host needs to write motion (names, offsets, channels, end
// sites) and the module's character definition, written through the classes' member
// descriptions (object_json.h):
//   {"format": "kelvara character", "version": 1, "preset": "cmu",
//    "skeleton": [{"name", "parent", "offset", "channels", "endSite"}, ...],
//    "definition": {"class": ..., "members": {...}}}
#pragma once

#include <string>

#include "bvh.h"
#include "character.h"
#include "telvo/characterdefinition.h"

namespace kelvara
{

struct SavedCharacter
{
  BvhFile skeleton; // hierarchy only: no frames
  std::string preset;
  telvo::CharacterDefinition definition;
};

// Writes a built and filled character atomically (a temporary file beside path, then a rename).
bool SaveCharacter(const Character& character, const std::string& path, std::string& error);

// Reads a saved character. Malformed JSON gives "FILE:LINE: expected ..., found ..."; a file that
// is well-formed but inconsistent (a skeleton that does not match the definition's tree, rest
// matrices that do not follow the offsets, body parts naming unknown nodes) gives
// "FILE: /json/path: expected ..., found ...". Needs the module loaded.
bool LoadSavedCharacter(const std::string& path, SavedCharacter& out, std::string& error);
bool LoadSavedCharacterFromText(const std::string& text, const std::string& displayName, SavedCharacter& out,
                                std::string& error);

// Only the skeleton of a saved character (no module needed): the hierarchy the output is written
// in. Errors as LoadSavedCharacter's.
bool ReadSavedSkeleton(const std::string& path, BvhFile& out, std::string& error);

// A Character made from the saved objects themselves (not rebuilt from the skeleton): the
// definition's tree, rest pose and filled body parts. `saved` must outlive `out`.
bool CharacterFromSaved(const SavedCharacter& saved, Character& out, std::string& error);

// True when both hierarchies have the same joints (names, parents, offsets, channels); otherwise
// false with the first difference.
bool SameSkeleton(const BvhFile& saved, const BvhFile& clip, std::string& error);

// True when path names a saved character rather than a BVH file (by its ".json" ending).
bool IsSavedCharacterPath(const std::string& path);

} // namespace kelvara
