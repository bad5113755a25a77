#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/helper_fixture.h"
#include "support/oom_sweep.h"
#include "support/poses.h"

using namespace telvo;
using namespace kelvara_test; // character builders

namespace
{

constexpr const char* kAssociationClassId = "net.telvo.animation.class.characterassociation";

// A pose of nodes n at global offset (10n,0,0).
CharacterPose PoseOfNodes(std::initializer_list<int> nodes)
{
  std::vector<CharacterNodeTransform> transforms;
  for (int n : nodes)
    transforms.push_back(MakeTransform(NodeId(n), Matrix{{n * 10.0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}}));
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
    partners.push_back(NodeNumber(association->GetAssociatedUuid(NodeId(n)).GetValue()));
  return partners;
}

using KelvaraHelperTest = HelperTest;

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
      CharacterBodyPartRef part = MakeBodyPart("Part", {keyword});
      EXPECT_TRUE(_helper->FillBodyPart(MakeNode(1, name), part).IsOk());
      matched += part->GetSkeleton().GetCount() == 1 ? "1" : "0";
    }
    EXPECT_EQ(matched, expected) << keyword;
  }
}

TEST_F(KelvaraHelperTest, FirstNodeInPreOrderWinsDiscardKeywordsWinAndEverySkeletonIsReplaced)
{
  CharacterTreeRef skeleton = MakeNode(1, "Hips",
                                       {MakeNode(2, "LeftArmRoll", {MakeNode(3, "LeftArm", {MakeNode(4, "LeftHand")})}),
                                        MakeNode(5, "LeftArm2"), MakeNode(6, "RightUpLeg")});
  // Pre-order decides, not the keywords; a rejected node's children are still searched; discard keywords win.
  std::vector<CharacterBodyPartRef> parts{MakeBodyPart("LeftArm", {"left&&arm"}, {"roll"}, {9}),
                                          MakeBodyPart("Arm", {"hand", "arm"}),
                                          MakeBodyPart("Hand", {"hand"}, {"left"}, {8}),
                                          MakeBodyPart("Hips", {"HIPS"}, {"&&"}), MakeBodyPart("Leg", {"up&&leg"})};
  CharacterBodyPartRef root = MakeBodyPart("Root", {}, {}, {6, 5}, {parts[0], parts[1], parts[2]});
  ASSERT_TRUE(parts[2]->InsertChildLast(ObjectRef(parts[3])).IsOk());
  ASSERT_TRUE(parts[3]->InsertChildLast(ObjectRef(parts[4])).IsOk());
  ASSERT_TRUE(_helper->FillBodyPart(skeleton, root).IsOk());
  const std::vector<std::vector<int>> expected{{}, {3}, {2}, {}, {1}, {6}};
  for (size_t i = 0; i < parts.size(); ++i)
    EXPECT_EQ(SkeletonNumbers(parts[i]), expected[i + 1]) << i;
  EXPECT_EQ(SkeletonNumbers(root), expected[0]);

  // Without keywords nothing is searched, so a missing skeleton is only an error when searched.
  ExpectError(_helper->FillBodyPart(skeleton, CharacterBodyPartRef()), NullptrError);
  EXPECT_TRUE(_helper->FillBodyPart(CharacterTreeRef(), MakeBodyPart("Root")).IsOk());
  ExpectError(_helper->FillBodyPart(CharacterTreeRef(), MakeBodyPart("Root", {"hips"})), NullptrError);
  auto makeArm = [] { return MakeBodyPart("Arm", {"left&&arm", "arm"}, {"roll"}, {9}); };
  EXPECT_GT(SweepOutOfMemory(
              makeArm, [&](CharacterBodyPartRef& arm) { return _helper->FillBodyPart(skeleton, arm); },
              [](const CharacterBodyPartRef& arm) { return testing::PrintToString(SkeletonNumbers(arm)); }),
            0);
}

