// Reading glTF: the document through tinygltf, then the skeleton and one animation out of it,
// with every index and byte range checked before use (files come from anywhere).
#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <new>
#include <set>
#include <sstream>

#include "io/gltf/gltf.h"
#include "io/gltf/gltf_document.h"
#include "io/read_file.h"

namespace kelvara
{

namespace
{

using telvo::Matrix;
using telvo::Vector;

// Extensions a document may require and still be read and written back: they change materials,
// textures or mesh storage, which the host passes through untouched, never nodes, skins or
// animations.
const std::set<std::string>& PassThroughExtensions()
{
  static const std::set<std::string> kNames = {
    "KHR_materials_emissive_strength", "KHR_materials_ior",      "KHR_materials_specular",
    "KHR_materials_transmission",      "KHR_materials_volume",   "KHR_materials_clearcoat",
    "KHR_materials_sheen",             "KHR_materials_unlit",    "KHR_materials_variants",
    "KHR_materials_iridescence",       "KHR_materials_anisotropy", "KHR_materials_dispersion",
    "KHR_texture_transform",           "KHR_texture_basisu",     "EXT_texture_webp",
    "KHR_mesh_quantization",           "KHR_draco_mesh_compression", "KHR_lights_punctual",
    "KHR_materials_pbrSpecularGlossiness"};
  return kNames;
}

// The image loader keeps each image's bytes as they are, so that writing can embed them without
// decoding and encoding them again.
bool KeepImageBytes(tinygltf::Image* image, const int index, std::string*, std::string*, int, int,
                    const unsigned char* bytes, int size, void* user)
{
  if (image->bufferView >= 0 || index < 0 || size < 0)
    return true;
  auto& kept = *static_cast<std::vector<std::vector<unsigned char>>*>(user);
  if (kept.size() <= static_cast<std::size_t>(index))
    kept.resize(static_cast<std::size_t>(index) + 1);
  kept[static_cast<std::size_t>(index)].assign(bytes, bytes + size);
  return true;
}

std::string FirstLine(const std::string& text)
{
  std::string line = text.substr(0, text.find('\n'));
  while (!line.empty() && (line.back() == ' ' || line.back() == '\r'))
    line.pop_back();
  return line;
}

std::string NodeName(const tinygltf::Model& model, int node)
{
  const std::string& name = model.nodes[static_cast<std::size_t>(node)].name;
  return name.empty() ? "node" + std::to_string(node) : name;
}

Matrix NodeMatrix(const tinygltf::Node& node)
{
  Vector t;
  Quaternion r;
  Vector s;
  NodeTransform(node, t, r, s);
  return LocalMatrix(t, r, s);
}

// Accessor values as doubles, count * components of them, after checking that the accessor, its
// view and its buffer hold every byte read. Normalised integers map to [-1, 1] or [0, 1].
class AccessorReader
{
public:
  AccessorReader(const tinygltf::Model& model, const std::string& path) : _model(model), _path(path) {}

