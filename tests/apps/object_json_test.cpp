#include <gtest/gtest.h>

#include "object_json.h"
#include "support/loaded_module.h"
#include "telvo/characterdefinition.h"

using namespace telvo;
using nlohmann::json;

namespace
{

template <typename T>
T Value(Result<T> result)
{
  EXPECT_TRUE(result.IsOk()) << (result.IsError() ? result.GetError().GetMessage() : "");
  return std::move(result).GetValue();
}

Uuid MakeUuid(int n)
{
  Uuid::Bytes bytes{};
  bytes[15] = static_cast<Byte>(n);
  bytes[0] = 0x42;
  return Value(Uuid::Create(bytes));
}

String Text(const char* s)
{
  return Value(String::Create(s));
}

class ObjectJsonTest : public ::testing::Test
{
protected:
  void SetUp() override { kelvara_test::LoadedModuleForTests(); }

  // A small character: three joints, two body parts, a rest pose and a controller.
  static CharacterDefinition MakeCharacter()
  {
    CharacterTreeRef hips = Value(CharacterTreeInterface::CreateTree(MakeUuid(1), Text("Hips"), true));
    CharacterTreeRef spine = Value(CharacterTreeInterface::CreateTree(MakeUuid(2), Text("Spine"), true));
    CharacterTreeRef group = Value(CharacterTreeInterface::CreateTree(MakeUuid(3), Text("Props"), false));
    EXPECT_TRUE(hips->InsertChildLast(spine).IsOk());
    EXPECT_TRUE(hips->InsertChildLast(group).IsOk());

    CharacterBodyPartRef body = Value(CharacterBodyPartInterface::CreateBodyPart(Value(InternedId::Intern("body")), Text("Body")));
    CharacterBodyPartRef torso = Value(CharacterBodyPartInterface::CreateBodyPart(Value(InternedId::Intern("torso")), Text("Torso")));
    BaseArray<String> keywords;
    EXPECT_TRUE(keywords.Append(Text("spine&&1")).IsOk());
    EXPECT_TRUE(torso->SetSkeletonKeywords(keywords).IsOk());
    BaseArray<Uuid> skeleton;
    EXPECT_TRUE(skeleton.Append(MakeUuid(2)).IsOk());
    EXPECT_TRUE(torso->SetSkeleton(skeleton).IsOk());
    EXPECT_TRUE(body->InsertChildLast(torso).IsOk());

    Matrix moved;
    moved.off = {0.5, 90.25, -3};
    moved.v1 = {0, 1, 0};
    moved.v2 = {-1, 0, 0};
    BaseArray<CharacterNodeTransform> transforms;
    EXPECT_TRUE(transforms.Append(Value(CharacterNodeTransformInterface::CreateNodeTransform(MakeUuid(1), moved, Matrix{}))).IsOk());
    EXPECT_TRUE(transforms.Append(CharacterNodeTransform()).IsOk());
    CharacterPose pose = Value(CreateObject<CharacterPose>("net.telvo.animation.class.characterpose"));
    EXPECT_TRUE(pose.MakeWritable().GetValue()->SetNodeTransformArray(transforms).IsOk());

    CharacterDefinition definition = Value(CreateObject<CharacterDefinition>("net.telvo.animation.class.characterdefinition"));
    CharacterDefinitionInterface* writable = definition.MakeWritable().GetValue();
    EXPECT_TRUE(writable->SetUuid(MakeUuid(9)).IsOk());
    EXPECT_TRUE(writable->SetName(Text("walker")).IsOk());
    EXPECT_TRUE(writable->SetSkeletonTree(hips).IsOk());
    EXPECT_TRUE(writable->SetBodyPartTree(body).IsOk());
    EXPECT_TRUE(writable->SetSkeletonRestPose(pose).IsOk());
    EXPECT_TRUE(writable->SetControllers(skeleton).IsOk());
    return definition;
  }

  static json Save(const CharacterDefinition& definition)
  {
    json out;
    std::string error;
    EXPECT_TRUE(kelvara::ObjectToJson(*definition.GetPointer(), out, error)) << error;
    return out;
  }

