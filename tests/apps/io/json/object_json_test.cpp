#include <gtest/gtest.h>

#include "character/character.h"
#include "io/bvh/bvh_model.h"
#include "io/json/object_json.h"
#include "support/bvh_texts.h"
#include "support/loaded_module.h"
#include "support/values.h"

using nlohmann::json;

namespace kelvara
{
namespace
{

json Save(const telvo::CharacterDefinition& definition)
{
  json out;
  std::string error;
  EXPECT_TRUE(ObjectToJson(*definition.GetPointer(), out, error)) << error;
  return out;
}

class ObjectJsonTest : public ::testing::Test
{
protected:
  void SetUp() override
  {
    kelvara_test::LoadedModuleForTests();
    BvhLayout layout;
    BvhToSkeleton(kelvara_test::ReadBvhText("HIERARCHY ROOT Hips { OFFSET 0.5 90.25 -3 JOINT Spine { OFFSET 0 1 0 } }\n"
                                            "MOTION\nFrames: 0\nFrame Time: 1\n"),
                  _skeleton, layout);
    std::string error;
    ASSERT_TRUE(BuildCharacter(_skeleton, "source", _character, error)) << error;
    _saved = Save(_character.definition);
  }

  Skeleton _skeleton; // the character points to it
  Character _character;
  json _saved;
};

TEST_F(ObjectJsonTest, MembersAreSavedByTheirDescriptionsAndReadBackAsNewObjects)
{
  EXPECT_EQ(_saved["class"], "net.telvo.animation.class.characterdefinition");
  const json& members = _saved["members"];
  const json& hips = members["SkeletonRoot"];
  EXPECT_EQ(hips["members"]["_objectID"], std::string(_character.uuids[0].ToString().View()));
  EXPECT_EQ(hips["members"]["_objectName"], "Hips");
  EXPECT_EQ(hips["members"]["IsTransformNode"], true);
  EXPECT_EQ(hips["children"][0]["members"]["_objectName"], "Spine");
  EXPECT_EQ(members["SkeletonRestPose"]["members"]["NodeTransform"][0]["members"]["_globalMat"],
            json::array({0.5, 90.25, -3, 1, 0, 0, 0, 1, 0, 0, 0, 1}));
  EXPECT_EQ(members["ControllersRestPose"], nullptr);

  telvo::ObjectRef loaded;
  std::string error;
  ASSERT_TRUE(ObjectFromJson(_saved, loaded, error)) << error;
  telvo::CharacterDefinition copy(telvo::QueryInterface<telvo::CharacterDefinitionInterface>(loaded.GetPointer()));
  ASSERT_TRUE(copy);
  EXPECT_EQ(Save(copy), _saved);
  EXPECT_FALSE(copy->GetSkeletonTree().IsSameObject(_character.definition->GetSkeletonTree()));
  const telvo::InternedId chest = kelvara_test::Id(GetBodyPartInfo(kChest).identifier);
  EXPECT_TRUE(copy->GetBodyPartTree()->FindBodyPartByID(chest).GetValue());
}

TEST_F(ObjectJsonTest, MalformedValuesAreRejectedWithTheirPath)
{
  // JSON path, new value, message after the path.
  const std::tuple<const char*, json, const char*> cases[] = {
    {"/members/SkeletonRoot/children/0/members/_objectID", "not-a-uuid",
     "expected a Uuid text (8-4-4-4-12 hex digits), found \"not-a-uuid\""},
    {"/members/SkeletonRestPose/members/NodeTransform/0/members/_globalMat", json::array({1, 2}),
     "expected 12 numbers (offset, v1, v2, v3), found [1,2]"},
    {"/members/BodyPartRoot/class", "net.telvo.animation.class.nothing",
     "expected the id of a class the module registers, found \"net.telvo.animation.class.nothing\""},
    // A tree node where a body part belongs.
    {"/members/BodyPartRoot", _saved["members"]["SkeletonRoot"],
     "expected an object implementing telvo.CharacterBodyPartInterface, found "
     "\"net.telvo.animation.class.charactertree\""},
  };
  const auto refusal = [](const json& in) {
    telvo::ObjectRef object;
    std::string error;
    EXPECT_FALSE(ObjectFromJson(in, object, error));
    EXPECT_FALSE(object);
    return error;
  };
  for (const auto& [path, value, message] : cases)
  {
    json spoilt = _saved;
    spoilt[json::json_pointer(path)] = value;
    EXPECT_EQ(refusal(spoilt), std::string(path) + ": " + message);
  }
  json missing = _saved;
  missing["members"].erase("SkeletonRoot");
  EXPECT_EQ(refusal(missing), "/members/SkeletonRoot: expected the member SkeletonRoot, found null");
}

} // namespace
} // namespace kelvara
