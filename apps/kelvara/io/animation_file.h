// A character or motion file read into the host's model, with what its writer needs to write it
// back: the reader of each format fills one, the writers take one. Nothing between them looks at
// the format.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "anim/clip.h"
#include "anim/skeleton.h"

namespace kelvara
{

struct BvhLayout;
struct GltfDocument;

struct AnimationFile
{
  Skeleton skeleton;
  Clip clip;           // the chosen animation; no frames when none was asked for or the file has none
  bool hasClip = false;
  std::string format;  // "BVH", "glTF", "FBX", ... for messages
  std::vector<std::string> warnings; // "FILE:LINE: ..." texts a user should see
  // What writing back needs, by format: a BVH file's channel layout, a glTF document (glTF files,
  // and the FBX, Collada, X ... files converted into one).
  std::shared_ptr<const BvhLayout> bvhLayout;
  std::shared_ptr<const GltfDocument> gltf;
};

struct ReadRequest
{
  std::string animation;    // glTF and converted files: a name or an index; "" the first
  bool lastAnimation = false; // with animation "", the last instead (the one kelvara adds to a document)
  std::string skeletonRoot; // the node whose subtree is the skeleton; "" the skin's joints
  bool motion = true;       // false: the skeleton only (a target's motion is never used)
  int threads = 1;          // BVH: frames read and converted by up to this many (0: every core)
};

// Reads path by its extension: .bvh, .gltf, .glb, a saved character's .json (skeleton only), and
// every format assimp reads (.fbx, .dae, .x, ...). A missing or unreadable file, broken
// structure, or a file without a skeleton fails: false, error "FILE[:LINE]: what was expected,
// what was found".
bool ReadAnimationFile(const std::string& path, const ReadRequest& request, AnimationFile& out, std::string& error);

struct WriteRequest
{
  // glTF: the new animation's name ("" the clip's); whether the target's own animations go.
  std::string animationName;
  bool replaceAnimations = false;
  // Per joint: whether the clip drives it (glTF writes channels for these only); empty: all.
  std::vector<bool> driven;
  int threads = 1; // BVH: frames converted and written by up to this many (0: every core)
};

// Writes clip on target's skeleton to path, by its extension: .bvh (in the target's channel
// layout when it came from BVH), .glb or .gltf (into the target's own glTF document when it has
// one, with everything the document held, else a document of the skeleton alone). Atomic: a
// reader never sees a partial file. False with a message otherwise. animationName, when not
// null, receives the name the clip was given (glTF keeps names apart from the document's own).
bool WriteAnimationFile(const std::string& path, const AnimationFile& target, const Clip& clip,
                        const WriteRequest& request, std::string& error, std::string* animationName = nullptr);

// True when path's extension names a format that can be written; else false with a message that
// lists them.
bool CheckWritablePath(const std::string& path, std::string& error);

// For --help: "BVH (.bvh), glTF (.gltf, .glb), ..." read and written.
std::string ReadableFormats();
std::string WritableFormats();

// "walk" for "clips/walk.bvh".
std::string FileStem(const std::string& path);

} // namespace kelvara
