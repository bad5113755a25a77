#include "demo/demo_character.h"

#include <algorithm>

#include "anim/pose.h"
#include "demo/demo.h"
#include "io/bvh/bvh_model.h"
#include "io/gltf/gltf_document.h"

namespace kelvara
{

namespace
{

using telvo::Matrix;
using telvo::Vector;

// A box from a to b, as wide as a quarter of its length, into positions, normals and indices.
void AddBox(const Vector& a, const Vector& b, std::vector<float>& positions, std::vector<float>& normals,
            std::vector<std::uint32_t>& indices)
{
  const Vector along = b - a;
  const double length = telvo::Length(along);
  if (length <= 0.0)
    return;
  const Vector axis = along * (1.0 / length);
  const Vector helper = std::abs(axis.y) < 0.9 ? Vector{0.0, 1.0, 0.0} : Vector{1.0, 0.0, 0.0};
  const Vector u = telvo::Normalized(telvo::Cross(axis, helper)) * (0.125 * length);
  const Vector v = telvo::Normalized(telvo::Cross(axis, u)) * (0.125 * length);
  // Each face its own four corners, so that its normal is flat.
  const Vector corners[8] = {a - u - v, a + u - v, a + u + v, a - u + v, b - u - v, b + u - v, b + u + v, b - u + v};
  const int faces[6][4] = {{0, 3, 2, 1}, {4, 5, 6, 7}, {0, 1, 5, 4}, {1, 2, 6, 5}, {2, 3, 7, 6}, {3, 0, 4, 7}};
  for (const auto& face : faces)
  {
    const std::uint32_t base = static_cast<std::uint32_t>(positions.size() / 3);
    const Vector n = telvo::Normalized(
      telvo::Cross(corners[face[1]] - corners[face[0]], corners[face[2]] - corners[face[0]]));
    for (int k : face)
    {
      positions.insert(positions.end(), {static_cast<float>(corners[k].x), static_cast<float>(corners[k].y),
                                         static_cast<float>(corners[k].z)});
      normals.insert(normals.end(), {static_cast<float>(n.x), static_cast<float>(n.y), static_cast<float>(n.z)});
    }
    indices.insert(indices.end(), {base, base + 1, base + 2, base, base + 2, base + 3});
  }
}

} // namespace

AnimationFile DemoSourceFile(int frameCount)
{
  BvhFile file = MakeDemoSource(frameCount);
  file.path = "(built-in walk)";
  return BvhToAnimationFile(file, true, "walk");
}

AnimationFile DemoTargetFile()
{
  BvhFile file = MakeDemoTarget();
  file.path = "(built-in target)";
  return BvhToAnimationFile(file, false, "");
}

AnimationFile DemoCharacterFile()
{
  AnimationFile out = DemoTargetFile();
  out.format = "glTF";
  out.skeleton.sceneTransform.v1 = {0.01, 0.0, 0.0};
  out.skeleton.sceneTransform.v2 = {0.0, 0.01, 0.0};
  out.skeleton.sceneTransform.v3 = {0.0, 0.0, 0.01};
  out.skeleton.metresPerUnit = 1.0;
  auto document = std::make_shared<GltfDocument>(SkeletonDocument(out.skeleton));
  tinygltf::Model& model = document->model;

  // Bind pose: the rest, in metres. Every bone's box belongs to the joint it starts at.
  WorldPose rest;
  rest.Evaluate(out.skeleton, nullptr, kRestFrame);
  const Skeleton& s = out.skeleton;
  std::vector<float> positions;
  std::vector<float> normals;
  std::vector<std::uint32_t> indices;
  std::vector<std::uint32_t> joints;
  for (std::size_t j = 0; j < s.joints.size(); ++j)
  {
    const std::size_t before = positions.size() / 3;
    for (std::size_t c = j + 1; c < s.joints.size(); ++c)
      if (s.joints[c].parent == static_cast<int>(j))
        AddBox(rest[j].off, rest[c].off, positions, normals, indices);
    if (s.joints[j].hasEndSite)
      AddBox(rest[j].off, rest.EndSite(s, j), positions, normals, indices);
    joints.resize(positions.size() / 3 * 4, 0);
    for (std::size_t v = before; v < positions.size() / 3; ++v)
      joints[4 * v] = static_cast<std::uint32_t>(j);
  }
  std::vector<float> weights;
  for (std::size_t v = 0; v < positions.size() / 3; ++v)
    weights.insert(weights.end(), {1.0f, 0.0f, 0.0f, 0.0f});

  tinygltf::Primitive primitive;
  primitive.mode = TINYGLTF_MODE_TRIANGLES;
  primitive.attributes["POSITION"] =
    AddFloatAccessor(model, positions, TINYGLTF_TYPE_VEC3, true, TINYGLTF_TARGET_ARRAY_BUFFER);
  primitive.attributes["NORMAL"] = AddFloatAccessor(model, normals, TINYGLTF_TYPE_VEC3, false, TINYGLTF_TARGET_ARRAY_BUFFER);
  primitive.attributes["JOINTS_0"] = AddIndexAccessor(model, joints, TINYGLTF_TYPE_VEC4,
                                                      TINYGLTF_COMPONENT_TYPE_UNSIGNED_SHORT, TINYGLTF_TARGET_ARRAY_BUFFER);
  primitive.attributes["WEIGHTS_0"] =
    AddFloatAccessor(model, weights, TINYGLTF_TYPE_VEC4, false, TINYGLTF_TARGET_ARRAY_BUFFER);
  primitive.indices = AddIndexAccessor(model, indices, TINYGLTF_TYPE_SCALAR, TINYGLTF_COMPONENT_TYPE_UNSIGNED_INT,
                                       TINYGLTF_TARGET_ELEMENT_ARRAY_BUFFER);
  tinygltf::Material material;
  material.name = "body";
  material.pbrMetallicRoughness.baseColorFactor = {0.55, 0.62, 0.75, 1.0};
  material.pbrMetallicRoughness.metallicFactor = 0.0;
  material.pbrMetallicRoughness.roughnessFactor = 0.8;
  model.materials.push_back(material);
  primitive.material = 0;
  tinygltf::Mesh mesh;
  mesh.name = "body";
  mesh.primitives.push_back(primitive);
  model.meshes.push_back(mesh);

  tinygltf::Skin skin;
  skin.name = "demo target";
  std::vector<float> inverseBind;
  for (std::size_t j = 0; j < s.joints.size(); ++j)
  {
    skin.joints.push_back(document->nodeOfJoint[j]);
    // The joint's bind matrix has the armature's scale as well as its rotation and position.
    Matrix bind = rest[j];
    bind.v1 = bind.v1 * 0.01;
    bind.v2 = bind.v2 * 0.01;
    bind.v3 = bind.v3 * 0.01;
    for (double v : ColumnMajor(telvo::Inverse(bind)))
      inverseBind.push_back(static_cast<float>(v));
  }
  skin.inverseBindMatrices = AddFloatAccessor(model, inverseBind, TINYGLTF_TYPE_MAT4, false);
  model.skins.push_back(skin);
  tinygltf::Node body;
  body.name = "body";
  body.mesh = 0;
  body.skin = 0;
  model.nodes.push_back(body);
  model.scenes[0].nodes.push_back(static_cast<int>(model.nodes.size()) - 1);
  out.gltf = std::move(document);
  return out;
}

} // namespace kelvara
