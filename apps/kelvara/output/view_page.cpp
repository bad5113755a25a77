#include "output/view_page.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <filesystem>

#include "io/atomic_file.h"
#include "io/gltf/gltf.h"
#include "io/gltf/gltf_document.h"
#include "io/read_file.h"
#include "output/preview.h"
#include "output/viewer_bundle.h"

namespace kelvara
{

namespace
{

std::string Lower(std::string text)
{
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

std::string Base64(const std::string& bytes)
{
  static const char* const kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  std::size_t i = 0;
  for (; i + 2 < bytes.size(); i += 3)
  {
    const unsigned v = static_cast<unsigned char>(bytes[i]) << 16 | static_cast<unsigned char>(bytes[i + 1]) << 8 |
                       static_cast<unsigned char>(bytes[i + 2]);
    out += {kDigits[v >> 18], kDigits[(v >> 12) & 63], kDigits[(v >> 6) & 63], kDigits[v & 63]};
  }
  if (i + 1 == bytes.size())
  {
    const unsigned v = static_cast<unsigned char>(bytes[i]) << 16;
    out += {kDigits[v >> 18], kDigits[(v >> 12) & 63], '=', '='};
  }
  else if (i + 2 == bytes.size())
  {
    const unsigned v = static_cast<unsigned char>(bytes[i]) << 16 | static_cast<unsigned char>(bytes[i + 1]) << 8;
    out += {kDigits[v >> 18], kDigits[(v >> 12) & 63], kDigits[(v >> 6) & 63], '='};
  }
  return out;
}

std::string Hex(const PreviewColour& c)
{
  auto channel = [](double v) { return static_cast<int>(std::lround(std::clamp(v, 0.0, 1.0) * 255.0)); };
  char text[8];
  std::snprintf(text, sizeof(text), "#%02x%02x%02x", channel(c.r), channel(c.g), channel(c.b));
  return text;
}

// A .gltf that a browser can read from the page alone: every buffer and image a data uri.
bool SelfContainedGltf(const std::string& text)
{
  const nlohmann::json document = nlohmann::json::parse(text, nullptr, false);
  if (!document.is_object())
    return false;
  for (const char* key : {"buffers", "images"})
    if (const auto list = document.find(key); list != document.end() && list->is_array())
      for (const nlohmann::json& item : *list)
      {
        const auto uri = item.find("uri");
        if (uri != item.end() && (!uri->is_string() || uri->get<std::string>().rfind("data:", 0) != 0))
          return false;
      }
  return true;
}

// The index of the animation file's clip came from, by its name; -1 (the last) when unknown.
int AnimationIndex(const AnimationFile& file)
{
  if (!file.gltf)
    return -1;
  const auto& animations = file.gltf->model.animations;
  for (std::size_t i = 0; i < animations.size(); ++i)
    if (animations[i].name == file.clip.name)
      return static_cast<int>(i);
  return -1;
}

nlohmann::ordered_json FileJson(const ViewFile& file)
{
  const bool text = file.format != "glb";
  return {{"name", file.name},
          {"format", file.format},
          {"encoding", text ? "text" : "base64"},
          {"data", text ? file.bytes : Base64(file.bytes)},
          {"animation", file.animation}};
}

// JSON inside <script>: "</" and "<!" only occur within strings, where escapes keep their meaning.
std::string ScriptSafe(std::string json)
{
  std::string out;
  out.reserve(json.size());
  for (std::size_t i = 0; i < json.size(); ++i)
  {
    if (json[i] == '<' && i + 1 < json.size() && (json[i + 1] == '/' || json[i + 1] == '!'))
    {
      out += "\\u003c";
      continue;
    }
    out += json[i];
  }
  return out;
}

std::string FileName(const std::string& path)
{
  return std::filesystem::path(path).filename().string();
}

// Line of the byte at offset, for messages.
std::size_t LineOf(const std::string& text, std::size_t offset)
{
  const auto end = text.begin() + static_cast<std::ptrdiff_t>(std::min(offset, text.size()));
  return 1 + static_cast<std::size_t>(std::count(text.begin(), end, '\n'));
}

} // namespace

bool EmbedClipFile(const std::string& path, const AnimationFile& file, bool lastAnimation, ViewFile& out,
                   std::string& error)
{
  out = ViewFile();
  out.name = FileName(path);
  const std::string extension = Lower(std::filesystem::path(path).extension().string());
  if (extension == ".bvh" || extension == ".glb" || extension == ".gltf")
  {
    if (!ReadWholeFile(path, out.bytes, error))
      return false;
    out.format = extension.substr(1);
    out.animation = lastAnimation ? -1 : AnimationIndex(file);
    if (extension != ".gltf" || SelfContainedGltf(out.bytes))
      return true;
  }
  // Formats a browser does not read, and glTF data in other files: the file as read, as a GLB.
  WriteRequest request;
  request.replaceAnimations = true;
  request.animationName = file.clip.name;
  out.format = "glb";
  out.animation = -1;
  return GltfBytes(file, file.clip, request, true, out.bytes, error);
}

std::vector<std::pair<std::string, std::string>> PairNames(const Skeleton& source, const Skeleton& target,
                                                           const std::vector<int>& sourceOfTarget)
{
  std::vector<std::pair<std::string, std::string>> pairs;
  for (std::size_t t = 0; t < sourceOfTarget.size() && t < target.joints.size(); ++t)
    if (const int s = sourceOfTarget[t]; s >= 0 && static_cast<std::size_t>(s) < source.joints.size())
      pairs.emplace_back(source.joints[static_cast<std::size_t>(s)].name, target.joints[t].name);
  return pairs;
}

bool ReadReportClip(const std::string& reportPath, const std::string& outputPath, const Skeleton& source,
                    const Skeleton& target, nlohmann::ordered_json& clip, std::string& error)
{
  std::string text;
  if (!ReadWholeFile(reportPath, text, error))
    return false;
  nlohmann::ordered_json report;
  try
  {
    report = nlohmann::ordered_json::parse(text);
  }
  catch (const nlohmann::json::parse_error& e)
  {
    error = reportPath + ":" + std::to_string(LineOf(text, e.byte > 0 ? e.byte - 1 : 0)) +
            ": expected a kelvara report (JSON), found a syntax error: " + e.what();
    return false;
  }
  if (!report.is_object() || !report.contains("clips") || !report["clips"].is_array() || report["clips"].empty())
  {
    error = reportPath + ": expected a kelvara report, an object with a non-empty \"clips\" list, found none";
    return false;
  }
  const nlohmann::ordered_json& clips = report["clips"];
  const nlohmann::ordered_json* chosen = clips.size() == 1 ? &clips[0] : nullptr;
  for (std::size_t i = 0; chosen == nullptr && i < clips.size(); ++i)
    if (clips[i].is_object() && clips[i].contains("output") && clips[i]["output"].is_string())
    {
      const std::string output = clips[i]["output"].get<std::string>();
      if (output == outputPath || FileName(output) == FileName(outputPath))
        chosen = &clips[i];
    }
  if (chosen == nullptr || !chosen->is_object())
  {
    error = reportPath + ": expected a clip whose \"output\" is " + outputPath + ", found none of its " +
            std::to_string(clips.size()) + " clips";
    return false;
  }
  if (chosen->contains("pairs"))
  {
    const nlohmann::ordered_json& pairs = (*chosen)["pairs"];
    if (!pairs.is_array())
    {
      error = reportPath + ": expected \"pairs\" to be a list, found " + std::string(pairs.type_name());
      return false;
    }
    for (const nlohmann::ordered_json& pair : pairs)
    {
      if (!pair.is_object() || !pair.contains("source") || !pair.contains("target") || !pair["source"].is_string() ||
          !pair["target"].is_string())
      {
        error = reportPath + ": expected each pair as {\"target\", \"source\"} joint names, found " + pair.dump();
        return false;
      }
      for (const auto& [key, skeleton] : {std::pair{"source", &source}, std::pair{"target", &target}})
        if (skeleton->FindJoint(pair[key].get<std::string>()) < 0)
        {
          error = reportPath + ": expected the pairs' " + key + " joints in " + skeleton->path + ", found \"" +
                  pair[key].get<std::string>() + "\", which it does not have (a report of another run?)";
          return false;
        }
    }
  }
  clip = *chosen;
  return true;
}

std::vector<std::pair<std::string, std::string>> ReportPairs(const nlohmann::ordered_json& clip, const Skeleton& target)
{
  std::vector<std::pair<int, std::pair<std::string, std::string>>> ordered;
  if (clip.contains("pairs") && clip["pairs"].is_array())
    for (const nlohmann::ordered_json& pair : clip["pairs"])
    {
      const std::string targetName = pair.value("target", "");
      ordered.push_back({target.FindJoint(targetName), {pair.value("source", ""), targetName}});
    }
  std::stable_sort(ordered.begin(), ordered.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<std::pair<std::string, std::string>> pairs;
  for (auto& entry : ordered)
    pairs.push_back(std::move(entry.second));
  return pairs;
}

bool CheckPagePath(const std::string& path, std::string& error)
{
  const std::string extension = Lower(std::filesystem::path(path).extension().string());
  if (extension == ".html" || extension == ".htm")
    return true;
  error = "expected an .html file for the page, found \"" + path + "\"";
  return false;
}

std::string PageTitle(const std::string& clipName, const std::string& resultPath)
{
  return clipName + " → " + FileName(resultPath);
}

std::string ViewPageHtml(const ViewPage& page)
{
  nlohmann::ordered_json data;
  data["title"] = page.title;
  data["frames"] = page.frames;
  data["frameTime"] = page.frameTime;
  data["source"] = FileJson(page.source);
  data["result"] = FileJson(page.result);
  data["pairs"] = nlohmann::ordered_json::array();
  for (std::size_t i = 0; i < page.pairs.size(); ++i)
    data["pairs"].push_back(
      {{"source", page.pairs[i].first}, {"target", page.pairs[i].second}, {"colour", Hex(MappedBoneColour(i))}});
  data["unmappedColour"] = Hex(UnmappedBoneColour());
  data["background"] = Hex(PreviewBackground());
  data["meshColour"] = "#b9bec8";
  data["report"] = page.report;

  const std::string json = ScriptSafe(data.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
  const std::string_view templ = kViewerPage;
  const std::string_view dataMarker = "@KELVARA_DATA@";
  const std::string_view scriptMarker = "@KELVARA_SCRIPT@";
  const std::size_t dataAt = templ.find(dataMarker);
  const std::size_t scriptAt = templ.find(scriptMarker);
  std::string html;
  html.reserve(templ.size() + json.size() + std::char_traits<char>::length(kViewerScript));
  html += templ.substr(0, dataAt);
  html += json;
  html += templ.substr(dataAt + dataMarker.size(), scriptAt - dataAt - dataMarker.size());
  html += kViewerScript;
  html += templ.substr(scriptAt + scriptMarker.size());
  return html;
}

bool WriteViewPage(const std::string& path, const ViewPage& page, std::string& error)
{
  return WriteFileAtomically(path, ViewPageHtml(page), error);
}

} // namespace kelvara
