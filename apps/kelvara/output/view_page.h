// The clip viewer page: one self-contained HTML file that plays a source clip and its retarget
// side by side in a browser, with the files themselves, the joint pairs and the report inside it
// (nothing is fetched when it is opened). The viewer is web/viewer/, embedded at build time.
//
// The page's data (a JSON element of the page, read by the viewer):
//   "title", "frames", "frameTime"        the clip shown (seconds per frame)
//   "source", "result": {"name", "format": "bvh"|"gltf"|"glb", "encoding": "text"|"base64",
//                        "data", "animation": glTF animation index, -1 the last}
//   "pairs": [{"source", "target", "colour"}]  joint names and the preview's colour of the pair
//   "unmappedColour", "background", "meshColour"
//   "report": one clip of a --report file, or null
#pragma once

#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "io/animation_file.h"

namespace kelvara
{

// A clip file as the page carries it.
struct ViewFile
{
  std::string name;     // shown on the page
  std::string format;   // "bvh", "gltf" or "glb"
  std::string bytes;    // the file's text or bytes
  int animation = -1;   // glTF: the animation to play; -1 the last
};

struct ViewPage
{
  std::string title;
  int frames = 0;
  double frameTime = 0.0;
  ViewFile source;
  ViewFile result;
  // (source joint, target joint) names in pair order: pair i takes MappedBoneColour(i).
  std::vector<std::pair<std::string, std::string>> pairs;
  nlohmann::ordered_json report; // null without one
};

// The page's copy of the file at path, read as file (with its clip): BVH text, and glTF files
// that hold their buffers and images, as they are; every other format, and glTF files whose data
// lies beside them, as a GLB of file's skeleton, meshes and clip. lastAnimation: the page plays
// the file's last animation (the one kelvara added), else the one file's clip was read from.
bool EmbedClipFile(const std::string& path, const AnimationFile& file, bool lastAnimation, ViewFile& out,
                   std::string& error);

// (source joint, target joint) index pairs as names, in target joint order.
std::vector<std::pair<std::string, std::string>> PairNames(const Skeleton& source, const Skeleton& target,
                                                           const std::vector<int>& sourceOfTarget);

// The clip of the JSON report at reportPath that shows outputPath: its only clip, or the one whose
// "output" is outputPath (or has its file name). Its pairs must name joints of source and target.
// False with "REPORT[:LINE]: what was expected, what was found" otherwise.
bool ReadReportClip(const std::string& reportPath, const std::string& outputPath, const Skeleton& source,
                    const Skeleton& target, nlohmann::ordered_json& clip, std::string& error);

// The report clip's pairs as names, in target joint order.
std::vector<std::pair<std::string, std::string>> ReportPairs(const nlohmann::ordered_json& clip,
                                                             const Skeleton& target);

// True when path names an .html (.htm) file; else false with a message.
bool CheckPagePath(const std::string& path, std::string& error);

// "walk → hero_walk.glb": the clip's name and the result's file name.
std::string PageTitle(const std::string& clipName, const std::string& resultPath);

// The whole HTML page.
std::string ViewPageHtml(const ViewPage& page);
// Writes it atomically; false with a message.
bool WriteViewPage(const std::string& path, const ViewPage& page, std::string& error);

} // namespace kelvara
