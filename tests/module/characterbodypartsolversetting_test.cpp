#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/loaded_module.h"
#include "support/oom_sweep.h"
#include "support/recording_describer.h"
#include "telvo/characterbodypartsolversetting.h"
#include "telvo/dataserialize.h"

using namespace telvo;

namespace
{

constexpr const char* kClassId = "net.telvo.animation.class.characterbodypartsolversetting";

class CharacterBodyPartSolverSettingTest : public ::testing::Test
{
protected:
  void SetUp() override { kelvara_test::LoadedModuleForTests(); }

  static std::string Text(const CharacterBodyPartSolverSetting& setting)
  {
    return std::string(setting->ToString().View());
  }

  const InternedId _leftArm = InternedId::Intern("LeftArm").GetValue();
};

TEST_F(CharacterBodyPartSolverSettingTest, CreatedByClassIdWeighsFullyWithoutIdentifier)
{
  Result<CharacterBodyPartSolverSetting> setting = CreateObject<CharacterBodyPartSolverSetting>(kClassId);
  ASSERT_TRUE(setting.IsOk());
  EXPECT_TRUE(setting.GetValue()->GetBodyPartIdentifier().IsEmpty());
  EXPECT_EQ(setting.GetValue()->GetBodyPartWeight(), 1.0);
  EXPECT_EQ(Text(setting.GetValue()), "Identifier : \nWeight : 1\n");
}

TEST_F(CharacterBodyPartSolverSettingTest, FactoryStoresAnyWeightAndSharesTheIdentifier)
{
  const Int idReferences = _leftArm.GetReferenceCount();
  CharacterBodyPartSolverSetting setting =
    CharacterBodyPartSolverSettingInterface::CreateBodyPartSolverSetting(_leftArm, -2.5).GetValue();
  EXPECT_TRUE(setting->GetBodyPartIdentifier().IsSameObject(_leftArm));
  EXPECT_EQ(_leftArm.GetReferenceCount(), idReferences + 1);
  EXPECT_EQ(setting->GetBodyPartWeight(), -2.5);
  EXPECT_EQ(Text(setting), "Identifier : LeftArm\nWeight : -2.5\n");

  // The caller's format never reaches the weight.
  FormatStatement wide;
  wide.width = 12;
  wide.precision = 4;
  wide.fill = '0';
  EXPECT_EQ(std::string(setting->ToString(&wide).View()), "Identifier : LeftArm\nWeight : -2.5\n");

  CharacterBodyPartSolverSettingInterface* writable = setting.MakeWritable().GetValue();
  ASSERT_TRUE(writable->SetBodyPartWeight(0.0).IsOk());
  EXPECT_EQ(Text(setting), "Identifier : LeftArm\nWeight : 0\n");

  Registry::Get().SetClassHidden(kClassId, true);
  Result<CharacterBodyPartSolverSetting> hidden = CharacterBodyPartSolverSettingInterface::CreateBodyPartSolverSetting(_leftArm, 1.0);
  Registry::Get().SetClassHidden(kClassId, false);
  ASSERT_TRUE(hidden.IsError());
  EXPECT_TRUE(hidden.GetError() == NullReturnError(0));
}

TEST_F(CharacterBodyPartSolverSettingTest, CopyOnWriteSharesTheIdentifierAndCopiesTheWeight)
{
  CharacterBodyPartSolverSetting original =
    CharacterBodyPartSolverSettingInterface::CreateBodyPartSolverSetting(_leftArm, 0.25).GetValue();
  CharacterBodyPartSolverSetting copy = original;
  const Int idReferences = _leftArm.GetReferenceCount();
  CharacterBodyPartSolverSettingInterface* writable = copy.MakeWritable().GetValue();
  EXPECT_FALSE(copy.IsSameObject(original));
  EXPECT_EQ(original.GetStrongRef()->GetReferenceCount(), 1);
  EXPECT_TRUE(copy->GetBodyPartIdentifier().IsSameObject(_leftArm));
  EXPECT_EQ(_leftArm.GetReferenceCount(), idReferences + 1);
  EXPECT_EQ(copy->GetBodyPartWeight(), 0.25);

  // The identifier already held stays as it is; no count moves.
  ASSERT_TRUE(writable->SetBodyPartIdentifier(_leftArm).IsOk());
  EXPECT_EQ(_leftArm.GetReferenceCount(), idReferences + 1);
  ASSERT_TRUE(writable->SetBodyPartIdentifier(InternedId()).IsOk());
  EXPECT_EQ(_leftArm.GetReferenceCount(), idReferences);

  ASSERT_TRUE(writable->SetBodyPartWeight(3.0).IsOk());
  EXPECT_EQ(original->GetBodyPartWeight(), 0.25);
  EXPECT_EQ(copy->GetBodyPartWeight(), 3.0);
}

TEST_F(CharacterBodyPartSolverSettingTest, DescribesIdentifierThenWeightAndStopsAtTheFirstError)
{
  kelvara_test::RecordingDescriber describer;
  ASSERT_TRUE(CharacterBodyPartSolverSettingInterface::DescribeIO(describer).IsOk());
  EXPECT_EQ(describer.members, (std::vector<kelvara_test::DeclaredMember>{{"_identifier", "InternedId", 0, true},
                                                                        {"_weight", "Float64", 0, true}}));
  kelvara_test::RecordingDescriber refusing(1);
  Result<void> described = CharacterBodyPartSolverSettingInterface::DescribeIO(refusing);
  ASSERT_TRUE(described.IsError());
  EXPECT_TRUE(described.GetError() == refusing.failure);
  EXPECT_EQ(refusing.calls, 1);
}

TEST_F(CharacterBodyPartSolverSettingTest, OutOfMemoryLeavesTheSettingUnchanged)
{
  auto text = [](const CharacterBodyPartSolverSetting& s) { return s ? Text(s) : std::string("null"); };

  kelvara_test::SweepOutOfMemory(
    [] { return CharacterBodyPartSolverSetting(); },
    [&](CharacterBodyPartSolverSetting& setting) -> Result<void> {
      TELVO_TRY_ASSIGN(setting, CharacterBodyPartSolverSettingInterface::CreateBodyPartSolverSetting(_leftArm, 0.5));
      return OK();
    },
    text);

  // A change of a shared setting copies it first; the other holder never sees the change.
  auto shared = [&] {
    CharacterBodyPartSolverSetting setting =
      CharacterBodyPartSolverSettingInterface::CreateBodyPartSolverSetting(_leftArm, 0.5).GetValue();
    return std::pair{setting, setting};
  };
  const int failingRuns = kelvara_test::SweepOutOfMemory(
    shared,
    [](auto& state) -> Result<void> {
      TELVO_TRY_ASSIGN(CharacterBodyPartSolverSettingInterface * writable, state.first.MakeWritable());
      return writable->SetBodyPartWeight(2.0);
    },
    [&](const auto& state) { return text(state.first) + "|" + text(state.second); });
  EXPECT_GT(failingRuns, 0);

  // ToString drops the lines it cannot build, and never a part of a line.
  CharacterBodyPartSolverSetting setting =
    CharacterBodyPartSolverSettingInterface::CreateBodyPartSolverSetting(_leftArm, 0.5).GetValue();
  kelvara_test::SweepAllocationFailures(
    [] { return 0; }, [&](int&) { return setting->ToString(); },
    [](int&, const String& result, bool) {
      const std::string t(result.View());
      EXPECT_TRUE(t == "Identifier : LeftArm\nWeight : 0.5\n" || t == "Identifier : LeftArm\n" ||
                  t == "Weight : 0.5\n" || t.empty())
        << t;
    });
}

} // namespace
