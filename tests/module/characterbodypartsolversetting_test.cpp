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

  auto Create(Float64 weight) { return SettingInterface::CreateBodyPartSolverSetting(_leftArm, weight); }
  CharacterBodyPartSolverSetting Make(Float64 weight) { return Value(Create(weight)); }

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
}

TEST_F(CharacterBodyPartSolverSettingTest, DescribesIdentifierThenWeightAndIsRefusedWhenHidden)
{
  kelvara_test::ExpectDescribes(SettingInterface::DescribeIO,
                                {{"_identifier", "InternedId", 0, true}, {"_weight", "Float64", 0, true}});
  kelvara_test::ExpectHiddenClassRefused(kClassId, [&] { return Create(1.0); });
}

TEST_F(CharacterBodyPartSolverSettingTest, OutOfMemoryLeavesTheSettingUnchanged)
{
  EXPECT_GT(kelvara_test::SweepCreation([&] { return Create(0.5); }), 0);
  auto reweigh = [](auto* writable) { return writable->SetBodyPartWeight(2); };
  EXPECT_GT(kelvara_test::SweepSharedChange([&] { return Make(0.5); }, reweigh), 0);
  CharacterBodyPartSolverSetting setting = Make(0.5);
  const std::vector<std::string> lines{"Identifier : LeftArm\n", "Weight : 0.5\n"};
  EXPECT_GT(kelvara_test::SweepTextPieces([&] { return setting->ToString(); }, lines), 0);
}

} // namespace
