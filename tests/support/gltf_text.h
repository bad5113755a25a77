// glTF documents written by hand in tests: JSON text with the binary data as a base64 buffer, so
// that the files under test owe nothing to the writer under test.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace kelvara_test
{

inline std::string Base64(const std::string& bytes)
{
  static const char* const kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  for (std::size_t i = 0; i < bytes.size(); i += 3)
  {
    std::uint32_t n = static_cast<unsigned char>(bytes[i]) << 16;
    if (i + 1 < bytes.size())
      n |= static_cast<unsigned char>(bytes[i + 1]) << 8;
    if (i + 2 < bytes.size())
      n |= static_cast<unsigned char>(bytes[i + 2]);
    out += kDigits[(n >> 18) & 63];
    out += kDigits[(n >> 12) & 63];
    out += i + 1 < bytes.size() ? kDigits[(n >> 6) & 63] : '=';
    out += i + 2 < bytes.size() ? kDigits[n & 63] : '=';
  }
  return out;
}

// A document under construction: nodes and the like are set on json directly; float data goes
// into one buffer through Floats, which returns the accessor's index.
class GltfText
{
public:
  nlohmann::json json = {{"asset", {{"version", "2.0"}}}, {"scene", 0}};

  int Floats(const std::vector<float>& values, const char* type, bool bounds = false)
  {
    const std::string t = type;
    const std::size_t components = t == "SCALAR" ? 1 : t == "VEC2" ? 2 : t == "VEC3" ? 3 : t == "VEC4" ? 4 : 16;
    while (_bytes.size() % 4 != 0)
      _bytes.push_back('\0');
    const std::size_t offset = _bytes.size();
    _bytes.append(reinterpret_cast<const char*>(values.data()), values.size() * sizeof(float));
    json["bufferViews"].push_back({{"buffer", 0}, {"byteOffset", offset}, {"byteLength", values.size() * sizeof(float)}});
    nlohmann::json accessor = {{"bufferView", json["bufferViews"].size() - 1},
                               {"componentType", 5126},
                               {"count", values.size() / components},
                               {"type", type}};
    if (bounds)
    {
      std::vector<float> lo(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(components));
      std::vector<float> hi = lo;
      for (std::size_t i = 0; i < values.size(); ++i)
      {
        lo[i % components] = std::min(lo[i % components], values[i]);
        hi[i % components] = std::max(hi[i % components], values[i]);
      }
      accessor["min"] = lo;
      accessor["max"] = hi;
    }
    json["accessors"].push_back(accessor);
    return static_cast<int>(json["accessors"].size()) - 1;
  }

  // An animation channel of its own sampler.
  void Channel(nlohmann::json& animation, int node, const char* path, const std::vector<float>& times,
               const std::vector<float>& values, const char* interpolation = "LINEAR")
  {
    const int input = Floats(times, "SCALAR", true);
    const int output = Floats(values, std::string(path) == "rotation" ? "VEC4" : "VEC3");
    animation["samplers"].push_back({{"input", input}, {"output", output}, {"interpolation", interpolation}});
    animation["channels"].push_back(
      {{"sampler", animation["samplers"].size() - 1}, {"target", {{"node", node}, {"path", path}}}});
  }

  // The text, with the buffer embedded as base64, or (binPath not empty) named as an external
  // file whose bytes are returned in bin.
  std::string Text(const std::string& binPath = "", std::string* bin = nullptr)
  {
    nlohmann::json out = json;
    if (!_bytes.empty())
    {
      out["buffers"] = nlohmann::json::array();
      out["buffers"].push_back({{"byteLength", _bytes.size()},
                                {"uri", binPath.empty() ? "data:application/octet-stream;base64," + Base64(_bytes)
                                                        : binPath}});
      if (bin != nullptr)
        *bin = _bytes;
    }
    return out.dump(1);
  }

private:
  std::string _bytes;
};

} // namespace kelvara_test