  static std::string LoadError(const json& in)
  {
    ObjectRef object;
    std::string error;
    EXPECT_FALSE(kelvara::ObjectFromJson(in, object, error));
    EXPECT_FALSE(object);
    return error;
  }
};

TEST_F(ObjectJsonTest, KeysAndValuesComeFromTheMemberDescriptions)
{
  const json saved = Save(MakeCharacter());
  EXPECT_EQ(saved["class"], "net.telvo.animation.class.characterdefinition");
  const json& members = saved["members"];
  // Node info's members first (its component comes first), then the definition's, plain keys.
  EXPECT_EQ(members["_objectName"], "walker");
  EXPECT_EQ(members["_objectID"], "42000000-0000-0000-0000-000000000009");
  EXPECT_EQ(members["SkeletonRoot"]["members"]["IsTransformNode"], true);
  EXPECT_EQ(members["SkeletonRoot"]["children"][1]["members"]["_objectName"], "Props");
  EXPECT_EQ(members["BodyPartRoot"]["children"][0]["members"]["_skeletonKeywords"], json::array({"spine&&1"}));
  EXPECT_EQ(members["SkeletonRestPose"]["members"]["NodeTransform"][1], nullptr);
  EXPECT_EQ(members["SkeletonRestPose"]["members"]["NodeTransform"][0]["members"]["_globalMat"],
            json::array({0.5, 90.25, -3, 0, 1, 0, -1, 0, 0, 0, 0, 1}));
  EXPECT_EQ(members["ControllersRestPose"], nullptr);
}

TEST_F(ObjectJsonTest, ReadingBackGivesTheSameObjects)
{
  const CharacterDefinition original = MakeCharacter();
  const json saved = Save(original);
  ObjectRef loaded;
  std::string error;
  ASSERT_TRUE(kelvara::ObjectFromJson(saved, loaded, error)) << error;
  CharacterDefinition copy(QueryInterface<CharacterDefinitionInterface>(loaded.GetPointer()));
  ASSERT_TRUE(copy);
  EXPECT_EQ(Save(copy), saved);
  // New objects, equal texts.
  EXPECT_FALSE(copy->GetSkeletonTree().IsSameObject(original->GetSkeletonTree()));
  EXPECT_EQ(copy->GetSkeletonRestPose()->ToString().View(), original->GetSkeletonRestPose()->ToString().View());
  EXPECT_EQ(copy->GetBodyPartTree()->ToString().View(), original->GetBodyPartTree()->ToString().View());
  EXPECT_EQ(copy->GetSkeletonTree()->GetHiearchyCount(false).GetValue(), 3);
  EXPECT_TRUE(copy->GetBodyPartTree()->FindBodyPartByID(Value(InternedId::Intern("torso"))).GetValue());
}

TEST_F(ObjectJsonTest, MalformedFilesAreRejectedWithThePathOfTheValue)
{
  const json saved = Save(MakeCharacter());

  json badUuid = saved;
  badUuid["members"]["SkeletonRoot"]["children"][0]["members"]["_objectID"] = "not-a-uuid";
  EXPECT_EQ(LoadError(badUuid),
            "/members/SkeletonRoot/children/0/members/_objectID: expected a Uuid text (8-4-4-4-12 hex digits), found \"not-a-uuid\"");

  json missing = saved;
  missing["members"].erase("Controllers");
  EXPECT_EQ(LoadError(missing), "/members/Controllers: expected the member Controllers, found null");

  json badMatrix = saved;
  badMatrix["members"]["SkeletonRestPose"]["members"]["NodeTransform"][0]["members"]["_globalMat"] = json::array({1, 2});
  EXPECT_EQ(LoadError(badMatrix), "/members/SkeletonRestPose/members/NodeTransform/0/members/_globalMat: expected 12 "
                                  "numbers (offset, v1, v2, v3), found [1,2]");

  json unknownClass = saved;
  unknownClass["members"]["BodyPartRoot"]["class"] = "net.telvo.animation.class.nothing";
  EXPECT_EQ(LoadError(unknownClass), "/members/BodyPartRoot/class: expected the id of a class the module registers, "
                                     "found \"net.telvo.animation.class.nothing\"");

  // A tree node where a body part belongs.
  json wrongClass = saved;
  wrongClass["members"]["BodyPartRoot"] = saved["members"]["SkeletonRoot"];
  EXPECT_EQ(LoadError(wrongClass),
            "/members/BodyPartRoot: expected an object implementing telvo.CharacterBodyPartInterface, found "
            "\"net.telvo.animation.class.charactertree\"");
}

} // namespace
