#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "support/loaded_module.h"
#include "support/oom_sweep.h"
#include "telvo/characterpose.h"

namespace
{

using telvo::BaseArray;
using telvo::CharacterNodeTransform;
using telvo::CharacterNodeTransformInterface;
using telvo::CharacterPose;
using telvo::CharacterPoseInterface;
using telvo::Matrix;
using telvo::Result;
using telvo::Uuid;

constexpr const char* kClassId = "net.telvo.animation.class.characterpose";
constexpr const char* kIdA = "0123abcd-4567-89ef-0a1b-2c3d4e5f6a7b";
constexpr const char* kIdB = "ffffffff-0000-0000-0000-000000000001";
constexpr const char* kIdMissing = "aaaaaaaa-0000-0000-0000-000000000002";

Uuid MakeUuid(std::string_view text)
{
  Result<Uuid> r = Uuid::FromString(text);
  EXPECT_TRUE(r.IsOk());
  return std::move(r).GetValue();
}

Matrix Translation(double x, double y, double z)
{
  Matrix m;
  m.off = {x, y, z};
  return m;
}

CharacterPose NewPose()
{
  kelvara_test::LoadedModuleForTests();
  Result<CharacterPose> r = telvo::CreateObject<CharacterPose>(kClassId);
  EXPECT_TRUE(r.IsOk());
  return std::move(r).GetValue();
}

CharacterNodeTransform Transform(const Uuid& uuid, const Matrix& global = Matrix())
{
  kelvara_test::LoadedModuleForTests();
  Result<CharacterNodeTransform> r = CharacterNodeTransformInterface::CreateNodeTransform(uuid, global, Matrix());
  EXPECT_TRUE(r.IsOk());
  return std::move(r).GetValue();
}

BaseArray<CharacterNodeTransform> ArrayOf(std::initializer_list<CharacterNodeTransform> elements)
{
  BaseArray<CharacterNodeTransform> array;
  for (const CharacterNodeTransform& e : elements)
    EXPECT_TRUE(array.Append(e).IsOk());
  return array;
}

CharacterPose PoseOf(std::initializer_list<CharacterNodeTransform> elements)
{
  CharacterPose pose = NewPose();
  EXPECT_TRUE(pose.MakeWritable().GetValue()->SetNodeTransformArray(ArrayOf(elements)).IsOk());
  return pose;
}

const void* Found(const CharacterPose& pose, const Uuid& uuid)
{
  Result<CharacterNodeTransform> r = pose->GetNodeTransformByID(uuid);
  EXPECT_TRUE(r.IsOk()) << "a lookup never fails";
  return r.GetValue().GetPointer();
}

std::string Text(const CharacterPose& pose, const telvo::FormatStatement* fs = nullptr)
{
  return std::string(pose->ToString(fs).View());
}

// The text a node transform with the given id, no name, global offset (x,0,0) and identities
// elsewhere prints.
std::string TransformText(std::string_view id, std::string_view offsetX)
{
  return "Object ID : " + std::string(id) + "\nObject Name : \nGlobal Matrix :\n((1,0,0),(0,1,0),(0,0,1),(" +
         std::string(offsetX) + ",0,0))\nParent Global Matrix :\n((1,0,0),(0,1,0),(0,0,1),(0,0,0))\n" +
         "Pre-Multiply Matrix :\n((1,0,0),(0,1,0),(0,0,1),(0,0,0))\n";
}

struct Declaration
{
  std::string component;
  std::string key;
  std::string type;
  telvo::UInt flags;
  telvo::MemberAccess access;
};

class RecordingDescriber : public telvo::DataDescriber
{
public:
  void EnterComponent(const telvo::ComponentInfo& component) override { _component = component.implementationName; }
  Result<void> DeclareMember(const char* key, const telvo::DataType& type, telvo::UInt flags,
                             telvo::MemberAccess access) override
  {
    declarations.push_back({_component, key, type.name, flags, access});
    return telvo::OK();
  }

