#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "support/helper_fixture.h"
#include "support/oom_sweep.h"
#include "support/poses.h"
#include "support/quaternion.h"

using namespace telvo;
using kelvara_test::MakeString;

namespace
{

constexpr const char* kAssociationClassId = "net.telvo.animation.class.characterassociation";

Uuid MakeId(int n)
{
  return kelvara_test::TaggedUuid(n, 0x11);
}

// Skeleton node n has the id MakeId(n).
CharacterTreeRef Node(int n, const char* name, std::initializer_list<CharacterTreeRef> children = {})
{
  CharacterTreeRef node = CharacterTreeInterface::CreateTree(MakeId(n), MakeString(name), true).GetValue();
  for (const CharacterTreeRef& child : children)
    EXPECT_TRUE(node->InsertChildLast(ObjectRef(child)).IsOk());
  return node;
}

// A body part with its skeleton keywords, discard keywords, skeleton node numbers (-1: a null id) and children.
CharacterBodyPartRef Part(const char* identifier, std::initializer_list<const char*> keywords = {},
                          std::initializer_list<const char*> discard = {}, std::initializer_list<int> skeleton = {},
                          std::initializer_list<CharacterBodyPartRef> children = {})
{
  CharacterBodyPartRef part =
    CharacterBodyPartInterface::CreateBodyPart(kelvara_test::Id(identifier), MakeString(identifier)).GetValue();
  EXPECT_TRUE(part->SetSkeletonKeywords(kelvara_test::Strings(keywords)).IsOk());
  EXPECT_TRUE(part->SetSkeletonDiscardKeywords(kelvara_test::Strings(discard)).IsOk());
  BaseArray<Uuid> ids;
  for (int n : skeleton)
    EXPECT_TRUE(ids.Append(n < 0 ? Uuid() : MakeId(n)).IsOk());
  EXPECT_TRUE(part->SetSkeleton(ids).IsOk());
  for (const CharacterBodyPartRef& child : children)
    EXPECT_TRUE(part->InsertChildLast(ObjectRef(child)).IsOk());
  return part;
}

// The skeleton of a body part as node numbers.
std::vector<int> Numbers(const CharacterBodyPartRef& part)
{
  std::vector<int> numbers;
  for (const Uuid& id : part->GetSkeleton())
    numbers.push_back(id.GetBytes()[15]);
  return numbers;
}

// A pose of nodes n at global offset (10n,0,0).
CharacterPose MakePose(std::initializer_list<int> nodes)
{
  std::vector<CharacterNodeTransform> transforms;
  for (int n : nodes)
    transforms.push_back(kelvara_test::MakeTransform(MakeId(n), Place(kelvara_test::Quat{}, {n * 10.0, 0, 0})));
  return kelvara_test::MakePose(transforms);
}

std::vector<Int> AsVector(const AssociationCounters& c)
{
  return {c.visitedSourceBodyParts, c.matchedBodyParts, c.sourceSkeletonNodes, c.targetSkeletonNodes,
          c.associatedNodePairs};
}

// The node each of the given nodes is associated with (0: none).
std::vector<int> Partners(const CharacterAssociation& association, std::initializer_list<int> nodes)
{
  std::vector<int> partners;
  for (int n : nodes)
  {
    Result<Uuid> partner = association->GetAssociatedUuid(MakeId(n));
    partners.push_back(partner.IsOk() ? partner.GetValue().GetBytes()[15] : 0);
  }
  return partners;
}

using KelvaraHelperTest = kelvara_test::HelperTest;

TEST_F(KelvaraHelperTest, KeywordsMatchCaseInsensitiveSubstringsJoinedByAnd)
{
  const char* names[] = {"LeftArm", "l_ARM_left_01", "ARMLEFT", "Arm_L", "spine2"};
  // Which names each keyword matches; empty pieces are dropped, so a keyword of separators only never matches.
  for (auto [keyword, expected] :
       {std::pair{"arm&&left", "11100"}, {"arm&&", "11110"}, {"&&arm&&&&l", "11110"}, {"&&", "00000"}})
  {
    std::string matched;
    for (const char* name : names)
    {
      CharacterBodyPartRef part = Part("Part", {keyword});
      EXPECT_TRUE(_helper->FillBodyPart(Node(1, name), part).IsOk());
      matched += part->GetSkeleton().GetCount() == 1 ? "1" : "0";
    }
    EXPECT_EQ(matched, expected) << keyword;
  }
}

TEST_F(KelvaraHelperTest, FirstNodeInPreOrderWinsDiscardKeywordsWinAndEverySkeletonIsReplaced)
{
  CharacterTreeRef skeleton = Node(
    1, "Hips",
    {Node(2, "LeftArmRoll", {Node(3, "LeftArm", {Node(4, "LeftHand")})}), Node(5, "LeftArm2"), Node(6, "RightUpLeg")});
  // The rejected node's descendants are still searched; the skeleton's order decides, not the keywords'; a node
  // matching both a keyword and a discard keyword is never taken; the root has no keywords.
  std::vector<CharacterBodyPartRef> parts{Part("LeftArm", {"left&&arm"}, {"roll"}, {9}), Part("Arm", {"hand", "arm"}),
                                          Part("Hand", {"hand"}, {"left"}, {8}), Part("Hips", {"HIPS"}, {"&&"}),
                                          Part("Leg", {"up&&leg"})};
  CharacterBodyPartRef root = Part("Root", {}, {}, {6, 5}, {parts[0], parts[1], parts[2]});
  ASSERT_TRUE(parts[2]->InsertChildLast(ObjectRef(parts[3])).IsOk());
  ASSERT_TRUE(parts[3]->InsertChildLast(ObjectRef(parts[4])).IsOk());
  ASSERT_TRUE(_helper->FillBodyPart(skeleton, root).IsOk());
  const std::vector<std::vector<int>> expected{{}, {3}, {2}, {}, {1}, {6}};
  for (size_t i = 0; i < parts.size(); ++i)
    EXPECT_EQ(Numbers(parts[i]), expected[i + 1]) << i;
  EXPECT_EQ(Numbers(root), expected[0]);

  // Without keywords nothing is searched, so a missing skeleton is only an error when searched.
  EXPECT_TRUE(_helper->FillBodyPart(skeleton, CharacterBodyPartRef()).GetError().IsClass(NullptrError));
  EXPECT_TRUE(_helper->FillBodyPart(CharacterTreeRef(), Part("Root")).IsOk());
  EXPECT_TRUE(_helper->FillBodyPart(CharacterTreeRef(), Part("Root", {"hips"})).GetError().IsClass(NullptrError));
  // A failing fill leaves the body part's skeleton as it was.
  auto makeArm = [] { return Part("Arm", {"left&&arm", "arm"}, {"roll"}, {9}); };
  EXPECT_GT(kelvara_test::SweepOutOfMemory(
              makeArm, [&](CharacterBodyPartRef& arm) { return _helper->FillBodyPart(skeleton, arm); },
              [](const CharacterBodyPartRef& arm) { return testing::PrintToString(Numbers(arm)); }),
            0);
}

TEST_F(KelvaraHelperTest, AssociationPairsByIdentifierAndPositionSwallowingTheErrorsOfOneBodyPart)
{
  AssociationCounters counters{7, 7, 7, 7, 7};
  for (int which = 0; which < 3; ++which)
  {
    Result<CharacterAssociation> r = _helper->AssociateBodyPartsByIdentifier(
      which == 1 ? Part("A") : CharacterBodyPartRef(), which == 2 ? Part("A") : CharacterBodyPartRef(), counters);
    ASSERT_TRUE(r.IsError());
    EXPECT_TRUE(r.GetError().IsClass(IllegalArgumentError));
    EXPECT_STREQ(r.GetError().GetMessage(), "Illegal argument: Condition srcBodyPart && dstBodyPart not fulfilled. ");
  }
  EXPECT_EQ(AsVector(counters), (std::vector<Int>{7, 7, 7, 7, 7})) << "missing roots leave the counters alone";
  Result<CharacterAssociation> none =
    _helper->AssociateBodyPartsByIdentifier(Part("Hips", {}, {}, {1}, {Part("Spine", {}, {}, {2}), Part("Head")}),
                                            Part("Pelvis", {}, {}, {11}, {Part("Chest", {}, {}, {12})}), counters);
  ASSERT_TRUE(none.IsOk());
  EXPECT_EQ(AsVector(counters), (std::vector<Int>{3, 0, 0, 0, 0})) << "every source body part visited";
  EXPECT_EQ(Partners(none.GetValue(), {1, 11}), (std::vector<int>{0, 0}));
  EXPECT_EQ(none.GetValue().GetStrongRef()->GetReferenceCount(), 1);

  // Arm: 5 nodes against 3 found deep in the target, the first three positional pairs only.
  Result<CharacterAssociation> arm = _helper->AssociateBodyPartsByIdentifier(
    Part("Root", {}, {}, {}, {Part("Arm", {}, {}, {1, 2, 3, 4, 5})}),
    Part("Root", {}, {}, {}, {Part("Chest", {}, {}, {}, {Part("Arm", {}, {}, {21, 22, 23})})}), counters);
  ASSERT_TRUE(arm.IsOk());
  EXPECT_EQ(AsVector(counters), (std::vector<Int>{2, 2, 5, 3, 3}));
  EXPECT_EQ(Partners(arm.GetValue(), {1, 3, 22, 4, 5}), (std::vector<int>{21, 23, 2, 0, 0}));
  EXPECT_EQ(kelvara_test::Value(arm.GetValue()->GetAssociatedId(kelvara_test::Id("Arm"))).View(), "Arm");

  // The Hips pair fails at its null id: its first pair stays but its node counters are never added.
  counters = {};
  Result<CharacterAssociation> r =
    _helper->AssociateBodyPartsByIdentifier(Part("Hips", {}, {}, {1, -1}, {Part("Arm", {}, {}, {3})}),
                                            Part("Hips", {}, {}, {11, 12}, {Part("Arm", {}, {}, {13})}), counters);
  ASSERT_TRUE(r.IsOk());
  EXPECT_EQ(AsVector(counters), (std::vector<Int>{2, 2, 1, 1, 1}));
  EXPECT_EQ(Partners(r.GetValue(), {1, 3, 12}), (std::vector<int>{11, 13, 0}));

  // Only creating the association fails the call; later failures are swallowed per body part.
  CharacterBodyPartRef source = Part("Hips", {}, {}, {}, {Part("Arm", {}, {}, {3, 4})});
  CharacterBodyPartRef target = Part("Hips", {}, {}, {}, {Part("Arm", {}, {}, {13, 14})});
  EXPECT_GT(kelvara_test::SweepAllocationFailures(
              [] { return AssociationCounters{}; },
              [&](AssociationCounters& c) { return _helper->AssociateBodyPartsByIdentifier(source, target, c); },
              [&](AssociationCounters& c, const Result<CharacterAssociation>& r, bool failed) {
                EXPECT_TRUE(r.IsOk() || (failed && r.GetError().IsClass(OutOfMemoryError)));
                EXPECT_TRUE(failed || AsVector(c) == (std::vector<Int>{2, 2, 2, 2, 2}));
              }),
            0);
}

TEST_F(KelvaraHelperTest, TranslationKeepsAssociatedNodesOnPrivateCopiesInSourceOrder)
{
  CharacterPose pose = MakePose({1, 2, 3});
  const std::string before = kelvara_test::Text(pose->ToString());
  CharacterAssociation association = CreateObject<CharacterAssociation>(kAssociationClassId).GetValue();
  ASSERT_TRUE(association.MakeWritable().GetValue()->AssociateUuid(MakeId(3), MakeId(33)).IsOk());
  ASSERT_TRUE(association.MakeWritable().GetValue()->AssociateUuid(MakeId(1), MakeId(11)).IsOk());
  CharacterPose translated = kelvara_test::Value(_helper->TranslateSrcToDestID(association, pose));
  ASSERT_EQ(translated->GetNodeTransformCount(), 2);
  for (Int i = 0; i < 2; ++i)
  {
    EXPECT_TRUE(translated->GetNodeTransformArray()[i]->GetUuid() == MakeId(11 + 22 * i));
    EXPECT_EQ(translated->GetNodeTransformArray()[i]->GetGlobalMatrix().off.x, 10.0 + 20 * i);
  }
  for (const CharacterAssociation& empty :
       {CharacterAssociation(), CreateObject<CharacterAssociation>(kAssociationClassId).GetValue()})
    EXPECT_EQ(kelvara_test::Value(_helper->TranslateSrcToDestID(empty, pose))->GetNodeTransformCount(), 0);
  EXPECT_EQ(kelvara_test::Text(pose->ToString()), before);
  EXPECT_EQ(pose->GetNodeTransformArray()[0].GetStrongRef()->GetReferenceCount(), 1);
  EXPECT_TRUE(_helper->TranslateSrcToDestID(association, CharacterPose()).GetError().IsClass(NullptrError));
  EXPECT_GT(kelvara_test::SweepOutOfMemory([] { return 0; },
                                           [&](int) { return _helper->TranslateSrcToDestID(association, pose); },
                                           [&](int) { return kelvara_test::Text(pose->ToString()); }),
            0);
}

TEST_F(KelvaraHelperTest, MatchingCountCoversTheSubtreeOnlyWhenRecursive)
{
  CharacterBodyPartRef hand = Part("Hand", {}, {}, {4, 5});
  CharacterBodyPartRef root = Part("Chest", {}, {}, {1, 2, 9}, {Part("Arm", {}, {}, {3}, {hand})});
  CharacterPose pose = MakePose({1, 2, 3, 5});
  EXPECT_EQ(_helper->FindBodyPartMatchingCount(root, pose, false).GetValue(), 2);
  EXPECT_EQ(_helper->FindBodyPartMatchingCount(root, pose, true).GetValue(), 4);
  EXPECT_EQ(_helper->FindBodyPartMatchingCount(hand, pose, true).GetValue(), 1);
  EXPECT_TRUE(_helper->FindBodyPartMatchingCount(CharacterBodyPartRef(), pose, true).GetError().IsClass(NullptrError));
  EXPECT_TRUE(_helper->FindBodyPartMatchingCount(root, CharacterPose(), false).GetError().IsClass(NullptrError));
}

} // namespace
