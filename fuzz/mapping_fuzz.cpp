// Joint maps: any text is read into pairs or refused with "NAME:LINE: expected ...", against two
// fixed skeletons whose names need JSON escapes and non-ASCII bytes.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "io/bvh/bvh_file.h"
#include "io/bvh/bvh_model.h"
#include "road/joint_map.h"

namespace
{

const std::string kName = "map.json";

void Require(bool ok, const char* what, const std::string& detail = std::string())
{
  if (ok)
    return;
  std::fprintf(stderr, "broken: %s\n%s\n", what, detail.c_str());
  std::abort();
}

kelvara::Skeleton Skeleton(const char* path, const char* text)
{
  kelvara::BvhFile file;
  std::string error;
  Require(kelvara::ReadBvhFromBuffer(text, path, file, error), "fixed skeleton does not read", error);
  kelvara::Skeleton skeleton;
  kelvara::BvhLayout layout;
  kelvara::BvhToSkeleton(file, skeleton, layout);
  return skeleton;
}

const kelvara::Skeleton& Source()
{
  static const kelvara::Skeleton file = Skeleton("source.bvh", "HIERARCHY\n"
                                                              "ROOT Hips { OFFSET 0 0 0 CHANNELS 0\n"
                                                              " JOINT Spine { OFFSET 0 1 0\n"
                                                              "  JOINT Head { OFFSET 0 1 0 } }\n"
                                                              " JOINT LeftUpLeg { OFFSET 1 0 0 }\n"
                                                              " JOINT \"quoted\\ { OFFSET 1 0 0 }\n"
                                                              " JOINT Kn\xc3\xb6" "chel { OFFSET 1 0 0 }\n"
                                                              "}\n"
                                                              "MOTION\nFrames: 0\nFrame Time: 1\n");
  return file;
}

const kelvara::Skeleton& Target()
{
  static const kelvara::Skeleton file = Skeleton("target.bvh", "HIERARCHY\n"
                                                              "ROOT pelvis { OFFSET 0 0 0 CHANNELS 0\n"
                                                              " JOINT spine_01 { OFFSET 0 1 0\n"
                                                              "  JOINT head { OFFSET 0 1 0 } }\n"
                                                              " JOINT thigh_l { OFFSET 1 0 0 }\n"
                                                              " JOINT tab\\t { OFFSET 1 0 0 }\n"
                                                              " JOINT \xe8\x85\xb0 { OFFSET 1 0 0 }\n"
                                                              "}\n"
                                                              "MOTION\nFrames: 0\nFrame Time: 1\n");
  return file;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::vector<kelvara::JointPair> pairs;
  std::string error;
  if (!kelvara::ParseJointMap(text, kName, Source(), Target(), pairs, error))
  {
    Require(error.rfind(kName + ":", 0) == 0 && error.find(": expected ") != std::string::npos,
            "refusal without a located message", error);
    return 0;
  }
  std::vector<bool> targetUsed(Target().joints.size()), sourceUsed(Source().joints.size());
  for (const kelvara::JointPair& p : pairs)
  {
    Require(p.target >= 0 && static_cast<std::size_t>(p.target) < targetUsed.size() && p.source >= 0 &&
              static_cast<std::size_t>(p.source) < sourceUsed.size(),
            "pair outside the skeletons");
    Require(!targetUsed[static_cast<std::size_t>(p.target)], "a target joint mapped twice");
    Require(!sourceUsed[static_cast<std::size_t>(p.source)], "a source joint drives two targets");
    targetUsed[static_cast<std::size_t>(p.target)] = true;
    sourceUsed[static_cast<std::size_t>(p.source)] = true;
  }
  return 0;
}
