#include <gtest/gtest.h>

#include "support/loaded_module.h"
#include "support/oom_sweep.h"
#include "support/recording_describer.h"
#include "telvo/charactersolverconfiguration.h"

using namespace telvo;

namespace
{

constexpr const char* kConfigurationClassId = "net.telvo.animation.class.charactersolverconfiguration";

CharacterDefinition MakeCharacter(const char* name)
{
  CharacterDefinition character =
    CreateObject<CharacterDefinition>("net.telvo.animation.class.characterdefinition").GetValue();
  EXPECT_TRUE(character.MakeWritable().GetValue()->SetName(String::Create(name).GetValue()).IsOk());
  return character;
}

Int Count(const CharacterDefinition& character)
{
  return character.GetStrongRef()->GetReferenceCount();
}

class CharacterSolverConfigurationTest : public ::testing::Test
{
protected:
  void SetUp() override
  {
    kelvara_test::LoadedModuleForTests();
    _configuration = CreateObject<CharacterSolverConfiguration>(kConfigurationClassId).GetValue();
    _source = MakeCharacter("Performer");
    _target = MakeCharacter("Hero");
    _association = CreateObject<CharacterAssociation>("net.telvo.animation.class.characterassociation").GetValue();
  }

  CharacterSolverConfigurationInterface* Writable() { return _configuration.MakeWritable().GetValue(); }
  std::string Text() const { return std::string(_configuration->ToString().View()); }

