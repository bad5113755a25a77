#include <gtest/gtest.h>


#include "support/loaded_module.h"
#include "support/oom_sweep.h"
#include "support/recording_describer.h"
#include "support/values.h"
#include "telvo/characternodetransform.h"

using namespace telvo;
using kelvara_test::Joined;
using kelvara_test::TextOf;
using kelvara_test::Value;

namespace
{

constexpr const char* kClassId = "net.telvo.animation.class.characternodetransform";
constexpr const char* kUuidText = "0123abcd-4567-89ef-0a1b-2c3d4e5f6a7b";
constexpr const char* kIdentity = "((1,0,0),(0,1,0),(0,0,1),(0,0,0))";
constexpr const char* kGlobal = "((1,0,0),(0,1,0),(0,0,1),(1,2,3))";
constexpr const char* kParent = "((4,5,6),(7,8,9),(10,11,12),(1,2,3))";

// Every component distinct, so that a swapped field or component shows.
constexpr Matrix kDistinct{{1, 2, 3}, {4, 5, 6}, {7, 8, 9}, {10, 11, 12}};

// The pieces of the text: ToString drops each one whole when memory runs out.
std::vector<std::string> Pieces(const char* id, const char* name, const char* global, const char* parent,
                                const char* pre)
{
  return {"Object ID : " + std::string(id) + "\n", "Object Name : " + std::string(name) + "\n",
          "Global Matrix :\n" + std::string(global) + "\n", "Parent Global Matrix :\n" + std::string(parent) + "\n",
          "Pre-Multiply Matrix :\n" + std::string(pre) + "\n"};
}

class CharacterNodeTransformTest : public ::testing::Test
{
protected:
  void SetUp() override { kelvara_test::LoadedModuleForTests(); }

  // Named "Spine", global kGlobal, parent global kParent.
  auto Create() { return CharacterNodeTransformInterface::CreateNodeTransform(_uuid, Matrix{{1, 2, 3}}, kDistinct); }
  CharacterNodeTransform Make()
  {
    CharacterNodeTransform t = Value(Create());
    EXPECT_TRUE(Value(t.MakeWritable())->SetName(kelvara_test::MakeString("Spine")).IsOk());
    return t;
  }

  const Uuid _uuid = kelvara_test::MakeUuid(kUuidText);
};

TEST_F(CharacterNodeTransformTest, TextShowsEachFieldUnderItsLabelWithTheFormatReachingEveryValue)
{
  EXPECT_EQ(TextOf(Value(CreateObject<CharacterNodeTransform>(kClassId))),
            Joined(Pieces("00000000-0000-0000-0000-000000000000", "", kIdentity, kIdentity, kIdentity)));
  CharacterNodeTransform t = Make();
  Value(t.MakeWritable())->SetPreMultiplyMatrix(Matrix{{-0.5, 0, 0.126}});
  const char* pre = "((1,0,0),(0,1,0),(0,0,1),(-0.5,0,0.126))";
  EXPECT_EQ(TextOf(t), Joined(Pieces(kUuidText, "Spine", kGlobal, kParent, pre)));
  FormatStatement fs;
  fs.precision = 2;
  fs.upperCaseHex = true;
  EXPECT_EQ(TextOf(t, &fs), Joined(Pieces("0123ABCD-4567-89EF-0A1B-2C3D4E5F6A7B", "Spine",
                                          "((1.00,0.00,0.00),(0.00,1.00,0.00),(0.00,0.00,1.00),(1.00,2.00,3.00))",
                                          "((4.00,5.00,6.00),(7.00,8.00,9.00),(10.00,11.00,12.00),(1.00,2.00,3.00))",
                                          "((1.00,0.00,0.00),(0.00,1.00,0.00),(0.00,0.00,1.00),(-0.50,0.00,0.13))")));
}

TEST_F(CharacterNodeTransformTest, CopyCarriesEveryFieldAndSharesIdAndName)
{
  CharacterNodeTransform source = Make();
  EXPECT_EQ(_uuid.GetReferenceCount(), 2) << "the factory shares the id";
  Value(source.MakeWritable())->SetPreMultiplyMatrix(Matrix{{9, 9, 9}});
  CharacterNodeTransform copy = source;
  ASSERT_TRUE(copy.MakeWritable().IsOk());
  ASSERT_FALSE(copy.IsSameObject(source));
  EXPECT_EQ(TextOf(copy), TextOf(source)) << "the copy carries every field";
  EXPECT_TRUE(copy->GetUuid().IsSameObject(_uuid));
  EXPECT_TRUE(copy->GetName().IsSameBuffer(source->GetName()));
}

TEST_F(CharacterNodeTransformTest, DescribesItsMatricesAndIsRefusedWhenHidden)
{
  kelvara_test::ExpectDescribes(CharacterNodeTransformInterface::DescribeIO,
                                {{"_globalMat", "Matrix", DESCRIBEFLAGS_NONE, true},
                                 {"_parentGlobalMat", "Matrix", DESCRIBEFLAGS_NONE, true},
                                 {"_preMultiplyMat", "Matrix", DESCRIBEFLAGS_NONE, true}});
  kelvara_test::ExpectHiddenClassRefused(kClassId, [&] { return Create(); });
}

TEST_F(CharacterNodeTransformTest, OutOfMemoryFailsWholeAndLeavesBothHoldersAsTheyWere)
{
  // Failing runs: the instance (or the copy of a shared one), then the id SetUuid makes private.
  EXPECT_EQ(kelvara_test::SweepCreation([&] { return Create(); }), 2);
  EXPECT_EQ(kelvara_test::SweepCreation([] { return CreateObject<CharacterNodeTransform>(kClassId); }), 1);
  const Uuid other = kelvara_test::MakeUuid("ffffffff-0000-0000-0000-000000000001");
  EXPECT_EQ(kelvara_test::SweepSharedChange([&] { return Make(); }, [&](auto* w) { return w->SetUuid(other); }), 2);
  CharacterNodeTransform t = Make();
  const std::vector<std::string> pieces = Pieces(kUuidText, "Spine", kGlobal, kParent, kIdentity);
  EXPECT_GT(kelvara_test::SweepTextPieces([&] { return t->ToString(); }, pieces), 5);
}

} // namespace