  bool Read(int index, int type, const std::string& what, std::vector<double>& out, std::string& error) const
  {
    auto fail = [&](const std::string& why) {
      error = _path + ": " + what + ": expected " + why;
      return false;
    };
    if (index < 0 || static_cast<std::size_t>(index) >= _model.accessors.size())
      return fail("an accessor, found index " + std::to_string(index));
    const tinygltf::Accessor& a = _model.accessors[static_cast<std::size_t>(index)];
    const std::string at = " (accessor " + std::to_string(index) + ")";
    if (a.type != type)
      return fail("an accessor of " + std::to_string(Components(type)) + " components" + at + ", found another type");
    if (a.sparse.isSparse)
      return fail("a plain accessor" + at + ", found a sparse one");
    const int componentBytes = ComponentBytes(a.componentType);
    if (componentBytes == 0 || (a.componentType != TINYGLTF_COMPONENT_TYPE_FLOAT && !a.normalized))
      return fail("floats or normalised integers" + at + ", found component type " + std::to_string(a.componentType));
    if (a.bufferView < 0 || static_cast<std::size_t>(a.bufferView) >= _model.bufferViews.size())
      return fail("a buffer view" + at + ", found index " + std::to_string(a.bufferView));
    const tinygltf::BufferView& view = _model.bufferViews[static_cast<std::size_t>(a.bufferView)];
    if (view.buffer < 0 || static_cast<std::size_t>(view.buffer) >= _model.buffers.size())
      return fail("a buffer" + at + ", found index " + std::to_string(view.buffer));
    const std::vector<unsigned char>& data = _model.buffers[static_cast<std::size_t>(view.buffer)].data;
    const std::size_t components = static_cast<std::size_t>(Components(type));
    const std::size_t elementBytes = components * static_cast<std::size_t>(componentBytes);
    const std::size_t stride = view.byteStride != 0 ? view.byteStride : elementBytes;
    if (stride < elementBytes)
      return fail("a stride of at least " + std::to_string(elementBytes) + " bytes" + at + ", found " +
                  std::to_string(stride));
    // Every byte read must lie in the view, and the view in the buffer (sizes checked against
    // overflow by comparing with what is there, never by adding first).
    if (view.byteOffset > data.size() || view.byteLength > data.size() - view.byteOffset)
      return fail("a buffer view inside its buffer" + at + ", found one past its end (the buffer is missing or short)");
    if (a.count > 0 && (a.byteOffset > view.byteLength || (a.count - 1) > (view.byteLength - a.byteOffset) / stride ||
                        (a.count - 1) * stride + elementBytes > view.byteLength - a.byteOffset))
      return fail(std::to_string(a.count) + " elements inside the buffer view" + at + ", found fewer");
    out.resize(a.count * components);
    const unsigned char* base = data.data() + view.byteOffset + a.byteOffset;
    for (std::size_t e = 0; e < a.count; ++e)
      for (std::size_t c = 0; c < components; ++c)
        out[e * components + c] = Value(base + e * stride + c * static_cast<std::size_t>(componentBytes), a.componentType);
    for (double v : out)
      if (!std::isfinite(v))
        return fail("finite numbers" + at + ", found another");
    return true;
  }

private:
  static int Components(int type)
  {
    return type == TINYGLTF_TYPE_SCALAR ? 1 : type == TINYGLTF_TYPE_VEC3 ? 3 : type == TINYGLTF_TYPE_VEC4 ? 4 : 0;
  }

  static int ComponentBytes(int componentType)
  {
    switch (componentType)
    {
    case TINYGLTF_COMPONENT_TYPE_FLOAT:
      return 4;
    case TINYGLTF_COMPONENT_TYPE_BYTE:
    case TINYGLTF_COMPONENT_TYPE_UNSIGNED_BYTE:
      return 1;
    case TINYGLTF_COMPONENT_TYPE_SHORT:
    case TINYGLTF_COMPONENT_TYPE_UNSIGNED_SHORT:
      return 2;
    default:
      return 0;
    }
  }

  static double Value(const unsigned char* p, int componentType)
  {
    switch (componentType)
    {
    case TINYGLTF_COMPONENT_TYPE_FLOAT:
    {
      float f;
      std::memcpy(&f, p, sizeof f);
      return f;
    }
    case TINYGLTF_COMPONENT_TYPE_BYTE:
      return std::max(static_cast<double>(static_cast<signed char>(*p)) / 127.0, -1.0);
    case TINYGLTF_COMPONENT_TYPE_UNSIGNED_BYTE:
      return *p / 255.0;
    case TINYGLTF_COMPONENT_TYPE_SHORT:
    {
      std::int16_t v;
      std::memcpy(&v, p, sizeof v);
      return std::max(v / 32767.0, -1.0);
    }
    default:
    {
      std::uint16_t v;
      std::memcpy(&v, p, sizeof v);
      return v / 65535.0;
    }
    }
  }

