#include "io/gltf/gltf.h"

#include <gtest/gtest.h>

#include <cairo.h>

#include <cmath>
#include <filesystem>
#include <fstream>

#include "anim/pose.h"
#include "io/gltf/gltf_document.h"
#include "support/gltf_check.h"
#include "support/gltf_text.h"
#include "support/quaternion.h"
#include "support/run_app.h"

namespace kelvara
{
namespace
{

namespace fs = std::filesystem;
using kelvara_test::GltfText;
using kelvara_test::Quat;

void WriteText(const fs::path& path, const std::string& text)
{
  std::ofstream(path, std::ios::binary) << text;
}

// glTF keeps quaternions as x, y, z, w.
std::vector<double> Xyzw(const Quat& q)
{
  return {q.x, q.y, q.z, q.w};
}

// A character authored Z up in centimetres: an armature node turns Z up into glTF's Y up and
// scales centimetres to metres; under it hips, a spine with a rest rotation, a head, and a skin
// of those three. An animation turns the spine and moves the hips.
struct ZUpCharacter
{
  static constexpr double kSpineRestDegrees = 30.0;
  Quat armature = kelvara_test::AxisAngle(1, 0, 0, -90);
  Quat spineRest = kelvara_test::AxisAngle(0, 1, 0, kSpineRestDegrees);
  telvo::Vector hips{0, 0, 100};
  telvo::Vector spine{0, 0, 20};
  telvo::Vector head{0, 0, 50};

  std::string Text(nlohmann::json* animation = nullptr)
  {
    GltfText g;
    g.json["scenes"] = {{{"nodes", {0}}}};
    g.json["nodes"] = {{{"name", "Armature"}, {"rotation", Xyzw(armature)}, {"scale", {0.01, 0.01, 0.01}}, {"children", {1}}},
                       {{"name", "Hips"}, {"translation", {hips.x, hips.y, hips.z}}, {"children", {2}}},
                       {{"name", "Spine"}, {"translation", {spine.x, spine.y, spine.z}}, {"rotation", Xyzw(spineRest)}, {"children", {3}}},
                       {{"name", "Head"}, {"translation", {head.x, head.y, head.z}}}};
    g.json["skins"] = {{{"joints", {1, 2, 3}}}};
    nlohmann::json walk = {{"name", "bend"}};
    const Quat bent = kelvara_test::AxisAngle(1, 0, 0, 40);
    g.Channel(walk, 2, "rotation", {0.0f, 0.5f, 1.0f},
              {0, 0, 0, 1, static_cast<float>(bent.x), 0, 0, static_cast<float>(bent.w), 0, 0, 0, 1});
    g.Channel(walk, 1, "translation", {0.0f, 1.0f}, {0, 0, 100, 0, -30, 100});
    g.json["animations"] = {walk};
    if (animation != nullptr)
      *animation = walk;
    return g.Text();
  }
};

class GltfTest : public kelvara_test::AppFolderTest
{
protected:
  AnimationFile Read(const std::string& name, const std::string& text, ReadRequest request = {})
  {
    WriteText(_dir / name, text);
    AnimationFile file;
    std::string error;
    EXPECT_TRUE(ReadGltf((_dir / name).string(), request, file, error)) << error;
    return file;
  }

