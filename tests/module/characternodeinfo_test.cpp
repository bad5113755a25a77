#include <gtest/gtest.h>

#include "support/loaded_module.h"
#include "support/oom_sweep.h"
#include "support/recording_describer.h"
#include "telvo/characternodeinfo.h"

using namespace telvo;

namespace
{

constexpr const char* kClassId = "net.telvo.animation.class.characternodeinfo";

Uuid MakeUuid(const char* text)
{
  return Uuid::FromString(text).GetValue();
}

String MakeString(const char* text)
{
  return String::Create(text).GetValue();
}

class CharacterNodeInfoTest : public ::testing::Test
{
protected:
  void SetUp() override { kelvara_test::LoadedModuleForTests(); }

  static std::string Text(const CharacterNodeInfo& info) { return std::string(info->ToString().View()); }

  const Uuid _uuid = MakeUuid("0123abcd-0000-4000-8000-00000000beef");
  const String _name = MakeString("LeftForeArm");
};

TEST_F(CharacterNodeInfoTest, CreatedByClassIdIsEmpty)
{
  Result<CharacterNodeInfo> info = CreateObject<CharacterNodeInfo>(kClassId);
  ASSERT_TRUE(info.IsOk());
  EXPECT_TRUE(info.GetValue()->GetUuid().IsNull());
  EXPECT_TRUE(info.GetValue()->GetName().IsEmpty());
  EXPECT_EQ(Text(info.GetValue()), "Object ID : 00000000-0000-0000-0000-000000000000\nObject Name : \n");
}

TEST_F(CharacterNodeInfoTest, FactorySetsIdAndNameAndSharesThem)
{
  Result<CharacterNodeInfo> info = CharacterNodeInfoInterface::CreateNodeInfo(_uuid, _name);
  ASSERT_TRUE(info.IsOk());
  EXPECT_TRUE(info.GetValue()->GetUuid().IsSameObject(_uuid));
  EXPECT_TRUE(info.GetValue()->GetName().IsSameBuffer(_name));
  EXPECT_EQ(Text(info.GetValue()), "Object ID : 0123abcd-0000-4000-8000-00000000beef\nObject Name : LeftForeArm\n");
  EXPECT_EQ(info.GetValue().GetStrongRef()->GetReferenceCount(), 1);
}

TEST_F(CharacterNodeInfoTest, FormatStatementReachesTheUuid)
{
  CharacterNodeInfo info = CharacterNodeInfoInterface::CreateNodeInfo(_uuid, String()).GetValue();
  FormatStatement upper;
  upper.upperCaseHex = true;
  EXPECT_EQ(std::string(info->ToString(&upper).View()),
            "Object ID : 0123ABCD-0000-4000-8000-00000000BEEF\nObject Name : \n");
}

TEST_F(CharacterNodeInfoTest, SetUuidWithTheHeldIdChangesNothing)
{
  CharacterNodeInfo info = CharacterNodeInfoInterface::CreateNodeInfo(_uuid, _name).GetValue();
  CharacterNodeInfoInterface* writable = info.MakeWritable().GetValue();
  ASSERT_TRUE(writable->SetUuid(info->GetUuid()).IsOk());
  EXPECT_TRUE(info->GetUuid().IsSameObject(_uuid));
  ASSERT_TRUE(writable->SetUuid(_uuid).IsOk());
  EXPECT_TRUE(info->GetUuid().IsSameObject(_uuid));
}

TEST_F(CharacterNodeInfoTest, CopyOnWriteLeavesTheOtherHolderUnchanged)
{
  CharacterNodeInfo original = CharacterNodeInfoInterface::CreateNodeInfo(_uuid, _name).GetValue();
  CharacterNodeInfo copy = original;
  EXPECT_EQ(original.GetStrongRef()->GetReferenceCount(), 2);

  Result<CharacterNodeInfoInterface*> writable = copy.MakeWritable();
  ASSERT_TRUE(writable.IsOk());
  EXPECT_FALSE(copy.IsSameObject(original));
  EXPECT_EQ(original.GetStrongRef()->GetReferenceCount(), 1);
  EXPECT_EQ(copy.GetStrongRef()->GetReferenceCount(), 1);
  // The private copy shares both values with its source until it changes them.
  EXPECT_TRUE(copy->GetUuid().IsSameObject(_uuid));
  EXPECT_TRUE(copy->GetName().IsSameBuffer(_name));

  ASSERT_TRUE(writable.GetValue()->SetName(MakeString("Hips")).IsOk());
  EXPECT_EQ(std::string(original->GetName().View()), "LeftForeArm");
  EXPECT_EQ(std::string(copy->GetName().View()), "Hips");
}

TEST_F(CharacterNodeInfoTest, EmptyNameEndsTheTextWithOneLineFeed)
{
  CharacterNodeInfo info = CharacterNodeInfoInterface::CreateNodeInfo(_uuid, _name).GetValue();
  ASSERT_TRUE(info.MakeWritable().GetValue()->SetName(String()).IsOk());
  EXPECT_EQ(Text(info), "Object ID : 0123abcd-0000-4000-8000-00000000beef\nObject Name : \n");
}

TEST_F(CharacterNodeInfoTest, DescribesIdThenName)
{
  kelvara_test::RecordingDescriber describer;
  ASSERT_TRUE(CharacterNodeInfoInterface::DescribeIO(describer).IsOk());
  const std::vector<kelvara_test::DeclaredMember> expected{{"_objectID", "Uuid", DESCRIBEFLAGS_NONE, true},
                                                           {"_objectName", "String", DESCRIBEFLAGS_NONE, true}};
  EXPECT_EQ(describer.members, expected);
}

TEST_F(CharacterNodeInfoTest, UnavailableClassGivesTheReasonZeroError)
{
  Registry::Get().SetClassHidden(kClassId, true);
  const Int liveBefore = Allocator::GetLiveCount();
  Result<CharacterNodeInfo> info = CharacterNodeInfoInterface::CreateNodeInfo(_uuid, _name);
  Result<CharacterNodeInfo> byId = CreateObject<CharacterNodeInfo>(kClassId);
  Registry::Get().SetClassHidden(kClassId, false);
  ASSERT_TRUE(info.IsError());
  EXPECT_TRUE(info.GetError() == NullReturnError(0));
  EXPECT_TRUE(NullReturnError(0) == NullReturnError(1));
  EXPECT_TRUE(byId.GetError() == NullReturnError(0));
  EXPECT_EQ(Allocator::GetLiveCount(), liveBefore);
}

TEST_F(CharacterNodeInfoTest, OutOfMemoryLeavesTheNodeUnchangedAndLeaksNothing)
{
  const Uuid otherUuid = MakeUuid("ffffffff-0000-4000-8000-000000000001");
  auto setup = [&] {
    CharacterNodeInfo info = CharacterNodeInfoInterface::CreateNodeInfo(_uuid, _name).GetValue();
    CharacterNodeInfo other = info; // shared: the first change must copy
    return std::pair{info, other};
  };

  // SetUuid through a writable reference of a shared node: the copy and the id can both fail.
  kelvara_test::SweepOutOfMemory(
    setup,
    [&](auto& state) -> Result<void> {
      TELVO_TRY_ASSIGN(CharacterNodeInfoInterface * writable, state.first.MakeWritable());
      return writable->SetUuid(otherUuid);
    },
    [](const auto& state) { return Text(state.second); });

  kelvara_test::SweepOutOfMemory(
    [&] { return CharacterNodeInfo(); },
    [&](CharacterNodeInfo& info) -> Result<void> {
      TELVO_TRY_ASSIGN(info, CharacterNodeInfoInterface::CreateNodeInfo(_uuid, _name));
      return OK();
    },
    [](const CharacterNodeInfo& info) { return info ? Text(info) : std::string("null"); });

  // ToString drops a piece it cannot build and never fails.
  kelvara_test::SweepAllocationFailures(
    setup, [](auto& state) { return Result<String>(state.first->ToString()); },
    [&](auto& state, const Result<String>& text, bool failed) {
      const std::string full = Text(state.first);
      if (!failed)
        EXPECT_EQ(std::string(text.GetValue().View()), full);
      else
        EXPECT_NE(std::string(text.GetValue().View()), full);
    });
}

} // namespace