  const tinygltf::Model& _model;
  const std::string& _path;
};

// The node tree: each node's parent, after checking that children indices exist, that no node
// has two parents and that no chain of parents comes back on itself.
bool NodeParents(const tinygltf::Model& model, const std::string& path, std::vector<int>& parent, std::string& error)
{
  const std::size_t n = model.nodes.size();
  parent.assign(n, -1);
  for (std::size_t p = 0; p < n; ++p)
    for (int c : model.nodes[p].children)
    {
      if (c < 0 || static_cast<std::size_t>(c) >= n)
      {
        error = path + ": node " + std::to_string(p) + ": expected children among the " + std::to_string(n) +
                " nodes, found index " + std::to_string(c);
        return false;
      }
      if (parent[static_cast<std::size_t>(c)] != -1 || static_cast<std::size_t>(c) == p)
      {
        error = path + ": node " + std::to_string(c) + " ('" + NodeName(model, c) +
                "'): expected one parent, found it a child twice (the node hierarchy has a cycle or a shared node)";
        return false;
      }
      parent[static_cast<std::size_t>(c)] = static_cast<int>(p);
    }
  // With one parent each, a cycle is a chain that never reaches a root.
  std::vector<char> state(n, 0); // 0 unknown, 1 on the walk, 2 reaches a root
  std::vector<int> walk;
  for (std::size_t start = 0; start < n; ++start)
  {
    walk.clear();
    int node = static_cast<int>(start);
    while (node >= 0 && state[static_cast<std::size_t>(node)] == 0)
    {
      state[static_cast<std::size_t>(node)] = 1;
      walk.push_back(node);
      node = parent[static_cast<std::size_t>(node)];
    }
    if (node >= 0 && state[static_cast<std::size_t>(node)] == 1)
    {
      error = path + ": node " + std::to_string(node) + " ('" + NodeName(model, node) +
              "'): expected a node hierarchy without cycles, found one through it";
      return false;
    }
    for (int w : walk)
      state[static_cast<std::size_t>(w)] = 2;
  }
  return true;
}

// Chooses the skeleton's nodes: marks them in `in` and returns its topmost node (-1 when the
// marked nodes have no common ancestor).
bool ChooseSkeletonNodes(const tinygltf::Model& model, const std::string& path, const ReadRequest& request,
                         const std::vector<int>& parent, std::vector<char>& in, int& top, std::string& error)
{
  const std::size_t n = model.nodes.size();
  in.assign(n, 0);
  top = -1;
  if (!request.skeletonRoot.empty())
  {
    int root = -1;
    for (std::size_t i = 0; i < n && root < 0; ++i)
      if (model.nodes[i].name == request.skeletonRoot)
        root = static_cast<int>(i);
    if (root < 0)
    {
      error = path + ": expected a node named '" + request.skeletonRoot + "' (--skeleton-root), found none";
      return false;
    }
    // The subtree, but for leaves that only carry a mesh or a camera: they are not joints.
    std::vector<int> stack{root};
    while (!stack.empty())
    {
      const int node = stack.back();
      stack.pop_back();
      const tinygltf::Node& nd = model.nodes[static_cast<std::size_t>(node)];
      if (node != root && nd.children.empty() && (nd.mesh >= 0 || nd.camera >= 0))
        continue;
      in[static_cast<std::size_t>(node)] = 1;
      for (int c : nd.children)
        stack.push_back(c);
    }
    top = root;
    return true;
  }

  std::vector<int> marked;
  for (std::size_t s = 0; s < model.skins.size(); ++s)
    for (int j : model.skins[s].joints)
    {
      if (j < 0 || static_cast<std::size_t>(j) >= n)
      {
        error = path + ": skin " + std::to_string(s) + ": expected joints among the " + std::to_string(n) +
                " nodes, found index " + std::to_string(j);
        return false;
      }
      marked.push_back(j);
    }
  if (marked.empty())
    for (const tinygltf::Animation& animation : model.animations)
      for (const tinygltf::AnimationChannel& channel : animation.channels)
        if (channel.target_node >= 0 && static_cast<std::size_t>(channel.target_node) < n &&
            (channel.target_path == "rotation" || channel.target_path == "translation"))
          marked.push_back(channel.target_node);
  if (marked.empty())
  {
    error = path + ": expected a skin or an animated node hierarchy (or --skeleton-root NAME), found neither";
    return false;
  }
  // The lowest common ancestor of every marked node, and the paths from it down to each.
  auto chain = [&](int node) {
    std::vector<int> up;
    for (int k = node; k >= 0; k = parent[static_cast<std::size_t>(k)])
      up.push_back(k);
    std::reverse(up.begin(), up.end());
    return up;
  };
  std::vector<int> common = chain(marked.front());
  for (int m : marked)
  {
    const std::vector<int> c = chain(m);
    std::size_t k = 0;
    while (k < common.size() && k < c.size() && common[k] == c[k])
      ++k;
    common.resize(k);
  }
  top = common.empty() ? -1 : common.back();
  for (int m : marked)
    for (int k = m; k >= 0 && !in[static_cast<std::size_t>(k)]; k = parent[static_cast<std::size_t>(k)])
    {
      in[static_cast<std::size_t>(k)] = 1;
      if (k == top)
        break;
    }
  return true;
}

// The scene's root nodes in order: those of the default scene, then any other parentless node.
std::vector<int> SceneRoots(const tinygltf::Model& model, const std::vector<int>& parent)
{
  std::vector<int> roots;
  std::vector<char> seen(model.nodes.size(), 0);
  if (model.defaultScene >= 0 && static_cast<std::size_t>(model.defaultScene) < model.scenes.size())
    for (int r : model.scenes[static_cast<std::size_t>(model.defaultScene)].nodes)
      if (r >= 0 && static_cast<std::size_t>(r) < model.nodes.size() && parent[static_cast<std::size_t>(r)] < 0 &&
          !seen[static_cast<std::size_t>(r)])
      {
        roots.push_back(r);
        seen[static_cast<std::size_t>(r)] = 1;
      }
  for (std::size_t i = 0; i < model.nodes.size(); ++i)
    if (parent[i] < 0 && !seen[i])
      roots.push_back(static_cast<int>(i));
  return roots;
}

bool BuildSkeleton(GltfDocument& document, const std::string& path, const ReadRequest& request, Skeleton& skeleton,
                   std::string& error)
{
  const tinygltf::Model& model = document.model;
  std::vector<int> parent;
  std::vector<char> in;
  int top = -1;
  if (!NodeParents(model, path, parent, error) || !ChooseSkeletonNodes(model, path, request, parent, in, top, error))
    return false;

  skeleton = Skeleton();
  skeleton.path = path;
  skeleton.metresPerUnit = 1.0; // glTF's unit is the metre
  // Everything above the skeleton's top node is the scene it stands in.
  if (top >= 0)
    for (int k = parent[static_cast<std::size_t>(top)]; k >= 0; k = parent[static_cast<std::size_t>(k)])
      skeleton.sceneTransform = NodeMatrix(model.nodes[static_cast<std::size_t>(k)]) * skeleton.sceneTransform;

  // Depth first from the top node (or the scene's roots), parents before children, without
  // recursion so that no depth of hierarchy can exhaust the stack.
  std::vector<int> starts = top >= 0 ? std::vector<int>{top} : SceneRoots(model, parent);
  std::vector<std::pair<int, int>> stack; // node, joint index of its parent
  for (auto it = starts.rbegin(); it != starts.rend(); ++it)
    if (in[static_cast<std::size_t>(*it)])
      stack.emplace_back(*it, -1);
  document.nodeOfJoint.clear();
  while (!stack.empty())
  {
    const auto [node, parentJoint] = stack.back();
    stack.pop_back();
    if (skeleton.joints.size() >= static_cast<std::size_t>(kMaxJoints))
    {
      error = path + ": expected at most " + std::to_string(kMaxJoints) + " joints, found more";
      return false;
    }
    const tinygltf::Node& nd = model.nodes[static_cast<std::size_t>(node)];
    Joint joint;
    joint.name = NodeName(model, node);
    joint.parent = parentJoint;
    NodeTransform(nd, joint.translation, joint.rotation, joint.scale);
    const int self = static_cast<int>(skeleton.joints.size());
    bool hasJointChild = false;
    for (auto c = nd.children.rbegin(); c != nd.children.rend(); ++c)
      if (in[static_cast<std::size_t>(*c)])
      {
        stack.emplace_back(*c, self);
        hasJointChild = true;
      }
    // A leaf joint's first child that is no joint (an end bone's tip) marks where its bone ends.
    if (!hasJointChild)
      for (int c : nd.children)
        if (model.nodes[static_cast<std::size_t>(c)].mesh < 0)
        {
          Quaternion ignoredRotation;
          Vector ignoredScale;
          NodeTransform(model.nodes[static_cast<std::size_t>(c)], joint.endSite, ignoredRotation, ignoredScale);
          joint.hasEndSite = true;
          break;
        }
    skeleton.joints.push_back(std::move(joint));
    document.nodeOfJoint.push_back(node);
  }
  return ValidateSkeleton(skeleton, error);
}

int FindAnimation(const tinygltf::Model& model, const std::string& wanted, bool last)
{
  if (wanted.empty())
    return model.animations.empty() ? -1 : last ? static_cast<int>(model.animations.size()) - 1 : 0;
  for (std::size_t i = 0; i < model.animations.size(); ++i)
    if (model.animations[i].name == wanted)
      return static_cast<int>(i);
  const bool digits = std::all_of(wanted.begin(), wanted.end(), [](char c) { return c >= '0' && c <= '9'; });
  if (digits && wanted.size() < 9 && std::stoul(wanted) < model.animations.size())
    return std::stoi(wanted);
  return -1;
}

// One animated property of one joint: key times and values (components per key; cubic splines
// keep in-tangent, value, out-tangent per key).
struct Track
{
  int joint = -1;
  bool rotation = false;
  std::string interpolation;
  std::vector<double> times;
  std::vector<double> values;
};

// The value of a track at time t, into out (4 numbers for rotations, x, y, z, w; 3 for
// translations).
void Sample(const Track& track, double t, double* out)
{
  const std::size_t k = track.rotation ? 4 : 3;
  const bool cubic = track.interpolation == "CUBICSPLINE";
  const std::size_t keyStride = cubic ? 3 * k : k;
  const std::size_t valueAt = cubic ? k : 0;
  auto value = [&](std::size_t key, std::size_t c) { return track.values[key * keyStride + valueAt + c]; };
  const std::vector<double>& times = track.times;
  const std::size_t last = times.size() - 1;
  std::size_t key = 0;
  if (t <= times.front())
    key = 0;
  else if (t >= times[last])
    key = last;
  else
    key = static_cast<std::size_t>(std::upper_bound(times.begin(), times.end(), t) - times.begin()) - 1;
  // A frame time a hair before a key (keys are 32-bit floats, frame times doubles) is that key.
  if (key < last && times[key + 1] - t <= 1e-6 * std::max(1.0, std::fabs(t)))
    ++key;
  if (key == last || t <= times[key] || track.interpolation == "STEP")
  {
    for (std::size_t c = 0; c < k; ++c)
      out[c] = value(key, c);
    return;
  }
  const double span = times[key + 1] - times[key];
  const double u = span > 0.0 ? (t - times[key]) / span : 0.0;
  if (cubic)
  {
    const double u2 = u * u;
    const double u3 = u2 * u;
    for (std::size_t c = 0; c < k; ++c)
    {
      const double p0 = value(key, c);
      const double m0 = track.values[key * keyStride + 2 * k + c] * span;
      const double p1 = value(key + 1, c);
      const double m1 = track.values[(key + 1) * keyStride + c] * span;
      out[c] = (2 * u3 - 3 * u2 + 1) * p0 + (u3 - 2 * u2 + u) * m0 + (-2 * u3 + 3 * u2) * p1 + (u3 - u2) * m1;
    }
    return;
  }
  if (track.rotation)
  {
    const Quaternion a{value(key, 3), value(key, 0), value(key, 1), value(key, 2)};
    const Quaternion b{value(key + 1, 3), value(key + 1, 0), value(key + 1, 1), value(key + 1, 2)};
    const Quaternion q = Slerp(Normalized(a), Normalized(b), u);
    out[0] = q.x;
    out[1] = q.y;
    out[2] = q.z;
    out[3] = q.w;
    return;
  }
  for (std::size_t c = 0; c < k; ++c)
    out[c] = value(key, c) * (1.0 - u) + value(key + 1, c) * u;
}

bool ReadTracks(const tinygltf::Model& model, const std::string& path, int animationIndex,
                const std::vector<int>& jointOfNode, std::vector<Track>& tracks, std::string& error)
{
  const tinygltf::Animation& animation = model.animations[static_cast<std::size_t>(animationIndex)];
  const AccessorReader reader(model, path);
  for (std::size_t ch = 0; ch < animation.channels.size(); ++ch)
  {
    const tinygltf::AnimationChannel& channel = animation.channels[ch];
    const bool rotation = channel.target_path == "rotation";
    if (!rotation && channel.target_path != "translation")
      continue; // scale and morph weights do not drive a skeleton's pose
    if (channel.target_node < 0 || static_cast<std::size_t>(channel.target_node) >= jointOfNode.size() ||
        jointOfNode[static_cast<std::size_t>(channel.target_node)] < 0)
      continue;
    const std::string what = "animation " + std::to_string(animationIndex) + " channel " + std::to_string(ch);
    if (channel.sampler < 0 || static_cast<std::size_t>(channel.sampler) >= animation.samplers.size())
    {
      error = path + ": " + what + ": expected a sampler, found index " + std::to_string(channel.sampler);
      return false;
    }
    const tinygltf::AnimationSampler& sampler = animation.samplers[static_cast<std::size_t>(channel.sampler)];
    Track track;
    track.joint = jointOfNode[static_cast<std::size_t>(channel.target_node)];
    track.rotation = rotation;
    track.interpolation = sampler.interpolation.empty() ? "LINEAR" : sampler.interpolation;
    if (track.interpolation != "LINEAR" && track.interpolation != "STEP" && track.interpolation != "CUBICSPLINE")
    {
      error = path + ": " + what + ": expected LINEAR, STEP or CUBICSPLINE, found " + track.interpolation;
      return false;
    }
    if (!reader.Read(sampler.input, TINYGLTF_TYPE_SCALAR, what + " times", track.times, error) ||
        !reader.Read(sampler.output, rotation ? TINYGLTF_TYPE_VEC4 : TINYGLTF_TYPE_VEC3, what + " values",
                     track.values, error))
      return false;
    const std::size_t perKey = (rotation ? 4u : 3u) * (track.interpolation == "CUBICSPLINE" ? 3u : 1u);
    if (track.times.empty() || track.values.size() != track.times.size() * perKey)
    {
      error = path + ": " + what + ": expected " + std::to_string(track.times.size()) + " keys of values, found " +
              std::to_string(track.values.size() / perKey);
      return false;
    }
    for (std::size_t k = 1; k < track.times.size(); ++k)
      if (!(track.times[k] > track.times[k - 1]))
      {
        error = path + ": " + what + ": expected increasing key times, found " + std::to_string(track.times[k]) +
                " after " + std::to_string(track.times[k - 1]);
        return false;
      }
    tracks.push_back(std::move(track));
  }
  return true;
}

// The frame time: the densest track's mean key spacing, snapped to a whole number of frames a
// second when it is that but for the rounding of 32-bit key times.
double FrameTimeOf(const std::vector<Track>& tracks)
{
  double step = std::numeric_limits<double>::infinity();
  for (const Track& t : tracks)
    if (t.times.size() > 1)
      step = std::min(step, (t.times.back() - t.times.front()) / static_cast<double>(t.times.size() - 1));
  if (!std::isfinite(step) || step <= 0.0)
    return 1.0 / 30.0;
  const double fps = 1.0 / step;
  const double whole = std::round(fps);
  return whole >= 1.0 && std::fabs(fps - whole) < 1e-6 * fps ? 1.0 / whole : step;
}

bool BuildClip(const tinygltf::Model& model, const std::string& path, int animationIndex, const Skeleton& skeleton,
               const std::vector<int>& nodeOfJoint, Clip& clip, std::string& error)
{
  std::vector<int> jointOfNode(model.nodes.size(), -1);
  for (std::size_t j = 0; j < nodeOfJoint.size(); ++j)
    jointOfNode[static_cast<std::size_t>(nodeOfJoint[j])] = static_cast<int>(j);
  std::vector<Track> tracks;
  if (!ReadTracks(model, path, animationIndex, jointOfNode, tracks, error))
    return false;
  const tinygltf::Animation& animation = model.animations[static_cast<std::size_t>(animationIndex)];
  if (tracks.empty())
  {
    error = path + ": animation '" + animation.name + "': expected rotations or translations of the skeleton's joints, "
                                                     "found none";
    return false;
  }
  double start = std::numeric_limits<double>::infinity();
  double end = -std::numeric_limits<double>::infinity();
  for (const Track& t : tracks)
  {
    start = std::min(start, t.times.front());
    end = std::max(end, t.times.back());
  }
  const double frameTime = FrameTimeOf(tracks);
  const double frames = std::floor((end - start) / frameTime + 0.5) + 1.0;
  if (!(frames <= kMaxFrames))
  {
    error = path + ": animation '" + animation.name + "': expected at most " + std::to_string(kMaxFrames) +
            " frames, found " + std::to_string(frames);
    return false;
  }
  const std::size_t n = skeleton.joints.size();
  clip = RestClip(skeleton, static_cast<int>(frames), frameTime);
  clip.name = animation.name.empty() ? "animation" + std::to_string(animationIndex) : animation.name;
  const bool moving = std::any_of(tracks.begin(), tracks.end(), [](const Track& t) { return !t.rotation && t.joint != 0; });
  if (moving)
    for (int f = 0; f < clip.frameCount; ++f)
      for (const Joint& joint : skeleton.joints)
        clip.translations.push_back(joint.translation);
  double value[4];
  for (const Track& track : tracks)
    for (int f = 0; f < clip.frameCount; ++f)
    {
      Sample(track, std::min(start + f * frameTime, end), value);
      const std::size_t at = static_cast<std::size_t>(f) * n + static_cast<std::size_t>(track.joint);
      if (track.rotation)
        clip.rotations[at] = Normalized(Quaternion{value[3], value[0], value[1], value[2]});
      else if (track.joint == 0)
        clip.rootTranslation[static_cast<std::size_t>(f)] = {value[0], value[1], value[2]};
      if (!track.rotation && moving)
        clip.translations[at] = {value[0], value[1], value[2]};
    }
  return ValidateClip(clip, skeleton, error);
}

} // namespace

bool ReadGltfDocument(std::shared_ptr<GltfDocument> document, const std::string& path, const ReadRequest& request,
                      AnimationFile& out, std::string& error)
{
  const tinygltf::Model& model = document->model;
  for (const std::string& name : model.extensionsRequired)
    if (PassThroughExtensions().count(name) == 0)
    {
      error = path + ": expected extensions kelvara can carry through, found required extension " + name +
              " (unknown to kelvara)";
      return false;
    }
  out.hasClip = false;
  out.clip = Clip();
  if (!BuildSkeleton(*document, path, request, out.skeleton, error))
    return false;
  if (request.motion)
  {
    const int animation = FindAnimation(model, request.animation, request.lastAnimation);
    if (animation < 0 && !request.animation.empty())
    {
      std::string names;
      for (std::size_t i = 0; i < model.animations.size(); ++i)
        names += (names.empty() ? "" : ", ") + std::to_string(i) + " '" + model.animations[i].name + "'";
      error = path + ": expected an animation named or numbered '" + request.animation + "' (--animation), found " +
              (names.empty() ? "no animation" : names);
      return false;
    }
    if (animation >= 0)
    {
      if (!BuildClip(model, path, animation, out.skeleton, document->nodeOfJoint, out.clip, error))
        return false;
      out.hasClip = true;
    }
  }
  out.gltf = std::move(document);
  return true;
}

bool ReadGltfBytes(std::string_view bytes, const std::string& path, const std::string& baseDir,
                   const ReadRequest& request, AnimationFile& out, std::string& error)
{
  auto document = std::make_shared<GltfDocument>();
  tinygltf::TinyGLTF loader;
  loader.SetImageLoader(&KeepImageBytes, &document->imageBytes);
  std::string err;
  std::string warn;
  const bool binary = bytes.size() >= 4 && bytes.compare(0, 4, "glTF") == 0;
  if (bytes.size() > std::numeric_limits<unsigned int>::max())
  {
    error = path + ": expected a glTF file under 4 GB, found a larger one";
    return false;
  }
  const bool loaded =
    binary ? loader.LoadBinaryFromMemory(&document->model, &err, &warn, reinterpret_cast<const unsigned char*>(bytes.data()),
                                         static_cast<unsigned int>(bytes.size()), baseDir)
           : loader.LoadASCIIFromString(&document->model, &err, &warn, bytes.data(),
                                        static_cast<unsigned int>(bytes.size()), baseDir);
  // tinygltf catches memory running out and reports it as a file it cannot read, with the
  // exception's text alone (a file's own names can put "bad_alloc" into other messages).
  if (!loaded && err == "std::bad_alloc")
    throw std::bad_alloc();
  if (!loaded)
  {
    error = path + ": expected a glTF 2.0 " + std::string(binary ? "binary (.glb)" : "JSON (.gltf)") +
            " file, found one that cannot be read: " + (err.empty() ? "no reason given" : FirstLine(err));
    return false;
  }
  out = AnimationFile();
  out.format = binary ? "GLB" : "glTF";
  std::istringstream warnings(warn);
  for (std::string line; std::getline(warnings, line);)
    if (!line.empty())
      out.warnings.push_back(path + ": " + line);
  return ReadGltfDocument(std::move(document), path, request, out, error);
}

bool ReadGltf(const std::string& path, const ReadRequest& request, AnimationFile& out, std::string& error)
{
  std::string bytes;
  if (!ReadWholeFile(path, bytes, error))
    return false;
  return ReadGltfBytes(bytes, path, std::filesystem::path(path).parent_path().string(), request, out, error);
}

} // namespace kelvara