  std::string Refusal(const std::string& name, const std::string& bytes, ReadRequest request = {})
  {
    WriteText(_dir / name, bytes);
    AnimationFile file;
    std::string error;
    EXPECT_FALSE(ReadGltf((_dir / name).string(), request, file, error));
    EXPECT_EQ(error.rfind((_dir / name).string() + ": ", 0), 0u) << error;
    return error;
  }
};

TEST_F(GltfTest, ZUpCentimetreCharacterStandsUpInMetres)
{
  ZUpCharacter c;
  const AnimationFile file = Read("zup.gltf", c.Text());
  ASSERT_EQ(file.skeleton.joints.size(), 3u);
  EXPECT_EQ(file.skeleton.joints[0].name, "Hips");
  EXPECT_EQ(file.skeleton.joints[2].parent, 1);
  EXPECT_EQ(file.skeleton.metresPerUnit, 1.0);

  // World rest by the plain formulas: the armature turns and scales everything below it.
  const telvo::Vector hips = kelvara_test::Rotate(c.armature, c.hips * 0.01);
  const telvo::Vector spine = hips + kelvara_test::Rotate(c.armature, c.spine * 0.01);
  const telvo::Vector head = spine + kelvara_test::Rotate(c.armature * c.spineRest, c.head * 0.01);
  WorldPose rest;
  ASSERT_TRUE(rest.Evaluate(file.skeleton, nullptr, kRestFrame));
  EXPECT_LT(kelvara_test::MaxDiff(rest[0].off, hips), 1e-12);
  EXPECT_LT(kelvara_test::MaxDiff(rest[2].off, head), 1e-12);
  EXPECT_NEAR(hips.y, 1.0, 1e-12) << "Z up in the file is Y up in the world";
  EXPECT_LT(kelvara_test::AxesDiff(rest[1], c.armature * c.spineRest), 1e-12);

  // The animation: 2 frames a second from its densest keys, the spine bent half way at 0.5 s.
  ASSERT_TRUE(file.hasClip);
  EXPECT_EQ(file.clip.name, "bend");
  EXPECT_EQ(file.clip.frameCount, 3);
  EXPECT_DOUBLE_EQ(file.clip.frameTime, 0.5);
  WorldPose bent;
  ASSERT_TRUE(bent.Evaluate(file.skeleton, &file.clip, 1));
  EXPECT_LT(kelvara_test::AxesDiff(bent[1], c.armature * kelvara_test::AxisAngle(1, 0, 0, 40)), 1e-6);
  EXPECT_NEAR(bent[0].off.z, kelvara_test::Rotate(c.armature, telvo::Vector{0, -15, 100} * 0.01).z, 1e-7);
}

TEST_F(GltfTest, KeysAreSampledAsTheirInterpolationSays)
{
  GltfText g;
  g.json["scenes"] = {{{"nodes", {0}}}};
  g.json["nodes"] = {{{"name", "root"}, {"children", {1, 2}}}, {{"name", "a"}}, {{"name", "b"}}};
  g.json["skins"] = {{{"joints", {0, 1, 2}}}};
  nlohmann::json animation;
  // Keys 0.1 s apart on a: ten frames a second. The clip starts at the first key (1 s).
  g.Channel(animation, 1, "translation", {1.0f, 1.1f, 1.2f}, {0, 0, 0, 1, 0, 0, 2, 0, 0}, "STEP");
  g.Channel(animation, 0, "translation", {1.0f, 1.2f}, {0, 0, 0, 0, 4, 0});
  // Cubic on b: in-tangent, value, out-tangent per key.
  g.Channel(animation, 2, "translation", {1.0f, 1.2f}, {0, 0, 0, 0, 0, 0, 10, 0, 0, -10, 0, 0, 1, 0, 0, 0, 0, 0},
            "CUBICSPLINE");
  g.json["animations"] = {animation};
  const AnimationFile file = Read("keys.gltf", g.Text());
  ASSERT_TRUE(file.hasClip);
  ASSERT_EQ(file.clip.frameCount, 3);
  EXPECT_NEAR(file.clip.frameTime, 0.1, 1e-6);
  // Linear root half way; step holds the earlier key; the Hermite curve of p0=0, m0=10*0.2,
  // p1=1, m1=-10*0.2 at u=0.5: 0.5*0 + 0.125*2 + 0.5*1 - 0.125*-2 = 1.
  EXPECT_NEAR(file.clip.rootTranslation[1].y, 2.0, 1e-5);
  EXPECT_NEAR(file.clip.Translation(file.skeleton, 1, 1).x, 1.0, 1e-6);
  EXPECT_NEAR(file.clip.Translation(file.skeleton, 2, 1).x, 2.0, 1e-6);
  EXPECT_NEAR(file.clip.Translation(file.skeleton, 1, 2).x, 1.0, 1e-5);
}

TEST_F(GltfTest, AnimationsAreChosenByNameOrIndex)
{
  GltfText g;
  g.json["scenes"] = {{{"nodes", {0}}}};
  g.json["nodes"] = {{{"name", "root"}}};
  for (const char* name : {"idle", "run"})
  {
    nlohmann::json animation = {{"name", name}};
    g.Channel(animation, 0, "translation", {0.0f, 1.0f}, {0, 0, 0, 1, 1, 1});
    g.json["animations"].push_back(animation);
  }
  const std::string text = g.Text();
  ReadRequest request;
  request.animation = "run";
  EXPECT_EQ(Read("two.gltf", text, request).clip.name, "run");
  request.animation = "1";
  EXPECT_EQ(Read("two.gltf", text, request).clip.name, "run");
  request.animation = "";
  request.lastAnimation = true;
  EXPECT_EQ(Read("two.gltf", text, request).clip.name, "run");
  request.animation = "walk";
  EXPECT_EQ(Refusal("two.gltf", text, request),
            (_dir / "two.gltf").string() +
              ": expected an animation named or numbered 'walk' (--animation), found 0 'idle', 1 'run'");
  request.animation = "";
  request.skeletonRoot = "hips";
  EXPECT_EQ(Refusal("two.gltf", text, request),
            (_dir / "two.gltf").string() + ": expected a node named 'hips' (--skeleton-root), found none");
}

TEST_F(GltfTest, BrokenFilesAreRefusedNamingTheFile)
{
  ZUpCharacter c;
  nlohmann::json document = nlohmann::json::parse(c.Text());

  // A GLB cut short, and a .gltf whose buffer file is not there (its name in the library's
  // message must not read as memory running out).
  std::string glb;
  std::string error;
  const AnimationFile character = Read("zup.gltf", c.Text());
  ASSERT_TRUE(GltfBytes(character, character.clip, WriteRequest(), true, glb, error)) << error;
  EXPECT_NE(Refusal("cut.glb", glb.substr(0, glb.size() / 2)).find("expected a glTF 2.0 binary (.glb) file"),
            std::string::npos);
  nlohmann::json missing = document;
  missing["buffers"][0]["uri"] = "bad_alloc.bin";
  EXPECT_NE(Refusal("missing.gltf", missing.dump()).find("cannot be read"), std::string::npos);

  // A skin whose joints form a cycle, an extension nothing here knows, an accessor past its buffer.
  nlohmann::json cycle = document;
  cycle["nodes"][3]["children"] = {1};
  EXPECT_NE(Refusal("cycle.gltf", cycle.dump()).find("expected one parent"), std::string::npos);
  nlohmann::json extension = document;
  extension["extensionsUsed"] = {"EXT_unknown_thing"};
  extension["extensionsRequired"] = {"EXT_unknown_thing"};
  EXPECT_NE(Refusal("extension.gltf", extension.dump()).find("required extension EXT_unknown_thing"),
            std::string::npos);
  nlohmann::json pastEnd = document;
  pastEnd["accessors"][1]["count"] = 1000;
  EXPECT_NE(Refusal("past.gltf", pastEnd.dump()).find("elements inside the buffer view"), std::string::npos);
  nlohmann::json noSkeleton = document;
  noSkeleton.erase("skins");
  noSkeleton.erase("animations");
  EXPECT_NE(Refusal("empty.gltf", noSkeleton.dump()).find("expected a skin or an animated node hierarchy"),
            std::string::npos);
}

TEST_F(GltfTest, ScenesAndNodesWithNothingSetSurviveWriting)
{
  // The library under the writer would write such objects as null, which reads back as no glTF.
  ZUpCharacter c;
  nlohmann::json document = nlohmann::json::parse(c.Text());
  document["scenes"].push_back(nlohmann::json::object());
  document["nodes"].push_back(nlohmann::json::object());
  const AnimationFile file = Read("empty.gltf", document.dump());
  std::string glb;
  std::string error;
  ASSERT_TRUE(GltfBytes(file, file.clip, WriteRequest(), true, glb, error)) << error;
  AnimationFile back;
  ASSERT_TRUE(ReadGltfBytes(glb, "back.glb", "", ReadRequest(), back, error)) << error;
  EXPECT_EQ(back.skeleton.joints.size(), 3u);
}

// A tiny PNG made by cairo, as a file beside a .gltf would be.
std::string PngBytes()
{
  cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 2, 2);
  std::string bytes;
  cairo_surface_write_to_png_stream(
    surface,
    [](void* closure, const unsigned char* data, unsigned int length) {
      static_cast<std::string*>(closure)->append(reinterpret_cast<const char*>(data), length);
      return CAIRO_STATUS_SUCCESS;
    },
    &bytes);
  cairo_surface_destroy(surface);
  return bytes;
}

TEST_F(GltfTest, WritingKeepsTheDocumentAndAddsTheClip)
{
  // The character with a textured material, a mesh skinned to it and an animation of its own, its
  // buffer and image in files beside it.
  ZUpCharacter c;
  GltfText g;
  g.json = nlohmann::json::parse(c.Text());
  g.json.erase("buffers");
  nlohmann::json own = g.json["animations"][0];
  own["samplers"] = nlohmann::json::array();
  own["channels"] = nlohmann::json::array();
  g.json["accessors"] = nlohmann::json::array();
  g.json["bufferViews"] = nlohmann::json::array();
  g.Channel(own, 2, "rotation", {0.0f, 1.0f}, {0, 0, 0, 1, 0, 0, 0, 1});
  g.json["animations"] = {own};
  const int positions = g.Floats({0, 0, 0, 1, 0, 0, 0, 1, 0}, "VEC3", true);
  const int uvs = g.Floats({0, 0, 1, 0, 0, 1}, "VEC2");
  g.json["meshes"] = {
    {{"primitives", {{{"attributes", {{"POSITION", positions}, {"TEXCOORD_0", uvs}}}, {"material", 0}}}}}};
  g.json["materials"] = {{{"pbrMetallicRoughness", {{"baseColorTexture", {{"index", 0}}}}}}};
  g.json["textures"] = {{{"source", 0}}};
  g.json["images"] = {{{"uri", "skin.png"}}};
  g.json["nodes"].push_back({{"name", "body"}, {"mesh", 0}});
  g.json["scenes"][0]["nodes"].push_back(4);
  std::string bin;
  const std::string text = g.Text("body.bin", &bin);
  WriteText(_dir / "body.bin", bin);
  WriteText(_dir / "skin.png", PngBytes());
  AnimationFile target = Read("body.gltf", text);
  ASSERT_EQ(target.skeleton.joints.size(), 3u) << "the mesh's node is no joint";

  Clip clip = RestClip(target.skeleton, 4, 0.25);
  clip.name = "walk";
  clip.rotations[3 * 3 + 1] = {std::cos(0.5), std::sin(0.5), 0, 0};
  clip.rootTranslation[2] = {1, 2, 3};
  WriteRequest request;
  request.driven = {false, true, false};
  std::string error;
  const fs::path out = _dir / "out" / "walked.glb";
  fs::create_directories(out.parent_path());
  ASSERT_TRUE(WriteGltf(out.string(), target, clip, request, error)) << error;
  kelvara_test::ExpectValidGltf(out);

  // The file stands alone: read again without the files beside the source.
  fs::remove(_dir / "body.bin");
  fs::remove(_dir / "skin.png");
  tinygltf::Model model;
  tinygltf::TinyGLTF loader;
  std::string warn;
  ASSERT_TRUE(loader.LoadBinaryFromFile(&model, &error, &warn, out.string())) << error;
  EXPECT_EQ(model.meshes.size(), 1u);
  EXPECT_EQ(model.materials.size(), 1u);
  ASSERT_EQ(model.images.size(), 1u);
  EXPECT_GE(model.images[0].bufferView, 0);
  EXPECT_EQ(model.images[0].mimeType, "image/png");
  ASSERT_EQ(model.animations.size(), 2u);
  const tinygltf::Animation& added = model.animations[1];
  EXPECT_EQ(added.name, "walk");
  ASSERT_EQ(added.channels.size(), 2u) << "the driven joint's rotation and the root's translation";
  EXPECT_EQ(added.channels[0].target_node, 2);
  EXPECT_EQ(added.channels[0].target_path, "rotation");
  EXPECT_EQ(added.channels[1].target_node, 1);
  EXPECT_EQ(added.channels[1].target_path, "translation");

  // Read back through our reader: the keyframes hold the clip.
  ReadRequest last;
  last.lastAnimation = true;
  AnimationFile back;
  ASSERT_TRUE(ReadGltf(out.string(), last, back, error)) << error;
  ASSERT_EQ(back.clip.frameCount, 4);
  EXPECT_NEAR(back.clip.frameTime, 0.25, 1e-7);
  EXPECT_NEAR(back.clip.rotations[3 * 3 + 1].x, std::sin(0.5), 1e-7);
  EXPECT_NEAR(back.clip.rootTranslation[2].z, 3.0, 1e-6);

  // Again with the clip's name taken: a second name; replacing drops the document's own.
  target.gltf = back.gltf;
  std::string name;
  ASSERT_TRUE(WriteGltf(out.string(), target, clip, request, error, &name)) << error;
  EXPECT_EQ(name, "walk (2)");
  request.replaceAnimations = true;
  ASSERT_TRUE(WriteGltf(out.string(), target, clip, request, error, &name)) << error;
  EXPECT_EQ(name, "walk");
  tinygltf::Model replaced;
  ASSERT_TRUE(loader.LoadBinaryFromFile(&replaced, &error, &warn, out.string())) << error;
  EXPECT_EQ(replaced.animations.size(), 1u);
  EXPECT_LT(replaced.accessors.size(), model.accessors.size()) << "the dropped animation's data went with it";
  kelvara_test::ExpectValidGltf(out);
}

} // namespace
} // namespace kelvara
