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
constexpr const char* kIdMissing = "aaaaaaaa-0000-0000-0000-000000000002";

// A transform with global offset (x,0,0) and identities elsewhere.
CharacterNodeTransform Transform(const Uuid& uuid, double x = 0)
{
  kelvara_test::LoadedModuleForTests();
  Matrix global;
  global.off = {x, 0, 0};
  return kelvara_test::MakeTransform(uuid, global);
}

const void* Found(const CharacterPose& pose, const Uuid& uuid)
{
  Result<CharacterNodeTransform> r = pose->GetNodeTransformByID(uuid);
  EXPECT_TRUE(r.IsOk()) << "a lookup never fails";
  return r.GetValue().GetPointer();
}

std::string Text(const CharacterPose& pose, const FormatStatement* fs = nullptr)
{
  return std::string(pose->ToString(fs).View());
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
  EXPECT_EQ(Text(kelvara_test::Value(CreateObject<CharacterPose>(kClassId))), "Node Transform :\n{}");
  CharacterPose two = MakePose({Transform(MakeUuid(kIdA), 1), Transform(MakeUuid(kIdB), 2)});
  EXPECT_EQ(Text(two), "Node Transform :\n{" + TransformText(kIdA, "1") + "," + TransformText(kIdB, "2") + "}");

  CharacterPose withNull = MakePose({CharacterNodeTransform(), Transform(MakeUuid(kIdA), 1), CharacterNodeTransform()});
  EXPECT_EQ(withNull->GetNodeTransformCount(), 3) << "null slots count";
  EXPECT_EQ(Text(withNull), "Node Transform :\n{nullptr," + TransformText(kIdA, "1") + ",nullptr}");
  EXPECT_EQ(std::string(static_cast<const ObjectInterface*>(withNull.GetPointer())->ToString().View()), Text(withNull));

  FormatStatement fs;
  fs.precision = 1;
  EXPECT_NE(Text(withNull, &fs).find("Global Matrix :\n((1.0,0.0,0.0),(0.0,1.0,0.0),(0.0,0.0,1.0),(1.0,0.0,0.0))\n"),
            std::string::npos);
}

TEST(CharacterPoseLookup, FirstMatchInArrayOrderByValueWithoutAllocating)
{
  CharacterNodeTransform first = Transform(MakeUuid(kIdA));
  CharacterNodeTransform second = Transform(MakeUuid(kIdA));
  CharacterNodeTransform b = Transform(MakeUuid(kIdB));
  CharacterPose pose = MakePose({CharacterNodeTransform(), b, first, second});
  Uuid a = MakeUuid(kIdA), sameAsB = MakeUuid(kIdB), missing = MakeUuid(kIdMissing);
  ASSERT_FALSE(sameAsB.IsSameObject(b->GetUuid()));

  const Int live = Allocator::GetLiveCount();
  Allocator::FailNthAllocation(1);
  const void* foundA = Found(pose, a);
  const void* foundByValue = Found(pose, sameAsB);
  const void* foundByHandle = Found(pose, b->GetUuid());
  const void* missed = Found(pose, missing);
  const bool allocated = Allocator::FailureDelivered();
  Allocator::FailNthAllocation(0);
  EXPECT_FALSE(allocated);
  EXPECT_EQ(Allocator::GetLiveCount(), live);
  EXPECT_EQ(foundA, first.GetPointer()) << "the lower index wins";
  EXPECT_EQ(foundByValue, b.GetPointer());
  EXPECT_EQ(foundByHandle, b.GetPointer());
  EXPECT_EQ(missed, nullptr);
  EXPECT_EQ(Found(MakePose({}), a), nullptr);

  Result<CharacterNodeTransform> found = pose->GetNodeTransformByID(sameAsB);
  EXPECT_EQ(b.GetPointer()->GetReferenceCount(), 3) << "the answer shares the element";
}

