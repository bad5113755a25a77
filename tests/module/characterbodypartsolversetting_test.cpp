#include <gtest/gtest.h>

#include "support/loaded_module.h"
#include "support/oom_sweep.h"
#include "support/recording_describer.h"
#include "support/values.h"
#include "telvo/characterbodypartsolversetting.h"

using namespace telvo;
using kelvara_test::TextOf;
using kelvara_test::Value;

namespace
{

constexpr const char* kClassId = "net.telvo.animation.class.characterbodypartsolversetting";
using SettingInterface = CharacterBodyPartSolverSettingInterface;

class CharacterBodyPartSolverSettingTest : public ::testing::Test
{
protected:
  void SetUp() override { kelvara_test::LoadedModuleForTests(); }

  CharacterBodyPartSolverSetting Make(Float64 weight)
  {
    return Value(SettingInterface::CreateBodyPartSolverSetting(_leftArm, weight));
  }

  const InternedId _leftArm = kelvara_test::Id("LeftArm");
};

TEST_F(CharacterBodyPartSolverSettingTest, TextShowsTheShortestWeightWhateverTheFormat)
{
  EXPECT_EQ(TextOf(Value(CreateObject<CharacterBodyPartSolverSetting>(kClassId))), "Identifier : \nWeight : 1\n");
  CharacterBodyPartSolverSetting setting = Make(-2.5);
  FormatStatement wide;
  wide.width = 12;
  wide.precision = 4;
  EXPECT_EQ(TextOf(setting, &wide), "Identifier : LeftArm\nWeight : -2.5\n");
  ASSERT_TRUE(Value(setting.MakeWritable())->SetBodyPartWeight(0.0).IsOk());
  EXPECT_EQ(TextOf(setting), "Identifier : LeftArm\nWeight : 0\n");
}

TEST_F(CharacterBodyPartSolverSettingTest, CopyOnWriteSharesTheIdentifierAndCopiesTheWeight)
{
  CharacterBodyPartSolverSetting original = Make(0.25);
  CharacterBodyPartSolverSetting copy = original;
  const Int idReferences = _leftArm.GetReferenceCount();
  SettingInterface* writable = Value(copy.MakeWritable());
  EXPECT_TRUE(copy->GetBodyPartIdentifier().IsSameObject(_leftArm));
  EXPECT_EQ(_leftArm.GetReferenceCount(), idReferences + 1);
  EXPECT_EQ(copy->GetBodyPartWeight(), 0.25);

  ASSERT_TRUE(writable->SetBodyPartIdentifier(InternedId()).IsOk());
  EXPECT_EQ(_leftArm.GetReferenceCount(), idReferences);
  ASSERT_TRUE(writable->SetBodyPartWeight(3.0).IsOk());
  EXPECT_EQ(TextOf(original), "Identifier : LeftArm\nWeight : 0.25\n");
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
  EXPECT_GT(kelvara_test::SweepSharedChange([&] { return Make(0.5); },
                                            [](SettingInterface* writable) { return writable->SetBodyPartWeight(2.0); }),
            0);
  CharacterBodyPartSolverSetting setting = Make(0.5);
  EXPECT_GT(kelvara_test::SweepTextPieces([&] { return setting->ToString(); }, {"Identifier : LeftArm\n", "Weight : 0.5\n"}),
            0);
}

} // namespace
