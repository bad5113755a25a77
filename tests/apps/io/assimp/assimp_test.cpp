// Characters from files that exporters we did not write made (Debian's assimp-testmodels), read
// through assimp and converted into glTF documents.
#include "io/assimp/assimp_reader.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <map>

#include "anim/pose.h"
#include "io/gltf/gltf_document.h"
#include "support/run_app.h"

namespace kelvara
{
namespace
{

namespace fs = std::filesystem;

const std::string kModels = "/usr/share/assimp/models/";

AnimationFile ReadModel(const std::string& path, ReadRequest request = {})
{
  AnimationFile file;
  std::string error;
  EXPECT_TRUE(ReadWithAssimp(path, request, file, error)) << error;
  return file;
}

// Each node's world matrix in the document (scales included), parents first.
std::vector<telvo::Matrix> NodeWorlds(const tinygltf::Model& model)
{
  std::vector<telvo::Matrix> world(model.nodes.size());
  std::vector<int> parent(model.nodes.size(), -1);
  for (std::size_t p = 0; p < model.nodes.size(); ++p)
    for (int c : model.nodes[p].children)
      parent[static_cast<std::size_t>(c)] = static_cast<int>(p);
  std::vector<char> done(model.nodes.size(), 0);
  for (std::size_t start = 0; start < model.nodes.size(); ++start)
  {
    std::vector<int> chain;
    for (int n = static_cast<int>(start); n >= 0 && !done[static_cast<std::size_t>(n)]; n = parent[static_cast<std::size_t>(n)])
      chain.push_back(n);
    for (auto it = chain.rbegin(); it != chain.rend(); ++it)
    {
      telvo::Vector t, s;
      Quaternion r;
      NodeTransform(model.nodes[static_cast<std::size_t>(*it)], t, r, s);
      const int p = parent[static_cast<std::size_t>(*it)];
      world[static_cast<std::size_t>(*it)] = p >= 0 ? world[static_cast<std::size_t>(p)] * LocalMatrix(t, r, s) : LocalMatrix(t, r, s);
      done[static_cast<std::size_t>(*it)] = 1;
    }
  }
  return world;
}

std::vector<float> AccessorFloats(const tinygltf::Model& model, int index)
{
  const tinygltf::Accessor& a = model.accessors[static_cast<std::size_t>(index)];
  const tinygltf::BufferView& v = model.bufferViews[static_cast<std::size_t>(a.bufferView)];
  const int components = tinygltf::GetNumComponentsInType(static_cast<std::uint32_t>(a.type));
  std::vector<float> out(a.count * static_cast<std::size_t>(components));
  std::memcpy(out.data(), model.buffers[static_cast<std::size_t>(v.buffer)].data.data() + v.byteOffset + a.byteOffset,
              out.size() * sizeof(float));
  return out;
}

TEST(AssimpReader, SkinnedDirectXCharacterConvertsWhole)
{
  const AnimationFile file = ReadModel(kModels + "X/BCN_Epileptic.X");
  EXPECT_EQ(file.format, "DirectX");
  ASSERT_EQ(file.skeleton.joints.size(), 54u);
  EXPECT_EQ(file.skeleton.joints[0].name, "B_Root_Pelvis_L");
  EXPECT_EQ(file.skeleton.FindJoint("B_Knee_Left"), file.skeleton.FindJoint("B_Ankle_Left") - 1);
  ASSERT_TRUE(file.hasClip);
  EXPECT_EQ(file.clip.name, "Epileptisch");
  EXPECT_GT(file.clip.frameCount, 50);

  const tinygltf::Model& model = file.gltf->model;
  ASSERT_EQ(model.meshes.size(), 3u);
  ASSERT_EQ(model.skins.size(), 3u);
  const std::vector<telvo::Matrix> world = NodeWorlds(model);
  for (const tinygltf::Node& node : model.nodes)
  {
    if (node.skin < 0)
      continue;
    const tinygltf::Skin& skin = model.skins[static_cast<std::size_t>(node.skin)];
    // Bound at rest: every joint's world matrix undoes its inverse bind matrix.
    const std::vector<float> bind = AccessorFloats(model, skin.inverseBindMatrices);
    for (std::size_t j = 0; j < skin.joints.size(); ++j)
    {
      double m[16];
      for (int k = 0; k < 16; ++k)
        m[k] = bind[16 * j + static_cast<std::size_t>(k)];
      const telvo::Matrix product = world[static_cast<std::size_t>(skin.joints[j])] * FromColumnMajor(m);
      EXPECT_LT(telvo::Length(product.off), 1e-3) << model.nodes[static_cast<std::size_t>(skin.joints[j])].name;
      EXPECT_NEAR(telvo::Determinant3(product), 1.0, 1e-3);
    }
    // Four influences a vertex at most, their weights summing to one.
    const tinygltf::Primitive& primitive = model.meshes[static_cast<std::size_t>(node.mesh)].primitives[0];
    const std::vector<float> weights = AccessorFloats(model, primitive.attributes.at("WEIGHTS_0"));
    for (std::size_t v = 0; v < weights.size(); v += 4)
      ASSERT_NEAR(weights[v] + weights[v + 1] + weights[v + 2] + weights[v + 3], 1.0, 1e-6) << "vertex " << v / 4;
  }
}

TEST(AssimpReader, FbxUnitsBecomeMetresAndColladaMatchesTheSameCharacter)
{
  const AnimationFile fbx = ReadModel(kModels + "FBX/animation_with_skeleton.fbx");
  EXPECT_EQ(fbx.format, "FBX");
  EXPECT_EQ(fbx.skeleton.metresPerUnit, 1.0);
  EXPECT_GE(fbx.skeleton.joints.size(), 13u);
  ASSERT_TRUE(fbx.hasClip);

  // A DirectX character written as Collada by assimp's own exporter, read back: the same joints
  // standing in the same places.
  const fs::path folder = fs::temp_directory_path() / "kelvara_assimp_collada";
  fs::create_directories(folder);
  const fs::path dae = folder / "bcn.dae";
  const std::string command =
    "assimp export '" + kModels + "X/Testwuson.X' '" + dae.string() + "' -fcollada >/dev/null 2>&1";
  ASSERT_EQ(std::system(command.c_str()), 0) << "assimp-utils' exporter";
  const AnimationFile x = ReadModel(kModels + "X/Testwuson.X");
  const AnimationFile collada = ReadModel(dae.string());
  fs::remove_all(folder);
  EXPECT_EQ(collada.format, "Collada");
  WorldPose a;
  WorldPose b;
  ASSERT_TRUE(a.Evaluate(x.skeleton, nullptr, kRestFrame));
  ASSERT_TRUE(b.Evaluate(collada.skeleton, nullptr, kRestFrame));
  int compared = 0;
  for (std::size_t j = 0; j < x.skeleton.joints.size(); ++j)
    if (const int k = collada.skeleton.FindJoint(x.skeleton.joints[j].name); k >= 0)
    {
      EXPECT_LT(telvo::Length(a[j].off - b[static_cast<std::size_t>(k)].off), 1e-3) << x.skeleton.joints[j].name;
      ++compared;
    }
  EXPECT_GE(compared, 30);
}

TEST(AssimpReader, FilesWithoutASkeletonOrUnreadableAreRefused)
{
  AnimationFile file;
  std::string error;
  EXPECT_FALSE(ReadWithAssimp(kModels + "FBX/spider.fbx", ReadRequest(), file, error));
  EXPECT_EQ(error, kModels + "FBX/spider.fbx: expected a skin or an animated node hierarchy (or --skeleton-root NAME), "
                             "found neither");
  EXPECT_FALSE(ReadWithAssimp("/nonexistent/model.fbx", ReadRequest(), file, error));
  EXPECT_EQ(error, "cannot read '/nonexistent/model.fbx': No such file or directory");
  EXPECT_TRUE(IsAssimpFormat(".fbx") && IsAssimpFormat(".dae") && IsAssimpFormat(".x"));
  EXPECT_FALSE(IsAssimpFormat(".docx") || IsAssimpFormat("fbx"));
}

} // namespace
} // namespace kelvara
