// FBX, Collada, DirectX .x and the other formats assimp reads: the file is converted into a glTF
// document (nodes, skinned meshes with normalised weights and inverse bind matrices, materials
// where they convert, animations) and read as one, so that a target from such a file is written
// out as a glTF that holds the whole character.
#pragma once

#include <string>

#include "io/animation_file.h"

namespace kelvara
{

// True when assimp reads files of this extension (lower case, with the dot; ".fbx").
bool IsAssimpFormat(const std::string& extension);

// "FBX (.fbx), Collada (.dae), DirectX (.x), ..." for help texts.
std::string AssimpFormats();

// Reads path with assimp and converts it (see above); request as for glTF. The skeleton's unit
// is the metre for FBX and Collada (assimp applies their unit), not stated for other formats.
bool ReadWithAssimp(const std::string& path, const ReadRequest& request, AnimationFile& out, std::string& error);

} // namespace kelvara
