#include "io/animation_file.h"

#include <algorithm>
#include <filesystem>

#include "io/assimp/assimp_reader.h"
#include "io/bvh/bvh_model.h"
#include "io/gltf/gltf.h"
#include "io/json/saved_character.h"

namespace kelvara
{

namespace
{

std::string LowerExtension(const std::string& path)
{
  std::string ext = std::filesystem::path(path).extension().string();
  std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return ext;
}

bool ReadBvhFile(const std::string& path, const ReadRequest& request, AnimationFile& out, std::string& error)
{
  BvhFile file;
  if (!ReadBvh(path, file, error, request.motion ? BvhPart::kWhole : BvhPart::kHierarchy, request.threads))
    return false;
  out = BvhToAnimationFile(file, request.motion, FileStem(path), request.threads);
  return ValidateSkeleton(out.skeleton, error);
}

} // namespace

std::string FileStem(const std::string& path)
{
  return std::filesystem::path(path).stem().string();
}

bool ReadAnimationFile(const std::string& path, const ReadRequest& request, AnimationFile& out, std::string& error)
{
  const std::string ext = LowerExtension(path);
  if (ext == ".bvh")
    return ReadBvhFile(path, request, out, error);
  if (ext == ".gltf" || ext == ".glb")
    return ReadGltf(path, request, out, error);
  if (ext == ".json")
    return ReadSavedSkeleton(path, out, error);
  if (IsAssimpFormat(ext))
    return ReadWithAssimp(path, request, out, error);
  error = path + ": expected a file of a format kelvara reads (" + ReadableFormats() + "), found extension '" + ext + "'";
  return false;
}

bool CheckWritablePath(const std::string& path, std::string& error)
{
  const std::string ext = LowerExtension(path);
  if (ext == ".bvh" || ext == ".glb" || ext == ".gltf")
    return true;
  error = path + ": expected an output of a format kelvara writes (" + WritableFormats() + "), found extension '" +
          ext + "'";
  return false;
}

bool WriteAnimationFile(const std::string& path, const AnimationFile& target, const Clip& clip,
                        const WriteRequest& request, std::string& error, std::string* animationName)
{
  if (!CheckWritablePath(path, error))
    return false;
  if (LowerExtension(path) != ".bvh")
    return WriteGltf(path, target, clip, request, error, animationName);
  if (animationName != nullptr)
    *animationName = clip.name;
  BvhFile file;
  if (!ModelToBvh(target.skeleton, target.bvhLayout.get(), clip, file, error, request.threads))
  {
    error = "cannot write '" + path + "': " + error;
    return false;
  }
  file.path = path;
  return WriteBvh(path, file, error, request.threads);
}

std::string ReadableFormats()
{
  return "BVH (.bvh), glTF (.gltf, .glb), saved characters (.json), and through assimp " + AssimpFormats();
}

std::string WritableFormats()
{
  return "BVH (.bvh), glTF (.glb, .gltf)";
}

} // namespace kelvara
