#include "io/assimp/assimp_reader.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include <assimp/Importer.hpp>
#include <assimp/config.h>
#include <assimp/material.h>
#include <assimp/postprocess.h>
#include <assimp/scene.h>

#include "io/gltf/gltf.h"
#include "io/gltf/gltf_document.h"

namespace kelvara
{

namespace
{

using telvo::Matrix;
using telvo::Vector;

Matrix FromAssimp(const aiMatrix4x4& m)
{
  Matrix r;
  r.v1 = {m.a1, m.b1, m.c1};
  r.v2 = {m.a2, m.b2, m.c2};
  r.v3 = {m.a3, m.b3, m.c3};
  r.off = {m.a4, m.b4, m.c4};
  return r;
}

// A right-handed scene whose root mirrors (a left-handed file turned around by its importer)
// would give every joint an improper world rotation. The mirror moves out of the hierarchy:
// the root keeps root * F (proper), every other node, vertex, bind matrix and key is turned by F
// on both sides, which leaves every world position as it was.
struct Mirror
{
  bool on = false;
  Vector Point(const Vector& v) const { return on ? Vector{v.x, v.y, -v.z} : v; }
  Quaternion Turn(const Quaternion& q) const { return on ? Quaternion{q.w, -q.x, -q.y, q.z} : q; }
  Matrix Conjugate(const Matrix& m) const
  {
    if (!on)
      return m;
    Matrix r = m;
    r.v1.z = -r.v1.z;
    r.v2.z = -r.v2.z;
    r.v3.x = -r.v3.x;
    r.v3.y = -r.v3.y;
    r.off.z = -r.off.z;
    return r;
  }
  Matrix AfterRoot(const Matrix& m) const
  {
    if (!on)
      return m;
    Matrix r = m;
    r.v3 = -r.v3;
    return r;
  }
};

class Converter
{
public:
  Converter(const aiScene& scene, const std::string& path, GltfDocument& document, std::vector<std::string>& warnings)
    : _scene(scene), _path(path), _folder(std::filesystem::path(path).parent_path()), _document(document),
      _model(document.model), _warnings(warnings)
  {
  }

  void Run()
  {
    _model.asset.version = "2.0";
    _model.asset.generator = "kelvara (from " + std::filesystem::path(_path).filename().string() + " through assimp)";
    _mirror.on = telvo::Determinant3(FromAssimp(_scene.mRootNode->mTransformation)) < 0.0;
    ConvertNodes();
    ConvertMaterials();
    ConvertMeshes();
    for (unsigned a = 0; a < _scene.mNumAnimations; ++a)
      ConvertAnimation(*_scene.mAnimations[a], a);
    tinygltf::Scene scene;
    scene.nodes = {0};
    scene.nodes.insert(scene.nodes.end(), _sceneRoots.begin(), _sceneRoots.end());
    _model.scenes.push_back(scene);
    _model.defaultScene = 0;
  }

private:
  void ConvertNodes()
  {
    // Depth first without recursion; node 0 is the root.
    std::vector<std::pair<const aiNode*, int>> stack{{_scene.mRootNode, -1}};
    while (!stack.empty())
    {
      const auto [ai, parent] = stack.back();
      stack.pop_back();
      const int index = static_cast<int>(_model.nodes.size());
      _model.nodes.emplace_back();
      tinygltf::Node& node = _model.nodes.back();
      node.name = ai->mName.C_Str();
      const Matrix local = FromAssimp(ai->mTransformation);
      const Matrix m = parent < 0 ? _mirror.AfterRoot(local) : _mirror.Conjugate(local);
      Vector t;
      Quaternion r;
      Vector s;
      node.matrix = ColumnMajor(m);
      NodeTransform(node, t, r, s);
      SetNodeTransform(node, t, r, s);
      if (parent >= 0)
        _model.nodes[static_cast<std::size_t>(parent)].children.push_back(index);
      _nodeOf[ai] = index;
      _byName.emplace(node.name, index);
      for (unsigned c = ai->mNumChildren; c > 0; --c)
        stack.emplace_back(ai->mChildren[c - 1], index);
    }
  }

