#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>

#include <nlohmann/json.hpp>

#include "demo/demo.h"
#include "demo/demo_character.h"
#include "io/json/saved_character.h"
#include "support/helper_fixture.h"

namespace kelvara
{
namespace
{

using nlohmann::json;

std::string ReadText(const std::string& path)
{
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

// The skeleton and BVH layout (null when there is none) that were saved.
void ExpectSaved(const Skeleton& a, const std::shared_ptr<const BvhLayout>& layout, const Skeleton& b,
                 const BvhLayout* wanted)
{
  auto key = [](const Joint& j) {
    return std::tie(j.name, j.parent, j.translation, j.rotation, j.scale, j.hasEndSite, j.endSite);
  };
  ASSERT_EQ(a.joints.size(), b.joints.size());
  for (std::size_t i = 0; i < a.joints.size(); ++i)
    EXPECT_TRUE(key(a.joints[i]) == key(b.joints[i])) << "joint " << i << " " << a.joints[i].name;
  EXPECT_EQ(std::tie(a.sceneTransform, a.metresPerUnit), std::tie(b.sceneTransform, b.metresPerUnit));
  ASSERT_EQ(layout == nullptr, wanted == nullptr);
  EXPECT_TRUE(wanted == nullptr || layout->channels == wanted->channels);
}

class SavedCharacterTest : public kelvara_test::HelperTest
{
protected:
  void SetUp() override
  {
    HelperTest::SetUp();
    std::string error;
    ASSERT_TRUE(BuildCharacter(_target.skeleton, "saved", _built, error)) << error;
    ASSERT_TRUE(ChooseAndFillPreset(_built, _helper, "", error)) << error;
    ASSERT_TRUE(SaveCharacter(_built, _target.bvhLayout.get(), _path, error)) << error;
  }
  void TearDown() override { std::remove(_path.c_str()); }

  const AnimationFile _target = DemoTargetFile(); // a BVH skeleton with its layout
  const std::string _path = ::testing::TempDir() + "saved_character_test.json";
  Character _built;
};

TEST_F(SavedCharacterTest, ReloadedCharacterIsTheSavedOneAndSavesTheSameFile)
{
  SavedCharacter saved;
  Character loaded;
  std::string error;
  ASSERT_TRUE(LoadSavedCharacter(_path, saved, error) && CharacterFromSaved(saved, loaded, error)) << error;
  EXPECT_TRUE(std::tie(loaded.preset, loaded.partJoint, loaded.orientation.left, loaded.uuids, loaded.restGlobal) ==
              std::tie(_built.preset, _built.partJoint, _built.orientation.left, _built.uuids, _built.restGlobal));
  ExpectSaved(saved.skeleton, saved.bvhLayout, _target.skeleton, _target.bvhLayout.get());

  // The skeleton keeps what the BVH writer needs: written with the file's motion, it is the file,
  // hierarchy text for text (the zero angles, through quaternions, may come back as -0).
  const BvhFile original = MakeDemoTarget();
  Clip clip;
  BvhToClip(original, _target.skeleton, clip);
  BvhFile rewritten;
  ASSERT_TRUE(ModelToBvh(saved.skeleton, saved.bvhLayout.get(), clip, rewritten, error)) << error;
  std::string originalText, rewrittenText;
  ASSERT_TRUE(WriteBvhToString(original, originalText, error) && WriteBvhToString(rewritten, rewrittenText, error))
    << error;
  EXPECT_EQ(rewrittenText.substr(0, rewrittenText.find("MOTION")), originalText.substr(0, originalText.find("MOTION")));
  EXPECT_EQ(std::tie(rewritten.frameCount, rewritten.frameTime, rewritten.motion),
            std::tie(original.frameCount, original.frameTime, original.motion));

  // The skeleton alone, as an output is written in, needs no definition.
  AnimationFile skeletonOnly;
  ASSERT_TRUE(ReadSavedSkeleton(_path, skeletonOnly, error)) << error;
  ExpectSaved(skeletonOnly.skeleton, skeletonOnly.bvhLayout, _target.skeleton, _target.bvhLayout.get());
  EXPECT_EQ(skeletonOnly.skeleton.path, _path);
  EXPECT_FALSE(skeletonOnly.hasClip);

  const std::string again = _path + ".again";
  ASSERT_TRUE(SaveCharacter(loaded, saved.bvhLayout.get(), again, error)) << error;
  EXPECT_EQ(ReadText(again), ReadText(_path));
  std::remove(again.c_str());
}

TEST_F(SavedCharacterTest, RestRotationsScalesAndTheSceneTransformSurviveTheFile)
{
  // A Z-up armature at a hundredth of the size, moved aside; a few joints turned and scaled at rest.
  Skeleton skeleton = _target.skeleton;
  skeleton.sceneTransform = {{0.25, 0.0, -1.5}, {0.01, 0.0, 0.0}, {0.0, 0.0, 0.01}, {0.0, -0.01, 0.0}};
  skeleton.metresPerUnit = 0.01;
  skeleton.joints[1].rotation = Normalized(Quaternion{0.9, 0.1, -0.3, 0.2});
  skeleton.joints[4].rotation = AxisAngle({0.0, 0.0, 1.0}, 0.7);
  skeleton.joints[2].scale = {1.25, 1.25, 1.25};
  skeleton.joints[5].scale = {0.5, 0.5, 0.5};
  const std::string path = _path + ".turned.json";
  Character built;
  SavedCharacter saved;
  Character loaded;
  std::string error;
  ASSERT_TRUE(BuildCharacter(skeleton, "saved", built, error) && ChooseAndFillPreset(built, _helper, "", error) &&
              SaveCharacter(built, nullptr, path, error))
    << error;
  ASSERT_TRUE(LoadSavedCharacter(path, saved, error) && CharacterFromSaved(saved, loaded, error)) << error;
  ExpectSaved(saved.skeleton, saved.bvhLayout, skeleton, nullptr);
  EXPECT_TRUE(std::tie(loaded.partJoint, loaded.restGlobal) == std::tie(built.partJoint, built.restGlobal));

  // The rest pose is checked against the saved rotations, scales and scene: losing any one fails.
  const json good = json::parse(ReadText(path));
  std::remove(path.c_str());
  for (const char* lost : {"/skeleton/1/rotation", "/skeleton/2/scale", "/sceneTransform"})
  {
    json spoilt = good;
    const json::json_pointer pointer(lost);
    spoilt[pointer.parent_pointer()].erase(pointer.back());
    EXPECT_FALSE(LoadSavedCharacterFromText(spoilt.dump(), "turned.json", saved, error)) << lost;
    EXPECT_NE(error.find("to follow its rest transform"), std::string::npos) << lost << ": " << error;
  }
}

TEST_F(SavedCharacterTest, VersionOneFilesStillLoad)
{
  // What the first version wrote: BVH skeletons only, no rotation, scale, scene or unit.
  json v1 = json::parse(ReadText(_path));
  v1["version"] = 1;
  v1.erase("sceneTransform");
  v1.erase("metresPerUnit");
  for (json& joint : v1["skeleton"])
    for (const char* key : {"rotation", "scale"})
      joint.erase(key);
  SavedCharacter saved;
  Character loaded;
  std::string error;
  ASSERT_TRUE(LoadSavedCharacterFromText(v1.dump(1, '\t'), "old.json", saved, error) &&
              CharacterFromSaved(saved, loaded, error))
    << error;
  ExpectSaved(saved.skeleton, saved.bvhLayout, _target.skeleton, _target.bvhLayout.get());
  EXPECT_EQ(saved.skeleton.path, "old.json");
  EXPECT_TRUE(std::tie(loaded.preset, loaded.partJoint, loaded.restGlobal) ==
              std::tie(_built.preset, _built.partJoint, _built.restGlobal));
}

TEST_F(SavedCharacterTest, InconsistentOrMalformedFilesAreRejected)
{
  const json good = json::parse(ReadText(_path));
  const std::tuple<const char*, json, const char*> cases[] = {
    {"/skeleton/3/name", "elsewhere", "char.json: /definition/members/SkeletonRoot: expected the joints of /skeleton "
                                      "in order, found node 'foot_l' at position 3"},
    // Well-formed, but not the rest the definition was built on.
    {"/skeleton/1/offset/0", 99.5, "expected the rest matrix of joint"},
    {"/skeleton/0/channels/0", "Wposition",
     "char.json: /skeleton/0/channels/0: expected a channel name, found \"Wposition\""},
    {"/skeleton/0/channels/1", "Xposition",
     "char.json: /skeleton/0/channels/1: expected a channel not listed before, found \"Xposition\""},
    {"/skeleton/2/rotation", json::array({2, 0, 0, 0}),
     "char.json: /skeleton/2/rotation: expected a unit quaternion [w, x, y, z], found [2,0,0,0]"},
    {"/skeleton/2/scale", json::array({1, 0, 1}), "): expected a scale without zeros), found null"},
    {"/sceneTransform", json::array({1, 2}), "char.json: /sceneTransform: expected 16 numbers, found [1,2]"},
    {"/metresPerUnit", -1, "char.json: /metresPerUnit: expected a number of metres, 0 when not known, found -1"},
    {"/definition/members/BodyPartRoot/members/_skeletonNodes", json::array({"0000000a-0000-4000-8000-000000000000"}),
     "to name joints of the skeleton"},
    {"/version", 7, "char.json: /version: expected 1 or 2, found 7"},
  };
  SavedCharacter loaded;
  std::string error;
  for (const auto& [path, value, message] : cases)
  {
    json spoilt = good;
    spoilt[json::json_pointer(path)] = value;
    EXPECT_FALSE(LoadSavedCharacterFromText(spoilt.dump(1), "char.json", loaded, error)) << path;
    EXPECT_NE(error.find(message), std::string::npos) << error;
  }
  const char* const malformed = "{\n  \"format\": \"kelvara character\",\n  \"version\": 2,,\n}";
  EXPECT_FALSE(LoadSavedCharacterFromText(malformed, "c.json", loaded, error));
  EXPECT_EQ(error.rfind("c.json:3: expected well-formed JSON", 0), 0u) << error;
}

} // namespace
} // namespace kelvara
