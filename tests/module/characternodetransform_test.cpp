#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/loaded_module.h"
#include "support/oom_sweep.h"
#include "telvo/characternodetransform.h"

namespace
{

using telvo::CharacterNodeTransform;
using telvo::CharacterNodeTransformInterface;
using telvo::Matrix;
using telvo::Result;
using telvo::Uuid;

constexpr const char* kClassId = "net.telvo.animation.class.characternodetransform";
constexpr const char* kIdentityText = "((1,0,0),(0,1,0),(0,0,1),(0,0,0))";
constexpr const char* kUuidText = "0123abcd-4567-89ef-0a1b-2c3d4e5f6a7b";

Uuid MakeUuid(std::string_view text = kUuidText)
{
  Result<Uuid> r = Uuid::FromString(text);
  EXPECT_TRUE(r.IsOk());
  return std::move(r).GetValue();
}

telvo::String MakeString(std::string_view text)
{
  Result<telvo::String> r = telvo::String::Create(text);
  EXPECT_TRUE(r.IsOk());
  return std::move(r).GetValue();
}

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

CharacterNodeTransform NewByClassId()
{
  kelvara_test::LoadedModuleForTests();
  Result<CharacterNodeTransform> r = telvo::CreateObject<CharacterNodeTransform>(kClassId);
  EXPECT_TRUE(r.IsOk());
  return std::move(r).GetValue();
}

CharacterNodeTransform Create(const Uuid& uuid, const Matrix& global, const Matrix& parent)
{
  kelvara_test::LoadedModuleForTests();
  Result<CharacterNodeTransform> r = CharacterNodeTransformInterface::CreateNodeTransform(uuid, global, parent);
  EXPECT_TRUE(r.IsOk());
  return std::move(r).GetValue();
}

std::string Text(const CharacterNodeTransform& t, const telvo::FormatStatement* fs = nullptr)
{
  return std::string(t->ToString(fs).View());
}

std::string Expected(std::string_view id, std::string_view name, std::string_view global, std::string_view parent,
                     std::string_view pre)
{
  return "Object ID : " + std::string(id) + "\nObject Name : " + std::string(name) + "\nGlobal Matrix :\n" +
         std::string(global) + "\nParent Global Matrix :\n" + std::string(parent) + "\nPre-Multiply Matrix :\n" +
         std::string(pre) + "\n";
}

// True when text is some of pieces, in their order, each whole: what ToString leaves when pieces
// are dropped (or the result reset) for lack of memory.
bool IsMadeOfPieces(std::string_view text, const std::vector<std::string>& pieces, size_t from = 0)
{
  if (text.empty())
    return true;
  for (size_t k = from; k < pieces.size(); ++k)
    if (!pieces[k].empty() && text.starts_with(pieces[k]) &&
        IsMadeOfPieces(text.substr(pieces[k].size()), pieces, k + 1))
      return true;
  return false;
}

struct Declaration
{
  std::string component;
  std::string key;
  std::string type;
  telvo::UInt flags;
  telvo::MemberAccess access;
};

// Records every declaration; fails the failAt-th one (1-based) when failAt > 0.
class RecordingDescriber : public telvo::DataDescriber
{
public:
  explicit RecordingDescriber(int failAt = 0) : _failAt(failAt) {}
  void EnterComponent(const telvo::ComponentInfo& component) override { _component = component.implementationName; }
  Result<void> DeclareMember(const char* key, const telvo::DataType& type, telvo::UInt flags,
                             telvo::MemberAccess access) override
  {
    declarations.push_back({_component, key, type.name, flags, access});
    if (static_cast<int>(declarations.size()) == _failAt)
      return failure;
    return telvo::OK();
  }