  // The bytes of a texture that glTF can hold (PNG or JPEG), embedded or beside the file.
  bool TextureBytes(const std::string& reference, std::vector<unsigned char>& bytes)
  {
    if (const aiTexture* embedded = _scene.GetEmbeddedTexture(reference.c_str()))
    {
      if (embedded->mHeight != 0)
        return false; // raw texels: no image file to carry
      const auto* data = reinterpret_cast<const unsigned char*>(embedded->pcData);
      bytes.assign(data, data + embedded->mWidth);
    }
    else
    {
      std::string file = reference;
      std::replace(file.begin(), file.end(), '\\', '/');
      std::ifstream in(_folder / file, std::ios::binary);
      if (!in)
        in.open(_folder / std::filesystem::path(file).filename(), std::ios::binary);
      if (!in)
        return false;
      bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    const bool png = bytes.size() >= 4 && bytes[0] == 0x89 && bytes[1] == 'P' && bytes[2] == 'N' && bytes[3] == 'G';
    const bool jpeg = bytes.size() >= 3 && bytes[0] == 0xFF && bytes[1] == 0xD8 && bytes[2] == 0xFF;
    return png || jpeg;
  }

  void ConvertMaterials()
  {
    for (unsigned i = 0; i < _scene.mNumMaterials; ++i)
    {
      const aiMaterial& ai = *_scene.mMaterials[i];
      tinygltf::Material material;
      aiString name;
      if (ai.Get(AI_MATKEY_NAME, name) == AI_SUCCESS)
        material.name = name.C_Str();
      aiColor4D colour(1.0f, 1.0f, 1.0f, 1.0f);
      if (ai.Get(AI_MATKEY_BASE_COLOR, colour) != AI_SUCCESS)
        ai.Get(AI_MATKEY_COLOR_DIFFUSE, colour);
      auto unit = [](float v) { return std::clamp(static_cast<double>(v), 0.0, 1.0); };
      material.pbrMetallicRoughness.baseColorFactor = {unit(colour.r), unit(colour.g), unit(colour.b), unit(colour.a)};
      material.pbrMetallicRoughness.metallicFactor = 0.0;
      material.pbrMetallicRoughness.roughnessFactor = 1.0;
      int twoSided = 0;
      material.doubleSided = ai.Get(AI_MATKEY_TWOSIDED, twoSided) == AI_SUCCESS && twoSided != 0;
      aiString texture;
      if (ai.GetTexture(aiTextureType_BASE_COLOR, 0, &texture) == AI_SUCCESS ||
          ai.GetTexture(aiTextureType_DIFFUSE, 0, &texture) == AI_SUCCESS)
      {
        std::vector<unsigned char> bytes;
        if (TextureBytes(texture.C_Str(), bytes))
        {
          tinygltf::Image image;
          image.name = std::filesystem::path(texture.C_Str()).filename().string();
          image.uri = texture.C_Str();
          _document.imageBytes.resize(_model.images.size() + 1);
          _document.imageBytes.back() = std::move(bytes);
          _model.images.push_back(image);
          tinygltf::Texture t;
          t.source = static_cast<int>(_model.images.size()) - 1;
          _model.textures.push_back(t);
          material.pbrMetallicRoughness.baseColorTexture.index = static_cast<int>(_model.textures.size()) - 1;
        }
        else
          _warnings.push_back(_path + ": material '" + material.name + "': texture '" + texture.C_Str() +
                              "' is not a PNG or JPEG file beside the model; left out of the glTF");
      }
      _model.materials.push_back(material);
    }
  }

  int JointNode(const std::string& name) const
  {
    auto found = _byName.find(name);
    return found == _byName.end() ? -1 : found->second;
  }

  void ConvertMeshes()
  {
    std::vector<std::pair<const aiNode*, unsigned>> uses; // node and mesh, in hierarchy order
    std::vector<const aiNode*> stack{_scene.mRootNode};
    while (!stack.empty())
    {
      const aiNode* node = stack.back();
      stack.pop_back();
      for (unsigned m = 0; m < node->mNumMeshes; ++m)
        uses.emplace_back(node, node->mMeshes[m]);
      for (unsigned c = node->mNumChildren; c > 0; --c)
        stack.push_back(node->mChildren[c - 1]);
    }
    std::map<unsigned, int> meshOf;
    for (const auto& [ai, meshIndex] : uses)
    {
      if (meshIndex >= _scene.mNumMeshes)
        continue;
      const aiMesh& mesh = *_scene.mMeshes[meshIndex];
      const int parent = _nodeOf.at(ai);
      if (!meshOf.count(meshIndex))
        meshOf[meshIndex] = ConvertMesh(mesh);
      if (meshOf[meshIndex] < 0)
        continue;
      // A node of its own per mesh (a glTF node has one): a child of the node that holds it, or
      // for a skinned mesh, whose node's transform glTF ignores, a root of the scene.
      tinygltf::Node holder;
      holder.name = std::string(mesh.mName.C_Str()).empty() ? "mesh" + std::to_string(meshIndex) : mesh.mName.C_Str();
      holder.mesh = meshOf[meshIndex];
      if (mesh.HasBones())
        holder.skin = ConvertSkin(mesh, parent);
      _model.nodes.push_back(holder);
      const int index = static_cast<int>(_model.nodes.size()) - 1;
      if (mesh.HasBones())
        _sceneRoots.push_back(index);
      else
        _model.nodes[static_cast<std::size_t>(parent)].children.push_back(index);
    }
  }

  int ConvertMesh(const aiMesh& mesh)
  {
    std::vector<std::uint32_t> indices;
    for (unsigned f = 0; f < mesh.mNumFaces; ++f)
      if (mesh.mFaces[f].mNumIndices == 3)
        indices.insert(indices.end(), mesh.mFaces[f].mIndices, mesh.mFaces[f].mIndices + 3);
    if (indices.empty() || mesh.mNumVertices == 0)
      return -1; // points and lines only: nothing a character shows
    tinygltf::Primitive primitive;
    primitive.mode = TINYGLTF_MODE_TRIANGLES;
    std::vector<float> values;
    for (unsigned v = 0; v < mesh.mNumVertices; ++v)
    {
      const Vector p = _mirror.Point({mesh.mVertices[v].x, mesh.mVertices[v].y, mesh.mVertices[v].z});
      values.insert(values.end(), {static_cast<float>(p.x), static_cast<float>(p.y), static_cast<float>(p.z)});
    }
    primitive.attributes["POSITION"] =
      AddFloatAccessor(_model, values, TINYGLTF_TYPE_VEC3, true, TINYGLTF_TARGET_ARRAY_BUFFER);
    if (mesh.HasNormals())
    {
      values.clear();
      for (unsigned v = 0; v < mesh.mNumVertices; ++v)
      {
        Vector n = telvo::Normalized(_mirror.Point({mesh.mNormals[v].x, mesh.mNormals[v].y, mesh.mNormals[v].z}));
        if (telvo::Length(n) == 0.0 || !std::isfinite(n.x) || !std::isfinite(n.y) || !std::isfinite(n.z))
          n = {0.0, 1.0, 0.0};
        values.insert(values.end(), {static_cast<float>(n.x), static_cast<float>(n.y), static_cast<float>(n.z)});
      }
      primitive.attributes["NORMAL"] =
        AddFloatAccessor(_model, values, TINYGLTF_TYPE_VEC3, false, TINYGLTF_TARGET_ARRAY_BUFFER);
    }
    if (mesh.HasTextureCoords(0))
    {
      values.clear();
      for (unsigned v = 0; v < mesh.mNumVertices; ++v)
        values.insert(values.end(), {mesh.mTextureCoords[0][v].x, mesh.mTextureCoords[0][v].y});
      primitive.attributes["TEXCOORD_0"] =
        AddFloatAccessor(_model, values, TINYGLTF_TYPE_VEC2, false, TINYGLTF_TARGET_ARRAY_BUFFER);
    }
    if (mesh.HasBones())
      AddWeights(mesh, primitive);
    // The mirror turns the winding of every triangle.
    if (_mirror.on)
      for (std::size_t i = 0; i + 2 < indices.size(); i += 3)
        std::swap(indices[i + 1], indices[i + 2]);
    primitive.indices = AddIndexAccessor(_model, indices, TINYGLTF_TYPE_SCALAR, TINYGLTF_COMPONENT_TYPE_UNSIGNED_INT,
                                         TINYGLTF_TARGET_ELEMENT_ARRAY_BUFFER);
    if (mesh.mMaterialIndex < _model.materials.size())
      primitive.material = static_cast<int>(mesh.mMaterialIndex);
    tinygltf::Mesh out;
    out.name = mesh.mName.C_Str();
    out.primitives.push_back(primitive);
    _model.meshes.push_back(out);
    return static_cast<int>(_model.meshes.size()) - 1;
  }

  // The four heaviest bones of each vertex, weights scaled to sum to 1; a vertex no bone holds
  // follows the mesh's first bone.
  void AddWeights(const aiMesh& mesh, tinygltf::Primitive& primitive)
  {
    struct Influence
    {
      std::uint32_t joint;
      float weight;
    };
    std::vector<std::vector<Influence>> influences(mesh.mNumVertices);
    for (unsigned b = 0; b < mesh.mNumBones; ++b)
      for (unsigned w = 0; w < mesh.mBones[b]->mNumWeights; ++w)
      {
        const aiVertexWeight& vw = mesh.mBones[b]->mWeights[w];
        if (vw.mVertexId < mesh.mNumVertices && vw.mWeight > 0.0f)
          influences[vw.mVertexId].push_back({b, vw.mWeight});
      }
    std::vector<std::uint32_t> joints;
    std::vector<float> weights;
    for (std::vector<Influence>& list : influences)
    {
      std::sort(list.begin(), list.end(), [](const Influence& a, const Influence& b) { return a.weight > b.weight; });
      list.resize(std::min<std::size_t>(list.size(), 4));
      float sum = 0.0f;
      for (const Influence& i : list)
        sum += i.weight;
      if (list.empty() || !(sum > 0.0f))
        list = {{0, 1.0f}}, sum = 1.0f;
      for (std::size_t k = 0; k < 4; ++k)
      {
        joints.push_back(k < list.size() ? list[k].joint : 0);
        weights.push_back(k < list.size() ? list[k].weight / sum : 0.0f);
      }
    }
    primitive.attributes["JOINTS_0"] = AddIndexAccessor(_model, joints, TINYGLTF_TYPE_VEC4,
                                                        TINYGLTF_COMPONENT_TYPE_UNSIGNED_SHORT,
                                                        TINYGLTF_TARGET_ARRAY_BUFFER);
    primitive.attributes["WEIGHTS_0"] =
      AddFloatAccessor(_model, weights, TINYGLTF_TYPE_VEC4, false, TINYGLTF_TARGET_ARRAY_BUFFER);
  }

  // One skin per skinned mesh: its bones in order with their bind matrices (assimp's offset
  // matrices map the mesh's space into the bone's, as glTF's inverse bind matrices do).
  int ConvertSkin(const aiMesh& mesh, int holder)
  {
    tinygltf::Skin skin;
    std::vector<float> inverseBind;
    for (unsigned b = 0; b < mesh.mNumBones; ++b)
    {
      const aiBone& bone = *mesh.mBones[b];
      int node = JointNode(bone.mName.C_Str());
      if (node < 0)
      {
        _warnings.push_back(_path + ": bone '" + std::string(bone.mName.C_Str()) +
                            "' has no node; its vertices follow the mesh's node");
        node = holder;
      }
      skin.joints.push_back(node);
      for (double v : ColumnMajor(_mirror.Conjugate(FromAssimp(bone.mOffsetMatrix))))
        inverseBind.push_back(static_cast<float>(v));
    }
    skin.inverseBindMatrices = AddFloatAccessor(_model, inverseBind, TINYGLTF_TYPE_MAT4, false);
    _model.skins.push_back(skin);
    return static_cast<int>(_model.skins.size()) - 1;
  }

  void ConvertAnimation(const aiAnimation& ai, unsigned index)
  {
    tinygltf::Animation animation;
    animation.name = ai.mName.length > 0 ? ai.mName.C_Str() : "animation" + std::to_string(index);
    const double ticks = ai.mTicksPerSecond > 0.0 ? ai.mTicksPerSecond : 25.0;
    for (unsigned c = 0; c < ai.mNumChannels; ++c)
    {
      const aiNodeAnim& channel = *ai.mChannels[c];
      const int node = JointNode(channel.mNodeName.C_Str());
      if (node < 0)
        continue;
      const bool root = node == 0;
      std::vector<float> times;
      std::vector<float> values;
      // Keys at strictly increasing times, as glTF requires.
      auto keep = [&](double time) {
        const float t = static_cast<float>(time / ticks);
        if (!times.empty() && !(t > times.back()))
          return false;
        times.push_back(t);
        return true;
      };
      for (unsigned k = 0; k < channel.mNumRotationKeys; ++k)
      {
        const aiQuaternion& q = channel.mRotationKeys[k].mValue;
        if (!keep(channel.mRotationKeys[k].mTime))
          continue;
        Quaternion r = Normalized(Quaternion{q.w, q.x, q.y, q.z});
        if (_mirror.on)
          r = root ? FromMatrix(_mirror.AfterRoot(ToMatrix(r))) : _mirror.Turn(r);
        values.insert(values.end(), {static_cast<float>(r.x), static_cast<float>(r.y), static_cast<float>(r.z),
                                     static_cast<float>(r.w)});
      }
      AddChannel(animation, node, "rotation", times, values, TINYGLTF_TYPE_VEC4);
      times.clear();
      values.clear();
      for (unsigned k = 0; k < channel.mNumPositionKeys; ++k)
      {
        const aiVector3D& p = channel.mPositionKeys[k].mValue;
        if (!keep(channel.mPositionKeys[k].mTime))
          continue;
        const Vector t = root ? Vector{p.x, p.y, p.z} : _mirror.Point({p.x, p.y, p.z});
        values.insert(values.end(), {static_cast<float>(t.x), static_cast<float>(t.y), static_cast<float>(t.z)});
      }
      AddChannel(animation, node, "translation", times, values, TINYGLTF_TYPE_VEC3);
    }
    if (!animation.channels.empty())
      _model.animations.push_back(animation);
  }

  void AddChannel(tinygltf::Animation& animation, int node, const char* path, const std::vector<float>& times,
                  const std::vector<float>& values, int type)
  {
    if (times.empty())
      return;
    AddAnimationChannel(animation, node, path, AddFloatAccessor(_model, times, TINYGLTF_TYPE_SCALAR, true),
                        AddFloatAccessor(_model, values, type, false));
  }

  const aiScene& _scene;
  const std::string& _path;
  std::filesystem::path _folder;
  GltfDocument& _document;
  tinygltf::Model& _model;
  std::vector<std::string>& _warnings;
  Mirror _mirror;
  std::map<const aiNode*, int> _nodeOf;
  std::multimap<std::string, int> _byName;
  std::vector<int> _sceneRoots; // skinned meshes' nodes
};

std::string Lower(std::string text)
{
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

} // namespace

bool IsAssimpFormat(const std::string& extension)
{
  if (extension.size() < 2 || extension[0] != '.')
    return false;
  Assimp::Importer importer;
  return importer.IsExtensionSupported(extension.c_str());
}

std::string AssimpFormats()
{
  return "FBX (.fbx), Collada (.dae, .zae), DirectX (.x), and the others assimp reads (.3ds, .obj, .md5mesh, .ms3d, "
         "...)";
}

bool ReadWithAssimp(const std::string& path, const ReadRequest& request, AnimationFile& out, std::string& error)
{
  if (!std::filesystem::is_regular_file(path))
  {
    error = "cannot read '" + path + "': " + (std::filesystem::exists(path) ? "not a file" : std::strerror(ENOENT));
    return false;
  }
  Assimp::Importer importer;
  importer.SetPropertyBool(AI_CONFIG_IMPORT_FBX_PRESERVE_PIVOTS, false);
  importer.SetPropertyInteger(AI_CONFIG_PP_LBW_MAX_WEIGHTS, 4);
  // FBX states its unit; assimp scales it to metres only when asked.
  const unsigned flags = aiProcess_Triangulate | aiProcess_JoinIdenticalVertices | aiProcess_LimitBoneWeights |
                         aiProcess_FlipUVs | aiProcess_GlobalScale | aiProcess_ValidateDataStructure;
  const aiScene* scene = importer.ReadFile(path, flags);
  if (scene == nullptr || scene->mRootNode == nullptr)
  {
    error = path + ": expected a file assimp can read, found one it cannot: " +
            (importer.GetErrorString()[0] != '\0' ? importer.GetErrorString() : "no reason given");
    return false;
  }
  out = AnimationFile();
  const std::string ext = Lower(std::filesystem::path(path).extension().string());
  out.format = ext == ".fbx" ? "FBX" : ext == ".dae" || ext == ".zae" ? "Collada" : ext == ".x" ? "DirectX" : ext.substr(1);
  auto document = std::make_shared<GltfDocument>();
  Converter(*scene, path, *document, out.warnings).Run();
  std::vector<std::string> warnings = std::move(out.warnings);
  const std::string format = out.format;
  if (!ReadGltfDocument(std::move(document), path, request, out, error))
    return false;
  out.format = format;
  out.warnings = std::move(warnings);
  out.skeleton.metresPerUnit = format == "FBX" || format == "Collada" ? 1.0 : 0.0;
  return true;
}

} // namespace kelvara