TEST(CharacterPoseLookup, NullAndEmptyIds)
{
  kelvara_test::LoadedModuleForTests();
  // A null slot reads as the empty Uuid: it answers a lookup of the null or the all-zero id, with
  // a null reference, and hides later elements without an id.
  CharacterNodeTransform noId = kelvara_test::Value(CreateObject<CharacterNodeTransform>(
    "net.telvo.animation.class.characternodetransform"));
  Uuid zero = MakeUuid("00000000-0000-0000-0000-000000000000");
  CharacterNodeTransform zeroId = Transform(zero);
  CharacterNodeTransform a = Transform(MakeUuid(kIdA));

  CharacterPose nullFirst = MakePose({a, CharacterNodeTransform(), noId});
  EXPECT_EQ(Found(nullFirst, Uuid()), nullptr);
  EXPECT_EQ(Found(nullFirst, zero), nullptr);
  EXPECT_EQ(Found(nullFirst, MakeUuid(kIdA)), a.GetPointer()) << "null slots do not stop a search";

  // Without null slots, an element whose id is null and one whose id is all zero both answer
  // both empty ids.
  CharacterPose noIdFirst = MakePose({a, noId, zeroId});
  EXPECT_EQ(Found(noIdFirst, Uuid()), noId.GetPointer());
  EXPECT_EQ(Found(noIdFirst, zero), noId.GetPointer());
  EXPECT_EQ(Found(MakePose({zeroId, noId}), Uuid()), zeroId.GetPointer());
  EXPECT_EQ(Found(MakePose({noId, zeroId, CharacterNodeTransform()}), MakeUuid(kIdA)), nullptr)
    << "a valid id never matches an element without one";
}

TEST(CharacterPoseArray, SetterCopiesTheArraySharesTheElementsAndCopiesOnWrite)
{
  CharacterNodeTransform a = Transform(MakeUuid(kIdA), 1);
  CharacterNodeTransform b = Transform(MakeUuid(kIdB), 2);
  BaseArray<CharacterNodeTransform> array = kelvara_test::ArrayOf({a, b});
  CharacterPose pose = MakePose({b});
  CharacterPoseInterface* w = pose.MakeWritable().GetValue();
  ASSERT_TRUE(w->SetNodeTransformArray(array).IsOk());
  ASSERT_NE(&pose->GetNodeTransformArray(), &array);
  ASSERT_EQ(pose->GetNodeTransformCount(), 2);
  EXPECT_TRUE(pose->GetNodeTransformArray()[0].IsSameObject(a));
  EXPECT_TRUE(pose->GetNodeTransformArray()[1].IsSameObject(b));
  EXPECT_EQ(b.GetPointer()->GetReferenceCount(), 3) << "the old element was released";
  // The pose's own array back is a no-op.
  ASSERT_TRUE(w->SetNodeTransformArray(pose->GetNodeTransformArray()).IsOk());
  EXPECT_EQ(a.GetPointer()->GetReferenceCount(), 3);
  array = {};
  const std::string sourceText = Text(pose);

  // A copy shares the elements; changes stay with their holder.
  CharacterPose copy = pose;
  CharacterPoseInterface* cw = copy.MakeWritable().GetValue();
  ASSERT_FALSE(copy.IsSameObject(pose)) << "a shared pose is copied before it is changed";
  EXPECT_EQ(pose.GetPointer()->GetReferenceCount(), 1);
  EXPECT_EQ(copy->GetNodeTransformArray()[1].GetPointer(), b.GetPointer());
  EXPECT_EQ(a.GetPointer()->GetReferenceCount(), 3) << "held here, by the pose and by the copy";

  CharacterNodeTransform element = copy->GetNodeTransformArray()[0];
  element.MakeWritable().GetValue()->SetGlobalMatrix(Matrix());
  EXPECT_FALSE(element.IsSameObject(a));
  EXPECT_EQ(Text(copy), sourceText);
  ASSERT_TRUE(cw->SetNodeTransformArray(kelvara_test::ArrayOf({element})).IsOk());
  EXPECT_EQ(Text(copy), "Node Transform :\n{" + TransformText(kIdA, "0") + "}");
  EXPECT_EQ(Text(pose), sourceText);
  EXPECT_EQ(a.GetPointer()->GetReferenceCount(), 2);

  // An empty array empties the pose and releases the elements.
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
  ASSERT_TRUE(hidden.IsError());
  EXPECT_TRUE(hidden.GetError() == NullReturnError(0));
  EXPECT_EQ(Allocator::GetLiveCount(), live);

  CharacterPose pose = kelvara_test::Value(CreateObject<CharacterPose>(kClassId));
  kelvara_test::RecordingDescriber own;
  ASSERT_TRUE(CharacterPoseInterface::DescribeIO(own).IsOk());
  EXPECT_EQ(own.members, (std::vector<kelvara_test::DeclaredMember>{
                           {"NodeTransform", "telvo::CharacterNodeTransform", DESCRIBEFLAGS_ARRAY, true}}));
  kelvara_test::RecordingDescriber all;
  ASSERT_TRUE(DescribeClass(*pose.GetPointer()->GetClass(), all).IsOk());
  ASSERT_EQ(all.components, std::vector<std::string>{"CharacterPoseImpl"});
  EXPECT_EQ(all.accesses[0](pose.GetPointer()->FindComponent("CharacterPoseImpl")), &pose->GetNodeTransformArray());
}

