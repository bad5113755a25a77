// glTF reader: every input (a .glb or a .gltf's JSON) is read or refused with a message naming
// the file; whatever is read is a valid skeleton and clip, writes out as a GLB, and reads back to
// the same skeleton and frame count.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "io/gltf/gltf.h"

namespace
{

const std::string kName = "fuzz.gltf";

void Require(bool ok, const char* what, const std::string& detail = std::string())
{
  if (ok)
    return;
  std::fprintf(stderr, "broken: %s\n%s\n", what, detail.c_str());
  std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  kelvara::AnimationFile file;
  std::string error;
  // No folder to look in: uris that name other files are missing ones.
  if (!kelvara::ReadGltfBytes(bytes, kName, "/nonexistent", kelvara::ReadRequest(), file, error))
  {
    Require(error.rfind(kName + ":", 0) == 0, "refusal without the file's name", error);
    return 0;
  }
  Require(kelvara::ValidateSkeleton(file.skeleton, error), "a skeleton read is not valid", error);
  Require(!file.hasClip || kelvara::ValidateClip(file.clip, file.skeleton, error), "a clip read is not valid", error);
  const kelvara::Clip clip =
    file.hasClip ? file.clip : kelvara::RestClip(file.skeleton, 2, 1.0 / 30.0);
  std::string written;
  Require(kelvara::GltfBytes(file, clip, kelvara::WriteRequest(), true, written, error), "a file read cannot be written",
          error);
  kelvara::AnimationFile again;
  kelvara::ReadRequest last;
  last.lastAnimation = true;
  Require(kelvara::ReadGltfBytes(written, kName, "/nonexistent", last, again, error), "written file does not read back",
          error);
  Require(again.skeleton.joints.size() == file.skeleton.joints.size(), "joint count changed in a round trip");
  for (std::size_t j = 0; j < file.skeleton.joints.size(); ++j)
    Require(again.skeleton.joints[j].name == file.skeleton.joints[j].name &&
              again.skeleton.joints[j].parent == file.skeleton.joints[j].parent,
            "joint changed in a round trip", file.skeleton.joints[j].name);
  Require(again.hasClip && again.clip.frameCount == clip.frameCount, "frames changed in a round trip",
          std::to_string(clip.frameCount));
  return 0;
}