  std::vector<Declaration> declarations;

private:
  std::string _component;
};

TEST(CharacterPoseText, EmptyPosePrintsTheLabelAndBraces)
{
  EXPECT_EQ(Text(NewPose()), "Node Transform :\n{}");
}

TEST(CharacterPoseText, ElementsJoinedByCommasWithNullSlotsAsNullptr)
{
  CharacterPose two = PoseOf({Transform(MakeUuid(kIdA), Translation(1, 0, 0)), Transform(MakeUuid(kIdB), Translation(2, 0, 0))});
  EXPECT_EQ(Text(two), "Node Transform :\n{" + TransformText(kIdA, "1") + "," + TransformText(kIdB, "2") + "}");

  CharacterPose withNull = PoseOf({CharacterNodeTransform(), Transform(MakeUuid(kIdA), Translation(1, 0, 0)), CharacterNodeTransform()});
  EXPECT_EQ(withNull->GetNodeTransformCount(), 3) << "null slots count";
  EXPECT_EQ(Text(withNull), "Node Transform :\n{nullptr," + TransformText(kIdA, "1") + ",nullptr}");

  // The generic object text is the pose's.
  const telvo::ObjectInterface* object = withNull.GetPointer();
  EXPECT_EQ(std::string(object->ToString().View()), Text(withNull));
}

TEST(CharacterPoseText, FormatStatementReachesTheElements)
{
  CharacterPose pose = PoseOf({Transform(MakeUuid(kIdA), Translation(1, 0, 0))});
  telvo::FormatStatement fs;
  fs.precision = 1;
  const std::string text = Text(pose, &fs);
  EXPECT_NE(text.find("Global Matrix :\n((1.0,0.0,0.0),(0.0,1.0,0.0),(0.0,0.0,1.0),(1.0,0.0,0.0))\n"), std::string::npos)
    << text;
}

TEST(CharacterPoseLookup, FirstMatchInArrayOrderByValue)
{
  CharacterNodeTransform first = Transform(MakeUuid(kIdA));
  CharacterNodeTransform second = Transform(MakeUuid(kIdA));
  CharacterNodeTransform b = Transform(MakeUuid(kIdB));
  CharacterPose pose = PoseOf({CharacterNodeTransform(), b, first, second});

  EXPECT_EQ(Found(pose, MakeUuid(kIdA)), first.GetPointer()) << "the lower index wins";
  // A Uuid equal by value but a distinct handle from the element's.
  Uuid sameValue = MakeUuid(kIdB);
  ASSERT_FALSE(sameValue.IsSameObject(b->GetUuid()));
  EXPECT_EQ(Found(pose, sameValue), b.GetPointer());
  // The element's very own handle.
  EXPECT_EQ(Found(pose, b->GetUuid()), b.GetPointer());
  EXPECT_EQ(Found(pose, MakeUuid(kIdMissing)), nullptr);
  EXPECT_EQ(Found(NewPose(), MakeUuid(kIdA)), nullptr);

  Result<CharacterNodeTransform> found = pose->GetNodeTransformByID(MakeUuid(kIdB));
  EXPECT_EQ(b.GetPointer()->GetReferenceCount(), 3) << "the answer shares the element";
}

TEST(CharacterPoseLookup, NullAndEmptyIds)
{
  // A null slot reads as the empty Uuid: it answers a lookup of the null or the all-zero id, with
  // a null reference, and hides later elements without an id.
  CharacterNodeTransform noId = telvo::CreateObject<CharacterNodeTransform>(
                                  "net.telvo.animation.class.characternodetransform")
                                  .GetValue();
  Uuid zero = MakeUuid("00000000-0000-0000-0000-000000000000");
  CharacterNodeTransform zeroId = Transform(zero);
  CharacterNodeTransform a = Transform(MakeUuid(kIdA));

  CharacterPose nullFirst = PoseOf({a, CharacterNodeTransform(), noId});
  Result<CharacterNodeTransform> r = nullFirst->GetNodeTransformByID(Uuid());
  ASSERT_TRUE(r.IsOk());
  EXPECT_EQ(r.GetValue().GetPointer(), nullptr);
  EXPECT_EQ(Found(nullFirst, zero), nullptr);
  EXPECT_EQ(Found(nullFirst, MakeUuid(kIdA)), a.GetPointer()) << "null slots do not stop a search";

  // Without null slots, an element whose id is null and one whose id is all zero both answer
  // both empty ids.
  CharacterPose noIdFirst = PoseOf({a, noId, zeroId});
  EXPECT_EQ(Found(noIdFirst, Uuid()), noId.GetPointer());
  EXPECT_EQ(Found(noIdFirst, zero), noId.GetPointer());
  CharacterPose zeroFirst = PoseOf({zeroId, noId});
  EXPECT_EQ(Found(zeroFirst, Uuid()), zeroId.GetPointer());
  // A valid id never matches an element without one.
  EXPECT_EQ(Found(PoseOf({noId, zeroId, CharacterNodeTransform()}), MakeUuid(kIdA)), nullptr);
}

TEST(CharacterPoseLookup, AllocatesNothing)
{
  CharacterPose pose = PoseOf({CharacterNodeTransform(), Transform(MakeUuid(kIdB)), Transform(MakeUuid(kIdA))});
  Uuid hit = MakeUuid(kIdA);
  Uuid miss = MakeUuid(kIdMissing);
  const telvo::Int live = telvo::Allocator::GetLiveCount();
  telvo::Allocator::FailNthAllocation(1);
  const void* found = Found(pose, hit);
  const void* missed = Found(pose, miss);
  const void* empty = Found(pose, Uuid());
  const bool allocated = telvo::Allocator::FailureDelivered();
  telvo::Allocator::FailNthAllocation(0);
  EXPECT_FALSE(allocated);
  EXPECT_NE(found, nullptr);
  EXPECT_EQ(missed, nullptr);
  EXPECT_EQ(empty, nullptr);
  EXPECT_EQ(telvo::Allocator::GetLiveCount(), live);
}

TEST(CharacterPoseArray, SetterCopiesTheArrayAndSharesTheElements)
{
  CharacterNodeTransform a = Transform(MakeUuid(kIdA));
  CharacterNodeTransform b = Transform(MakeUuid(kIdB));
  BaseArray<CharacterNodeTransform> array = ArrayOf({a, b});
  CharacterPose pose = PoseOf({b});
  EXPECT_EQ(b.GetPointer()->GetReferenceCount(), 3);

  CharacterPoseInterface* w = pose.MakeWritable().GetValue();
  ASSERT_TRUE(w->SetNodeTransformArray(array).IsOk());
  ASSERT_NE(&pose->GetNodeTransformArray(), &array);
  ASSERT_EQ(pose->GetNodeTransformCount(), 2);
  EXPECT_TRUE(pose->GetNodeTransformArray()[0].IsSameObject(a));
  EXPECT_TRUE(pose->GetNodeTransformArray()[1].IsSameObject(b));
  EXPECT_EQ(a.GetPointer()->GetReferenceCount(), 3);
  EXPECT_EQ(b.GetPointer()->GetReferenceCount(), 3) << "the old element was released";

  // The pose's own array back is a no-op; an empty array empties the pose.
  ASSERT_TRUE(w->SetNodeTransformArray(pose->GetNodeTransformArray()).IsOk());
  EXPECT_EQ(pose->GetNodeTransformCount(), 2);
  EXPECT_EQ(a.GetPointer()->GetReferenceCount(), 3);
  ASSERT_TRUE(w->SetNodeTransformArray(BaseArray<CharacterNodeTransform>()).IsOk());
  EXPECT_EQ(Text(pose), "Node Transform :\n{}");
  EXPECT_EQ(a.GetPointer()->GetReferenceCount(), 2);
}

TEST(CharacterPoseCopy, CopySharesElementsAndChangesStayWithTheirHolder)
{
  CharacterNodeTransform a = Transform(MakeUuid(kIdA), Translation(1, 0, 0));
  CharacterNodeTransform b = Transform(MakeUuid(kIdB), Translation(2, 0, 0));
  CharacterPose source = PoseOf({a, b});
  const std::string sourceText = Text(source);

  CharacterPose copy = source;
  CharacterPoseInterface* w = copy.MakeWritable().GetValue();
  ASSERT_FALSE(copy.IsSameObject(source)) << "a shared pose is copied before it is changed";
  EXPECT_EQ(source.GetPointer()->GetReferenceCount(), 1);
  ASSERT_EQ(copy->GetNodeTransformCount(), 2);
  EXPECT_EQ(copy->GetNodeTransformArray()[0].GetPointer(), a.GetPointer());
  EXPECT_EQ(copy->GetNodeTransformArray()[1].GetPointer(), b.GetPointer());
  EXPECT_EQ(a.GetPointer()->GetReferenceCount(), 3) << "held here, by the source and by the copy";

  // A node transform taken from the copy and changed gets an object of its own.
  CharacterNodeTransform element = copy->GetNodeTransformArray()[0];
  element.MakeWritable().GetValue()->SetGlobalMatrix(Translation(9, 0, 0));
  EXPECT_FALSE(element.IsSameObject(a));
  EXPECT_EQ(a->GetGlobalMatrix(), Translation(1, 0, 0));
  EXPECT_EQ(Text(source), sourceText);
  EXPECT_EQ(Text(copy), sourceText);

  // Putting it back changes the copy's array only.
  ASSERT_TRUE(w->SetNodeTransformArray(ArrayOf({element})).IsOk());
  EXPECT_EQ(Text(copy), "Node Transform :\n{" + TransformText(kIdA, "9") + "}");
  EXPECT_EQ(Text(source), sourceText);
  EXPECT_EQ(source->GetNodeTransformCount(), 2);
  EXPECT_EQ(a.GetPointer()->GetReferenceCount(), 2);
  EXPECT_EQ(b.GetPointer()->GetReferenceCount(), 2);
}

TEST(CharacterPoseCreation, ByClassIdOnlyAndHiddenClassGivesTheReasonZeroError)
{
  CharacterPose pose = NewPose();
  EXPECT_EQ(pose->GetNodeTransformCount(), 0);
  const telvo::ImplementationInfo* implementation = telvo::Registry::Get().FindImplementation("CharacterPoseImpl");
  ASSERT_NE(implementation, nullptr);
  EXPECT_EQ(implementation->createEntry, nullptr) << "the pose has no factory";

  const telvo::Int live = telvo::Allocator::GetLiveCount();
  telvo::Registry::Get().SetClassHidden(kClassId, true);
  Result<CharacterPose> hidden = telvo::CreateObject<CharacterPose>(kClassId);
  telvo::Registry::Get().SetClassHidden(kClassId, false);
  ASSERT_TRUE(hidden.IsError());
  EXPECT_TRUE(hidden.GetError() == telvo::NullReturnError(0));
  EXPECT_EQ(telvo::Allocator::GetLiveCount(), live);
  EXPECT_TRUE(telvo::CreateObject<CharacterPose>(kClassId).IsOk());
}

TEST(CharacterPoseDescribe, OneArrayMemberReachingTheArray)
{
  CharacterPose pose = NewPose();
  RecordingDescriber viaInterface;
  ASSERT_TRUE(CharacterPoseInterface::DescribeIO(viaInterface).IsOk());
  ASSERT_EQ(viaInterface.declarations.size(), 1u);
  const Declaration& d = viaInterface.declarations[0];
  EXPECT_EQ(d.key, "NodeTransform");
  EXPECT_EQ(d.type, "telvo::CharacterNodeTransform");
  EXPECT_EQ(d.flags, telvo::DESCRIBEFLAGS_ARRAY);

  RecordingDescriber all;
  ASSERT_TRUE(telvo::DescribeClass(*pose.GetPointer()->GetClass(), all).IsOk());
  ASSERT_EQ(all.declarations.size(), 1u);
  EXPECT_EQ(all.declarations[0].component, "CharacterPoseImpl");
  EXPECT_EQ(all.declarations[0].access(pose.GetPointer()->FindComponent("CharacterPoseImpl")),
            &pose->GetNodeTransformArray());
}

// --- out of memory: every operation that can allocate ---

// Element identities and counts: what a failed operation must leave as it was.
std::string Snapshot(const CharacterPose& pose)
{
  std::string s;
  for (const CharacterNodeTransform& e : pose->GetNodeTransformArray())
    s += std::to_string(reinterpret_cast<std::uintptr_t>(e.GetPointer())) + ";";
  return s;
}

struct SetState
{
  CharacterPose pose;
  CharacterPose other; // shares pose's object
  BaseArray<CharacterNodeTransform> replacement;
};

TEST(CharacterPoseOutOfMemory, CreatingCopyingAndSettingLeaveThePoseAsItWas)
{
  kelvara_test::LoadedModuleForTests();
  EXPECT_EQ(kelvara_test::SweepOutOfMemory(
              [] { return 0; }, [](int&) { return telvo::CreateObject<CharacterPose>(kClassId); },
              [](const int&) { return std::string(); }),
            1);

  CharacterNodeTransform a = Transform(MakeUuid(kIdA));
  CharacterNodeTransform b = Transform(MakeUuid(kIdB));
  for (int replacementCount : {1, 17})
  {
    SCOPED_TRACE("replacement of " + std::to_string(replacementCount));
    int failingRuns = kelvara_test::SweepOutOfMemory(
      [&] {
        SetState state{PoseOf({a, CharacterNodeTransform(), b}), CharacterPose(), {}};
        state.other = state.pose;
        for (int i = 0; i < replacementCount; ++i)
          EXPECT_TRUE(state.replacement.Append(i % 2 == 0 ? b : a).IsOk());
        return state;
      },
      [](SetState& state) -> Result<void> {
        Result<CharacterPoseInterface*> w = state.pose.MakeWritable();
        if (w.IsError())
          return w.GetError();
        return w.GetValue()->SetNodeTransformArray(state.replacement);
      },
      [](const SetState& state) { return Snapshot(state.pose) + "|" + Snapshot(state.other); });
    // The pose's own copy (instance, then its array); the replacement fits a 16-slot array but
    // 17 elements need new storage.
    EXPECT_EQ(failingRuns, replacementCount == 1 ? 2 : 3);
  }
  EXPECT_EQ(a.GetPointer()->GetReferenceCount(), 1);
  EXPECT_EQ(b.GetPointer()->GetReferenceCount(), 1);
}

TEST(CharacterPoseOutOfMemory, TextKeepsWholePiecesOnly)
{
  CharacterPose pose = PoseOf({Transform(MakeUuid(kIdA), Translation(1, 0, 0)), CharacterNodeTransform(),
                               Transform(MakeUuid(kIdB), Translation(2, 0, 0))});
  const std::string whole = Text(pose);
  int failingRuns = kelvara_test::SweepAllocationFailures(
    [] { return 0; }, [&](int&) { return Text(pose); },
    [&](int&, const std::string& text, bool failed) {
      if (!failed)
      {
        EXPECT_EQ(text, whole);
        return;
      }
      // What is left reads in order out of the whole text, and a brace is never left half of a
      // pair: the array text is there entire or not at all.
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
