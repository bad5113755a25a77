#include <gtest/gtest.h>

#include <optional>

#include "object_json.h"
#include "support/loaded_module.h"
#include "support/values.h"
#include "telvo/characterdefinition.h"

using namespace telvo;
using kelvara_test::MakeString;
using kelvara_test::Value;
using nlohmann::json;

namespace
{

Uuid Tagged(int n)
{
  return kelvara_test::TaggedUuid(n, 0x42);
}

// Three joints (one a plain group), two body parts, a rest pose with an empty slot and a
// controller list; no controllers' rest pose.
CharacterDefinition MakeCharacter()
{
  CharacterTreeRef hips = Value(CharacterTreeInterface::CreateTree(Tagged(1), MakeString("Hips"), true));
  for (auto [n, name, transform] : {std::tuple(2, "Spine", true), std::tuple(3, "Props", false)})
    EXPECT_TRUE(hips->InsertChildLast(Value(CharacterTreeInterface::CreateTree(Tagged(n), MakeString(name), transform)))
                  .IsOk());
  CharacterBodyPartRef body =
    Value(CharacterBodyPartInterface::CreateBodyPart(kelvara_test::Id("body"), MakeString("Body")));
  CharacterBodyPartRef torso =
    Value(CharacterBodyPartInterface::CreateBodyPart(kelvara_test::Id("torso"), MakeString("Torso")));
  EXPECT_TRUE(torso->SetSkeletonKeywords(kelvara_test::Strings({"spine&&1"})).IsOk());
  EXPECT_TRUE(torso->SetSkeleton(kelvara_test::ArrayOf({Tagged(2)})).IsOk());
  EXPECT_TRUE(body->InsertChildLast(torso).IsOk());

  const Matrix moved{{0.5, 90.25, -3}, {0, 1, 0}, {-1, 0, 0}, {0, 0, 1}};
  CharacterPose pose = Value(CreateObject<CharacterPose>("net.telvo.animation.class.characterpose"));
  const CharacterNodeTransform hipsAt =
    Value(CharacterNodeTransformInterface::CreateNodeTransform(Tagged(1), moved, Matrix{}));
  EXPECT_TRUE(pose.MakeWritable().GetValue()->SetNodeTransformArray(kelvara_test::ArrayOf({hipsAt, {}})).IsOk());

  CharacterDefinition definition =
    Value(CreateObject<CharacterDefinition>("net.telvo.animation.class.characterdefinition"));
  CharacterDefinitionInterface* writable = definition.MakeWritable().GetValue();
  EXPECT_TRUE(writable->SetUuid(Tagged(9)).IsOk());
  EXPECT_TRUE(writable->SetName(MakeString("walker")).IsOk());
  EXPECT_TRUE(writable->SetSkeletonTree(hips).IsOk());
  EXPECT_TRUE(writable->SetBodyPartTree(body).IsOk());
  EXPECT_TRUE(writable->SetSkeletonRestPose(pose).IsOk());
  EXPECT_TRUE(writable->SetControllers(kelvara_test::ArrayOf({Tagged(2)})).IsOk());
  return definition;
}

json Save(const CharacterDefinition& definition)
{
  json out;
  std::string error;
  EXPECT_TRUE(kelvara::ObjectToJson(*definition.GetPointer(), out, error)) << error;
  return out;
}

TEST(ObjectJson, MembersAreSavedByTheirDescriptionsAndReadBackAsNewObjects)
{
  kelvara_test::LoadedModuleForTests();
  const CharacterDefinition original = MakeCharacter();
  const json saved = Save(original);
  EXPECT_EQ(saved["class"], "net.telvo.animation.class.characterdefinition");
  // Node info's members sit beside the definition's, under plain keys.
  const json& members = saved["members"];
  EXPECT_EQ(members["_objectName"], "walker");
  EXPECT_EQ(members["_objectID"], "42000000-0000-0000-0000-000000000009");
  EXPECT_EQ(members["SkeletonRoot"]["members"]["IsTransformNode"], true);
  EXPECT_EQ(members["SkeletonRoot"]["children"][1]["members"]["_objectName"], "Props");
  EXPECT_EQ(members["BodyPartRoot"]["children"][0]["members"]["_skeletonKeywords"], json::array({"spine&&1"}));
  const json& transforms = members["SkeletonRestPose"]["members"]["NodeTransform"];
  EXPECT_EQ(transforms[1], nullptr);
  EXPECT_EQ(transforms[0]["members"]["_globalMat"], json::array({0.5, 90.25, -3, 0, 1, 0, -1, 0, 0, 0, 0, 1}));
  EXPECT_EQ(members["ControllersRestPose"], nullptr);

  ObjectRef loaded;
  std::string error;
  ASSERT_TRUE(kelvara::ObjectFromJson(saved, loaded, error)) << error;
  CharacterDefinition copy(QueryInterface<CharacterDefinitionInterface>(loaded.GetPointer()));
  ASSERT_TRUE(copy);
  EXPECT_EQ(Save(copy), saved);
  EXPECT_FALSE(copy->GetSkeletonTree().IsSameObject(original->GetSkeletonTree()));
  EXPECT_EQ(copy->GetSkeletonRestPose()->ToString().View(), original->GetSkeletonRestPose()->ToString().View());
  EXPECT_EQ(copy->GetSkeletonTree()->GetHiearchyCount(false).GetValue(), 3);
  EXPECT_TRUE(copy->GetBodyPartTree()->FindBodyPartByID(kelvara_test::Id("torso")).GetValue());
}

TEST(ObjectJson, MalformedValuesAreRejectedWithTheirPath)
{
  kelvara_test::LoadedModuleForTests();
  const json saved = Save(MakeCharacter());
  // JSON path, new value (none: removed), message after the path.
  const std::tuple<const char*, std::optional<json>, const char*> cases[] = {
    {"/members/SkeletonRoot/children/0/members/_objectID", "not-a-uuid",
     "expected a Uuid text (8-4-4-4-12 hex digits), found \"not-a-uuid\""},
    {"/members/Controllers", std::nullopt, "expected the member Controllers, found null"},
    {"/members/SkeletonRestPose/members/NodeTransform/0/members/_globalMat", json::array({1, 2}),
     "expected 12 numbers (offset, v1, v2, v3), found [1,2]"},
    {"/members/BodyPartRoot/class", "net.telvo.animation.class.nothing",
     "expected the id of a class the module registers, found \"net.telvo.animation.class.nothing\""},
    // A tree node where a body part belongs.
    {"/members/BodyPartRoot", saved["members"]["SkeletonRoot"],
     "expected an object implementing telvo.CharacterBodyPartInterface, found "
     "\"net.telvo.animation.class.charactertree\""},
  };
  for (const auto& [path, value, message] : cases)
  {
    SCOPED_TRACE(path);
    json spoilt = saved;
    const json::json_pointer pointer(path);
    if (value)
      spoilt[pointer] = *value;
    else
      spoilt[pointer.parent_pointer()].erase(pointer.back());
    ObjectRef object;
    std::string error;
    EXPECT_FALSE(kelvara::ObjectFromJson(spoilt, object, error));
    EXPECT_FALSE(object);
    EXPECT_EQ(error, std::string(path) + ": " + message);
  }
}

} // namespace
