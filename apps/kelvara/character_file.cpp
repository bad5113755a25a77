#include "character_file.h"

#include <cmath>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "atomic_file.h"
#include "object_json.h"

namespace kelvara
{

namespace
{

using nlohmann::json;

constexpr const char* kFormat = "kelvara character";
constexpr int kVersion = 1;

json VectorJson(const telvo::Vector& v)
{
  return json::array({v.x, v.y, v.z});
}

// The JSON path of a value and what was found there, for messages.
bool Fail(std::string& error, const std::string& file, const std::string& path, const std::string& expected,
          const json& found)
{
  std::string text = found.dump();
  if (text.size() > 60)
    text = text.substr(0, 57) + "...";
  error = file + ": " + path + ": expected " + expected + ", found " + text;
  return false;
}

bool ReadVector(const json& in, const std::string& file, const std::string& path, telvo::Vector& v,
                std::string& error)
{
  if (!in.is_array() || in.size() != 3 || !in[0].is_number() || !in[1].is_number() || !in[2].is_number())
    return Fail(error, file, path, "3 numbers", in);
  v = {in[0].get<double>(), in[1].get<double>(), in[2].get<double>()};
  return true;
}

bool ReadSkeleton(const json& in, const std::string& file, BvhFile& out, std::string& error)
{
  if (!in.is_array() || in.empty())
    return Fail(error, file, "/skeleton", "a non-empty array of joints", in);
  out.joints.clear();
  int channelCount = 0;
  for (std::size_t i = 0; i < in.size(); ++i)
  {
    const std::string at = "/skeleton/" + std::to_string(i);
    const json& j = in[i];
    if (!j.is_object())
      return Fail(error, file, at, "a joint object", j);
    BvhJoint joint;
    auto name = j.find("name");
    if (name == j.end() || !name->is_string() || name->get_ref<const std::string&>().empty())
      return Fail(error, file, at + "/name", "a joint name", name == j.end() ? json(nullptr) : *name);
    joint.name = name->get<std::string>();
    auto parent = j.find("parent");
    if (parent == j.end() || !parent->is_number_integer() || parent->get<long long>() < -1 ||
        parent->get<long long>() >= static_cast<long long>(i))
      return Fail(error, file, at + "/parent", "-1 or the index of an earlier joint",
                  parent == j.end() ? json(nullptr) : *parent);
    joint.parent = parent->get<int>();
    if (!ReadVector(j.value("offset", json()), file, at + "/offset", joint.offset, error))
      return false;
    const json channels = j.value("channels", json());
    if (!channels.is_array() || channels.size() > static_cast<std::size_t>(kMaxChannelsPerJoint))
      return Fail(error, file, at + "/channels", "an array of at most 6 channel names", channels);
    for (std::size_t c = 0; c < channels.size(); ++c)
    {
      Channel channel;
      if (!channels[c].is_string() || !ChannelFromName(channels[c].get_ref<const std::string&>(), channel))
        return Fail(error, file, at + "/channels/" + std::to_string(c), "a channel name", channels[c]);
      joint.channels.push_back(channel);
    }
    const json endSite = j.value("endSite", json());
    if (!endSite.is_null())
    {
      joint.hasEndSite = true;
      if (!ReadVector(endSite, file, at + "/endSite", joint.endSiteOffset, error))
        return false;
    }
    joint.firstChannel = channelCount;
    channelCount += static_cast<int>(joint.channels.size());
    out.joints.push_back(std::move(joint));
  }
  out.channelCount = channelCount;
  out.frameCount = 0;
  out.frameTime = 0.0;
  out.motion.clear();
  // The writer's own checks (depth-first order, names, distinct channels) apply to saved files too.
  std::string why;
  BvhFile check = out;
  check.frameTime = 1.0; // a hierarchy has no frames; the frame time does not matter here
  if (!ValidateBvh(check, why))
    return Fail(error, file, "/skeleton", "a valid hierarchy (" + why + ")", nullptr);
  return true;
}

// "FILE:LINE" of a byte offset.
std::string LineOf(const std::string& text, std::size_t byte)
{
  std::size_t line = 1;
  for (std::size_t i = 0; i < byte && i < text.size(); ++i)
    line += text[i] == '\n' ? 1 : 0;
  return std::to_string(line);
}

bool Near(const telvo::Matrix& a, const telvo::Matrix& b)
{
  const telvo::Vector* va[] = {&a.off, &a.v1, &a.v2, &a.v3};
  const telvo::Vector* vb[] = {&b.off, &b.v1, &b.v2, &b.v3};
  for (int i = 0; i < 4; ++i)
    if (telvo::Length(*va[i] - *vb[i]) > 1e-6 * (1.0 + telvo::Length(*va[i])))
      return false;
  return true;
}

} // namespace

bool SameSkeleton(const BvhFile& saved, const BvhFile& clip, std::string& error)
{
  if (saved.joints.size() != clip.joints.size())
  {
    error = clip.path + ": expected the " + std::to_string(saved.joints.size()) + " joints of the saved character " +
            saved.path + ", found " + std::to_string(clip.joints.size());
    return false;
  }
  for (std::size_t i = 0; i < saved.joints.size(); ++i)
  {
    const BvhJoint& a = saved.joints[i];
    const BvhJoint& b = clip.joints[i];
    if (a.name != b.name || a.parent != b.parent || a.channels != b.channels || !(a.offset == b.offset))
    {
      error = clip.path + ":" + std::to_string(b.line) + ": expected joint '" + a.name + "' of the saved character " +
              saved.path + ", found '" + b.name + "' with another parent, offset or channels";
      return false;
    }
  }
  return true;
}

bool IsSavedCharacterPath(const std::string& path)
{
  return path.size() >= 5 && path.compare(path.size() - 5, 5, ".json") == 0;
}

bool SaveCharacter(const Character& character, const std::string& path, std::string& error)
{
  json out;
  out["format"] = kFormat;
  out["version"] = kVersion;
  out["preset"] = character.preset;
  json& skeleton = out["skeleton"] = json::array();
  for (const BvhJoint& joint : character.file->joints)
  {
    json channels = json::array();
    for (Channel channel : joint.channels)
      channels.push_back(ChannelName(channel));
    skeleton.push_back({{"name", joint.name},
                        {"parent", joint.parent},
                        {"offset", VectorJson(joint.offset)},
                        {"channels", channels},
                        {"endSite", joint.hasEndSite ? VectorJson(joint.endSiteOffset) : json(nullptr)}});
  }
  if (!ObjectToJson(*character.definition.GetPointer(), out["definition"], error))
  {
    error = "cannot save '" + path + "': " + error;
    return false;
  }
  return WriteFileAtomically(path, out.dump(1, '\t') + "\n", error);
}

namespace
{

bool ReadFileText(const std::string& path, std::string& text, std::string& error)
{
  std::ifstream file(path, std::ios::binary);
  if (!file)
  {
    error = "cannot read '" + path + "'";
    return false;
  }
  std::ostringstream buffer;
  buffer << file.rdbuf();
  text = buffer.str();
  return true;
}

bool ParseSaved(const std::string& text, const std::string& displayName, json& in, std::string& error)
{
  in = json::parse(text, nullptr, false);
  if (in.is_discarded())
  {
    // Parse again with the parser's own message for the line of the first fault.
    try
    {
      const json reparsed = json::parse(text);
      (void)reparsed;
    }
    catch (const json::parse_error& e)
    {
      error = displayName + ":" + LineOf(text, e.byte == 0 ? 0 : e.byte - 1) +
              ": expected well-formed JSON, found a syntax error (" + e.what() + ")";
      return false;
    }
    error = displayName + ":1: expected well-formed JSON, found something else";
    return false;
  }
  if (!in.is_object() || in.value("format", json()) != kFormat)
    return Fail(error, displayName, "/format", "\"kelvara character\"", in.is_object() ? in.value("format", json()) : in);
  if (in.value("version", json()) != kVersion)
    return Fail(error, displayName, "/version", "1", in.value("version", json()));
  return true;
}

} // namespace

bool ReadSavedSkeleton(const std::string& path, BvhFile& out, std::string& error)
{
  std::string text;
  json in;
  if (!ReadFileText(path, text, error) || !ParseSaved(text, path, in, error))
    return false;
  out = BvhFile();
  out.path = path;
  return ReadSkeleton(in.value("skeleton", json()), path, out, error);
}

bool LoadSavedCharacterFromText(const std::string& text, const std::string& displayName, SavedCharacter& out,
                                std::string& error)
{
  json in;
  if (!ParseSaved(text, displayName, in, error))
    return false;
  const json preset = in.value("preset", json());
  if (!preset.is_string())
    return Fail(error, displayName, "/preset", "a preset name", preset);
  out.preset = preset.get<std::string>();
  out.skeleton.path = displayName;
  if (!ReadSkeleton(in.value("skeleton", json()), displayName, out.skeleton, error))
    return false;

  telvo::ObjectRef object;
  const json definition = in.value("definition", json());
  if (!ObjectFromJson(definition, object, error))
  {
    error = displayName + ": /definition" + error;
    return false;
  }
  out.definition = telvo::CharacterDefinition(telvo::QueryInterface<telvo::CharacterDefinitionInterface>(object.GetPointer()));
  if (!out.definition)
    return Fail(error, displayName, "/definition/class", "a character definition", definition.value("class", json()));

  // The objects must describe the skeleton: a consistency check through the Character they make.
  Character check;
  if (!CharacterFromSaved(out, check, error))
  {
    error = displayName + ": " + error;
    return false;
  }
  return true;
}

bool LoadSavedCharacter(const std::string& path, SavedCharacter& out, std::string& error)
{
  std::string text;
  return ReadFileText(path, text, error) && LoadSavedCharacterFromText(text, path, out, error);
}

bool CharacterFromSaved(const SavedCharacter& saved, Character& out, std::string& error)
{
  out = Character();
  out.role = "saved";
  out.file = &saved.skeleton;
  out.preset = saved.preset;
  out.definition = saved.definition;
  out.partJoint.fill(-1);
  const std::vector<BvhJoint>& joints = saved.skeleton.joints;
  const telvo::CharacterDefinitionInterface& definition = *saved.definition.GetPointer();
  out.skeletonRoot = definition.GetSkeletonTree();
  out.restPose = definition.GetSkeletonRestPose();
  if (!out.skeletonRoot || !out.restPose || !definition.GetBodyPartTree())
  {
    error = "/definition: expected a skeleton tree, a rest pose and a body-part tree, found a null one";
    return false;
  }

  // The tree's transform nodes in pre-order are the joints in file order.
  std::vector<std::pair<telvo::CharacterTreeRef, int>> stack; // node, index of its parent joint
  stack.emplace_back(out.skeletonRoot, -1);
  while (!stack.empty())
  {
    auto [node, parentJoint] = stack.back();
    stack.pop_back();
    int thisJoint = parentJoint;
    if (node->IsTransformNode())
    {
      const std::size_t index = out.nodes.size();
      if (index >= joints.size() || node->GetName().View() != joints[index].name ||
          joints[index].parent != parentJoint)
      {
        error = "/definition/members/SkeletonRoot: expected the joints of /skeleton in order, found node '" +
                std::string(node->GetName().View()) + "' at position " + std::to_string(index);
        return false;
      }
      out.nodes.push_back(node);
      out.uuids.push_back(node->GetUuid());
      thisJoint = static_cast<int>(index);
    }
    const telvo::BaseArray<telvo::ObjectRef>& children = node->GetChildren();
    for (telvo::Int c = children.GetCount(); c > 0; --c)
    {
      telvo::CharacterTreeRef child = children[c - 1].As<telvo::CharacterTreeInterface>();
      if (!child)
      {
        error = "/definition/members/SkeletonRoot: expected tree nodes only, found another object";
        return false;
      }
      stack.emplace_back(child, thisJoint);
    }
  }
  if (out.nodes.size() != joints.size())
  {
    error = "/definition/members/SkeletonRoot: expected " + std::to_string(joints.size()) + " joints, found " +
            std::to_string(out.nodes.size());
    return false;
  }

  // Rest matrices come from the saved pose and must follow the skeleton's offsets.
  out.restGlobal.resize(joints.size());
  for (std::size_t i = 0; i < joints.size(); ++i)
  {
    telvo::Result<telvo::CharacterNodeTransform> rest = out.restPose->GetNodeTransformByID(out.uuids[i]);
    if (rest.IsError() || !rest.GetValue())
    {
      error = "/definition/members/SkeletonRestPose: expected a rest transform of joint '" + joints[i].name +
              "', found none";
      return false;
    }
    out.restGlobal[i] = rest.GetValue()->GetGlobalMatrix();
    telvo::Matrix offset;
    offset.off = joints[i].offset;
    const telvo::Matrix parent = joints[i].parent >= 0 ? out.restGlobal[static_cast<std::size_t>(joints[i].parent)]
                                                       : telvo::Matrix{};
    if (!Near(out.restGlobal[i], parent * offset))
    {
      error = "/definition/members/SkeletonRestPose: expected the rest matrix of joint '" + joints[i].name +
              "' to follow its offset, found another one";
      return false;
    }
  }

  const telvo::CharacterBodyPartRef& root = definition.GetBodyPartTree();
  for (int part = 0; part < kBodyPartCount; ++part)
  {
    const char* identifier = GetBodyPartInfo(part).identifier;
    telvo::Result<telvo::InternedId> id = telvo::InternedId::Intern(identifier);
    telvo::Result<telvo::CharacterBodyPartRef> found =
      id.IsOk() ? root->FindBodyPartByID(id.GetValue()) : telvo::Result<telvo::CharacterBodyPartRef>(id.GetError());
    if (found.IsError() || !found.GetValue())
    {
      error = std::string("/definition/members/BodyPartRoot: expected the body part '") + identifier + "', found none";
      return false;
    }
    out.bodyParts[part] = found.GetValue();
    const telvo::BaseArray<telvo::Uuid>& skeleton = found.GetValue()->GetSkeleton();
    for (const telvo::Uuid& uuid : skeleton)
    {
      bool known = false;
      for (const telvo::Uuid& joint : out.uuids)
        known = known || joint == uuid;
      if (!known)
      {
        error = std::string("/definition/members/BodyPartRoot: expected the body part '") + identifier +
                "' to name joints of the skeleton, found " + std::string(uuid.ToString().View());
        return false;
      }
    }
  }
  if (!ReadFilledParts(out, error))
    return false;
  out.orientation = ComputeOrientation(out);
  return true;
}

} // namespace kelvara
