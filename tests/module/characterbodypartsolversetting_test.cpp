#include <gtest/gtest.h>

#include "support/loaded_module.h"
#include "support/oom_sweep.h"
#include "support/recording_describer.h"
#include "support/values.h"
#include "telvo/characterbodypartsolversetting.h"

using namespace telvo;
using kelvara_test::Value;

namespace
{

constexpr const char* kClassId = "net.telvo.animation.class.characterbodypartsolversetting";
using SettingInterface = CharacterBodyPartSolverSettingInterface;

class CharacterBodyPartSolverSettingTest : public ::testing::Test
{
protected:
  void SetUp() override { kelvara_test::LoadedModuleForTests(); }

  static std::string Text(const CharacterBodyPartSolverSetting& setting, const FormatStatement* formatStatement = nullptr)
  {
    return std::string(setting->ToString(formatStatement).View());
  }
  CharacterBodyPartSolverSetting Make(Float64 weight)
  {
    return Value(SettingInterface::CreateBodyPartSolverSetting(_leftArm, weight));
  }

  const InternedId _leftArm = kelvara_test::Id("LeftArm");
};

TEST_F(CharacterBodyPartSolverSettingTest, TextShowsTheShortestWeightWhateverTheFormat)
{
  EXPECT_EQ(Text(Value(CreateObject<CharacterBodyPartSolverSetting>(kClassId))), "Identifier : \nWeight : 1\n");
  CharacterBodyPartSolverSetting setting = Make(-2.5);
  FormatStatement wide;
  wide.width = 12;
  wide.precision = 4;
  wide.fill = '0';
  EXPECT_EQ(Text(setting, &wide), "Identifier : LeftArm\nWeight : -2.5\n");
  ASSERT_TRUE(Value(setting.MakeWritable())->SetBodyPartWeight(0.0).IsOk());
  EXPECT_EQ(Text(setting), "Identifier : LeftArm\nWeight : 0\n");
}

TEST_F(CharacterBodyPartSolverSettingTest, CopyOnWriteSharesTheIdentifierAndCopiesTheWeight)
{
  CharacterBodyPartSolverSetting original = Make(0.25);
  CharacterBodyPartSolverSetting copy = original;
  const Int idReferences = _leftArm.GetReferenceCount();
  SettingInterface* writable = Value(copy.MakeWritable());
  EXPECT_FALSE(copy.IsSameObject(original));
  EXPECT_TRUE(copy->GetBodyPartIdentifier().IsSameObject(_leftArm));
  EXPECT_EQ(_leftArm.GetReferenceCount(), idReferences + 1);
  EXPECT_EQ(copy->GetBodyPartWeight(), 0.25);

  ASSERT_TRUE(writable->SetBodyPartIdentifier(InternedId()).IsOk());
  EXPECT_EQ(_leftArm.GetReferenceCount(), idReferences);
  ASSERT_TRUE(writable->SetBodyPartWeight(3.0).IsOk());
  EXPECT_EQ(Text(original), "Identifier : LeftArm\nWeight : 0.25\n");
}

TEST_F(CharacterBodyPartSolverSettingTest, DescribesIdentifierThenWeightAndIsRefusedWhenHidden)
{
  kelvara_test::ExpectDescribes(SettingInterface::DescribeIO,
                                {{"_identifier", "InternedId", 0, true}, {"_weight", "Float64", 0, true}});
  kelvara_test::ExpectHiddenClassRefused(kClassId, [&] { return SettingInterface::CreateBodyPartSolverSetting(_leftArm, 1.0); });
}

TEST_F(CharacterBodyPartSolverSettingTest, OutOfMemoryLeavesTheSettingUnchanged)
{
  EXPECT_GT(kelvara_test::SweepCreation([&] { return SettingInterface::CreateBodyPartSolverSetting(_leftArm, 0.5); }), 0);
  // A change of a shared setting copies it first; the other holder never sees the change.
  EXPECT_GT(kelvara_test::SweepOutOfMemory(
              [&] {
                CharacterBodyPartSolverSetting setting = Make(0.5);
                return std::pair{setting, setting};
              },
              [](auto& state) -> Result<void> {
                TELVO_TRY_ASSIGN(SettingInterface * writable, state.first.MakeWritable());
                return writable->SetBodyPartWeight(2.0);
              },
              [](const auto& state) { return Text(state.first) + "|" + Text(state.second); }),
            0);
  CharacterBodyPartSolverSetting setting = Make(0.5);
  EXPECT_GT(kelvara_test::SweepTextPieces([&] { return setting->ToString(); },
                                          {"Identifier : LeftArm\n", "Weight : 0.5\n"}),
            0);
}

} // namespace
