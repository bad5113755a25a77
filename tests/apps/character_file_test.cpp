#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "character_file.h"
#include "demo.h"
#include "support/loaded_module.h"

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

class CharacterFileTest : public ::testing::Test
{
protected:
  void SetUp() override
  {
    kelvara_test::LoadedModuleForTests();
    _bvh = MakeDemoTarget();
    _bvh.path = "target.bvh";
    std::string error;
    telvo::Result<telvo::KelvaraHelperRef> helper =
      telvo::CreateObject<telvo::KelvaraHelperRef>("net.telvo.animation.class.kelvarahelper");
    ASSERT_TRUE(helper.IsOk());
    ASSERT_TRUE(BuildCharacter(_bvh, "saved", _built, error)) << error;
    ASSERT_TRUE(ChooseAndFillPreset(_built, helper.GetValue(), "", error)) << error;
    _path = ::testing::TempDir() + "character_file_test.json";
    ASSERT_TRUE(SaveCharacter(_built, _path, error)) << error;
    _saved = json::parse(ReadText(_path));
  }
  void TearDown() override { std::remove(_path.c_str()); }

  std::string LoadError(const json& file)
  {
    SavedCharacter loaded;
    std::string error;
    EXPECT_FALSE(LoadSavedCharacterFromText(file.dump(1), "char.json", loaded, error));
    return error;
  }

  BvhFile _bvh;
  Character _built;
  std::string _path;
  json _saved;
};

TEST_F(CharacterFileTest, ReloadedCharacterIsTheSavedOne)
{
  SavedCharacter saved;
  std::string error;
  ASSERT_TRUE(LoadSavedCharacter(_path, saved, error)) << error;
  Character loaded;
  ASSERT_TRUE(CharacterFromSaved(saved, loaded, error)) << error;

  EXPECT_EQ(loaded.preset, _built.preset);
  EXPECT_EQ(loaded.partJoint, _built.partJoint);
  ASSERT_EQ(loaded.uuids.size(), _built.uuids.size());
  for (std::size_t i = 0; i < loaded.uuids.size(); ++i)
  {
    EXPECT_TRUE(loaded.uuids[i] == _built.uuids[i]);
    EXPECT_TRUE(loaded.restGlobal[i] == _built.restGlobal[i]) << _bvh.joints[i].name;
  }
  EXPECT_EQ(loaded.orientation.left, _built.orientation.left);
  // The skeleton keeps what the writer needs: names, offsets, channels, end sites.
  std::string original, reloaded;
  ASSERT_TRUE(WriteBvhToString(_bvh, original, error));
  BvhFile withMotion = saved.skeleton;
  withMotion.frameCount = _bvh.frameCount;
  withMotion.frameTime = _bvh.frameTime;
  withMotion.motion = _bvh.motion;
  ASSERT_TRUE(WriteBvhToString(withMotion, reloaded, error)) << error;
  EXPECT_EQ(reloaded, original);

  // Saving the reloaded character gives the same file.
  const std::string again = ::testing::TempDir() + "character_file_test_again.json";
  ASSERT_TRUE(SaveCharacter(loaded, again, error)) << error;
  EXPECT_EQ(ReadText(again), ReadText(_path));
  std::remove(again.c_str());
}

TEST_F(CharacterFileTest, InconsistentFilesAreRejected)
{
  json renamed = _saved;
  renamed["skeleton"][3]["name"] = "elsewhere";
  EXPECT_EQ(LoadError(renamed), "char.json: /definition/members/SkeletonRoot: expected the joints of /skeleton in "
                                "order, found node 'foot_l' at position 3")
    << "skeleton order: " << _saved["skeleton"][3]["name"];

  json moved = _saved;
  moved["skeleton"][1]["offset"][0] = 99.5;
  EXPECT_NE(LoadError(moved).find("expected the rest matrix of joint"), std::string::npos);

  json badChannel = _saved;
  badChannel["skeleton"][0]["channels"][0] = "Wposition";
  EXPECT_EQ(LoadError(badChannel), "char.json: /skeleton/0/channels/0: expected a channel name, found \"Wposition\"");

  json strangerNode = _saved;
  json& parts = strangerNode["definition"]["members"]["BodyPartRoot"];
  parts["members"]["_skeletonNodes"] = json::array({"0000000a-0000-4000-8000-000000000000"});
  EXPECT_NE(LoadError(strangerNode).find("to name joints of the skeleton"), std::string::npos);

  json badVersion = _saved;
  badVersion["version"] = 7;
  EXPECT_EQ(LoadError(badVersion), "char.json: /version: expected 1, found 7");
}

TEST_F(CharacterFileTest, MalformedJsonNamesTheLine)
{
  SavedCharacter loaded;
  std::string error;
  EXPECT_FALSE(LoadSavedCharacterFromText("{\n  \"format\": \"kelvara character\",\n  \"version\": 1,,\n}", "c.json",
                                          loaded, error));
  EXPECT_EQ(error.rfind("c.json:3: expected well-formed JSON", 0), 0u) << error;
}

} // namespace
} // namespace kelvara
