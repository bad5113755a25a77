// Inputs the fuzz targets in fuzz/ found to crash a reader or exhaust its stack, kept as tests.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

#include "bvh.h"
#include "mapping.h"
#include "object_json.h"
#include "support/loaded_module.h"

namespace kelvara
{
namespace
{

using nlohmann::json;

BvhFile Skeleton(const std::string& path, const char* text)
{
  BvhFile file;
  std::string error;
  EXPECT_TRUE(ReadBvhFromBuffer(text, path, file, error)) << error;
  return file;
}

TEST(FuzzRegressionsTest, JointMapWithANumberBeyondDoubleIsRefusedWithItsLine)
{
  const BvhFile skeleton = Skeleton("a.bvh", "HIERARCHY\nROOT Hips { OFFSET 0 0 0 CHANNELS 0 JOINT Spine { OFFSET 0 1 0 } }\n"
                                             "MOTION\nFrames: 0\nFrame Time: 1\n");
  std::vector<JointPair> pairs;
  std::string error;
  // Used to end the process: the JSON library throws this one as out_of_range, not parse_error.
  EXPECT_FALSE(ParseJointMap("{\n  \"Hips\": \"Hips\",\n  \"Spine\": 1e500\n}\n", "map.json", skeleton, skeleton,
                             pairs, error));
  EXPECT_EQ(error, "map.json:3: expected a JSON object of joint names, found a number out of range (number overflow "
                   "parsing '1e500')");
  EXPECT_FALSE(ParseJointMap("[-1E400]", "map.json", skeleton, skeleton, pairs, error));
  EXPECT_EQ(error.rfind("map.json:1: expected a JSON object of joint names, found a number out of range", 0), 0u)
    << error;
}

class SavedCharacterFuzzRegressionsTest : public ::testing::Test
{
protected:
  void SetUp() override { kelvara_test::LoadedModuleForTests(); }

  // depth tree nodes, each the only child of the one before.
  static json NestedTrees(int depth)
  {
    const std::string node = R"({"class":"net.telvo.animation.class.charactertree",)"
                             R"("members":{"IsTransformNode":false,"_objectID":null,"_objectName":"j"},"children":[)";
    std::string text;
    for (int i = 0; i < depth; ++i)
      text += node;
    for (int i = 0; i < depth; ++i)
      text += "]}";
    return json::parse(text);
  }

  static std::string LoadError(const json& in)
  {
    telvo::ObjectRef object;
    std::string error;
    EXPECT_FALSE(ObjectFromJson(in, object, error));
    return error;
  }
};

TEST_F(SavedCharacterFuzzRegressionsTest, NestingIsBoundedInsteadOfExhaustingTheStack)
{
  telvo::ObjectRef object;
  std::string error;
  EXPECT_TRUE(ObjectFromJson(NestedTrees(300), object, error)) << error;
  object = telvo::ObjectRef();

  // Deep enough to overflow the stack of a sanitized build before the bound existed.
  const std::string refused = LoadError(NestedTrees(1001));
  std::string path;
  for (int i = 0; i < 1000; ++i)
    path += "/children/0";
  EXPECT_EQ(refused, path + ": expected objects nested at most 1000 deep");
}

TEST_F(SavedCharacterFuzzRegressionsTest, RefusalsQuoteDeepValuesWithoutFollowingAllTheirNesting)
{
  // Quoting the value used to serialise it whole, recursing once per level. (Built by parsing:
  // copying a json value recurses too.)
  const int depth = 200000;
  const std::string deep = std::string(depth, '[') + std::string(depth, ']');
  EXPECT_EQ(LoadError(json::parse(deep)), "/: expected an object, found " + std::string(57, '[') + "...");
  EXPECT_EQ(LoadError(json::parse(R"({"class":"net.telvo.animation.class.characterpose","members":[{"k":)" + deep + "}]}")),
            "/members: expected an object of members, found [{\"k\":" + std::string(51, '[') + "...");
}

TEST_F(SavedCharacterFuzzRegressionsTest, ShortenedQuotesStayValidUtf8)
{
  // 'a' then two-byte characters: the cut at 57 bytes fell inside one, and the message could
  // not be put into JSON any more.
  std::string id = "a";
  for (int i = 0; i < 40; ++i)
    id += "\xc3\xa9";
  const std::string error = LoadError(json{{"class", id}, {"members", json::object()}});
  EXPECT_EQ(error.rfind("/class: expected the id of a class the module registers, found \"a\xc3\xa9", 0), 0u);
  EXPECT_EQ(error.substr(error.size() - 5), "\xc3\xa9...");
  EXPECT_NO_THROW(json(error).dump());
}

} // namespace
} // namespace kelvara
