#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "support/loaded_module.h"
#include "support/oom_sweep.h"
#include "support/poses.h"
#include "telvo/kelvarahelper.h"

using namespace telvo;

namespace
{

String Text(const char* text)
{
  return String::Create(text).GetValue();
}

Uuid MakeId(int n)
{
  Uuid::Bytes bytes{};
  bytes[0] = 0x11;
  bytes[15] = static_cast<Byte>(n);
  return Uuid::Create(bytes).GetValue();
}

BaseArray<String> Words(std::initializer_list<const char*> words)
{
  BaseArray<String> array;
  for (const char* w : words)
    EXPECT_TRUE(array.Append(Text(w)).IsOk());
  return array;
}

BaseArray<Uuid> Ids(std::initializer_list<int> numbers)
{
  BaseArray<Uuid> array;
  for (int n : numbers)
    EXPECT_TRUE(array.Append(n < 0 ? Uuid() : MakeId(n)).IsOk());
  return array;
}

// Skeleton node n has the id MakeId(n).
CharacterTreeRef Node(int n, const char* name, std::initializer_list<CharacterTreeRef> children = {})
{
  CharacterTreeRef node = CharacterTreeInterface::CreateTree(MakeId(n), Text(name), true).GetValue();
  for (const CharacterTreeRef& child : children)
    EXPECT_TRUE(node->InsertChildLast(ObjectRef(child)).IsOk());
  return node;
}

CharacterBodyPartRef Part(const char* identifier, std::initializer_list<const char*> keywords = {},
                          std::initializer_list<const char*> discard = {},
                          std::initializer_list<CharacterBodyPartRef> children = {})
{
  CharacterBodyPartRef part =
    CharacterBodyPartInterface::CreateBodyPart(InternedId::Intern(identifier).GetValue(), Text(identifier)).GetValue();
  EXPECT_TRUE(part->SetSkeletonKeywords(Words(keywords)).IsOk());
  EXPECT_TRUE(part->SetSkeletonDiscardKeywords(Words(discard)).IsOk());
  for (const CharacterBodyPartRef& child : children)
    EXPECT_TRUE(part->InsertChildLast(ObjectRef(child)).IsOk());
  return part;
}

CharacterBodyPartRef WithSkeleton(CharacterBodyPartRef part, std::initializer_list<int> nodes)
{
  EXPECT_TRUE(part->SetSkeleton(Ids(nodes)).IsOk());
  return part;
}

// The skeleton of a body part as node numbers (the last byte of each id; -1 for a null id).
std::vector<int> Numbers(const CharacterBodyPartRef& part)
{
  std::vector<int> numbers;
  for (const Uuid& id : part->GetSkeleton())
    numbers.push_back(id.IsNull() ? -1 : id.GetBytes()[15]);
  return numbers;
}

std::string NumbersText(const CharacterBodyPartRef& part)
{
  std::string text;
  for (int n : Numbers(part))
    text += std::to_string(n) + ",";
  return text;
}

// A pose of nodes n at global offset (10n,0,0).
CharacterPose MakePose(std::initializer_list<int> nodes)
{
  std::vector<CharacterNodeTransform> transforms;
  for (int n : nodes)
  {
    Matrix global;
    global.off = {n * 10.0, 0, 0};
    transforms.push_back(kelvara_test::MakeTransform(MakeId(n), global));
  }
  return kelvara_test::MakePose(transforms);
}

std::string PoseText(const CharacterPose& pose)
{
  return std::string(pose->ToString().View());
}

std::vector<Int> AsVector(const AssociationCounters& c)
{
  return {c.visitedSourceBodyParts, c.matchedBodyParts, c.sourceSkeletonNodes, c.targetSkeletonNodes,
          c.associatedNodePairs};
}

class KelvaraHelperTest : public ::testing::Test
{
protected:
  void SetUp() override
  {
    kelvara_test::LoadedModuleForTests();
    _helper = CreateObject<KelvaraHelperRef>("net.telvo.animation.class.kelvarahelper").GetValue();
  }

  std::vector<int> Fill(const CharacterTreeRef& skeleton, const CharacterBodyPartRef& part)
  {
    Result<void> filled = _helper->FillBodyPart(skeleton, part);
    EXPECT_TRUE(filled.IsOk()) << (filled.IsError() ? filled.GetError().GetMessage() : "");
    return Numbers(part);
  }

