#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "character_file.h"
#include "demo.h"
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

class CharacterFileTest : public kelvara_test::HelperTest
{
protected:
  void SetUp() override
  {
    HelperTest::SetUp();
    std::string error;
    ASSERT_TRUE(BuildCharacter(_bvh, "saved", _built, error)) << error;
    ASSERT_TRUE(ChooseAndFillPreset(_built, _helper, "", error)) << error;
    ASSERT_TRUE(SaveCharacter(_built, _path, error)) << error;
  }
  void TearDown() override { std::remove(_path.c_str()); }

  const BvhFile _bvh = MakeDemoTarget();
  const std::string _path = ::testing::TempDir() + "character_file_test.json";
  Character _built;
};

TEST_F(CharacterFileTest, ReloadedCharacterIsTheSavedOneAndSavesTheSameFile)
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
  // The skeleton keeps what the writer needs: names, offsets, channels, end sites.
  BvhFile withMotion = saved.skeleton;
  withMotion.frameCount = _bvh.frameCount;
  withMotion.frameTime = _bvh.frameTime;
  withMotion.motion = _bvh.motion;
  std::string original, reloaded;
  ASSERT_TRUE(WriteBvhToString(_bvh, original, error) && WriteBvhToString(withMotion, reloaded, error)) << error;
  EXPECT_EQ(reloaded, original);

  const std::string again = _path + ".again";
  ASSERT_TRUE(SaveCharacter(loaded, again, error)) << error;
  EXPECT_EQ(ReadText(again), ReadText(_path));
  std::remove(again.c_str());
}

TEST_F(CharacterFileTest, InconsistentOrMalformedFilesAreRejected)
{
  const json good = json::parse(ReadText(_path));
  const std::tuple<const char*, json, const char*> cases[] = {
    {"/skeleton/3/name", "elsewhere", "char.json: /definition/members/SkeletonRoot: expected the joints of /skeleton "
                                      "in order, found node 'foot_l' at position 3"},
    {"/skeleton/1/offset/0", 99.5, "expected the rest matrix of joint"},
    {"/skeleton/0/channels/0", "Wposition",
     "char.json: /skeleton/0/channels/0: expected a channel name, found \"Wposition\""},
    {"/definition/members/BodyPartRoot/members/_skeletonNodes", json::array({"0000000a-0000-4000-8000-000000000000"}),
     "to name joints of the skeleton"},
    {"/version", 7, "char.json: /version: expected 1, found 7"},
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
  const char* const malformed = "{\n  \"format\": \"kelvara character\",\n  \"version\": 1,,\n}";
  EXPECT_FALSE(LoadSavedCharacterFromText(malformed, "c.json", loaded, error));
  EXPECT_EQ(error.rfind("c.json:3: expected well-formed JSON", 0), 0u) << error;
}

} // namespace
} // namespace kelvara
