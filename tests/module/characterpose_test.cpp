#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/loaded_module.h"
#include "support/oom_sweep.h"
#include "support/poses.h"

using namespace telvo;
using namespace kelvara_test; // poses and sweeps

namespace
{

constexpr const char* kClassId = "net.telvo.animation.class.characterpose";
constexpr const char* kIdA = "0123abcd-4567-89ef-0a1b-2c3d4e5f6a7b";
constexpr const char* kIdB = "ffffffff-0000-0000-0000-000000000001";

CharacterNodeTransform Transform(const char* id, double x = 0)
{
  LoadedModuleForTests();
  return MakeTransform(MakeUuid(id), Matrix{{x, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}});
}

TEST(CharacterPoseLookup, FirstMatchByValueWithoutAllocatingAndEmptyIdsMatchOnlyElementsWithoutOne)
{
  CharacterNodeTransform first = Transform(kIdA), second = Transform(kIdA), b = Transform(kIdB), none;
  CharacterNodeTransform noId =
    Value(CreateObject<CharacterNodeTransform>("net.telvo.animation.class.characternodetransform"));
  const Uuid a = MakeUuid(kIdA), zero = MakeUuid("00000000-0000-0000-0000-000000000000");
  CharacterNodeTransform zeroId = MakeTransform(zero, Matrix());
  CharacterPose pose = MakePose({none, b, first, second});
  // A null slot reads as the empty id: it answers the empty ids with a null and hides later elements without one.
  const std::vector<std::tuple<CharacterPose, Uuid, const void*>> cases{
    {pose, a, first.GetPointer()},
    {pose, MakeUuid(kIdB), b.GetPointer()},
    {pose, MakeUuid("aaaaaaaa-0000-0000-0000-000000000002"), nullptr},
    {MakePose({first, none, noId}), Uuid(), nullptr},
    {MakePose({first, none, noId}), zero, nullptr},
    {MakePose({first, noId, zeroId}), Uuid(), noId.GetPointer()},
    {MakePose({first, noId, zeroId}), zero, noId.GetPointer()},
    {MakePose({zeroId, noId}), Uuid(), zeroId.GetPointer()},
    {MakePose({noId, zeroId, none}), a, nullptr}};
  for (const auto& [inPose, id, expected] : cases)
  {
    Allocator::FailNthAllocation(1);
    const void* found = Value(inPose->GetNodeTransformByID(id)).GetPointer();
    EXPECT_FALSE(Allocator::FailureDelivered());
    Allocator::FailNthAllocation(0);
    EXPECT_EQ(found, expected) << Text(id.ToString());
  }
  Result<CharacterNodeTransform> shared = pose->GetNodeTransformByID(MakeUuid(kIdB));
  EXPECT_EQ(b.GetPointer()->GetReferenceCount(), 3) << "the answer shares the element";
}

TEST(CharacterPoseArray, SetterCopiesTheArraySharesTheElementsAndCopiesOnWrite)
{
  CharacterNodeTransform a = Transform(kIdA, 1), b = Transform(kIdB, 2);
  BaseArray<CharacterNodeTransform> array = ArrayOf({a, b});
  CharacterPose pose = MakePose({b});
  CharacterPoseInterface* w = pose.MakeWritable().GetValue();
  ASSERT_TRUE(w->SetNodeTransformArray(array).IsOk());
  EXPECT_EQ(b.GetPointer()->GetReferenceCount(), 3) << "the old element was released";
  ASSERT_TRUE(w->SetNodeTransformArray(pose->GetNodeTransformArray()).IsOk()) << "its own array back: a no-op";
  array = {};
  const std::string sourceText = TextOf(pose);
  EXPECT_EQ(sourceText, "Node Transform :\n{" + TextOf(a) + "," + TextOf(b) + "}");
  FormatStatement fs;
  fs.precision = 1;
  EXPECT_NE(TextOf(pose, &fs).find("Global Matrix :\n((1.0,0.0,0.0),(0.0,1.0,0.0),(0.0,0.0,1.0),(1.0,0.0,0.0))\n"),
            std::string::npos);

  CharacterPose copy = pose;
  CharacterPoseInterface* cw = copy.MakeWritable().GetValue();
  ASSERT_FALSE(copy.IsSameObject(pose)) << "a shared pose is copied before it is changed";
  EXPECT_EQ(a.GetPointer()->GetReferenceCount(), 3) << "held here, by the pose and by the copy";
  ASSERT_TRUE(cw->SetNodeTransformArray(ArrayOf({b})).IsOk());
  EXPECT_EQ(TextOf(copy), "Node Transform :\n{" + TextOf(b) + "}");
  EXPECT_EQ(TextOf(pose), sourceText);
  ASSERT_TRUE(w->SetNodeTransformArray(BaseArray<CharacterNodeTransform>()).IsOk());
  EXPECT_EQ(TextOf(pose), "Node Transform :\n{}");
  EXPECT_EQ(a.GetPointer()->GetReferenceCount(), 1);
  EXPECT_EQ(b.GetPointer()->GetReferenceCount(), 2);
}

TEST(CharacterPoseOutOfMemory, CreatingAndSettingLeaveThePoseAsItWasAndTextDropsWholePieces)
{
  LoadedModuleForTests();
  EXPECT_EQ(SweepCreation([] { return CreateObject<CharacterPose>(kClassId); }), 1);
  CharacterNodeTransform a = Transform(kIdA, 1), b = Transform(kIdB, 2);
  // The pose's own copy (instance, then its array); 17 elements outgrow a 16-slot array.
  for (auto [count, failingRuns] : {std::pair{1, 2}, std::pair{17, 3}})
  {
    const CharacterPose replacement = MakePose(std::vector(count, a));
    auto set = [&](CharacterPoseInterface* w) {
      return w->SetNodeTransformArray(replacement->GetNodeTransformArray());
    };
    EXPECT_EQ(SweepSharedChange([&] { return MakePose({a, CharacterNodeTransform(), b}); }, set), failingRuns) << count;
  }
  std::vector<std::string> pieces = Lines(TextOf(a));
  pieces.insert(pieces.begin(), {"Node Transform :\n", "{"});
  pieces.insert(pieces.end(), {",", "nullptr", "}"});
  const CharacterPose pose = MakePose({a, CharacterNodeTransform()});
  EXPECT_GT(SweepTextPieces([&] { return pose->ToString(); }, pieces), 10);
}

} // namespace