  // Whether node n is associated with node m (looked up from n's side).
  static bool Associated(const CharacterAssociation& association, int n, int m)
  {
    Result<Uuid> partner = association->GetAssociatedUuid(MakeId(n));
    return partner.IsOk() && partner.GetValue() == MakeId(m);
  }

  KelvaraHelperRef _helper;
};

TEST_F(KelvaraHelperTest, KeywordsMatchCaseInsensitiveSubstringsJoinedByAnd)
{
  auto matches = [&](const char* keyword, const char* name) {
    return !Fill(Node(1, name), Part("Part", {keyword})).empty();
  };
  EXPECT_TRUE(matches("arm&&left", "LeftArm"));
  EXPECT_TRUE(matches("arm&&left", "l_ARM_left_01"));
  EXPECT_TRUE(matches("arm&&left", "ARMLEFT"));
  EXPECT_FALSE(matches("arm&&left", "Arm_L"));
  EXPECT_TRUE(matches("Spine", "spine2"));
  // The split drops empty pieces: a trailing or doubled "&&" adds no condition, and a keyword that
  // is nothing but separators (or empty) has no pieces and never matches.
  EXPECT_TRUE(matches("arm&&", "Arm_L"));
  EXPECT_TRUE(matches("&&arm&&&&l", "Arm_L"));
  EXPECT_FALSE(matches("&&", "Arm_L"));
  EXPECT_FALSE(matches("", "Arm_L"));
}

TEST_F(KelvaraHelperTest, FirstNodeInPreOrderWinsAndDiscardKeywordsWin)
{
  // Hips(1) { LeftArmRoll(2) { LeftArm(3) { LeftHand(4) } }, LeftArm2(5) }
  CharacterTreeRef skeleton = Node(1, "Hips", {Node(2, "LeftArmRoll", {Node(3, "LeftArm", {Node(4, "LeftHand")})}),
                                               Node(5, "LeftArm2")});
  // The rejected node's descendants are still searched; the search stops at the first match.
  EXPECT_EQ(Fill(skeleton, Part("LeftArm", {"left&&arm"}, {"roll"})), std::vector<int>{3});
  // The skeleton's order decides, not the keywords': "hand" is listed first but LeftArmRoll comes
  // first, and LeftHand, nested under the match, is never taken for the same body part.
  EXPECT_EQ(Fill(skeleton, Part("Arm", {"hand", "arm"})), std::vector<int>{2});
  // A node matching both a keyword and a discard keyword is never taken.
  EXPECT_EQ(Fill(skeleton, Part("Hand", {"hand"}, {"left"})), std::vector<int>{});
  EXPECT_EQ(Fill(skeleton, Part("Hips", {"HIPS"}, {"&&"})), std::vector<int>{1});
}

TEST_F(KelvaraHelperTest, FillingReplacesEverySkeletonAndReachesAllChildren)
{
  CharacterTreeRef skeleton = Node(1, "Hips", {Node(2, "Spine", {Node(3, "Neck")}), Node(4, "RightUpLeg")});
  // The root has no keywords, its first child's keywords match nothing; all held old skeletons.
  CharacterBodyPartRef neck = WithSkeleton(Part("Neck", {"neck"}), {9});
  CharacterBodyPartRef none = WithSkeleton(Part("None", {"tail"}, {}, {neck}), {8});
  CharacterBodyPartRef leg = WithSkeleton(Part("Leg", {"up&&leg"}), {7});
  CharacterBodyPartRef root = WithSkeleton(Part("Root", {}, {}, {none, leg}), {6, 5});
  EXPECT_TRUE(Fill(skeleton, root).empty());
  EXPECT_TRUE(Numbers(none).empty());
  EXPECT_EQ(Numbers(neck), std::vector<int>{3});
  EXPECT_EQ(Numbers(leg), std::vector<int>{4});
}

TEST_F(KelvaraHelperTest, FillingReportsMissingObjects)
{
  Result<void> r = _helper->FillBodyPart(Node(1, "Hips"), CharacterBodyPartRef());
  ASSERT_TRUE(r.IsError());
  EXPECT_TRUE(r.GetError().IsClass(NullptrError));
  // Without keywords nothing is searched, so a missing skeleton is only an error when searched.
  EXPECT_TRUE(_helper->FillBodyPart(CharacterTreeRef(), Part("Root")).IsOk());
  r = _helper->FillBodyPart(CharacterTreeRef(), Part("Root", {"hips"}));
  ASSERT_TRUE(r.IsError());
  EXPECT_TRUE(r.GetError().IsClass(NullptrError));
}

TEST_F(KelvaraHelperTest, AssociationRejectsMissingRootsWithItsExactMessage)
{
  AssociationCounters counters{1, 2, 3, 4, 5};
  for (int which = 0; which < 3; ++which)
  {
    Result<CharacterAssociation> r =
      _helper->AssociateBodyPartsByIdentifier(which == 1 ? Part("A") : CharacterBodyPartRef(),
                                              which == 2 ? Part("A") : CharacterBodyPartRef(), counters);
    ASSERT_TRUE(r.IsError());
    EXPECT_TRUE(r.GetError().IsClass(IllegalArgumentError));
    EXPECT_STREQ(r.GetError().GetMessage(), "Illegal argument: Condition srcBodyPart && dstBodyPart not fulfilled. ");
    EXPECT_FALSE(r.GetValue());
  }
  EXPECT_EQ(AsVector(counters), (std::vector<Int>{1, 2, 3, 4, 5}));
}

TEST_F(KelvaraHelperTest, AssociationPairsByIdentifierAndByPositionAndCountsIt)
{
  // No identifier in common: an empty association, every source body part visited.
  AssociationCounters counters{7, 7, 7, 7, 7};
  Result<CharacterAssociation> none = _helper->AssociateBodyPartsByIdentifier(
    WithSkeleton(Part("Hips", {}, {}, {WithSkeleton(Part("Spine"), {2}), Part("Head")}), {1}),
    WithSkeleton(Part("Pelvis", {}, {}, {WithSkeleton(Part("Chest"), {12})}), {11}), counters);
  ASSERT_TRUE(none.IsOk());
  EXPECT_EQ(AsVector(counters), (std::vector<Int>{3, 0, 0, 0, 0}));
  EXPECT_TRUE(none.GetValue()->GetAssociatedUuid(MakeId(1)).IsError());
  EXPECT_EQ(none.GetValue().GetStrongRef()->GetReferenceCount(), 1);

  // Arm 5 nodes against 3: the first three positional pairs only. The target's Arm is found deep
  // in its tree.
  CharacterBodyPartRef source = Part("Root", {}, {}, {WithSkeleton(Part("Arm"), {1, 2, 3, 4, 5})});
  CharacterBodyPartRef target =
    Part("Root", {}, {}, {Part("Chest", {}, {}, {WithSkeleton(Part("Arm"), {21, 22, 23})})});
  Result<CharacterAssociation> arm = _helper->AssociateBodyPartsByIdentifier(source, target, counters);
  ASSERT_TRUE(arm.IsOk());
  EXPECT_EQ(AsVector(counters), (std::vector<Int>{2, 2, 5, 3, 3}));
  EXPECT_TRUE(Associated(arm.GetValue(), 1, 21));
  EXPECT_TRUE(Associated(arm.GetValue(), 3, 23));
  EXPECT_TRUE(Associated(arm.GetValue(), 22, 2));
  EXPECT_TRUE(arm.GetValue()->GetAssociatedUuid(MakeId(4)).IsError());
  EXPECT_TRUE(arm.GetValue()->GetAssociatedUuid(MakeId(5)).IsError());
  Result<InternedId> armId = arm.GetValue()->GetAssociatedId(InternedId::Intern("Arm").GetValue());
  ASSERT_TRUE(armId.IsOk());
  EXPECT_EQ(armId.GetValue().View(), "Arm");
}

TEST_F(KelvaraHelperTest, ErrorsOfOneBodyPartAreSwallowedAndTheWalkGoesOn)
{
  // The Hips pair fails at its second node pair (a null id cannot be associated): its first pair
  // stays, its node counters are never added; the Arm pair after it is done in full.
  AssociationCounters counters;
  CharacterBodyPartRef source = Part("Hips", {}, {}, {WithSkeleton(Part("Arm"), {3})});
  ASSERT_TRUE(source->SetSkeleton(Ids({1, -1})).IsOk());
  CharacterBodyPartRef target = WithSkeleton(Part("Hips", {}, {}, {WithSkeleton(Part("Arm"), {13})}), {11, 12});
  Result<CharacterAssociation> r = _helper->AssociateBodyPartsByIdentifier(source, target, counters);
  ASSERT_TRUE(r.IsOk());
  EXPECT_EQ(AsVector(counters), (std::vector<Int>{2, 2, 1, 1, 1}));
  EXPECT_TRUE(Associated(r.GetValue(), 1, 11));
  EXPECT_TRUE(Associated(r.GetValue(), 3, 13));
  EXPECT_TRUE(r.GetValue()->GetAssociatedUuid(MakeId(12)).IsError());
}

TEST_F(KelvaraHelperTest, TranslationKeepsAssociatedNodesOnPrivateCopies)
{
  CharacterPose pose = MakePose({1, 2, 3});
  const std::string before = PoseText(pose);
  CharacterAssociation association =
    CreateObject<CharacterAssociation>("net.telvo.animation.class.characterassociation").GetValue();
  ASSERT_TRUE(association.MakeWritable().GetValue()->AssociateUuid(MakeId(3), MakeId(33)).IsOk());
  ASSERT_TRUE(association.MakeWritable().GetValue()->AssociateUuid(MakeId(1), MakeId(11)).IsOk());

  Result<CharacterPose> translated = _helper->TranslateSrcToDestID(association, pose);
  ASSERT_TRUE(translated.IsOk());
  const BaseArray<CharacterNodeTransform>& nodes = translated.GetValue()->GetNodeTransformArray();
  ASSERT_EQ(nodes.GetCount(), 2);
  // Source order, target ids, source matrices.
  EXPECT_TRUE(nodes[0]->GetUuid() == MakeId(11));
  EXPECT_EQ(nodes[0]->GetGlobalMatrix().off.x, 10.0);
  EXPECT_TRUE(nodes[1]->GetUuid() == MakeId(33));
  EXPECT_EQ(nodes[1]->GetGlobalMatrix().off.x, 30.0);
  EXPECT_FALSE(nodes[0].IsSameObject(pose->GetNodeTransformArray()[0]));
  EXPECT_FALSE(translated.GetValue().IsSameObject(pose));
  EXPECT_EQ(PoseText(pose), before);

  // Nothing associated, or no association at all: an empty pose; the source stays as it was.
  for (const CharacterAssociation& empty :
       {CharacterAssociation(),
        CreateObject<CharacterAssociation>("net.telvo.animation.class.characterassociation").GetValue()})
  {
    Result<CharacterPose> r = _helper->TranslateSrcToDestID(empty, pose);
    ASSERT_TRUE(r.IsOk());
    EXPECT_EQ(r.GetValue()->GetNodeTransformCount(), 0);
  }
  EXPECT_EQ(PoseText(pose), before);
  EXPECT_EQ(pose->GetNodeTransformArray()[0].GetStrongRef()->GetReferenceCount(), 1);

  Result<CharacterPose> noPose = _helper->TranslateSrcToDestID(association, CharacterPose());
  ASSERT_TRUE(noPose.IsError());
  EXPECT_TRUE(noPose.GetError().IsClass(NullptrError));
}

TEST_F(KelvaraHelperTest, MatchingCountCoversTheSubtreeOnlyWhenRecursive)
{
  CharacterBodyPartRef grandChild = WithSkeleton(Part("Hand"), {4, 5});
  CharacterBodyPartRef child = WithSkeleton(Part("Arm", {}, {}, {grandChild}), {3});
  CharacterBodyPartRef root = WithSkeleton(Part("Chest", {}, {}, {child}), {1, 2, 9});
  CharacterPose pose = MakePose({1, 2, 3, 5});
  EXPECT_EQ(_helper->FindBodyPartMatchingCount(root, pose, false).GetValue(), 2);
  EXPECT_EQ(_helper->FindBodyPartMatchingCount(root, pose, true).GetValue(), 4);
  EXPECT_EQ(_helper->FindBodyPartMatchingCount(grandChild, pose, true).GetValue(), 1);
  EXPECT_TRUE(_helper->FindBodyPartMatchingCount(CharacterBodyPartRef(), pose, true).GetError().IsClass(NullptrError));
  EXPECT_TRUE(_helper->FindBodyPartMatchingCount(root, CharacterPose(), false).GetError().IsClass(NullptrError));
}

TEST_F(KelvaraHelperTest, OutOfMemoryFailsCleanly)
{
  using kelvara_test::SweepAllocationFailures;
  using kelvara_test::SweepOutOfMemory;
  CharacterTreeRef skeleton = Node(1, "Hips", {Node(2, "LeftUpLeg", {Node(3, "LeftLeg")}), Node(4, "Spine")});

  // One body part: a failing fill leaves its skeleton as it was.
  struct OnePart
  {
    CharacterBodyPartRef part;
  };
  EXPECT_GT(SweepOutOfMemory([] { return OnePart{WithSkeleton(Part("Leg", {"left&&leg", "leg"}, {"up"}), {9})}; },
                             [&](OnePart& s) { return _helper->FillBodyPart(skeleton, s.part); },
                             [](const OnePart& s) { return NumbersText(s.part); }),
            0);

  // A tree of body parts: the parts filled before the failure keep their new skeleton, so only the
  // error and the absence of leaks are checked.
  SweepAllocationFailures(
    [] { return Part("Root", {"hips"}, {}, {Part("Leg", {"leg"}, {"up"}), Part("Spine", {"spine"})}); },
    [&](CharacterBodyPartRef& root) { return _helper->FillBodyPart(skeleton, root); },
    [](CharacterBodyPartRef&, const Result<void>& r, bool failed) {
      EXPECT_TRUE(failed ? r.IsError() && r.GetError().IsClass(OutOfMemoryError) : r.IsOk());
    });

  // Association: only creating the association can fail the call; later failures are per body part
  // and swallowed, leaving fewer pairs. The body parts never change.
  CharacterBodyPartRef source = Part("Hips", {}, {}, {WithSkeleton(Part("Arm"), {3, 4})});
  CharacterBodyPartRef target = Part("Hips", {}, {}, {WithSkeleton(Part("Arm"), {13, 14})});
  EXPECT_GT(SweepAllocationFailures(
              [] { return AssociationCounters{}; },
              [&](AssociationCounters& counters) {
                return _helper->AssociateBodyPartsByIdentifier(source, target, counters);
              },
              [&](AssociationCounters& counters, const Result<CharacterAssociation>& r, bool failed) {
                if (r.IsError())
                {
                  EXPECT_TRUE(failed && r.GetError().IsClass(OutOfMemoryError));
                }
                else if (!failed)
                {
                  EXPECT_EQ(AsVector(counters), (std::vector<Int>{2, 2, 2, 2, 2}));
                }
                EXPECT_EQ(Numbers(source->FindBodyPartByID(InternedId::Intern("Arm").GetValue()).GetValue()),
                          (std::vector<int>{3, 4}));
              }),
            0);

  // Translation: OutOfMemoryError and the source pose unchanged.
  CharacterPose pose = MakePose({1, 2, 3});
  CharacterAssociation association =
    CreateObject<CharacterAssociation>("net.telvo.animation.class.characterassociation").GetValue();
  ASSERT_TRUE(association.MakeWritable().GetValue()->AssociateUuid(MakeId(1), MakeId(11)).IsOk());
  ASSERT_TRUE(association.MakeWritable().GetValue()->AssociateUuid(MakeId(3), MakeId(13)).IsOk());
  EXPECT_GT(SweepOutOfMemory([] { return 0; }, [&](int) { return _helper->TranslateSrcToDestID(association, pose); },
                             [&](int) { return PoseText(pose); }),
            0);

  // Counting allocates nothing.
  CharacterBodyPartRef counted = WithSkeleton(Part("Chest", {}, {}, {WithSkeleton(Part("Arm"), {3})}), {1, 2});
  EXPECT_EQ(SweepAllocationFailures(
              [] { return 0; }, [&](int) { return _helper->FindBodyPartMatchingCount(counted, pose, true); },
              [](int, const Result<Int>& r, bool failed) {
                EXPECT_FALSE(failed);
                EXPECT_EQ(r.GetValue(), 3);
              }),
            0);
}

} // namespace
