// glTF 2.0 (.gltf and .glb) through tinygltf: characters and clips read into the host's model,
// retargeted clips written into the character's own document.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "io/animation_file.h"

namespace kelvara
{

// Reads a .gltf or .glb file. The skeleton is the skins' joints (the nodes on the paths between
// them too), or with request.skeletonRoot the subtree of that node; without either, the subtree
// of the nodes the animations move. Rest transforms are the nodes' own; the transforms above the
// skeleton's root become its scene transform. The clip is request.animation (a name or an
// index; the first by default) sampled at its keyframes' rate. The document stays in
// out.gltf for writing back.
bool ReadGltf(const std::string& path, const ReadRequest& request, AnimationFile& out, std::string& error);

// The same from the file's bytes; path names it in messages, baseDir is where its relative uris
// (buffers, images) are found.
bool ReadGltfBytes(std::string_view bytes, const std::string& path, const std::string& baseDir,
                   const ReadRequest& request, AnimationFile& out, std::string& error);

// The same from a document already in memory (a file converted by another reader); path names it
// in messages.
bool ReadGltfDocument(std::shared_ptr<GltfDocument> document, const std::string& path, const ReadRequest& request,
                      AnimationFile& out, std::string& error);

// Writes target's document (or, without one, a document of its skeleton alone) with clip added
// as a new animation: a rotation channel for every driven joint, a translation channel for the
// root, keyframes at the clip's frame times. Every buffer and image goes into the file itself
// (the .glb's binary chunk, or base64 in a .gltf), so that the file stands alone.
// animationName, when not null, receives the name the new animation was given.
bool WriteGltf(const std::string& path, const AnimationFile& target, const Clip& clip, const WriteRequest& request,
               std::string& error, std::string* animationName = nullptr);

// The file's bytes in memory, as WriteGltf would write them; binary for .glb.
bool GltfBytes(const AnimationFile& target, const Clip& clip, const WriteRequest& request, bool binary,
               std::string& bytes, std::string& error, std::string* animationName = nullptr);

} // namespace kelvara
