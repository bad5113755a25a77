// Inputs the fuzz targets in fuzz/ found to crash a reader or exhaust its stack, kept as tests.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <string>

#include "anim/skeleton.h"
#include "io/json/object_json.h"
#include "road/joint_map.h"
#include "support/loaded_module.h"

namespace kelvara
{
namespace
{

using nlohmann::json;

std::string Repeat(const std::string& text, int times)
{
  std::string all;
  for (int i = 0; i < times; ++i)
    all += text;
  return all;
}

json NestedTrees(int depth)
{
  return json::parse(Repeat(R"({"class":"net.telvo.animation.class.charactertree","members":{"IsTransformNode":false,)"
                            R"("_objectID":null,"_objectName":"j"},"children":[)",
                            depth) +
                     Repeat("]}", depth));
}

TEST(FuzzRegressions, EveryInputIsRefusedWithAMessage)
{
  kelvara_test::LoadedModuleForTests();
  Skeleton skeleton;
  skeleton.joints.resize(2);
  skeleton.joints[0].name = "Hips";
  skeleton.joints[1].name = "Spine";
  skeleton.joints[1].parent = 0;
  skeleton.joints[1].translation = {0, 1, 0};
  std::string error;
  auto map = [&](const char* text) {
    std::vector<JointPair> pairs;
    EXPECT_FALSE(ParseJointMap(text, "map.json", skeleton, skeleton, pairs, error));
    return error;
  };
  auto load = [&](const json& in) {
    telvo::ObjectRef object;
    EXPECT_FALSE(ObjectFromJson(in, object, error));
    return error;
  };
  const std::string deep = std::string(200000, '[') + std::string(200000, ']'); // parsed: copying a json recurses
  const std::string overflow = "expected a JSON object of joint names, found a number out of range (number overflow ";
  const std::pair<std::string, std::string> cases[] = {
    // The JSON library throws these as out_of_range, not parse_error.
    {map("{\n  \"Hips\": \"Hips\",\n  \"Spine\": 1e500\n}\n"), "map.json:3: " + overflow + "parsing '1e500')"},
    {map("[-1E400]"), "map.json:1: " + overflow + "parsing '-1E400')"},
    // Deep enough to overflow the stack of a sanitized build before nesting was bounded.
    {load(NestedTrees(1001)), Repeat("/children/0", 1000) + ": expected objects nested at most 1000 deep"},
    // Quoting the value used to serialise it whole, recursing once per level.
    {load(json::parse(deep)), "/: expected an object, found " + std::string(57, '[') + "..."},
    {load(json::parse(R"({"class":"net.telvo.animation.class.characterpose","members":[{"k":)" + deep + "}]}")),
     "/members: expected an object of members, found [{\"k\":" + std::string(51, '[') + "..."},
    // The cut at 57 bytes fell inside a two-byte character.
    {load(json{{"class", "a" + Repeat("\xc3\xa9", 40)}, {"members", json::object()}}),
     "/class: expected the id of a class the module registers, found \"a" + Repeat("\xc3\xa9", 27) + "..."}};
  for (const auto& [message, expected] : cases)
    EXPECT_EQ(message, expected);
  telvo::ObjectRef object;
  EXPECT_TRUE(ObjectFromJson(NestedTrees(300), object, error)) << error;
}

} // namespace
} // namespace kelvara