TEST(CharacterPoseOutOfMemory, CreatingAndSettingLeaveThePoseAsItWas)
{
  kelvara_test::LoadedModuleForTests();
  EXPECT_EQ(kelvara_test::SweepOutOfMemory(
              [] { return 0; }, [](int&) { return CreateObject<CharacterPose>(kClassId); },
              [](const int&) { return std::string(); }),
            1);

  // Element identities: what a failed set must leave as it was, in the pose and in its sharer.
  auto snapshot = [](const CharacterPose& pose) {
    std::string s;
    for (const CharacterNodeTransform& e : pose->GetNodeTransformArray())
      s += std::to_string(reinterpret_cast<std::uintptr_t>(e.GetPointer())) + ";";
    return s;
  };
  CharacterNodeTransform a = Transform(MakeUuid(kIdA));
  CharacterNodeTransform b = Transform(MakeUuid(kIdB));
  for (int replacementCount : {1, 17})
  {
    SCOPED_TRACE("replacement of " + std::to_string(replacementCount));
    int failingRuns = kelvara_test::SweepOutOfMemory(
      [&] {
        CharacterPose pose = MakePose({a, CharacterNodeTransform(), b});
        BaseArray<CharacterNodeTransform> replacement;
        for (int i = 0; i < replacementCount; ++i)
          EXPECT_TRUE(replacement.Append(i % 2 == 0 ? b : a).IsOk());
        return std::tuple{pose, pose, std::move(replacement)};
      },
      [](auto& state) -> Result<void> {
        TELVO_TRY_ASSIGN(CharacterPoseInterface * w, std::get<0>(state).MakeWritable());
        return w->SetNodeTransformArray(std::get<2>(state));
      },
      [&](const auto& state) { return snapshot(std::get<0>(state)) + "|" + snapshot(std::get<1>(state)); });
    // The pose's own copy (instance, then its array); 17 elements outgrow a 16-slot array.
    EXPECT_EQ(failingRuns, replacementCount == 1 ? 2 : 3);
  }
  EXPECT_EQ(a.GetPointer()->GetReferenceCount(), 1);
  EXPECT_EQ(b.GetPointer()->GetReferenceCount(), 1);
}

TEST(CharacterPoseOutOfMemory, TextKeepsWholePiecesOnly)
{
  CharacterPose pose = MakePose({Transform(MakeUuid(kIdA), 1), CharacterNodeTransform(), Transform(MakeUuid(kIdB), 2)});
  const std::string whole = Text(pose);
  int failingRuns = kelvara_test::SweepAllocationFailures(
    [] { return 0; }, [&](int&) { return Text(pose); },
    [&](int&, const std::string& text, bool failed) {
      if (!failed)
      {
        EXPECT_EQ(text, whole);
        return;
      }
      // What is left reads in order out of the whole text, and the braces come as a pair or not at all.
      size_t at = 0;
      for (char c : text)
      {
        at = whole.find(c, at);
        ASSERT_NE(at, std::string::npos) << text;
        ++at;
      }
      EXPECT_EQ(text.find('{') == std::string::npos, text.find('}') == std::string::npos) << text;
      EXPECT_LT(text.size(), whole.size());
    });
  EXPECT_GT(failingRuns, 10);
}

} // namespace
