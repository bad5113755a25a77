#include <gtest/gtest.h>

#include "support/loaded_module.h"
#include "support/oom_sweep.h"
#include "support/recording_describer.h"
#include "support/values.h"
#include "telvo/charactersolverconfiguration.h"

using namespace telvo;
using namespace kelvara_test; // values and sweeps

namespace
{

constexpr const char* kConfigurationClassId = "net.telvo.animation.class.charactersolverconfiguration";

CharacterDefinition MakeCharacter(const char* name)
{
  CharacterDefinition character =
    Value(CreateObject<CharacterDefinition>("net.telvo.animation.class.characterdefinition"));
  EXPECT_TRUE(character.MakeWritable().GetValue()->SetName(MakeString(name)).IsOk());
  return character;
}

class CharacterSolverConfigurationTest : public ::testing::Test
{
protected:
  CharacterSolverConfigurationInterface* Writable() { return _configuration.MakeWritable().GetValue(); }
  std::string Text() const { return TextOf(_configuration); }

  LoadedModule& _module = LoadedModuleForTests();
  CharacterSolverConfiguration _configuration =
    Value(CreateObject<CharacterSolverConfiguration>(kConfigurationClassId));
  CharacterDefinition _source = MakeCharacter("Performer");
  CharacterDefinition _target = MakeCharacter("Hero");
  CharacterAssociation _association =
    Value(CreateObject<CharacterAssociation>("net.telvo.animation.class.characterassociation"));
};

TEST_F(CharacterSolverConfigurationTest, ValidationNeedsTheSourceFirstThenTheTargetButNoAssociation)
{
  for (bool source : {false, true})
    for (bool target : {false, true})
    {
      SCOPED_TRACE(std::to_string(source) + std::to_string(target));
      ASSERT_TRUE(Writable()->SetSourceCharacter(source ? _source : CharacterDefinition()).IsOk());
      ASSERT_TRUE(Writable()->SetTargetCharacter(target ? _target : CharacterDefinition()).IsOk());
      EXPECT_EQ(Text(), std::string("Source Character : ") + (source ? "Performer" : "") +
                          "\nTarget Character : " + (target ? "Hero" : "") + "\n");
      Result<void> valid = _configuration->Validate();
      if (source && target)
        EXPECT_TRUE(valid.IsOk());
      else
        ExpectError(valid, UnexpectedError, source ? "Invalid Target Character" : "Invalid Source Character");
      EXPECT_STREQ(valid.IsOk() ? "" : valid.GetError().GetUnit(),
                   source && target ? "" : "source/impl/charactersolverconfiguration_impl");
    }
}

TEST_F(CharacterSolverConfigurationTest, SharesItsObjectsAndCopiesOnWrite)
{
  ASSERT_TRUE(Writable()->Setup(_source, _target, _association).IsOk());
  EXPECT_EQ(Text(), "Source Character : Performer\nTarget Character : Hero\n");
  EXPECT_EQ(_association.GetStrongRef()->GetReferenceCount(), 2);
  ASSERT_TRUE(Writable()->SetSourceCharacter(_source).IsOk());
  EXPECT_EQ(_source.GetStrongRef()->GetReferenceCount(), 2) << "storing the held object again takes no further count";
  Writable()->SetApplyTranslationFromRoot(true);

  CharacterSolverConfiguration copy = _configuration;
  CharacterSolverConfigurationInterface* writableCopy = copy.MakeWritable().GetValue();
  EXPECT_FALSE(copy.IsSameObject(_configuration));
  EXPECT_TRUE(copy->GetApplyTranslationFromRoot());
  EXPECT_EQ(_target.GetStrongRef()->GetReferenceCount(), 3);
  writableCopy->SetApplyTranslationFromRoot(false);
  ASSERT_TRUE(writableCopy->SetTargetCharacter(_source).IsOk());
  EXPECT_EQ(_target.GetStrongRef()->GetReferenceCount(), 2) << "replacing releases the old one";
  EXPECT_EQ(_source.GetStrongRef()->GetReferenceCount(), 4);
  EXPECT_TRUE(_configuration->GetApplyTranslationFromRoot());
  EXPECT_TRUE(_configuration->GetTargetCharacter().GetValue().IsSameObject(_target));
}

TEST_F(CharacterSolverConfigurationTest, DescribesItsFourFieldsInOrder)
{
  RecordingDescriber describer;
  ASSERT_TRUE(CharacterSolverConfigurationInterface::DescribeIO(describer).IsOk());
  EXPECT_EQ(describer.members,
            (std::vector<DeclaredMember>{{"_sourceCharacter", "telvo::CharacterDefinition", 0, true},
                                         {"_targetCharacter", "telvo::CharacterDefinition", 0, true},
                                         {"_associationSourceTarget", "telvo::CharacterAssociation", 0, true},
                                         {"_applyTranslationToRoot", "Bool", 0, true}}));
}

TEST_F(CharacterSolverConfigurationTest, CreatingFailsCleanlyAndToStringDropsWholeLines)
{
  EXPECT_GT(SweepCreation([] { return CreateObject<CharacterSolverConfiguration>(kConfigurationClassId); }), 0);
  ASSERT_TRUE(Writable()->Setup(_source, _target, _association).IsOk());
  EXPECT_GT(SweepTextPieces([&] { return _configuration->ToString(); },
                            {"Source Character : Performer\n", "Target Character : Hero\n"}),
            0);
}

} // namespace
