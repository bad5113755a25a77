#include <gtest/gtest.h>

#include "support/loaded_module.h"
#include "support/oom_sweep.h"
#include "support/recording_describer.h"
#include "support/values.h"
#include "telvo/charactersolverconfiguration.h"

using namespace telvo;

namespace
{

constexpr const char* kConfigurationClassId = "net.telvo.animation.class.charactersolverconfiguration";

CharacterDefinition MakeCharacter(const char* name)
{
  CharacterDefinition character =
    kelvara_test::Value(CreateObject<CharacterDefinition>("net.telvo.animation.class.characterdefinition"));
  EXPECT_TRUE(character.MakeWritable().GetValue()->SetName(kelvara_test::MakeString(name)).IsOk());
  return character;
}

Int Count(const CharacterDefinition& character)
{
  return character.GetStrongRef()->GetReferenceCount();
}

class CharacterSolverConfigurationTest : public ::testing::Test
{
protected:
  CharacterSolverConfigurationInterface* Writable() { return _configuration.MakeWritable().GetValue(); }
  std::string Text() const { return kelvara_test::Text(_configuration->ToString()); }

  LoadedModule& _module = kelvara_test::LoadedModuleForTests();
  CharacterSolverConfiguration _configuration =
    kelvara_test::Value(CreateObject<CharacterSolverConfiguration>(kConfigurationClassId));
  CharacterDefinition _source = MakeCharacter("Performer");
  CharacterDefinition _target = MakeCharacter("Hero");
  CharacterAssociation _association =
    kelvara_test::Value(CreateObject<CharacterAssociation>("net.telvo.animation.class.characterassociation"));
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
      {
        EXPECT_TRUE(valid.IsOk());
        continue;
      }
      ASSERT_TRUE(valid.IsError());
      EXPECT_TRUE(valid.GetError().IsClass(UnexpectedError));
      EXPECT_STREQ(valid.GetError().GetMessage(), source ? "Invalid Target Character" : "Invalid Source Character");
      EXPECT_STREQ(valid.GetError().GetUnit(), "source/impl/charactersolverconfiguration_impl");
    }
}

TEST_F(CharacterSolverConfigurationTest, SharesItsObjectsAndCopiesOnWrite)
{
  ASSERT_TRUE(Writable()->Setup(_source, _target, _association).IsOk());
  EXPECT_EQ(Text(), "Source Character : Performer\nTarget Character : Hero\n");
  EXPECT_TRUE(_configuration->GetCharacterAssociation().GetValue().IsSameObject(_association));
  EXPECT_EQ(_association.GetStrongRef()->GetReferenceCount(), 2);
  // Storing the held object again takes no further count; replacing releases the old one.
  ASSERT_TRUE(Writable()->SetSourceCharacter(_source).IsOk());
  EXPECT_EQ(Count(_source), 2);
  ASSERT_TRUE(Writable()->SetTargetCharacter(_source).IsOk());
  EXPECT_EQ(Count(_target), 1);
  EXPECT_EQ(Count(_source), 3);
  ASSERT_TRUE(Writable()->SetTargetCharacter(_target).IsOk());
  Writable()->SetApplyTranslationFromRoot(true);

  CharacterSolverConfiguration copy = _configuration;
  CharacterSolverConfigurationInterface* writableCopy = copy.MakeWritable().GetValue();
  EXPECT_FALSE(copy.IsSameObject(_configuration));
  EXPECT_TRUE(copy->GetApplyTranslationFromRoot());
  EXPECT_TRUE(copy->GetSourceCharacter().GetValue().IsSameObject(_source));
  EXPECT_EQ(Count(_source), 3);
  writableCopy->SetApplyTranslationFromRoot(false);
  ASSERT_TRUE(writableCopy->SetTargetCharacter(CharacterDefinition()).IsOk());
  EXPECT_TRUE(_configuration->GetApplyTranslationFromRoot());
  EXPECT_TRUE(_configuration->GetTargetCharacter().GetValue().IsSameObject(_target));
  EXPECT_EQ(Count(_target), 2);
}

TEST_F(CharacterSolverConfigurationTest, DescribesItsFourFieldsInOrder)
{
  kelvara_test::RecordingDescriber describer;
  ASSERT_TRUE(CharacterSolverConfigurationInterface::DescribeIO(describer).IsOk());
  EXPECT_EQ(describer.members, (std::vector<kelvara_test::DeclaredMember>{
                                 {"_sourceCharacter", "telvo::CharacterDefinition", 0, true},
                                 {"_targetCharacter", "telvo::CharacterDefinition", 0, true},
                                 {"_associationSourceTarget", "telvo::CharacterAssociation", 0, true},
                                 {"_applyTranslationToRoot", "Bool", 0, true}}));
}

TEST_F(CharacterSolverConfigurationTest, CreatingFailsCleanlyAndToStringDropsWholeLines)
{
  EXPECT_GT(kelvara_test::SweepOutOfMemory(
              [] { return 0; }, [](int) { return CreateObject<CharacterSolverConfiguration>(kConfigurationClassId); },
              [](int) { return std::string(); }),
            0);

  ASSERT_TRUE(Writable()->Setup(_source, _target, _association).IsOk());
  const std::string full = "Source Character : Performer\nTarget Character : Hero\n";
  EXPECT_GT(kelvara_test::SweepAllocationFailures(
              [] { return 0; }, [this](int) { return Result<String>(_configuration->ToString()); },
              [&](int, const Result<String>& text, bool failed) {
                const std::string got = kelvara_test::Text(text.GetValue());
                if (!failed)
                  EXPECT_EQ(got, full);
                else
                  EXPECT_TRUE(got.empty() || got == full.substr(0, 29) || got == full.substr(29)) << got;
              }),
            0);
}

} // namespace
