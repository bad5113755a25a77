#include <gtest/gtest.h>

#include "support/loaded_module.h"
#include "support/oom_sweep.h"
#include "support/recording_describer.h"
#include "support/values.h"
#include "telvo/characternodeinfo.h"

using namespace telvo;
using kelvara_test::TextOf;

namespace
{

constexpr const char* kClassId = "net.telvo.animation.class.characternodeinfo";
constexpr const char* kText = "Object ID : 0123abcd-0000-4000-8000-00000000beef\nObject Name : LeftForeArm\n";

class CharacterNodeInfoTest : public ::testing::Test
{
protected:
  void SetUp() override { kelvara_test::LoadedModuleForTests(); }

  auto Create() { return CharacterNodeInfoInterface::CreateNodeInfo(_uuid, _name); }
  CharacterNodeInfo Make() { return kelvara_test::Value(Create()); }

  const Uuid _uuid = kelvara_test::MakeUuid("0123abcd-0000-4000-8000-00000000beef");
  const String _name = kelvara_test::MakeString("LeftForeArm");
};

TEST_F(CharacterNodeInfoTest, TextShowsIdAndNameWithTheFormatReachingTheId)
{
  EXPECT_EQ(TextOf(kelvara_test::Value(CreateObject<CharacterNodeInfo>(kClassId))),
            "Object ID : 00000000-0000-0000-0000-000000000000\nObject Name : \n");
  EXPECT_EQ(TextOf(Make()), kText);
  FormatStatement upper;
  upper.upperCaseHex = true;
  EXPECT_EQ(TextOf(Make(), &upper), "Object ID : 0123ABCD-0000-4000-8000-00000000BEEF\nObject Name : LeftForeArm\n");
}

TEST_F(CharacterNodeInfoTest, FactoryAndCopyOnWriteShareIdAndName)
{
  CharacterNodeInfo original = Make();
  CharacterNodeInfo copy = original;
  CharacterNodeInfoInterface* writable = kelvara_test::Value(copy.MakeWritable());
  EXPECT_FALSE(copy.IsSameObject(original));
  EXPECT_TRUE(copy->GetUuid().IsSameObject(_uuid));
  EXPECT_TRUE(copy->GetName().IsSameBuffer(_name));
  // SetUuid makes its id private first: handing back the held id must end on the shared one.
  ASSERT_TRUE(writable->SetUuid(copy->GetUuid()).IsOk());
  EXPECT_TRUE(copy->GetUuid().IsSameObject(_uuid));
}

TEST_F(CharacterNodeInfoTest, DescribesIdThenNameAndIsRefusedWhenHidden)
{
  kelvara_test::ExpectDescribes(CharacterNodeInfoInterface::DescribeIO,
                                {{"_objectID", "Uuid", DESCRIBEFLAGS_NONE, true},
                                 {"_objectName", "String", DESCRIBEFLAGS_NONE, true}});
  kelvara_test::ExpectHiddenClassRefused(kClassId, [&] { return Create(); });
}

TEST_F(CharacterNodeInfoTest, OutOfMemoryLeavesTheNodeUnchanged)
{
  EXPECT_GT(kelvara_test::SweepCreation([&] { return Create(); }), 0);
  // The copy of the shared node, then its private id.
  const Uuid other = kelvara_test::MakeUuid("ffffffff-0000-4000-8000-000000000001");
  EXPECT_EQ(kelvara_test::SweepSharedChange([&] { return Make(); }, [&](auto* w) { return w->SetUuid(other); }), 2);
  CharacterNodeInfo info = Make();
  EXPECT_GT(kelvara_test::SweepTextPieces([&] { return info->ToString(); }, kelvara_test::Lines(kText)), 0);
}

} // namespace
