#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>

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
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void ExpectSameSkeleton(const Skeleton& a, const Skeleton& b)
{
  ASSERT_EQ(a.joints.size(), b.joints.size());
  for (std::size_t i = 0; i < a.joints.size(); ++i)
  {
    const Joint& x = a.joints[i];
    const Joint& y = b.joints[i];
    EXPECT_TRUE(std::tie(x.name, x.parent, x.translation, x.rotation, x.scale, x.hasEndSite, x.endSite) ==
                std::tie(y.name, y.parent, y.translation, y.rotation, y.scale, y.hasEndSite, y.endSite))
      << "joint " << i << " " << x.name;
  }
  EXPECT_EQ(a.sceneTransform, b.sceneTransform);
  EXPECT_EQ(a.metresPerUnit, b.metresPerUnit);
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
  ASSERT_TRUE(LoadSavedCharacter(_path, saved, error)) << error;
  ASSERT_TRUE(CharacterFromSaved(saved, loaded, error)) << error;
  EXPECT_EQ(std::tie(loaded.preset, loaded.partJoint, loaded.orientation.left),
            std::tie(_built.preset, _built.partJoint, _built.orientation.left));
  EXPECT_TRUE(loaded.uuids == _built.uuids);
  EXPECT_TRUE(loaded.restGlobal == _built.restGlobal);
  ExpectSameSkeleton(saved.skeleton, _target.skeleton);
  ASSERT_TRUE(saved.bvhLayout);
  EXPECT_EQ(saved.bvhLayout->channels, _target.bvhLayout->channels);

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
  EXPECT_EQ(std::tie(rewritten.frameCount, rewritten.frameTime), std::tie(original.frameCount, original.frameTime));
  EXPECT_EQ(rewritten.motion, original.motion);

  // The skeleton alone, as an output is written in, needs no definition.
  AnimationFile skeletonOnly;
  ASSERT_TRUE(ReadSavedSkeleton(_path, skeletonOnly, error)) << error;
  ExpectSameSkeleton(skeletonOnly.skeleton, _target.skeleton);
  EXPECT_EQ(skeletonOnly.skeleton.path, _path);
  ASSERT_TRUE(skeletonOnly.bvhLayout);
  EXPECT_EQ(skeletonOnly.bvhLayout->channels, _target.bvhLayout->channels);
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
  skeleton.sceneTransform.v1 = {0.01, 0.0, 0.0};
  skeleton.sceneTransform.v2 = {0.0, 0.0, 0.01};
  skeleton.sceneTransform.v3 = {0.0, -0.01, 0.0};
  skeleton.sceneTransform.off = {0.25, 0.0, -1.5};
  skeleton.metresPerUnit = 0.01;
  skeleton.joints[1].rotation = Normalized(Quaternion{0.9, 0.1, -0.3, 0.2});
  skeleton.joints[4].rotation = AxisAngle({0.0, 0.0, 1.0}, 0.7);
  skeleton.joints[2].scale = {1.25, 1.25, 1.25};
  skeleton.joints[5].scale = {0.5, 0.5, 0.5};
  Character built;
  std::string error;
  ASSERT_TRUE(BuildCharacter(skeleton, "saved", built, error)) << error;
  ASSERT_TRUE(ChooseAndFillPreset(built, _helper, "", error)) << error;
  const std::string path = _path + ".turned.json";
  ASSERT_TRUE(SaveCharacter(built, nullptr, path, error)) << error;

  SavedCharacter saved;
  Character loaded;
  ASSERT_TRUE(LoadSavedCharacter(path, saved, error)) << error;
  ASSERT_TRUE(CharacterFromSaved(saved, loaded, error)) << error;
  ExpectSameSkeleton(saved.skeleton, skeleton);
  EXPECT_FALSE(saved.bvhLayout) << "saved without a BVH layout";
  EXPECT_TRUE(loaded.restGlobal == built.restGlobal);
  EXPECT_EQ(loaded.partJoint, built.partJoint);

  // The rest pose is checked against the saved rotations, scales and scene: losing any one fails.
  const json good = json::parse(ReadText(path));
  for (const char* lost : {"/skeleton/1/rotation", "/skeleton/2/scale", "/sceneTransform"})
  {
    json spoilt = good;
    const json::json_pointer pointer(lost);
    spoilt[pointer.parent_pointer()].erase(pointer.back());
    EXPECT_FALSE(LoadSavedCharacterFromText(spoilt.dump(), "turned.json", saved, error)) << lost;
    EXPECT_NE(error.find("to follow its rest transform"), std::string::npos) << lost << ": " << error;
  }
  std::remove(path.c_str());
}

TEST_F(SavedCharacterTest, VersionOneFilesStillLoad)
{
  // What the first version wrote: BVH skeletons only, no rotation, scale, scene or unit.
  json v1 = json::parse(ReadText(_path));
  v1["version"] = 1;
  v1.erase("sceneTransform");
  v1.erase("metresPerUnit");
  for (json& joint : v1["skeleton"])
  {
    joint.erase("rotation");
    joint.erase("scale");
  }
  SavedCharacter saved;
  Character loaded;
  std::string error;
  ASSERT_TRUE(LoadSavedCharacterFromText(v1.dump(1, '\t'), "old.json", saved, error)) << error;
  ASSERT_TRUE(CharacterFromSaved(saved, loaded, error)) << error;
  ExpectSameSkeleton(saved.skeleton, _target.skeleton);
  EXPECT_EQ(saved.skeleton.path, "old.json");
  ASSERT_TRUE(saved.bvhLayout);
  EXPECT_EQ(saved.bvhLayout->channels, _target.bvhLayout->channels);
  EXPECT_EQ(std::tie(loaded.preset, loaded.partJoint), std::tie(_built.preset, _built.partJoint));
  EXPECT_TRUE(loaded.restGlobal == _built.restGlobal);
}

TEST_F(SavedCharacterTest, InconsistentOrMalformedFilesAreRejected)
{
  const json good = json::parse(ReadText(_path));
  const std::tuple<const char*, json, const char*> cases[] = {
    {"/skeleton/3/name", "elsewhere", "char.json: /definition/members/SkeletonRoot: expected the joints of /skeleton "
                                      "in order, found node 'foot_l' at position 3"},
    {"/skeleton/1/offset/0", 99.5, "expected the rest matrix of joint"},
    // Another unit rotation: well-formed, but not the rest the definition was built on.
    {"/skeleton/1/rotation", json::array({0, 1, 0, 0}), "expected the rest matrix of joint"},
    {"/sceneTransform/13", 5.0, "expected the rest matrix of joint"},
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
