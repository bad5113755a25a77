#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/loaded_module.h"
#include "support/oom_sweep.h"
#include "support/poses.h"
#include "support/recording_describer.h"
#include "support/values.h"
#include "telvo/characternodetransform.h"

using namespace telvo;
using kelvara_test::MakeString;
using kelvara_test::MakeTransform;
using kelvara_test::MakeUuid;

namespace
{

constexpr const char* kClassId = "net.telvo.animation.class.characternodetransform";
constexpr const char* kIdentityText = "((1,0,0),(0,1,0),(0,0,1),(0,0,0))";
constexpr const char* kUuidText = "0123abcd-4567-89ef-0a1b-2c3d4e5f6a7b";

Matrix Translation(double x, double y, double z)
{
  Matrix m;
  m.off = {x, y, z};
  return m;
}

// A matrix with every component distinct, so that a swapped field or component shows.
Matrix Distinct(double base)
{
  Matrix m;
  m.off = {base + 1, base + 2, base + 3};
  m.v1 = {base + 4, base + 5, base + 6};
  m.v2 = {base + 7, base + 8, base + 9};
  m.v3 = {base + 10, base + 11, base + 12};
  return m;
}

CharacterNodeTransform Create(const Uuid& uuid, const Matrix& global, const Matrix& parent)
{
  kelvara_test::LoadedModuleForTests();
  return MakeTransform(uuid, global, parent);
}

std::string Text(const CharacterNodeTransform& t, const FormatStatement* fs = nullptr)
{
  return std::string(t->ToString(fs).View());
}

std::vector<std::string> Pieces(std::string_view id, std::string_view name, std::string_view global,
                                std::string_view parent, std::string_view pre)
{
  return {"Object ID : " + std::string(id) + "\n", "Object Name : " + std::string(name) + "\n",
          "Global Matrix :\n" + std::string(global) + "\n", "Parent Global Matrix :\n" + std::string(parent) + "\n",
          "Pre-Multiply Matrix :\n" + std::string(pre) + "\n"};
}

std::string Joined(const std::vector<std::string>& pieces)
{
  std::string whole;
  for (const std::string& piece : pieces)
    whole += piece;
  return whole;
}

// True when text is some of pieces, in their order, each whole: what ToString leaves when pieces
// are dropped (or the result reset) for lack of memory.
bool IsMadeOfPieces(std::string_view text, const std::vector<std::string>& pieces, size_t from = 0)
{
  if (text.empty())
    return true;
  for (size_t k = from; k < pieces.size(); ++k)
    if (!pieces[k].empty() && text.starts_with(pieces[k]) && IsMadeOfPieces(text.substr(pieces[k].size()), pieces, k + 1))
      return true;
  return false;
}

TEST(CharacterNodeTransformText, EachFieldUnderItsLabelWithTheFormatReachingEveryValue)
{
  kelvara_test::LoadedModuleForTests();
  EXPECT_EQ(Text(kelvara_test::Value(CreateObject<CharacterNodeTransform>(kClassId))),
            Joined(Pieces("00000000-0000-0000-0000-000000000000", "", kIdentityText, kIdentityText, kIdentityText)));

  CharacterNodeTransform t = Create(MakeUuid(kUuidText), Translation(1, 2, 3), Distinct(0));
  CharacterNodeTransformInterface* w = t.MakeWritable().GetValue();
  ASSERT_TRUE(w->SetName(MakeString("LeftArm")).IsOk());
  w->SetPreMultiplyMatrix(Translation(-0.5, 0, 1e20));
  EXPECT_EQ(Text(t), Joined(Pieces(kUuidText, "LeftArm", "((1,0,0),(0,1,0),(0,0,1),(1,2,3))",
                                   "((4,5,6),(7,8,9),(10,11,12),(1,2,3))", "((1,0,0),(0,1,0),(0,0,1),(-0.5,0,1e+20))")));
  EXPECT_EQ(std::string(static_cast<const ObjectInterface*>(t.GetPointer())->ToString().View()), Text(t));

  w->SetGlobalMatrix(Matrix());
  w->SetPreMultiplyMatrix(Translation(0.126, 0, 0));
  FormatStatement fs;
  fs.precision = 2;
  fs.upperCaseHex = true;
  EXPECT_EQ(Text(t, &fs), Joined(Pieces("0123ABCD-4567-89EF-0A1B-2C3D4E5F6A7B", "LeftArm",
                                        "((1.00,0.00,0.00),(0.00,1.00,0.00),(0.00,0.00,1.00),(0.00,0.00,0.00))",
                                        "((4.00,5.00,6.00),(7.00,8.00,9.00),(10.00,11.00,12.00),(1.00,2.00,3.00))",
                                        "((1.00,0.00,0.00),(0.00,1.00,0.00),(0.00,0.00,1.00),(0.13,0.00,0.00))")));
}

TEST(CharacterNodeTransformFields, FactorySetsIdAndTwoMatricesAndSettersTheirOwnField)
{
  Uuid uuid = MakeUuid(kUuidText);
  CharacterNodeTransform t = Create(uuid, Distinct(0), Distinct(100));
  EXPECT_TRUE(t->GetUuid().IsSameObject(uuid)) << "the id is shared, not copied";
  EXPECT_EQ(uuid.GetReferenceCount(), 2);
  EXPECT_EQ(t->GetGlobalMatrix(), Distinct(0));
  EXPECT_EQ(t->GetParentGlobalMatrix(), Distinct(100));
  EXPECT_EQ(t->GetPreMultiplyMatrix(), Matrix());
  EXPECT_TRUE(t->GetName().IsEmpty());
  EXPECT_EQ(t.GetPointer()->GetReferenceCount(), 1);

  CharacterNodeTransformInterface* w = t.MakeWritable().GetValue();
  w->SetGlobalMatrix(Distinct(300));
  w->SetParentGlobalMatrix(Distinct(400));
  w->SetPreMultiplyMatrix(Distinct(500));
  EXPECT_EQ(t->GetGlobalMatrix(), Distinct(300));
  EXPECT_EQ(t->GetParentGlobalMatrix(), Distinct(400));
  EXPECT_EQ(t->GetPreMultiplyMatrix(), Distinct(500));
  EXPECT_EQ(&t->GetGlobalMatrix(), &t->GetGlobalMatrix()) << "the stored value, not a copy";
}

TEST(CharacterNodeTransformFields, HiddenClassGivesTheReasonZeroErrorAndCreatesNothing)
{
  kelvara_test::LoadedModuleForTests();
  using CreateFn = decltype(CharacterNodeTransformInterface::CreateNodeTransform);
  const ImplementationInfo* implementation = Registry::Get().FindImplementation("CharacterNodeTransformImpl");
  ASSERT_NE(implementation, nullptr);
  Uuid uuid = MakeUuid(kUuidText);
  const Int liveBefore = Allocator::GetLiveCount();

  // Through the interface and through the module's own factory, which resolves the class itself.
  Registry::Get().SetClassHidden(kClassId, true);
  Result<CharacterNodeTransform> viaInterface = CharacterNodeTransformInterface::CreateNodeTransform(uuid, Matrix(), Matrix());
  Result<CharacterNodeTransform> viaFactory = reinterpret_cast<CreateFn*>(implementation->createEntry)(uuid, Matrix(), Matrix());
  Registry::Get().SetClassHidden(kClassId, false);

  for (const Result<CharacterNodeTransform>* r : {&viaInterface, &viaFactory})
  {
    ASSERT_TRUE(r->IsError());
    EXPECT_TRUE(r->GetError() == NullReturnError(0));
  }
  EXPECT_EQ(Allocator::GetLiveCount(), liveBefore);
  EXPECT_EQ(uuid.GetReferenceCount(), 1);
  EXPECT_TRUE(CharacterNodeTransformInterface::CreateNodeTransform(uuid, Matrix(), Matrix()).IsOk());
}

TEST(CharacterNodeTransformCopy, CopySharesIdAndNameAndLeavesTheSourceAlone)
{
  Uuid uuid = MakeUuid(kUuidText);
  CharacterNodeTransform source = Create(uuid, Distinct(0), Distinct(100));
  ASSERT_TRUE(source.MakeWritable().GetValue()->SetName(MakeString("Hips")).IsOk());
  source.MakeWritable().GetValue()->SetPreMultiplyMatrix(Distinct(200));
  const std::string sourceText = Text(source);

  CharacterNodeTransform copy = source;
  EXPECT_EQ(source.GetPointer()->GetReferenceCount(), 2);
  CharacterNodeTransformInterface* w = copy.MakeWritable().GetValue();
  ASSERT_FALSE(copy.IsSameObject(source));
  EXPECT_EQ(source.GetPointer()->GetReferenceCount(), 1);
  EXPECT_EQ(Text(copy), sourceText) << "the copy carries every field";
  EXPECT_TRUE(copy->GetUuid().IsSameObject(uuid));
  EXPECT_TRUE(copy->GetName().IsSameBuffer(source->GetName()));

  w->SetGlobalMatrix(Translation(7, 8, 9));
  ASSERT_TRUE(w->SetUuid(MakeUuid("ffffffff-0000-0000-0000-000000000001")).IsOk());
  EXPECT_EQ(Text(source), sourceText);
}

TEST(CharacterNodeTransformDescribe, OwnMembersAfterTheNodeInfoMembersAndTheFirstErrorStops)
{
  using kelvara_test::DeclaredMember;
  kelvara_test::LoadedModuleForTests();
  kelvara_test::RecordingDescriber own;
  ASSERT_TRUE(CharacterNodeTransformInterface::DescribeIO(own).IsOk());
  EXPECT_EQ(own.members, (std::vector<DeclaredMember>{{"_globalMat", "Matrix", DESCRIBEFLAGS_NONE, true},
                                                      {"_parentGlobalMat", "Matrix", DESCRIBEFLAGS_NONE, true},
                                                      {"_preMultiplyMat", "Matrix", DESCRIBEFLAGS_NONE, true}}));

  // The whole class: node info's members first, each accessor reaching its member.
  CharacterNodeTransform t = Create(Uuid(), Matrix(), Matrix());
  kelvara_test::RecordingDescriber all;
  ASSERT_TRUE(DescribeClass(*t.GetPointer()->GetClass(), all).IsOk());
  EXPECT_EQ(all.components, (std::vector<std::string>{"CharacterNodeInfoImpl", "CharacterNodeInfoImpl",
                                                      "CharacterNodeTransformImpl", "CharacterNodeTransformImpl",
                                                      "CharacterNodeTransformImpl"}));
  const void* expected[] = {&t->GetUuid(), &t->GetName(), &t->GetGlobalMatrix(), &t->GetParentGlobalMatrix(),
                            &t->GetPreMultiplyMatrix()};
  ASSERT_EQ(all.accesses.size(), 5u);
  for (size_t i = 0; i < 5; ++i)
    EXPECT_EQ(all.accesses[i](t.GetPointer()->FindComponent(all.components[i].c_str())), expected[i]) << i;

  kelvara_test::RecordingDescriber refusing(2);
  Result<void> r = CharacterNodeTransformInterface::DescribeIO(refusing);
  ASSERT_TRUE(r.IsError());
  EXPECT_TRUE(r.GetError() == refusing.failure);
  EXPECT_EQ(refusing.calls, 2);
}

TEST(CharacterNodeTransformOutOfMemory, CreatingFailsWholeAndLeaksNothing)
{
  kelvara_test::LoadedModuleForTests();
  Uuid uuid = MakeUuid(kUuidText);
  EXPECT_EQ(kelvara_test::SweepOutOfMemory(
              [] { return 0; },
              [&](int&) { return CharacterNodeTransformInterface::CreateNodeTransform(uuid, Distinct(0), Distinct(100)); },
              [&](const int&) { return std::to_string(uuid.GetReferenceCount()); }),
            2)
    << "the instance, then the id made writable by SetUuid";
  EXPECT_EQ(kelvara_test::SweepOutOfMemory(
              [] { return 0; }, [](int&) { return CreateObject<CharacterNodeTransform>(kClassId); },
              [](const int&) { return std::string(); }),
            1);
}

TEST(CharacterNodeTransformOutOfMemory, SettersOnASharedTransformLeaveBothHoldersAsTheyWere)
{
  Uuid other = MakeUuid("ffffffff-0000-0000-0000-000000000001");
  String name = MakeString("Chest");
  using Setter = Result<void> (*)(CharacterNodeTransformInterface*, const Uuid&, const String&);
  const Setter setters[] = {
    [](CharacterNodeTransformInterface* w, const Uuid& u, const String&) { return w->SetUuid(u); },
    [](CharacterNodeTransformInterface* w, const Uuid&, const String& n) { return w->SetName(n); },
    [](CharacterNodeTransformInterface* w, const Uuid&, const String&) {
      w->SetGlobalMatrix(Translation(1, 1, 1));
      w->SetParentGlobalMatrix(Translation(1, 1, 1));
      w->SetPreMultiplyMatrix(Translation(1, 1, 1));
      return OK();
    },
  };
  // The copy shares the source's object until made writable. Whether it still shares after a
  // failure is left out: a failure after the private copy leaves equal contents in its own object.
  auto setup = [] {
    CharacterNodeTransform source = Create(MakeUuid(kUuidText), Distinct(0), Distinct(100));
    (void)source.MakeWritable().GetValue()->SetName(MakeString("Spine"));
    return std::pair{source, source};
  };
  for (size_t i = 0; i < std::size(setters); ++i)
  {
    SCOPED_TRACE("setter " + std::to_string(i));
    int failingRuns = kelvara_test::SweepOutOfMemory(
      setup,
      [&](auto& pair) -> Result<void> {
        TELVO_TRY_ASSIGN(CharacterNodeTransformInterface * w, pair.second.MakeWritable());
        return setters[i](w, other, name);
      },
      [](const auto& pair) { return Text(pair.first) + "|" + Text(pair.second); });
    // Copying the instance allocates once; SetUuid also makes the copy's own id writable.
    EXPECT_EQ(failingRuns, i == 0 ? 2 : 1);
  }
}

TEST(CharacterNodeTransformOutOfMemory, TextDropsWholePiecesOnly)
{
  CharacterNodeTransform t = Create(MakeUuid(kUuidText), Translation(1, 2, 3), Distinct(0));
  (void)t.MakeWritable().GetValue()->SetName(MakeString("Neck"));
  const std::vector<std::string> pieces = Pieces(kUuidText, "Neck", "((1,0,0),(0,1,0),(0,0,1),(1,2,3))",
                                                 "((4,5,6),(7,8,9),(10,11,12),(1,2,3))", kIdentityText);
  int failingRuns = kelvara_test::SweepAllocationFailures(
    [&] { return 0; }, [&](int&) { return Text(t); },
    [&](int&, const std::string& text, bool failed) {
      if (!failed)
        EXPECT_EQ(text, Joined(pieces));
      else
        EXPECT_TRUE(IsMadeOfPieces(text, pieces)) << text;
    });
  EXPECT_GT(failingRuns, 5);
}

} // namespace