TEST_F(KelvaraHelperTest, AssociationPairsByIdentifierAndPositionSwallowingTheErrorsOfOneBodyPart)
{
  AssociationCounters counters{7, 7, 7, 7, 7};
  for (int which = 0; which < 3; ++which)
    ExpectError(_helper->AssociateBodyPartsByIdentifier(which == 1 ? MakeBodyPart("A") : CharacterBodyPartRef(),
                                                        which == 2 ? MakeBodyPart("A") : CharacterBodyPartRef(),
                                                        counters),
                IllegalArgumentError, "Illegal argument: Condition srcBodyPart && dstBodyPart not fulfilled. ");
  EXPECT_EQ(AsVector(counters), (std::vector<Int>{7, 7, 7, 7, 7})) << "missing roots leave the counters alone";
  Result<CharacterAssociation> none = _helper->AssociateBodyPartsByIdentifier(
    MakeBodyPart("Hips", {}, {}, {1}, {MakeBodyPart("Spine", {}, {}, {2}), MakeBodyPart("Head")}),
    MakeBodyPart("Pelvis", {}, {}, {11}, {MakeBodyPart("Chest", {}, {}, {12})}), counters);
  ASSERT_TRUE(none.IsOk());
  EXPECT_EQ(AsVector(counters), (std::vector<Int>{3, 0, 0, 0, 0})) << "every source body part visited";

  // Arm: 5 nodes against 3 found deep in the target, the first three positional pairs only.
  CharacterBodyPartRef source = MakeBodyPart("Root", {}, {}, {}, {MakeBodyPart("Arm", {}, {}, {1, 2, 3, 4, 5})});
  CharacterBodyPartRef target =
    MakeBodyPart("Root", {}, {}, {}, {MakeBodyPart("Chest", {}, {}, {}, {MakeBodyPart("Arm", {}, {}, {21, 22, 23})})});
  Result<CharacterAssociation> arm = _helper->AssociateBodyPartsByIdentifier(source, target, counters);
  ASSERT_TRUE(arm.IsOk());
  EXPECT_EQ(AsVector(counters), (std::vector<Int>{2, 2, 5, 3, 3}));
  EXPECT_EQ(Partners(arm.GetValue(), {1, 3, 22, 4, 5}), (std::vector<int>{21, 23, 2, 0, 0}));
  EXPECT_EQ(Value(arm.GetValue()->GetAssociatedId(Id("Arm"))).View(), "Arm");

  // The Hips pair fails at its null id: its first pair stays but its node counters are never added.
  counters = {};
  Result<CharacterAssociation> r = _helper->AssociateBodyPartsByIdentifier(
    MakeBodyPart("Hips", {}, {}, {1, -1}, {MakeBodyPart("Arm", {}, {}, {3})}),
    MakeBodyPart("Hips", {}, {}, {11, 12}, {MakeBodyPart("Arm", {}, {}, {13})}), counters);
  ASSERT_TRUE(r.IsOk());
  EXPECT_EQ(AsVector(counters), (std::vector<Int>{2, 2, 1, 1, 1}));
  EXPECT_EQ(Partners(r.GetValue(), {1, 3, 12}), (std::vector<int>{11, 13, 0}));

  // Only creating the association fails the call; later failures are swallowed per body part.
  EXPECT_GT(SweepAllocationFailures(
              [] { return AssociationCounters{}; },
              [&](AssociationCounters& c) { return _helper->AssociateBodyPartsByIdentifier(source, target, c); },
              [&](AssociationCounters& c, const Result<CharacterAssociation>& r, bool failed) {
                EXPECT_TRUE(r.IsOk() || (failed && r.GetError().IsClass(OutOfMemoryError)));
                EXPECT_TRUE(failed || AsVector(c) == (std::vector<Int>{2, 2, 5, 3, 3}));
              }),
            0);
}

TEST_F(KelvaraHelperTest, TranslationKeepsAssociatedNodesOnPrivateCopiesInSourceOrder)
{
  CharacterPose pose = PoseOfNodes({1, 2, 3});
  const std::string before = Text(pose->ToString());
  CharacterAssociation association = CreateObject<CharacterAssociation>(kAssociationClassId).GetValue();
  ASSERT_TRUE(association.MakeWritable().GetValue()->AssociateUuid(NodeId(3), NodeId(33)).IsOk());
  ASSERT_TRUE(association.MakeWritable().GetValue()->AssociateUuid(NodeId(1), NodeId(11)).IsOk());
  CharacterPose translated = Value(_helper->TranslateSrcToDestID(association, pose));
  ASSERT_EQ(translated->GetNodeTransformCount(), 2);
  for (Int i = 0; i < 2; ++i)
  {
    EXPECT_TRUE(translated->GetNodeTransformArray()[i]->GetUuid() == NodeId(11 + 22 * i));
    EXPECT_EQ(translated->GetNodeTransformArray()[i]->GetGlobalMatrix().off.x, 10.0 + 20 * i);
  }
  for (const CharacterAssociation& empty :
       {CharacterAssociation(), CreateObject<CharacterAssociation>(kAssociationClassId).GetValue()})
    EXPECT_EQ(Value(_helper->TranslateSrcToDestID(empty, pose))->GetNodeTransformCount(), 0);
  EXPECT_EQ(Text(pose->ToString()), before);
  EXPECT_EQ(pose->GetNodeTransformArray()[0].GetStrongRef()->GetReferenceCount(), 1);
  ExpectError(_helper->TranslateSrcToDestID(association, CharacterPose()), NullptrError);
  EXPECT_GT(SweepOutOfMemory([] { return 0; }, [&](int) { return _helper->TranslateSrcToDestID(association, pose); },
                             [&](int) { return Text(pose->ToString()); }),
            0);
}

TEST_F(KelvaraHelperTest, MatchingCountCoversTheSubtreeOnlyWhenRecursive)
{
  CharacterBodyPartRef hand = MakeBodyPart("Hand", {}, {}, {4, 5});
  CharacterBodyPartRef root = MakeBodyPart("Chest", {}, {}, {1, 2, 9}, {MakeBodyPart("Arm", {}, {}, {3}, {hand})});
  CharacterPose pose = PoseOfNodes({1, 2, 3, 5});
  EXPECT_EQ(_helper->FindBodyPartMatchingCount(root, pose, false).GetValue(), 2);
  EXPECT_EQ(_helper->FindBodyPartMatchingCount(root, pose, true).GetValue(), 4);
  EXPECT_EQ(_helper->FindBodyPartMatchingCount(hand, pose, true).GetValue(), 1);
  ExpectError(_helper->FindBodyPartMatchingCount(CharacterBodyPartRef(), pose, true), NullptrError);
  ExpectError(_helper->FindBodyPartMatchingCount(root, CharacterPose(), false), NullptrError);
}

} // namespace
