#include "io/json/saved_character.h"

#include <cmath>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "anim/pose.h"
#include "io/atomic_file.h"
#include "io/json/object_json.h"
#include "io/read_file.h"

namespace kelvara
{

namespace
{

using nlohmann::json;

constexpr const char* kFormat = "kelvara character";
constexpr int kVersion = 2;

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

bool ReadNumbers(const json& in, std::size_t count, const std::string& file, const std::string& path, double* out,
                 std::string& error)
{
  if (!in.is_array() || in.size() != count)
    return Fail(error, file, path, std::to_string(count) + " numbers", in);
  for (std::size_t i = 0; i < count; ++i)
  {
    if (!in[i].is_number())
      return Fail(error, file, path, std::to_string(count) + " numbers", in);
    out[i] = in[i].get<double>();
  }
  return true;
}

// The skeleton and, when the joints list channels, the BVH layout.
bool ReadSkeleton(const json& document, const std::string& file, Skeleton& out, std::shared_ptr<const BvhLayout>& layout,
                  std::string& error)
{
  const json in = document.value("skeleton", json());
  if (!in.is_array() || in.empty())
    return Fail(error, file, "/skeleton", "a non-empty array of joints", in);
  if (in.size() > static_cast<std::size_t>(kMaxJoints))
    return Fail(error, file, "/skeleton", "at most " + std::to_string(kMaxJoints) + " joints", in.size());
  out = Skeleton();
  out.path = file;
  if (document.contains("sceneTransform"))
  {
    double m[16];
    if (!ReadNumbers(document["sceneTransform"], 16, file, "/sceneTransform", m, error))
      return false;
    out.sceneTransform.v1 = {m[0], m[1], m[2]};
    out.sceneTransform.v2 = {m[4], m[5], m[6]};
    out.sceneTransform.v3 = {m[8], m[9], m[10]};
    out.sceneTransform.off = {m[12], m[13], m[14]};
  }
  const json unit = document.value("metresPerUnit", json(0.0));
  if (!unit.is_number() || unit.get<double>() < 0.0)
    return Fail(error, file, "/metresPerUnit", "a number of metres, 0 when not known", unit);
  out.metresPerUnit = unit.get<double>();
  auto bvh = std::make_shared<BvhLayout>();
  bool withChannels = true;
  for (std::size_t i = 0; i < in.size(); ++i)
  {
    const std::string at = "/skeleton/" + std::to_string(i);
    const json& j = in[i];
    if (!j.is_object())
      return Fail(error, file, at, "a joint object", j);
    Joint joint;
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
    if (!ReadVector(j.value("offset", json()), file, at + "/offset", joint.translation, error))
      return false;
    if (j.contains("rotation"))
    {
      double q[4];
      if (!ReadNumbers(j["rotation"], 4, file, at + "/rotation", q, error))
        return false;
      joint.rotation = {q[0], q[1], q[2], q[3]};
      if (std::fabs(Norm(joint.rotation) - 1.0) > 1e-6)
        return Fail(error, file, at + "/rotation", "a unit quaternion [w, x, y, z]", j["rotation"]);
    }
    if (j.contains("scale") && !ReadVector(j["scale"], file, at + "/scale", joint.scale, error))
      return false;
    const json endSite = j.value("endSite", json());
    if (!endSite.is_null())
    {
      joint.hasEndSite = true;
      if (!ReadVector(endSite, file, at + "/endSite", joint.endSite, error))
        return false;
    }
    std::vector<Channel> channelList;
    const json channels = j.value("channels", json());
    withChannels = withChannels && !channels.is_null();
    if (!channels.is_null())
    {
      if (!channels.is_array() || channels.size() > static_cast<std::size_t>(kMaxChannelsPerJoint))
        return Fail(error, file, at + "/channels", "an array of at most 6 channel names", channels);
      for (std::size_t c = 0; c < channels.size(); ++c)
      {
        Channel channel;
        if (!channels[c].is_string() || !ChannelFromName(channels[c].get_ref<const std::string&>(), channel))
          return Fail(error, file, at + "/channels/" + std::to_string(c), "a channel name", channels[c]);
        if (std::find(channelList.begin(), channelList.end(), channel) != channelList.end())
          return Fail(error, file, at + "/channels/" + std::to_string(c), "a channel not listed before", channels[c]);
        channelList.push_back(channel);
      }
    }
    bvh->channels.push_back(std::move(channelList));
    out.joints.push_back(std::move(joint));
  }
  std::string why;
  if (!ValidateSkeleton(out, why))
    return Fail(error, file, "/skeleton", "a valid skeleton (" + why + ")", nullptr);
  layout = withChannels ? std::shared_ptr<const BvhLayout>(std::move(bvh)) : nullptr;
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

bool IsSavedCharacterPath(const std::string& path)
{
  return path.size() >= 5 && path.compare(path.size() - 5, 5, ".json") == 0;
}

bool SaveCharacter(const Character& character, const BvhLayout* layout, const std::string& path, std::string& error)
{
  const Skeleton& s = *character.skeleton;
  json out;
  out["format"] = kFormat;
  out["version"] = kVersion;
  out["preset"] = character.preset;
  const telvo::Matrix& m = s.sceneTransform;
  out["sceneTransform"] = {m.v1.x, m.v1.y, m.v1.z, 0.0, m.v2.x, m.v2.y, m.v2.z, 0.0,
                           m.v3.x, m.v3.y, m.v3.z, 0.0, m.off.x, m.off.y, m.off.z, 1.0};
  out["metresPerUnit"] = s.metresPerUnit;
  json& skeleton = out["skeleton"] = json::array();
  for (std::size_t i = 0; i < s.joints.size(); ++i)
  {
    const Joint& joint = s.joints[i];
    json entry = {{"name", joint.name},
                  {"parent", joint.parent},
                  {"offset", VectorJson(joint.translation)},
                  {"rotation", {joint.rotation.w, joint.rotation.x, joint.rotation.y, joint.rotation.z}},
                  {"scale", VectorJson(joint.scale)}};
    if (layout != nullptr && i < layout->channels.size())
    {
      json channels = json::array();
      for (Channel channel : layout->channels[i])
        channels.push_back(ChannelName(channel));
      entry["channels"] = channels;
    }
    entry["endSite"] = joint.hasEndSite ? VectorJson(joint.endSite) : json(nullptr);
    skeleton.push_back(std::move(entry));
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
  if (ReadWholeFile(path, text, error))
    return true;
  error = "cannot read '" + path + "'";
  return false;
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
  if (in.value("version", json()) != 1 && in.value("version", json()) != kVersion)
    return Fail(error, displayName, "/version", "1 or 2", in.value("version", json()));
  return true;
}

} // namespace

bool ReadSavedSkeleton(const std::string& path, AnimationFile& out, std::string& error)
{
  std::string text;
  json in;
  if (!ReadFileText(path, text, error) || !ParseSaved(text, path, in, error))
    return false;
  out = AnimationFile();
  out.format = "saved character";
  return ReadSkeleton(in, path, out.skeleton, out.bvhLayout, error);
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
  if (!ReadSkeleton(in, displayName, out.skeleton, out.bvhLayout, error))
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
  out.skeleton = &saved.skeleton;
  out.preset = saved.preset;
  out.definition = saved.definition;
  out.partJoint.fill(-1);
  const std::vector<Joint>& joints = saved.skeleton.joints;
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

  // Rest matrices come from the saved pose and must follow the skeleton's rest transforms.
  out.restGlobal.resize(joints.size());
  const std::vector<telvo::Matrix> expected = RestWorld(saved.skeleton);
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
    if (!Near(out.restGlobal[i], expected[i]))
    {
      error = "/definition/members/SkeletonRestPose: expected the rest matrix of joint '" + joints[i].name +
              "' to follow its rest transform, found another one";
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