  std::vector<Declaration> declarations;
  telvo::Error failure = telvo::NullReturnError(0);

private:
  int _failAt;
  std::string _component;
};

TEST(CharacterNodeTransformText, NewTransformPrintsEmptyIdentityAndThreeIdentities)
{
  EXPECT_EQ(Text(NewByClassId()),
            Expected("00000000-0000-0000-0000-000000000000", "", kIdentityText, kIdentityText, kIdentityText));
}

TEST(CharacterNodeTransformText, EachMatrixUnderItsLabelWithTheOffsetLast)
{
  CharacterNodeTransform t = Create(MakeUuid(), Translation(1, 2, 3), Distinct(0));
  CharacterNodeTransformInterface* w = t.MakeWritable().GetValue();
  ASSERT_TRUE(w->SetName(MakeString("LeftArm")).IsOk());
  w->SetPreMultiplyMatrix(Translation(-0.5, 0, 1e20));
  EXPECT_EQ(Text(t), Expected(kUuidText, "LeftArm", "((1,0,0),(0,1,0),(0,0,1),(1,2,3))",
                              "((4,5,6),(7,8,9),(10,11,12),(1,2,3))", "((1,0,0),(0,1,0),(0,0,1),(-0.5,0,1e+20))"));
  // The object's generic text is the same replacement.
  const telvo::ObjectInterface* object = t.GetPointer();
  EXPECT_EQ(std::string(object->ToString().View()), Text(t));
}

TEST(CharacterNodeTransformText, FormatStatementReachesTheIdAndEveryMatrix)
{
  CharacterNodeTransform t = Create(MakeUuid(), Translation(1, 2, 3), Matrix());
  t.MakeWritable().GetValue()->SetPreMultiplyMatrix(Translation(0.126, 0, 0));
  telvo::FormatStatement fs;
  fs.precision = 2;
  fs.upperCaseHex = true;
  EXPECT_EQ(Text(t, &fs), Expected("0123ABCD-4567-89EF-0A1B-2C3D4E5F6A7B", "",
                                   "((1.00,0.00,0.00),(0.00,1.00,0.00),(0.00,0.00,1.00),(1.00,2.00,3.00))",
                                   "((1.00,0.00,0.00),(0.00,1.00,0.00),(0.00,0.00,1.00),(0.00,0.00,0.00))",
                                   "((1.00,0.00,0.00),(0.00,1.00,0.00),(0.00,0.00,1.00),(0.13,0.00,0.00))"));
}

TEST(CharacterNodeTransformMatrices, SettersStoreEachMatrixInItsOwnField)
{
  CharacterNodeTransform t = NewByClassId();
  CharacterNodeTransformInterface* w = t.MakeWritable().GetValue();
  w->SetGlobalMatrix(Distinct(0));
  w->SetParentGlobalMatrix(Distinct(100));
  w->SetPreMultiplyMatrix(Distinct(200));
  EXPECT_EQ(t->GetGlobalMatrix(), Distinct(0));
  EXPECT_EQ(t->GetParentGlobalMatrix(), Distinct(100));
  EXPECT_EQ(t->GetPreMultiplyMatrix(), Distinct(200));
  // The getters hand out the stored value, not a copy.
  EXPECT_EQ(&t->GetGlobalMatrix(), &t->GetGlobalMatrix());
}

TEST(CharacterNodeTransformFactory, SetsIdAndTwoMatricesOnly)
{
  Uuid uuid = MakeUuid();
  CharacterNodeTransform t = Create(uuid, Distinct(0), Distinct(100));
  EXPECT_TRUE(t->GetUuid().IsSameObject(uuid)) << "the id is shared, not copied";
  EXPECT_EQ(uuid.GetReferenceCount(), 2);
  EXPECT_EQ(t->GetGlobalMatrix(), Distinct(0));
  EXPECT_EQ(t->GetParentGlobalMatrix(), Distinct(100));
  EXPECT_EQ(t->GetPreMultiplyMatrix(), Matrix());
  EXPECT_TRUE(t->GetName().IsEmpty());
  EXPECT_EQ(t.GetPointer()->GetReferenceCount(), 1);
}

TEST(CharacterNodeTransformFactory, HiddenClassGivesTheReasonZeroErrorAndCreatesNothing)
{
  kelvara_test::LoadedModuleForTests();
  using CreateFn = decltype(CharacterNodeTransformInterface::CreateNodeTransform);
  const telvo::ImplementationInfo* implementation =
    telvo::Registry::Get().FindImplementation("CharacterNodeTransformImpl");
  ASSERT_NE(implementation, nullptr);
  Uuid uuid = MakeUuid();
  const telvo::Int liveBefore = telvo::Allocator::GetLiveCount();

  telvo::Registry::Get().SetClassHidden(kClassId, true);
  // Through the interface (the implementation is hidden with its class) and through the module's
  // own factory (which resolves the class itself).
  Result<CharacterNodeTransform> viaInterface = CharacterNodeTransformInterface::CreateNodeTransform(uuid, Matrix(), Matrix());
  Result<CharacterNodeTransform> viaFactory =
    reinterpret_cast<CreateFn*>(implementation->createEntry)(uuid, Matrix(), Matrix());
  telvo::Registry::Get().SetClassHidden(kClassId, false);

  for (const Result<CharacterNodeTransform>* r : {&viaInterface, &viaFactory})
  {
    ASSERT_TRUE(r->IsError());
    EXPECT_TRUE(r->GetError() == telvo::NullReturnError(0));
    EXPECT_TRUE(r->GetError() == telvo::NullReturnError(1)) << "both reasons are one error object";
  }
  EXPECT_EQ(telvo::Allocator::GetLiveCount(), liveBefore);
  EXPECT_EQ(uuid.GetReferenceCount(), 1);
  EXPECT_TRUE(CharacterNodeTransformInterface::CreateNodeTransform(uuid, Matrix(), Matrix()).IsOk())
    << "the class is available again";
}

TEST(CharacterNodeTransformCopy, CopySharesIdAndNameAndLeavesTheSourceAlone)
{
  Uuid uuid = MakeUuid();
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
  EXPECT_EQ(source->GetGlobalMatrix(), Distinct(0));
}

TEST(CharacterNodeTransformDescribe, OwnMembersAfterTheNodeInfoMembers)
{
  kelvara_test::LoadedModuleForTests();
  RecordingDescriber own;
  ASSERT_TRUE(CharacterNodeTransformInterface::DescribeIO(own).IsOk());
  ASSERT_EQ(own.declarations.size(), 3u);
  const char* keys[] = {"_globalMat", "_parentGlobalMat", "_preMultiplyMat"};
  for (size_t i = 0; i < 3; ++i)
  {
    EXPECT_EQ(own.declarations[i].key, keys[i]);
    EXPECT_EQ(own.declarations[i].type, "Matrix");
    EXPECT_EQ(own.declarations[i].flags, telvo::DESCRIBEFLAGS_NONE);
  }

  // The whole class: node info's members first, each accessor reaching its member.
  CharacterNodeTransform t = NewByClassId();
  RecordingDescriber all;
  ASSERT_TRUE(telvo::DescribeClass(*t.GetPointer()->GetClass(), all).IsOk());
  std::vector<std::string> order;
  for (const Declaration& d : all.declarations)
    order.push_back(d.component + "." + d.key);
  EXPECT_EQ(order, (std::vector<std::string>{"CharacterNodeInfoImpl._objectID", "CharacterNodeInfoImpl._objectName",
                                             "CharacterNodeTransformImpl._globalMat",
                                             "CharacterNodeTransformImpl._parentGlobalMat",
                                             "CharacterNodeTransformImpl._preMultiplyMat"}));
  const void* reached[5];
  for (size_t i = 0; i < 5; ++i)
    reached[i] = all.declarations[i].access(t.GetPointer()->FindComponent(all.declarations[i].component.c_str()));
  EXPECT_EQ(reached[0], &t->GetUuid());
  EXPECT_EQ(reached[1], &t->GetName());
  EXPECT_EQ(reached[2], &t->GetGlobalMatrix());
  EXPECT_EQ(reached[3], &t->GetParentGlobalMatrix());
  EXPECT_EQ(reached[4], &t->GetPreMultiplyMatrix());
}

TEST(CharacterNodeTransformDescribe, FirstDescriberErrorStopsTheDescription)
{
  kelvara_test::LoadedModuleForTests();
  RecordingDescriber describer(2);
  Result<void> r = CharacterNodeTransformInterface::DescribeIO(describer);
  ASSERT_TRUE(r.IsError());
  EXPECT_TRUE(r.GetError() == describer.failure);
  EXPECT_EQ(describer.declarations.size(), 2u);
}

// --- out of memory: every operation that can allocate ---

struct SharedPair
{
  CharacterNodeTransform source;
  CharacterNodeTransform copy; // shares source's object until made writable
};

SharedPair MakeSharedPair()
{
  SharedPair pair;
  pair.source = Create(MakeUuid(), Distinct(0), Distinct(100));
  (void)pair.source.MakeWritable().GetValue()->SetName(MakeString("Spine"));
  pair.copy = pair.source;
  return pair;
}

// What the holders see. Whether the copy still shares the source's object is left out: a failure
// after the private copy was made leaves the copy with equal contents in an object of its own.
std::string Snapshot(const SharedPair& pair)
{
  return Text(pair.source) + "|" + Text(pair.copy);
}

TEST(CharacterNodeTransformOutOfMemory, FactoryFailsWholeAndLeaksNothing)
{
  Uuid uuid = MakeUuid();
  int failingRuns = kelvara_test::SweepOutOfMemory(
    [] { return 0; },
    [&](int&) { return CharacterNodeTransformInterface::CreateNodeTransform(uuid, Distinct(0), Distinct(100)); },
    [&](const int&) { return std::to_string(uuid.GetReferenceCount()); });
  EXPECT_EQ(failingRuns, 2) << "the instance, then the id made writable by SetUuid";
}

TEST(CharacterNodeTransformOutOfMemory, CreatingByClassId)
{
  kelvara_test::LoadedModuleForTests();
  int failingRuns = kelvara_test::SweepOutOfMemory(
    [] { return 0; }, [](int&) { return telvo::CreateObject<CharacterNodeTransform>(kClassId); },
    [](const int&) { return std::string(); });
  EXPECT_EQ(failingRuns, 1);
}

TEST(CharacterNodeTransformOutOfMemory, SettersOnASharedTransformLeaveBothHoldersAsTheyWere)
{
  Uuid other = MakeUuid("ffffffff-0000-0000-0000-000000000001");
  telvo::String name = MakeString("Chest");
  using Setter = Result<void> (*)(CharacterNodeTransformInterface*, const Uuid&, const telvo::String&);
  const Setter setters[] = {
    [](CharacterNodeTransformInterface* w, const Uuid& u, const telvo::String&) { return w->SetUuid(u); },
    [](CharacterNodeTransformInterface* w, const Uuid&, const telvo::String& n) { return w->SetName(n); },
    [](CharacterNodeTransformInterface* w, const Uuid&, const telvo::String&) {
      w->SetGlobalMatrix(Translation(1, 1, 1));
      return telvo::OK();
    },
    [](CharacterNodeTransformInterface* w, const Uuid&, const telvo::String&) {
      w->SetParentGlobalMatrix(Translation(1, 1, 1));
      return telvo::OK();
    },
    [](CharacterNodeTransformInterface* w, const Uuid&, const telvo::String&) {
      w->SetPreMultiplyMatrix(Translation(1, 1, 1));
      return telvo::OK();
    },
  };
  for (size_t i = 0; i < std::size(setters); ++i)
  {
    SCOPED_TRACE("setter " + std::to_string(i));
    int failingRuns = kelvara_test::SweepOutOfMemory(
      MakeSharedPair,
      [&](SharedPair& pair) -> Result<void> {
        Result<CharacterNodeTransformInterface*> w = pair.copy.MakeWritable();
        if (w.IsError())
          return w.GetError();
        return setters[i](w.GetValue(), other, name);
      },
      Snapshot);
    // Copying the instance allocates once; SetUuid also makes the copy's own id writable.
    EXPECT_EQ(failingRuns, i == 0 ? 2 : 1);
  }
}

TEST(CharacterNodeTransformOutOfMemory, TextDropsWholePiecesOnly)
{
  CharacterNodeTransform t = Create(MakeUuid(), Translation(1, 2, 3), Distinct(0));
  (void)t.MakeWritable().GetValue()->SetName(MakeString("Neck"));
  const std::vector<std::string> pieces = {std::string("Object ID : ") + kUuidText + "\n", "Object Name : Neck\n",
                                           "Global Matrix :\n((1,0,0),(0,1,0),(0,0,1),(1,2,3))\n",
                                           "Parent Global Matrix :\n((4,5,6),(7,8,9),(10,11,12),(1,2,3))\n",
                                           std::string("Pre-Multiply Matrix :\n") + kIdentityText + "\n"};
  std::string whole;
  for (const std::string& piece : pieces)
    whole += piece;
  int failingRuns = kelvara_test::SweepAllocationFailures(
    [&] { return 0; }, [&](int&) { return std::string(t->ToString().View()); },
    [&](int&, const std::string& text, bool failed) {
      if (!failed)
        EXPECT_EQ(text, whole);
      else
        EXPECT_TRUE(IsMadeOfPieces(text, pieces)) << text;
    });
  EXPECT_GT(failingRuns, 5);
}

} // namespace
