#include <gtest/gtest.h>

#include "support/loaded_module.h"
#include "support/oom_sweep.h"
#include "support/poses.h"
#include "support/recording_describer.h"
#include "support/values.h"
#include "telvo/characterdefinition.h"

using namespace telvo;
using kelvara_test::Id;
using kelvara_test::MakeString;
using kelvara_test::TextOf;
using kelvara_test::Value;

namespace
{

constexpr const char* kClassId = "net.telvo.animation.class.characterdefinition";
constexpr const char* kText = "Object ID : de000000-0000-0000-0000-000000000001\nObject Name : Actor\n";

Uuid NthUuid(int n)
{
  return kelvara_test::TaggedUuid(n, 0xde);
}

class CharacterDefinitionTest : public ::testing::Test
{
protected:
  CharacterDefinitionTest()
  {
    CharacterTreeRef joint = Value(CharacterTreeInterface::CreateTree(NthUuid(0x101), MakeString("Joint"), true));
    EXPECT_TRUE(_skeleton->InsertChildLast(joint).IsOk());
    CharacterBodyPartRef part = Value(CharacterBodyPartInterface::CreateBodyPart(Id("Part1"), String()));
    EXPECT_TRUE(_bodyParts->InsertChildLast(part).IsOk());
  }

  static CharacterDefinition Make() { return Value(CreateObject<CharacterDefinition>(kClassId)); }

  // Named "Actor", with every member below.
  CharacterDefinition MakeFull()
  {
    CharacterDefinition d = Make();
    CharacterDefinitionInterface* w = Value(d.MakeWritable());
    EXPECT_TRUE(w->SetUuid(NthUuid(1)).IsOk());
    EXPECT_TRUE(w->SetName(MakeString("Actor")).IsOk());
    EXPECT_TRUE(w->SetSkeletonTree(_skeleton).IsOk());
    EXPECT_TRUE(w->SetBodyPartTree(_bodyParts).IsOk());
    EXPECT_TRUE(w->SetSkeletonRestPose(_skeletonPose).IsOk());
    EXPECT_TRUE(w->SetControllers(_controllers).IsOk());
    EXPECT_TRUE(w->SetControllersRestPose(_controllersPose).IsOk());
    return d;
  }