  CharacterSolverConfiguration _configuration;
  CharacterDefinition _source;
  CharacterDefinition _target;
  CharacterAssociation _association;
};

TEST_F(CharacterSolverConfigurationTest, NewConfigurationIsEmptyAndReportsTheSourceFirst)
{
  EXPECT_FALSE(_configuration->GetSourceCharacter().GetValue());
  EXPECT_FALSE(_configuration->GetTargetCharacter().GetValue());
  EXPECT_FALSE(_configuration->GetCharacterAssociation().GetValue());
  EXPECT_FALSE(_configuration->GetApplyTranslationFromRoot());

  Result<void> valid = _configuration->Validate();
  ASSERT_TRUE(valid.IsError());
  EXPECT_TRUE(valid.GetError().IsClass(UnexpectedError));
  EXPECT_STREQ(valid.GetError().GetMessage(), "Invalid Source Character");
  EXPECT_STREQ(valid.GetError().GetUnit(), "source/impl/charactersolverconfiguration_impl");
  EXPECT_EQ(Text(), "Source Character : \nTarget Character : \n");
}

TEST_F(CharacterSolverConfigurationTest, ValidationNeedsBothCharactersButNoAssociation)
{
  ASSERT_TRUE(Writable()->SetSourceCharacter(_source).IsOk());
  Result<void> valid = _configuration->Validate();
  ASSERT_TRUE(valid.IsError());
  EXPECT_TRUE(valid.GetError().IsClass(UnexpectedError));
  EXPECT_STREQ(valid.GetError().GetMessage(), "Invalid Target Character");

  // A target alone still misses the source, which is tested first.
  ASSERT_TRUE(Writable()->SetSourceCharacter(CharacterDefinition()).IsOk());
  ASSERT_TRUE(Writable()->SetTargetCharacter(_target).IsOk());
  EXPECT_STREQ(_configuration->Validate().GetError().GetMessage(), "Invalid Source Character");

  ASSERT_TRUE(Writable()->SetSourceCharacter(_source).IsOk());
  EXPECT_TRUE(_configuration->Validate().IsOk());
  EXPECT_EQ(Text(), "Source Character : Performer\nTarget Character : Hero\n");
}

TEST_F(CharacterSolverConfigurationTest, SetupSharesTheThreeObjects)
{
  ASSERT_TRUE(Writable()->Setup(_source, _target, _association).IsOk());
  EXPECT_TRUE(_configuration->GetSourceCharacter().GetValue().IsSameObject(_source));
  EXPECT_TRUE(_configuration->GetTargetCharacter().GetValue().IsSameObject(_target));
  EXPECT_TRUE(_configuration->GetCharacterAssociation().GetValue().IsSameObject(_association));
  EXPECT_EQ(Count(_source), 2);
  EXPECT_EQ(Count(_target), 2);
  EXPECT_EQ(_association.GetStrongRef()->GetReferenceCount(), 2);

  // Storing the held object again takes no further count; replacing releases the old one.
  ASSERT_TRUE(Writable()->SetSourceCharacter(_source).IsOk());
  EXPECT_EQ(Count(_source), 2);
  ASSERT_TRUE(Writable()->SetSourceCharacter(_target).IsOk());
  EXPECT_EQ(Count(_source), 1);
  EXPECT_EQ(Count(_target), 3);
  EXPECT_EQ(Text(), "Source Character : Hero\nTarget Character : Hero\n");
}

TEST_F(CharacterSolverConfigurationTest, CopyOnWriteSharesTheCharactersAndKeepsTheOriginal)
{
  ASSERT_TRUE(Writable()->Setup(_source, _target, _association).IsOk());
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
  const std::vector<kelvara_test::DeclaredMember> expected = {
    {"_sourceCharacter", "telvo::CharacterDefinition", 0, true},
    {"_targetCharacter", "telvo::CharacterDefinition", 0, true},
    {"_associationSourceTarget", "telvo::CharacterAssociation", 0, true},
    {"_applyTranslationToRoot", "Bool", 0, true},
  };
  EXPECT_EQ(describer.members, expected);
}

TEST_F(CharacterSolverConfigurationTest, OnlyToStringAllocatesAndItDropsWholeLines)
{
  using kelvara_test::SweepAllocationFailures;
  auto fresh = [this] { return CreateObject<CharacterSolverConfiguration>(kConfigurationClassId).GetValue(); };
  auto noFailure = [](auto&, const auto& result, bool failed) {
    EXPECT_FALSE(failed) << "the operation allocated";
    EXPECT_TRUE(result.IsOk());
  };
  // Setters, getters, Setup and Validate share or read references: nothing to allocate, nothing to fail.
  EXPECT_EQ(SweepAllocationFailures(
              fresh,
              [this](CharacterSolverConfiguration& c) -> Result<void> {
                CharacterSolverConfigurationInterface* w = c.MakeWritable().GetValue();
                w->SetApplyTranslationFromRoot(true);
                TELVO_TRY_ASSIGN(CharacterDefinition s, c->GetSourceCharacter());
                (void)s;
                TELVO_TRY(w->SetSourceCharacter(_source));
                TELVO_TRY(w->SetTargetCharacter(_target));
                TELVO_TRY(w->SetCharacterAssociation(_association));
                TELVO_TRY(w->Setup(_target, _source, _association));
                return c->Validate();
              },
              noFailure),
            0);

  // Creating by class id: OutOfMemoryError and nothing left behind.
  int failingRuns = SweepAllocationFailures(
    [] { return 0; }, [](int) { return CreateObject<CharacterSolverConfiguration>(kConfigurationClassId); },
    [](int, const auto& result, bool failed) {
      EXPECT_TRUE(failed ? result.IsError() && result.GetError().IsClass(OutOfMemoryError) : result.IsOk());
    });
  EXPECT_GT(failingRuns, 0);

  // ToString never fails: a line that finds no memory is left out whole.
  ASSERT_TRUE(Writable()->Setup(_source, _target, _association).IsOk());
  const std::string full = "Source Character : Performer\nTarget Character : Hero\n";
  failingRuns = SweepAllocationFailures(
    [] { return 0; }, [this](int) { return Result<String>(_configuration->ToString()); },
    [&](int, const Result<String>& text, bool failed) {
      const std::string got(text.GetValue().View());
      if (!failed)
      {
        EXPECT_EQ(got, full);
      }
      else
      {
        EXPECT_TRUE(got.empty() || got == "Source Character : Performer\n" || got == "Target Character : Hero\n")
          << got;
      }
    });
  EXPECT_GT(failingRuns, 0);
}

} // namespace
