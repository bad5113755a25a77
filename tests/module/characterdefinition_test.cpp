#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "support/loaded_module.h"
#include "support/oom_sweep.h"
#include "support/recording_describer.h"
#include "telvo/characterdefinition.h"
#include "telvo/dataserialize.h"

using namespace telvo;

namespace
{

constexpr const char* kClassId = "net.telvo.animation.class.characterdefinition";
constexpr const char* kPoseClassId = "net.telvo.animation.class.characterpose";

Uuid MakeUuid(unsigned n)
{
  char text[40];
  std::snprintf(text, sizeof(text), "de000000-0000-4000-8000-%012x", n);
  return Uuid::FromString(text).GetValue();
}

String Str(const std::string& text)
{
  return String::Create(text).GetValue();
}

// A skeleton: a root with `chains` chains of `depth` nodes each below it.
CharacterTreeRef MakeSkeleton(unsigned chains, unsigned depth)
{
  CharacterTreeRef root = CharacterTreeInterface::CreateTree(MakeUuid(0x1000), Str("Hips"), true).GetValue();
  for (unsigned c = 0; c < chains; ++c)
  {
    CharacterTreeRef parent = root;
    for (unsigned d = 0; d < depth; ++d)
    {
      CharacterTreeRef node =
        CharacterTreeInterface::CreateTree(MakeUuid(0x1100 + c * 16 + d), Str("Joint" + std::to_string(c * 16 + d)), true)
          .GetValue();
      EXPECT_TRUE(parent->InsertChildLast(ObjectRef(node)).IsOk());
      parent = node;
    }
  }
  return root;
}

CharacterBodyPartRef MakeBodyParts(unsigned count)
{
  CharacterBodyPartRef root =
    CharacterBodyPartInterface::CreateBodyPart(InternedId::Intern("Body").GetValue(), Str("Body")).GetValue();
  for (unsigned n = 1; n < count; ++n)
  {
    const std::string name = "Part" + std::to_string(n);
    CharacterBodyPartRef part =
      CharacterBodyPartInterface::CreateBodyPart(InternedId::Intern(name).GetValue(), Str(name)).GetValue();
    EXPECT_TRUE(root->InsertChildLast(ObjectRef(part)).IsOk());
  }
  return root;
}

class CharacterDefinitionTest : public ::testing::Test
{
protected:

  static CharacterDefinition Make() { return CreateObject<CharacterDefinition>(kClassId).GetValue(); }
  static CharacterDefinitionInterface* W(CharacterDefinition& d) { return d.MakeWritable().GetValue(); }
  static CharacterPose MakePose() { return CreateObject<CharacterPose>(kPoseClassId).GetValue(); }
  static std::string Text(const CharacterDefinition& d) { return std::string(d->ToString().View()); }

  // A definition with everything set; the parts stay reachable through the fixture.
  CharacterDefinition MakeFull()
  {
    CharacterDefinition d = Make();
    CharacterDefinitionInterface* w = W(d);
    EXPECT_TRUE(w->SetUuid(_uuid).IsOk());
    EXPECT_TRUE(w->SetName(_name).IsOk());
    EXPECT_TRUE(w->SetSkeletonTree(_skeleton).IsOk());
    EXPECT_TRUE(w->SetBodyPartTree(_bodyParts).IsOk());
    EXPECT_TRUE(w->SetSkeletonRestPose(_skeletonPose).IsOk());
    EXPECT_TRUE(w->SetControllers(_controllers).IsOk());
    EXPECT_TRUE(w->SetControllersRestPose(_controllersPose).IsOk());
    return d;
  }

