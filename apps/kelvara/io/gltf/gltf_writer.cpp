// Writing glTF: the target's document, packed into one buffer with its images embedded, plus the
// retargeted clip as a new animation.
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <new>
#include <set>
#include <sstream>

#include "io/atomic_file.h"
#include "io/gltf/gltf.h"
#include "io/gltf/gltf_document.h"

namespace kelvara
{

namespace
{

// Extensions whose data refers to buffer views or accessors by index from inside their own JSON,
// which compaction cannot renumber: documents using one keep every view and accessor.
bool RefersToBufferData(const std::string& extension)
{
  return extension == "KHR_draco_mesh_compression" || extension == "EXT_meshopt_compression" ||
         extension == "EXT_mesh_gpu_instancing";
}

std::string SniffMimeType(const std::vector<unsigned char>& bytes, const std::string& uri)
{
  if (bytes.size() >= 4 && bytes[0] == 0x89 && bytes[1] == 'P' && bytes[2] == 'N' && bytes[3] == 'G')
    return "image/png";
  if (bytes.size() >= 3 && bytes[0] == 0xFF && bytes[1] == 0xD8 && bytes[2] == 0xFF)
    return "image/jpeg";
  if (bytes.size() >= 12 && std::equal(bytes.begin() + 8, bytes.begin() + 12, "WEBP"))
    return "image/webp";
  const std::string lower = [&] {
    std::string s = uri.substr(uri.find_last_of('.') == std::string::npos ? uri.size() : uri.find_last_of('.'));
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
  }();
  return lower == ".jpg" || lower == ".jpeg" ? "image/jpeg" : "image/png";
}

// Every buffer view and image's bytes into one buffer, in view order, each view 4-byte aligned;
// accessors and views no one refers to any more (a replaced animation's) are dropped unless an
// extension might refer to them.
void Pack(GltfDocument& document)
{
  tinygltf::Model& model = document.model;
  const bool compact = std::none_of(model.extensionsUsed.begin(), model.extensionsUsed.end(), RefersToBufferData);

  std::vector<char> accessorUsed(model.accessors.size(), !compact);
  auto useAccessor = [&](int a) {
    if (a >= 0 && static_cast<std::size_t>(a) < accessorUsed.size())
      accessorUsed[static_cast<std::size_t>(a)] = 1;
  };
  for (const tinygltf::Mesh& mesh : model.meshes)
    for (const tinygltf::Primitive& p : mesh.primitives)
    {
      useAccessor(p.indices);
      for (const auto& [name, a] : p.attributes)
        useAccessor(a);
      for (const auto& target : p.targets)
        for (const auto& [name, a] : target)
          useAccessor(a);
    }
  for (const tinygltf::Skin& skin : model.skins)
    useAccessor(skin.inverseBindMatrices);
  for (const tinygltf::Animation& animation : model.animations)
    for (const tinygltf::AnimationSampler& s : animation.samplers)
    {
      useAccessor(s.input);
      useAccessor(s.output);
    }
  std::vector<char> viewUsed(model.bufferViews.size(), !compact);
  auto useView = [&](int v) {
    if (v >= 0 && static_cast<std::size_t>(v) < viewUsed.size())
      viewUsed[static_cast<std::size_t>(v)] = 1;
  };
  for (std::size_t a = 0; a < model.accessors.size(); ++a)
    if (accessorUsed[a])
    {
      useView(model.accessors[a].bufferView);
      useView(model.accessors[a].sparse.indices.bufferView);
      useView(model.accessors[a].sparse.values.bufferView);
    }
  for (const tinygltf::Image& image : model.images)
    useView(image.bufferView);

  // New numbers for what stays.
  std::vector<int> viewNumber(model.bufferViews.size(), -1);
  std::vector<tinygltf::BufferView> views;
  tinygltf::Buffer packed;
  for (std::size_t v = 0; v < model.bufferViews.size(); ++v)
  {
    if (!viewUsed[v])
      continue;
    tinygltf::BufferView view = model.bufferViews[v];
    std::vector<unsigned char> bytes;
    if (view.buffer >= 0 && static_cast<std::size_t>(view.buffer) < model.buffers.size())
    {
      const std::vector<unsigned char>& data = model.buffers[static_cast<std::size_t>(view.buffer)].data;
      if (view.byteOffset <= data.size())
        bytes.assign(data.begin() + static_cast<std::ptrdiff_t>(view.byteOffset),
                     data.begin() + static_cast<std::ptrdiff_t>(std::min(data.size(), view.byteOffset + view.byteLength)));
    }
    bytes.resize(view.byteLength, 0);
    packed.data.resize((packed.data.size() + 3) / 4 * 4, 0);
    view.buffer = 0;
    view.byteOffset = packed.data.size();
    packed.data.insert(packed.data.end(), bytes.begin(), bytes.end());
    viewNumber[v] = static_cast<int>(views.size());
    views.push_back(view);
  }
  auto renumberView = [&](int& v) {
    if (v >= 0)
      v = static_cast<std::size_t>(v) < viewNumber.size() ? viewNumber[static_cast<std::size_t>(v)] : -1;
  };
  std::vector<int> accessorNumber(model.accessors.size(), -1);
  std::vector<tinygltf::Accessor> accessors;
  for (std::size_t a = 0; a < model.accessors.size(); ++a)
    if (accessorUsed[a])
    {
      tinygltf::Accessor accessor = model.accessors[a];
      renumberView(accessor.bufferView);
      renumberView(accessor.sparse.indices.bufferView);
      renumberView(accessor.sparse.values.bufferView);
      accessorNumber[a] = static_cast<int>(accessors.size());
      accessors.push_back(accessor);
    }
  auto renumberAccessor = [&](int& a) {
    if (a >= 0)
      a = static_cast<std::size_t>(a) < accessorNumber.size() ? accessorNumber[static_cast<std::size_t>(a)] : -1;
  };
  for (tinygltf::Mesh& mesh : model.meshes)
    for (tinygltf::Primitive& p : mesh.primitives)
    {
      renumberAccessor(p.indices);
      for (auto& [name, a] : p.attributes)
        renumberAccessor(a);
      for (auto& target : p.targets)
        for (auto& [name, a] : target)
          renumberAccessor(a);
    }
  for (tinygltf::Skin& skin : model.skins)
    renumberAccessor(skin.inverseBindMatrices);
  for (tinygltf::Animation& animation : model.animations)
    for (tinygltf::AnimationSampler& s : animation.samplers)
    {
      renumberAccessor(s.input);
      renumberAccessor(s.output);
    }
  for (tinygltf::Image& image : model.images)
    renumberView(image.bufferView);

  packed.name = model.buffers.empty() ? "" : model.buffers[0].name;
  model.buffers = {std::move(packed)};
  model.bufferViews = std::move(views);
  model.accessors = std::move(accessors);

  // Images read from files or data uris go into the buffer as they were read.
  for (std::size_t i = 0; i < model.images.size(); ++i)
  {
    tinygltf::Image& image = model.images[i];
    if (image.bufferView >= 0 || i >= document.imageBytes.size() || document.imageBytes[i].empty())
      continue;
    const std::vector<unsigned char>& bytes = document.imageBytes[i];
    image.mimeType = SniffMimeType(bytes, image.uri);
    image.bufferView = AddBufferView(model, bytes.data(), bytes.size());
    image.uri.clear();
  }
}

// An image writer that writes nothing: images are in buffer views already, or keep their uri.
bool LeaveImage(const std::string*, const std::string*, const tinygltf::Image*, bool, std::string*, void*)
{
  return false;
}

std::string UniqueAnimationName(const tinygltf::Model& model, const std::string& wanted)
{
  auto taken = [&](const std::string& name) {
    return std::any_of(model.animations.begin(), model.animations.end(),
                       [&](const tinygltf::Animation& a) { return a.name == name; });
  };
  if (!taken(wanted))
    return wanted;
  for (int k = 2;; ++k)
    if (const std::string name = wanted + " (" + std::to_string(k) + ")"; !taken(name))
      return name;
}

std::string AddAnimation(GltfDocument& document, const Skeleton& skeleton, const Clip& clip, const WriteRequest& request)
{
  tinygltf::Model& model = document.model;
  const std::size_t n = skeleton.joints.size();
  tinygltf::Animation animation;
  const std::string wanted = !request.animationName.empty() ? request.animationName
                             : !clip.name.empty()           ? clip.name
                                                            : "retargeted";
  animation.name = UniqueAnimationName(model, wanted);
  std::vector<float> times(static_cast<std::size_t>(clip.frameCount));
  for (int f = 0; f < clip.frameCount; ++f)
    times[static_cast<std::size_t>(f)] = static_cast<float>(f * clip.frameTime);
  const int input = AddFloatAccessor(model, times, TINYGLTF_TYPE_SCALAR, true);

  std::vector<float> values;
  for (std::size_t j = 0; j < n; ++j)
  {
    if (!request.driven.empty() && (j >= request.driven.size() || !request.driven[j]))
      continue;
    values.clear();
    Quaternion previous;
    for (int f = 0; f < clip.frameCount; ++f)
    {
      Quaternion q = Normalized(clip.FrameRotations(f)[j]);
      // Keys on one hemisphere, so that interpolating between frames takes the short way.
      if (f > 0 && Dot(q, previous) < 0.0)
        q = {-q.w, -q.x, -q.y, -q.z};
      previous = q;
      values.insert(values.end(), {static_cast<float>(q.x), static_cast<float>(q.y), static_cast<float>(q.z),
                                   static_cast<float>(q.w)});
    }
    AddAnimationChannel(animation, document.nodeOfJoint[j], "rotation", input,
                        AddFloatAccessor(model, values, TINYGLTF_TYPE_VEC4, false));
  }
  values.clear();
  for (const telvo::Vector& t : clip.rootTranslation)
    values.insert(values.end(), {static_cast<float>(t.x), static_cast<float>(t.y), static_cast<float>(t.z)});
  AddAnimationChannel(animation, document.nodeOfJoint[0], "translation", input,
                      AddFloatAccessor(model, values, TINYGLTF_TYPE_VEC3, false));
  const std::string name = animation.name;
  model.animations.push_back(std::move(animation));
  return name;
}

} // namespace

// A document of the skeleton alone: a node per joint, under a node that carries the scene
// transform when it is not the identity.
GltfDocument SkeletonDocument(const Skeleton& skeleton)
{
  GltfDocument document;
  tinygltf::Model& model = document.model;
  model.asset.version = "2.0";
  model.asset.generator = "kelvara";
  const std::size_t n = skeleton.joints.size();
  model.nodes.resize(n);
  tinygltf::Scene scene;
  scene.name = std::filesystem::path(skeleton.path).stem().string();
  std::vector<int> roots;
  for (std::size_t j = 0; j < n; ++j)
  {
    const Joint& joint = skeleton.joints[j];
    tinygltf::Node& node = model.nodes[j];
    node.name = joint.name;
    SetNodeTransform(node, joint.translation, joint.rotation, joint.scale);
    if (joint.parent >= 0)
      model.nodes[static_cast<std::size_t>(joint.parent)].children.push_back(static_cast<int>(j));
    else
      roots.push_back(static_cast<int>(j));
    document.nodeOfJoint.push_back(static_cast<int>(j));
  }
  if (!(skeleton.sceneTransform == telvo::Matrix{}))
  {
    tinygltf::Node armature;
    armature.name = "armature";
    armature.matrix = ColumnMajor(skeleton.sceneTransform);
    armature.children = roots;
    model.nodes.push_back(armature);
    roots = {static_cast<int>(model.nodes.size()) - 1};
  }
  scene.nodes = roots;
  model.scenes.push_back(scene);
  model.defaultScene = 0;
  return document;
}

bool GltfBytes(const AnimationFile& target, const Clip& clip, const WriteRequest& request, bool binary,
               std::string& bytes, std::string& error, std::string* animationName)
{
  const Skeleton& skeleton = target.skeleton;
  if (!ValidateSkeleton(skeleton, error) || !ValidateClip(clip, skeleton, error))
    return false;
  GltfDocument document = target.gltf ? *target.gltf : SkeletonDocument(skeleton);
  if (document.nodeOfJoint.size() != skeleton.joints.size())
  {
    error = skeleton.path + ": the glTF document has nodes for " + std::to_string(document.nodeOfJoint.size()) +
            " joints, the skeleton " + std::to_string(skeleton.joints.size());
    return false;
  }
  if (request.replaceAnimations)
    document.model.animations.clear();
  Pack(document);
  const std::string name = AddAnimation(document, skeleton, clip, request);
  if (animationName != nullptr)
    *animationName = name;
  tinygltf::Model& model = document.model;
  model.asset.version = "2.0";
  if (model.asset.generator.empty())
    model.asset.generator = "kelvara";
  if (!binary && !model.buffers.empty())
    model.buffers[0].uri.clear(); // written as a data uri: the .gltf stands alone
  // tinygltf writes an object that has nothing set as null, which no reader takes for a scene or
  // a node: such ones get a name.
  for (std::size_t i = 0; i < model.scenes.size(); ++i)
    if (model.scenes[i].name.empty() && model.scenes[i].nodes.empty())
      model.scenes[i].name = "scene" + std::to_string(i);
  for (std::size_t i = 0; i < model.nodes.size(); ++i)
    if (model.nodes[i].name.empty())
      model.nodes[i].name = "node" + std::to_string(i);

  tinygltf::TinyGLTF writer;
  writer.SetImageWriter(&LeaveImage, nullptr);
  std::ostringstream stream;
  const bool written = writer.WriteGltfSceneToStream(&model, stream, !binary, binary);
  // A string stream that cannot grow fails quietly: that is memory running out, not a document.
  if (!stream)
    throw std::bad_alloc();
  if (!written)
  {
    error = "cannot write the glTF document";
    return false;
  }
  bytes = stream.str();
  return true;
}

bool WriteGltf(const std::string& path, const AnimationFile& target, const Clip& clip, const WriteRequest& request,
               std::string& error, std::string* animationName)
{
  const bool binary = path.size() >= 4 && (path.compare(path.size() - 4, 4, ".glb") == 0 ||
                                           path.compare(path.size() - 4, 4, ".GLB") == 0);
  std::string bytes;
  if (!GltfBytes(target, clip, request, binary, bytes, error, animationName))
  {
    error = "cannot write '" + path + "': " + error;
    return false;
  }
  return WriteFileAtomically(path, bytes, error);
}

} // namespace kelvara
