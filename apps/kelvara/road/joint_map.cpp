#include "road/joint_map.h"

#include <algorithm>

#include <nlohmann/json.hpp>

namespace kelvara
{

namespace
{

int LineAt(std::string_view text, std::size_t offset)
{
  offset = std::min(offset, text.size());
  return 1 + static_cast<int>(std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(offset), '\n'));
}

// The JSON library keeps no positions for values: the line of a key is where its quoted text
// first appears, which is exact for every map without repeated keys.
int LineOfKey(std::string_view text, const std::string& key)
{
  const std::string quoted = nlohmann::json(key).dump();
  const std::size_t at = text.find(quoted);
  return at == std::string_view::npos ? 1 : LineAt(text, at);
}

int LineOfValueAfterKey(std::string_view text, const std::string& key)
{
  const std::string quoted = nlohmann::json(key).dump();
  std::size_t at = text.find(quoted);
  if (at == std::string_view::npos)
    return 1;
  at = text.find(':', at + quoted.size());
  if (at == std::string_view::npos)
    return LineOfKey(text, key);
  at = text.find_first_not_of(" \t\r\n", at + 1);
  return LineAt(text, at == std::string_view::npos ? text.size() : at);
}

int FindJoint(const Skeleton& file, const std::string& name)
{
  for (std::size_t i = 0; i < file.joints.size(); ++i)
    if (file.joints[i].name == name)
      return static_cast<int>(i);
  return -1;
}

std::string TypeName(const nlohmann::ordered_json& value)
{
  return value.is_number() ? "a number" : value.is_boolean() ? "a boolean" : value.is_null() ? "null"
         : value.is_array()                                                                    ? "an array"
         : value.is_object()                                                                   ? "an object"
                                                                                               : "a string";
}

} // namespace

bool ParseJointMap(std::string_view text, const std::string& displayName, const Skeleton& source,
                   const Skeleton& target, std::vector<JointPair>& pairs, std::string& error)
{
  pairs.clear();
  // Ordered, so that pairs and messages follow the file.
  nlohmann::ordered_json document;
  try
  {
    document = nlohmann::ordered_json::parse(text.begin(), text.end());
  }
  catch (const nlohmann::json::parse_error& e)
  {
    // The library's own text after "column N: " says what it met.
    std::string what = e.what();
    const std::size_t colon = what.find(": ", what.find("column"));
    what = colon == std::string::npos ? what : what.substr(colon + 2);
    error = displayName + ":" + std::to_string(LineAt(text, e.byte == 0 ? 0 : e.byte - 1)) +
            ": expected a JSON object of joint names, found invalid JSON (" + what + ")";
    return false;
  }
  catch (const nlohmann::json::out_of_range& e)
  {
    // A number beyond the range of a double ("1e500") is reported this way, without a position:
    // the message quotes the number, which is looked up in the text.
    const std::string what = e.what();
    const std::size_t open = what.find('\'');
    const std::size_t close = open == std::string::npos ? open : what.find('\'', open + 1);
    const std::size_t at =
      close == std::string::npos ? 0 : text.find(std::string_view(what).substr(open + 1, close - open - 1));
    error = displayName + ":" + std::to_string(LineAt(text, at == std::string_view::npos ? 0 : at)) +
            ": expected a JSON object of joint names, found a number out of range (" +
            what.substr(what.find(' ') + 1) + ")";
    return false;
  }
  if (!document.is_object())
  {
    error = displayName + ":1: expected a JSON object {\"target joint\": \"source joint\", ...}, found " +
            TypeName(document);
    return false;
  }
  for (const auto& [key, value] : document.items())
  {
    const int line = LineOfKey(text, key);
    const int t = FindJoint(target, key);
    if (t < 0)
    {
      error = displayName + ":" + std::to_string(line) + ": expected a joint of " + target.path + ", found \"" + key +
              "\"";
      return false;
    }
    if (!value.is_string())
    {
      error = displayName + ":" + std::to_string(LineOfValueAfterKey(text, key)) +
              ": expected the name of a joint of " + source.path + " (a string), found " + TypeName(value);
      return false;
    }
    const std::string name = value.get<std::string>();
    const int s = FindJoint(source, name);
    if (s < 0)
    {
      error = displayName + ":" + std::to_string(LineOfValueAfterKey(text, key)) + ": expected a joint of " +
              source.path + ", found \"" + name + "\"";
      return false;
    }
    for (const JointPair& p : pairs)
      if (p.source == s)
      {
        error = displayName + ":" + std::to_string(LineOfValueAfterKey(text, key)) +
                ": expected each source joint once, found \"" + name + "\" again (it drives \"" +
                target.joints[static_cast<std::size_t>(p.target)].name + "\" already)";
        return false;
      }
    pairs.push_back({t, s});
  }
  return true;
}

} // namespace kelvara