  // The members below are made with the module's classes: load it before anything else.
  const bool _loaded = (kelvara_test::LoadedModuleForTests(), true);
  const Uuid _uuid = MakeUuid(1);
  const String _name = Str("Actor");
  CharacterTreeRef _skeleton = MakeSkeleton(2, 2);
  CharacterBodyPartRef _bodyParts = MakeBodyParts(3);
  CharacterPose _skeletonPose = MakePose();
  CharacterPose _controllersPose = MakePose();
  BaseArray<Uuid> _controllers = [] {
    BaseArray<Uuid> a;
    EXPECT_TRUE(a.Append(MakeUuid(0x2000)).IsOk());
    EXPECT_TRUE(a.Append(MakeUuid(0x2001)).IsOk());
    return a;
  }();
};

TEST_F(CharacterDefinitionTest, NewDefinitionHoldsNothing)
{
  CharacterDefinition d = Make();
  EXPECT_FALSE(d->GetSkeletonTree());
  EXPECT_FALSE(d->GetBodyPartTree());
  EXPECT_FALSE(d->GetSkeletonRestPose());
  EXPECT_FALSE(d->GetControllersRestPose());
  EXPECT_EQ(d->GetControllers().GetCount(), 0);
  EXPECT_EQ(Text(d), "Object ID : 00000000-0000-0000-0000-000000000000\nObject Name : \n");
}

TEST_F(CharacterDefinitionTest, HandlesAreSharedAndControllersCopied)
{
  CharacterDefinition d = MakeFull();
  EXPECT_TRUE(d->GetSkeletonTree() == _skeleton);
  EXPECT_TRUE(d->GetBodyPartTree() == _bodyParts);
  EXPECT_TRUE(d->GetSkeletonRestPose().IsSameObject(_skeletonPose));
  EXPECT_TRUE(d->GetControllersRestPose().IsSameObject(_controllersPose));
  ASSERT_TRUE(_skeleton->SetName(Str("Pelvis")).IsOk());
  EXPECT_EQ(d->GetSkeletonTree()->GetName().View(), "Pelvis");

  // Setting the stored tree again changes no count.
  const Int treeReferences = _skeleton->GetReferenceCount();
  ASSERT_TRUE(W(d)->SetSkeletonTree(d->GetSkeletonTree()).IsOk());
  EXPECT_EQ(_skeleton->GetReferenceCount(), treeReferences);

  // The stored controllers are a copy: later changes of the caller's array do not reach them.
  ASSERT_TRUE(_controllers.Append(MakeUuid(0x2002)).IsOk());
  ASSERT_EQ(d->GetControllers().GetCount(), 2);
  EXPECT_TRUE(d->GetControllers()[1].IsSameObject(_controllers[1]));

  // Handing the definition its own array back does nothing, and allocates nothing.
  const Uuid* storage = &d->GetControllers()[0];
  CharacterDefinitionInterface* w = W(d);
  const Int live = Allocator::GetLiveCount();
  ASSERT_TRUE(w->SetControllers(d->GetControllers()).IsOk());
  EXPECT_EQ(Allocator::GetLiveCount(), live);
  EXPECT_EQ(&d->GetControllers()[0], storage);
  EXPECT_EQ(d->GetControllers().GetCount(), 2);

  // Null handles are accepted as they are.
  ASSERT_TRUE(w->SetSkeletonTree(CharacterTreeRef()).IsOk());
  ASSERT_TRUE(w->SetSkeletonRestPose(CharacterPose()).IsOk());
  EXPECT_FALSE(d->GetSkeletonTree());
  EXPECT_FALSE(d->GetSkeletonRestPose());
  EXPECT_EQ(_skeleton->GetReferenceCount(), treeReferences - 1);
}

TEST_F(CharacterDefinitionTest, TextIsTheNodeInfoTextThroughEveryInterface)
{
  CharacterDefinition d = MakeFull();
  const std::string nodeInfo =
    std::string(CharacterNodeInfoInterface::CreateNodeInfo(_uuid, _name).GetValue()->ToString().View());
  EXPECT_EQ(nodeInfo, "Object ID : de000000-0000-4000-8000-000000000001\nObject Name : Actor\n");
  EXPECT_EQ(Text(d), nodeInfo);
  const ObjectInterface* object = d.GetPointer();
  EXPECT_EQ(std::string(object->ToString().View()), nodeInfo);
  EXPECT_EQ(std::string(QueryInterface<CharacterNodeInfoInterface>(object)->ToString().View()), nodeInfo);

  FormatStatement upper;
  upper.upperCaseHex = true;
  EXPECT_EQ(std::string(d->ToString(&upper).View()),
            "Object ID : DE000000-0000-4000-8000-000000000001\nObject Name : Actor\n");
}

TEST_F(CharacterDefinitionTest, CopyClonesTheRootsAndSharesThePoses)
{
  CharacterDefinition original = MakeFull();
  CharacterDefinition copy = original;
  const Int skeletonReferences = _skeleton->GetReferenceCount();
  const Int poseReferences = _skeletonPose.GetStrongRef()->GetReferenceCount();
  const Int controllerReferences = _controllers[0].GetReferenceCount();

  CharacterDefinitionInterface* writable = W(copy);
  ASSERT_FALSE(copy.IsSameObject(original));
  EXPECT_EQ(original.GetStrongRef()->GetReferenceCount(), 1);
  EXPECT_EQ(Text(copy), Text(original));

  // The skeleton: a new root of the same class with its whole subtree.
  const CharacterTreeRef& tree = copy->GetSkeletonTree();
  ASSERT_TRUE(tree);
  EXPECT_FALSE(tree == _skeleton);
  EXPECT_EQ(tree->GetClass(), _skeleton->GetClass());
  EXPECT_EQ(tree->GetReferenceCount(), 1);
  EXPECT_EQ(_skeleton->GetReferenceCount(), skeletonReferences);
  EXPECT_EQ(tree->GetHiearchyCount(false).GetValue(), 5);
  ASSERT_EQ(tree->GetChildren().GetCount(), 2);
  EXPECT_FALSE(tree->GetChildren()[0] == _skeleton->GetChildren()[0]);
  EXPECT_EQ(QueryInterface<CharacterTreeInterface>(tree->GetChildren()[0].GetPointer())->GetParent(),
            static_cast<const ObjectInterface*>(tree.GetPointer()));

  // The body parts: the same.
  const CharacterBodyPartRef& parts = copy->GetBodyPartTree();
  ASSERT_TRUE(parts);
  EXPECT_FALSE(parts == _bodyParts);
  EXPECT_EQ(parts->GetChildren().GetCount(), 2);
  CharacterBodyPartRef found = parts->FindBodyPartByID(InternedId::Intern("Part2").GetValue()).GetValue();
  ASSERT_TRUE(found);
  EXPECT_FALSE(found == _bodyParts->FindBodyPartByID(InternedId::Intern("Part2").GetValue()).GetValue());

  // The rest poses are the same objects; the controllers a new array of the same handles.
  EXPECT_TRUE(copy->GetSkeletonRestPose().IsSameObject(_skeletonPose));
  EXPECT_TRUE(copy->GetControllersRestPose().IsSameObject(_controllersPose));
  EXPECT_EQ(_skeletonPose.GetStrongRef()->GetReferenceCount(), poseReferences + 1);
  ASSERT_EQ(copy->GetControllers().GetCount(), 2);
  EXPECT_NE(&copy->GetControllers(), &original->GetControllers());
  EXPECT_TRUE(copy->GetControllers()[0].IsSameObject(_controllers[0]));
  EXPECT_EQ(_controllers[0].GetReferenceCount(), controllerReferences + 1);

  // Changing the copy's roots leaves the original's alone.
  ASSERT_TRUE(copy->GetSkeletonTree()->SetName(Str("CopyHips")).IsOk());
  EXPECT_EQ(_skeleton->GetName().View(), "Hips");
  ASSERT_TRUE(writable->SetName(Str("Copy")).IsOk());
  EXPECT_EQ(original->GetName().View(), "Actor");
}

// The class's copy operation: a null root in the source keeps the target's root, while poses and
// controllers are always overwritten.
TEST_F(CharacterDefinitionTest, CopyOverANullRootKeepsTheTargetsRoot)
{
  CharacterDefinition target = MakeFull();
  CharacterDefinition source = Make();
  ASSERT_TRUE(W(source)->SetUuid(MakeUuid(2)).IsOk());
  const ClassInfo* cls = target->GetClass();
  void* targetInstance = target->FindComponent("CharacterDefinitionImpl");
  const void* sourceInstance = source->FindComponent("CharacterDefinitionImpl");
  ASSERT_NE(targetInstance, nullptr);
  ASSERT_TRUE(cls->operations.copy(targetInstance, sourceInstance).IsOk());

  EXPECT_TRUE(target->GetSkeletonTree() == _skeleton);
  EXPECT_TRUE(target->GetBodyPartTree() == _bodyParts);
  EXPECT_FALSE(target->GetSkeletonRestPose());
  EXPECT_FALSE(target->GetControllersRestPose());
  EXPECT_EQ(target->GetControllers().GetCount(), 0);
  EXPECT_TRUE(target->GetUuid().IsSameObject(source->GetUuid()));
}

TEST_F(CharacterDefinitionTest, DescribesItsOwnMembersAfterTheNodeInfo)
{
  using kelvara_test::DeclaredMember;
  const ClassInfo* cls = Registry::Get().FindClass(kClassId);
  ASSERT_NE(cls, nullptr);
  EXPECT_STREQ(cls->baseClassId, "net.telvo.animation.class.characternodeinfo");
  kelvara_test::RecordingDescriber whole;
  ASSERT_TRUE(DescribeClass(*cls, whole).IsOk());
  const std::vector<DeclaredMember> members{{"_objectID", "Uuid", 0, true},
                                            {"_objectName", "String", 0, true},
                                            {"SkeletonRoot", "telvo::CharacterTreeRef", 0, true},
                                            {"BodyPartRoot", "telvo::CharacterBodyPartRef", 0, true},
                                            {"SkeletonRestPose", "telvo::CharacterPose", 0, true},
                                            {"Controllers", "Uuid", DESCRIBEFLAGS_ARRAY, true},
                                            {"ControllersRestPose", "telvo::CharacterPose", 0, true}};
  EXPECT_EQ(whole.members, members);
  kelvara_test::RecordingDescriber own;
  ASSERT_TRUE(CharacterDefinitionInterface::DescribeIO(own).IsOk());
  EXPECT_EQ(own.members, std::vector<DeclaredMember>(members.begin() + 2, members.end()));

  for (int failAt = 1; failAt <= 5; ++failAt)
  {
    kelvara_test::RecordingDescriber refusing(failAt);
    ASSERT_TRUE(CharacterDefinitionInterface::DescribeIO(refusing).IsError());
    EXPECT_EQ(refusing.calls, failAt);
  }
}

TEST_F(CharacterDefinitionTest, OutOfMemoryLeavesTheDefinitionUnchanged)
{
  auto describe = [](const CharacterDefinition& d) {
    if (!d)
      return std::string("null");
    char pointers[128];
    std::snprintf(pointers, sizeof(pointers), "%p %p %p %p %lld", static_cast<const void*>(d.GetPointer()),
                  static_cast<const void*>(d->GetSkeletonTree().GetPointer()),
                  static_cast<const void*>(d->GetBodyPartTree().GetPointer()),
                  static_cast<const void*>(d->GetSkeletonRestPose().GetPointer()),
                  static_cast<long long>(d->GetControllers().GetCount()));
    return Text(d) + pointers;
  };

  kelvara_test::SweepOutOfMemory(
    [] { return CharacterDefinition(); },
    [](CharacterDefinition& d) -> Result<void> {
      TELVO_TRY_ASSIGN(d, CreateObject<CharacterDefinition>(kClassId));
      return OK();
    },
    describe);

  // A change of a shared definition copies it first: roots cloned with their subtrees.
  auto shared = [&] {
    CharacterDefinition d = MakeFull();
    return std::pair{d, d};
  };
  auto both = [&](const auto& s) { return describe(s.first) + "|" + describe(s.second); };
  EXPECT_GT(kelvara_test::SweepOutOfMemory(
              shared,
              [](auto& s) -> Result<void> {
                TELVO_TRY_ASSIGN(CharacterDefinitionInterface * w, s.first.MakeWritable());
                return w->SetName(String());
              },
              both),
            10);

  // The controllers copy of an unshared definition.
  BaseArray<Uuid> many;
  for (unsigned n = 0; n < 40; ++n)
    ASSERT_TRUE(many.Append(MakeUuid(0x3000 + n)).IsOk());
  kelvara_test::SweepOutOfMemory(
    [&] { return MakeFull(); },
    [&](CharacterDefinition& d) -> Result<void> {
      TELVO_TRY_ASSIGN(CharacterDefinitionInterface * w, d.MakeWritable());
      return w->SetControllers(many);
    },
    describe);

  // ToString gives the whole text or nothing.
  CharacterDefinition d = MakeFull();
  const std::string full = Text(d);
  kelvara_test::SweepAllocationFailures(
    [] { return 0; }, [&](int&) { return d->ToString(); },
    [&](int&, const String& result, bool) {
      const std::string t(result.View());
      EXPECT_TRUE(t == full || t == "Object ID : de000000-0000-4000-8000-000000000001\n" ||
                  t == "Object Name : Actor\n" || t.empty())
        << t;
    });
}

} // namespace