  // The members are made with the module's classes: load it first.
  const bool _loaded = (kelvara_test::LoadedModuleForTests(), true);
  CharacterTreeRef _skeleton = Value(CharacterTreeInterface::CreateTree(NthUuid(0x100), MakeString("Hips"), true));
  CharacterBodyPartRef _bodyParts = Value(CharacterBodyPartInterface::CreateBodyPart(Id("Body"), String()));
  CharacterPose _skeletonPose = kelvara_test::MakePose({});
  CharacterPose _controllersPose = kelvara_test::MakePose({});
  BaseArray<Uuid> _controllers = kelvara_test::ArrayOf({NthUuid(0x200), NthUuid(0x201)});
};

TEST_F(CharacterDefinitionTest, CopyClonesTheRootsAndSharesThePosesAndControllerHandles)
{
  CharacterDefinition original = MakeFull();
  CharacterDefinition copy = original;
  ASSERT_TRUE(copy.MakeWritable().IsOk());
  ASSERT_FALSE(copy.IsSameObject(original));
  // The text is the node info's, with the format reaching the id.
  EXPECT_EQ(TextOf(QueryInterface<CharacterNodeInfoInterface>(copy.GetPointer())), kText);
  FormatStatement upper;
  upper.upperCaseHex = true;
  EXPECT_EQ(TextOf(copy, &upper), "Object ID : DE000000-0000-0000-0000-000000000001\nObject Name : Actor\n");

  // The roots: new objects of the same class, each with its whole subtree.
  const CharacterTreeRef& tree = copy->GetSkeletonTree();
  ASSERT_TRUE(tree && !(tree == _skeleton));
  EXPECT_EQ(tree->GetClass(), _skeleton->GetClass());
  EXPECT_EQ(tree->GetReferenceCount(), 1);
  ASSERT_EQ(tree->GetChildren().GetCount(), 1);
  EXPECT_FALSE(tree->GetChildren()[0] == _skeleton->GetChildren()[0]);
  CharacterBodyPartRef part = Value(copy->GetBodyPartTree()->FindBodyPartByID(Id("Part1")));
  ASSERT_TRUE(part);
  EXPECT_FALSE(part == Value(_bodyParts->FindBodyPartByID(Id("Part1"))));

  // The rest poses are the same objects; the controllers a new array of the same handles, which
  // the caller's later changes do not reach.
  ASSERT_TRUE(_controllers.Append(NthUuid(0x202)).IsOk());
  EXPECT_TRUE(copy->GetSkeletonRestPose().IsSameObject(_skeletonPose));
  EXPECT_TRUE(copy->GetControllersRestPose().IsSameObject(_controllersPose));
  ASSERT_EQ(copy->GetControllers().GetCount(), 2);
  EXPECT_TRUE(copy->GetControllers()[1].IsSameObject(_controllers[1]));
}

// The class's copy operation keeps a root the source lacks, and overwrites poses and controllers.
TEST_F(CharacterDefinitionTest, CopyOverANullRootKeepsTheTargetsRoot)
{
  CharacterDefinition target = MakeFull();
  CharacterDefinition source = Make();
  ASSERT_TRUE(Value(source.MakeWritable())->SetUuid(NthUuid(2)).IsOk());
  void* targetInstance = target->FindComponent("CharacterDefinitionImpl");
  ASSERT_NE(targetInstance, nullptr);
  const void* sourceInstance = source->FindComponent("CharacterDefinitionImpl");
  ASSERT_TRUE(target->GetClass()->operations.copy(targetInstance, sourceInstance).IsOk());

  EXPECT_TRUE(target->GetSkeletonTree() == _skeleton);
  EXPECT_TRUE(target->GetBodyPartTree() == _bodyParts);
  EXPECT_FALSE(target->GetSkeletonRestPose() || target->GetControllersRestPose());
  EXPECT_EQ(target->GetControllers().GetCount(), 0);
  EXPECT_TRUE(target->GetUuid().IsSameObject(source->GetUuid()));
}

TEST_F(CharacterDefinitionTest, DescribesItsOwnMembersAfterTheNodeInfo)
{
  const std::vector<kelvara_test::DeclaredMember> members{{"_objectID", "Uuid", 0, true},
                                                          {"_objectName", "String", 0, true},
                                                          {"SkeletonRoot", "telvo::CharacterTreeRef", 0, true},
                                                          {"BodyPartRoot", "telvo::CharacterBodyPartRef", 0, true},
                                                          {"SkeletonRestPose", "telvo::CharacterPose", 0, true},
                                                          {"Controllers", "Uuid", DESCRIBEFLAGS_ARRAY, true},
                                                          {"ControllersRestPose", "telvo::CharacterPose", 0, true}};
  kelvara_test::RecordingDescriber whole;
  ASSERT_TRUE(DescribeClass(*Make()->GetClass(), whole).IsOk());
  EXPECT_EQ(whole.members, members);
  kelvara_test::ExpectDescribes(CharacterDefinitionInterface::DescribeIO, {members.begin() + 2, members.end()});
}

TEST_F(CharacterDefinitionTest, OutOfMemoryLeavesTheDefinitionUnchanged)
{
  EXPECT_GT(kelvara_test::SweepCreation([] { return CreateObject<CharacterDefinition>(kClassId); }), 0);
  // A change of a shared definition copies it first, cloning both roots with their subtrees.
  const BaseArray<Uuid> many = kelvara_test::ArrayOf({NthUuid(0x300), NthUuid(0x301), NthUuid(0x302)});
  EXPECT_GT(kelvara_test::SweepSharedChange(
              [&] { return MakeFull(); }, [&](auto* w) { return w->SetControllers(many); },
              [](const CharacterDefinition& d) { return TextOf(d) + std::to_string(d->GetControllers().GetCount()); }),
            5);
  CharacterDefinition d = MakeFull();
  EXPECT_GT(kelvara_test::SweepTextPieces([&] { return d->ToString(); }, kelvara_test::Lines(kText)), 0);
}

} // namespace
