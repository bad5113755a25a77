// BVH reader: every input is read or refused with "NAME:LINE: ..."; whatever is read writes out
// and reads back to the same model, and writing that again gives the same text.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "io/bvh/bvh_file.h"

namespace
{

const std::string kName = "fuzz.bvh";

void Require(bool ok, const char* what, const std::string& detail = std::string())
{
  if (ok)
    return;
  std::fprintf(stderr, "broken: %s\n%s\n", what, detail.c_str());
  std::abort();
}

// Bitwise equality, so that -0 and 0 count as different values.
bool Same(double a, double b)
{
  return std::memcmp(&a, &b, sizeof a) == 0;
}

bool Same(const telvo::Vector& a, const telvo::Vector& b)
{
  return Same(a.x, b.x) && Same(a.y, b.y) && Same(a.z, b.z);
}

void RequireSameModel(const kelvara::BvhFile& a, const kelvara::BvhFile& b, const std::string& text)
{
  Require(a.joints.size() == b.joints.size(), "joint count changed in a round trip", text);
  for (std::size_t i = 0; i < a.joints.size(); ++i)
  {
    const kelvara::BvhJoint& x = a.joints[i];
    const kelvara::BvhJoint& y = b.joints[i];
    Require(x.name == y.name && x.parent == y.parent && x.channels == y.channels &&
              x.hasEndSite == y.hasEndSite && x.firstChannel == y.firstChannel,
            "joint changed in a round trip", x.name);
    Require(Same(x.offset, y.offset) && Same(x.endSiteOffset, y.endSiteOffset), "offset changed in a round trip",
            x.name);
  }
  Require(a.frameCount == b.frameCount && a.channelCount == b.channelCount && Same(a.frameTime, b.frameTime),
          "motion header changed in a round trip", text);
  Require(a.motion.size() == b.motion.size(), "motion size changed in a round trip");
  for (std::size_t k = 0; k < a.motion.size(); ++k)
    Require(Same(a.motion[k], b.motion[k]), "motion value changed in a round trip", std::to_string(k));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  kelvara::BvhFile file;
  std::string error;
  if (!kelvara::ReadBvhFromBuffer(text, kName, file, error))
  {
    Require(error.rfind(kName + ":", 0) == 0 && error.find(": expected ") != std::string::npos,
            "refusal without a located message", error);
    return 0;
  }
  Require(file.path == kName, "path not set to the display name");
  Require(static_cast<long long>(file.motion.size()) ==
            static_cast<long long>(file.frameCount) * static_cast<long long>(file.channelCount),
          "motion not frames x channels");

  std::string written;
  Require(kelvara::WriteBvhToString(file, written, error), "a file read cannot be written", error);
  kelvara::BvhFile again;
  Require(kelvara::ReadBvhFromBuffer(written, kName, again, error), "written text does not read back",
          error + "\n" + written);
  RequireSameModel(file, again, written);

  std::string rewritten;
  Require(kelvara::WriteBvhToString(again, rewritten, error), "a file read back cannot be written", error);
  Require(rewritten == written, "writing is not stable", written + "\n---\n" + rewritten);
  return 0;
}
