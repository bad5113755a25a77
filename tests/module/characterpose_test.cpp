#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/loaded_module.h"
#include "support/oom_sweep.h"
#include "support/poses.h"
#include "support/recording_describer.h"
#include "support/values.h"
#include "telvo/characterpose.h"

using namespace telvo;
using kelvara_test::MakePose;
using kelvara_test::MakeUuid;

namespace
{

constexpr const char* kClassId = "net.telvo.animation.class.characterpose";
constexpr const char* kIdA = "0123abcd-4567-89ef-0a1b-2c3d4e5f6a7b";
constexpr const char* kIdB = "ffffffff-0000-0000-0000-000000000001";

// A transform with global offset (x,0,0) and identities elsewhere.
CharacterNodeTransform Transform(const char* id, double x = 0)
{
  kelvara_test::LoadedModuleForTests();
  Matrix global;
  global.off = {x, 0, 0};
  return kelvara_test::MakeTransform(MakeUuid(id), global);
}

const void* Found(const CharacterPose& pose, const Uuid& uuid)
{
  return kelvara_test::Value(pose->GetNodeTransformByID(uuid)).GetPointer();
}

std::string Text(const CharacterPose& pose, const FormatStatement* fs = nullptr)
{
  return kelvara_test::Text(pose->ToString(fs));
}

// What Transform(id, x) prints.
std::string TransformText(std::string_view id, std::string_view offsetX)
{
  return "Object ID : " + std::string(id) + "\nObject Name : \nGlobal Matrix :\n((1,0,0),(0,1,0),(0,0,1),(" +
         std::string(offsetX) + ",0,0))\nParent Global Matrix :\n((1,0,0),(0,1,0),(0,0,1),(0,0,0))\n" +
         "Pre-Multiply Matrix :\n((1,0,0),(0,1,0),(0,0,1),(0,0,0))\n";
}

TEST(CharacterPoseText, ElementsJoinedByCommasWithNullSlotsAsNullptr)
{
  kelvara_test::LoadedModuleForTests();
  EXPECT_EQ(Text(MakePose({})), "Node Transform :\n{}");
  CharacterPose pose = MakePose({CharacterNodeTransform(), Transform(kIdA, 1), Transform(kIdB, 2)});
  EXPECT_EQ(pose->GetNodeTransformCount(), 3) << "null slots count";
  EXPECT_EQ(Text(pose),
            "Node Transform :\n{nullptr," + TransformText(kIdA, "1") + "," + TransformText(kIdB, "2") + "}");
  EXPECT_EQ(kelvara_test::Text(static_cast<const ObjectInterface*>(pose.GetPointer())->ToString()), Text(pose));
  FormatStatement fs;
  fs.precision = 1;
  EXPECT_NE(Text(pose, &fs).find("Global Matrix :\n((1.0,0.0,0.0),(0.0,1.0,0.0),(0.0,0.0,1.0),(1.0,0.0,0.0))\n"),
            std::string::npos);
}

TEST(CharacterPoseLookup, FirstMatchByValueWithoutAllocatingAndEmptyIdsMatchOnlyElementsWithoutOne)
{
  CharacterNodeTransform first = Transform(kIdA), second = Transform(kIdA), b = Transform(kIdB);
  CharacterNodeTransform noId =
    kelvara_test::Value(CreateObject<CharacterNodeTransform>("net.telvo.animation.class.characternodetransform"));
  const Uuid zero = MakeUuid("00000000-0000-0000-0000-000000000000");
  CharacterNodeTransform zeroId = kelvara_test::MakeTransform(zero, Matrix());
  const CharacterNodeTransform none;
  CharacterPose pose = MakePose({none, b, first, second});
  const Uuid a = MakeUuid(kIdA), missing = MakeUuid("aaaaaaaa-0000-0000-0000-000000000002");
  struct Case
  {
    CharacterPose pose;
    Uuid id;
    const void* expected;
  };
  // A null slot reads as the empty id: it answers the empty ids with a null and hides later elements without one.
  const std::vector<Case> cases{{pose, a, first.GetPointer()},
                                {pose, MakeUuid(kIdB), b.GetPointer()},
                                {pose, b->GetUuid(), b.GetPointer()},
                                {pose, missing, nullptr},
                                {MakePose({}), a, nullptr},
                                {MakePose({first, none, noId}), Uuid(), nullptr},
                                {MakePose({first, none, noId}), zero, nullptr},
                                {MakePose({none, first}), a, first.GetPointer()},
                                {MakePose({first, noId, zeroId}), Uuid(), noId.GetPointer()},
                                {MakePose({first, noId, zeroId}), zero, noId.GetPointer()},
                                {MakePose({zeroId, noId}), Uuid(), zeroId.GetPointer()},
                                {MakePose({noId, zeroId, none}), a, nullptr}};
  for (size_t i = 0; i < cases.size(); ++i)
  {
    SCOPED_TRACE(i);
    const Int live = Allocator::GetLiveCount();
    Allocator::FailNthAllocation(1);
    const void* found = Found(cases[i].pose, cases[i].id);
    EXPECT_FALSE(Allocator::FailureDelivered());
    Allocator::FailNthAllocation(0);
    EXPECT_EQ(found, cases[i].expected);
    EXPECT_EQ(Allocator::GetLiveCount(), live);
  }
  Result<CharacterNodeTransform> shared = pose->GetNodeTransformByID(MakeUuid(kIdB));
  EXPECT_EQ(b.GetPointer()->GetReferenceCount(), 3) << "the answer shares the element";
}

TEST(CharacterPoseArray, SetterCopiesTheArraySharesTheElementsAndCopiesOnWrite)
{
  CharacterNodeTransform a = Transform(kIdA, 1), b = Transform(kIdB, 2);
  BaseArray<CharacterNodeTransform> array = kelvara_test::ArrayOf({a, b});
  CharacterPose pose = MakePose({b});
  CharacterPoseInterface* w = pose.MakeWritable().GetValue();
  ASSERT_TRUE(w->SetNodeTransformArray(array).IsOk());
  ASSERT_NE(&pose->GetNodeTransformArray(), &array);
  EXPECT_EQ(b.GetPointer()->GetReferenceCount(), 3) << "the old element was released";
  ASSERT_TRUE(w->SetNodeTransformArray(pose->GetNodeTransformArray()).IsOk()) << "its own array back: a no-op";
  array = {};
  EXPECT_EQ(a.GetPointer()->GetReferenceCount(), 2);
  const std::string sourceText = Text(pose);
  EXPECT_EQ(sourceText, "Node Transform :\n{" + TransformText(kIdA, "1") + "," + TransformText(kIdB, "2") + "}");

  CharacterPose copy = pose;
  CharacterPoseInterface* cw = copy.MakeWritable().GetValue();
  ASSERT_FALSE(copy.IsSameObject(pose)) << "a shared pose is copied before it is changed";
  EXPECT_EQ(a.GetPointer()->GetReferenceCount(), 3) << "held here, by the pose and by the copy";
  CharacterNodeTransform element = copy->GetNodeTransformArray()[0];
  element.MakeWritable().GetValue()->SetGlobalMatrix(Matrix());
  EXPECT_EQ(Text(copy), sourceText);
  ASSERT_TRUE(cw->SetNodeTransformArray(kelvara_test::ArrayOf({element})).IsOk());
  EXPECT_EQ(Text(copy), "Node Transform :\n{" + TransformText(kIdA, "0") + "}");
  EXPECT_EQ(Text(pose), sourceText);

  ASSERT_TRUE(w->SetNodeTransformArray(BaseArray<CharacterNodeTransform>()).IsOk());
  EXPECT_EQ(Text(pose), "Node Transform :\n{}");
  EXPECT_EQ(a.GetPointer()->GetReferenceCount(), 1);
  EXPECT_EQ(b.GetPointer()->GetReferenceCount(), 1);
}

TEST(CharacterPoseClass, CreatedByClassIdOnlyDescribingOneArrayMember)
{
  kelvara_test::LoadedModuleForTests();
  const ImplementationInfo* implementation = Registry::Get().FindImplementation("CharacterPoseImpl");
  ASSERT_NE(implementation, nullptr);
  EXPECT_EQ(implementation->createEntry, nullptr) << "the pose has no factory";
  const Int live = Allocator::GetLiveCount();
  Registry::Get().SetClassHidden(kClassId, true);
  Result<CharacterPose> hidden = CreateObject<CharacterPose>(kClassId);
  Registry::Get().SetClassHidden(kClassId, false);
  EXPECT_TRUE(hidden.IsError() && hidden.GetError() == NullReturnError(0));
  EXPECT_EQ(Allocator::GetLiveCount(), live);

  CharacterPose pose = MakePose({});
  kelvara_test::RecordingDescriber all;
  ASSERT_TRUE(DescribeClass(*pose.GetPointer()->GetClass(), all).IsOk());
  EXPECT_EQ(all.members, (std::vector<kelvara_test::DeclaredMember>{
                           {"NodeTransform", "telvo::CharacterNodeTransform", DESCRIBEFLAGS_ARRAY, true}}));
  ASSERT_EQ(all.components, std::vector<std::string>{"CharacterPoseImpl"});
  EXPECT_EQ(all.accesses[0](pose.GetPointer()->FindComponent("CharacterPoseImpl")), &pose->GetNodeTransformArray());
}

TEST(CharacterPoseOutOfMemory, CreatingAndSettingLeaveThePoseAsItWasAndTextKeepsWholePieces)
{
  kelvara_test::LoadedModuleForTests();
  EXPECT_EQ(kelvara_test::SweepOutOfMemory([] { return 0; }, [](int&) { return CreateObject<CharacterPose>(kClassId); },
                                           [](const int&) { return std::string(); }),
            1);
  auto identities = [](const CharacterPose& pose) {
    std::string s;
    for (const CharacterNodeTransform& e : pose->GetNodeTransformArray())
      s += std::to_string(reinterpret_cast<std::uintptr_t>(e.GetPointer())) + ";";
    return s;
  };
  CharacterNodeTransform a = Transform(kIdA, 1), b = Transform(kIdB, 2);
  // The pose's own copy (instance, then its array); 17 elements outgrow a 16-slot array.
  for (auto [replacementCount, failingRuns] : {std::pair{1, 2}, std::pair{17, 3}})
  {
    SCOPED_TRACE(replacementCount);
    EXPECT_EQ(
      kelvara_test::SweepOutOfMemory(
        [&] {
          BaseArray<CharacterNodeTransform> replacement;
          for (int i = 0; i < replacementCount; ++i)
            EXPECT_TRUE(replacement.Append(a).IsOk());
          CharacterPose pose = MakePose({a, CharacterNodeTransform(), b});
          return std::tuple{pose, pose, std::move(replacement)};
        },
        [](auto& state) -> Result<void> {
          TELVO_TRY_ASSIGN(CharacterPoseInterface * w, std::get<0>(state).MakeWritable());
          return w->SetNodeTransformArray(std::get<2>(state));
        },
        [&](const auto& state) { return identities(std::get<0>(state)) + "|" + identities(std::get<1>(state)); }),
      failingRuns);
  }

  CharacterPose pose = MakePose({a, CharacterNodeTransform(), b});
  const std::string whole = Text(pose);
  EXPECT_GT(kelvara_test::SweepAllocationFailures(
              [] { return 0; }, [&](int&) { return Text(pose); },
              [&](int&, const std::string& text, bool failed) {
                // What is left reads in order out of the whole text, and the braces come as a pair or not at all.
                size_t at = 0;
                for (char c : text)
                {
                  at = whole.find(c, at);
                  ASSERT_NE(at, std::string::npos) << text;
                  ++at;
                }
                EXPECT_EQ(text.find('{') == std::string::npos, text.find('}') == std::string::npos) << text;
                EXPECT_EQ(text.size() < whole.size(), failed);
              }),
            10);
}

} // namespace
