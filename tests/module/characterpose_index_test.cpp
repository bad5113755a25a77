// Lookups by id in larger poses go through an index of the pose's own; these tests hold it to the
// answers of a plain scan, on random poses with repeated ids, missing ids and null slots.
#include <gtest/gtest.h>

#include <random>
#include <thread>
#include <vector>

#include "support/loaded_module.h"
#include "support/poses.h"

using namespace telvo;
using namespace kelvara_test;

namespace
{

// The answer a lookup must give: the first element with the id, a null slot standing for the
// empty id.
const void* ScanFor(const BaseArray<CharacterNodeTransform>& array, const Uuid& id)
{
  for (const CharacterNodeTransform& element : array)
    if (element ? element->GetUuid() == id : !id.IsValid())
      return element.GetPointer();
  return nullptr;
}

Uuid IdNumber(int n)
{
  Uuid::Bytes bytes{};
  bytes[0] = 0x10;
  bytes[15] = static_cast<Byte>(n);
  return Value(Uuid::Create(bytes));
}

struct RandomPoses
{
  std::mt19937 random{20261124};
  std::vector<Uuid> ids; // a few distinct ids, the all-zero id and the null id
  CharacterNodeTransform MakeElement()
  {
    const int pick = std::uniform_int_distribution<int>(0, 9)(random);
    if (pick == 0)
      return CharacterNodeTransform(); // a null slot
    const Uuid& id = ids[std::uniform_int_distribution<std::size_t>(0, ids.size() - 1)(random)];
    return MakeTransform(id, Matrix());
  }
  RandomPoses()
  {
    LoadedModuleForTests();
    for (int n = 1; n <= 12; ++n)
      ids.push_back(IdNumber(n));
    ids.push_back(Value(Uuid::Create(Uuid::Bytes{})));
    ids.push_back(Uuid());
  }
};

void ExpectLookupsAsScan(const CharacterPose& pose, const std::vector<Uuid>& queries)
{
  for (const Uuid& id : queries)
    EXPECT_EQ(Value(pose->GetNodeTransformByID(id)).GetPointer(), ScanFor(pose->GetNodeTransformArray(), id))
      << Text(id.ToString()) << " among " << pose->GetNodeTransformCount();
}

TEST(CharacterPoseIndex, AnswersAsAScanOnRandomPosesWithRepeatedIdsAndNullSlots)
{
  RandomPoses poses;
  std::vector<Uuid> queries = poses.ids;
  queries.push_back(IdNumber(99)); // in no pose
  for (int round = 0; round < 300; ++round)
  {
    const int count = std::uniform_int_distribution<int>(0, 60)(poses.random);
    std::vector<CharacterNodeTransform> elements;
    for (int i = 0; i < count; ++i)
      elements.push_back(poses.MakeElement());
    CharacterPose pose = MakePose(elements);
    ExpectLookupsAsScan(pose, queries);
    ExpectLookupsAsScan(pose, queries); // the index built by the first round answers the second

    // Handed its own array, the pose is unchanged; a copy answers alike; a new array replaces the
    // old one's answers.
    ASSERT_TRUE(Value(pose.MakeWritable())->SetNodeTransformArray(pose->GetNodeTransformArray()).IsOk());
    ExpectLookupsAsScan(pose, queries);
    CharacterPose copy = pose;
    ASSERT_TRUE(Value(copy.MakeWritable()) != nullptr);
    ExpectLookupsAsScan(copy, queries);
    std::vector<CharacterNodeTransform> shorter(elements.rbegin(), elements.rend());
    shorter.resize(shorter.size() / 2);
    BaseArray<CharacterNodeTransform> array;
    for (const CharacterNodeTransform& t : shorter)
      ASSERT_TRUE(array.Append(t).IsOk());
    ASSERT_TRUE(Value(pose.MakeWritable())->SetNodeTransformArray(array).IsOk());
    ExpectLookupsAsScan(pose, queries);
  }
}

TEST(CharacterPoseIndex, AnIdChangedBehindThePoseIsFoundWhereAScanFindsIt)
{
  RandomPoses poses;
  // Elements changed in place by their owner after the pose indexed them, as the retarget road
  // does with the matrices of its current pose.
  std::vector<CharacterNodeTransform> elements;
  std::vector<CharacterNodeTransformInterface*> writable;
  for (int i = 0; i < 20; ++i)
  {
    elements.push_back(MakeTransform(IdNumber(i % 5), Matrix()));
    writable.push_back(Value(elements.back().MakeWritable()));
  }
  CharacterPose pose = MakePose(elements);
  std::vector<Uuid> queries;
  for (int n = 0; n < 8; ++n)
    queries.push_back(IdNumber(n));
  ExpectLookupsAsScan(pose, queries);
  ASSERT_TRUE(writable[3]->SetUuid(IdNumber(7)).IsOk());
  ASSERT_TRUE(writable[0]->SetUuid(IdNumber(3)).IsOk());
  ExpectLookupsAsScan(pose, queries);
  EXPECT_EQ(Value(pose->GetNodeTransformByID(IdNumber(7))).GetPointer(), elements[3].GetPointer());
  EXPECT_EQ(Value(pose->GetNodeTransformByID(IdNumber(0))).GetPointer(), elements[5].GetPointer());
}

TEST(CharacterPoseIndex, ThreadsSharingAPoseGetTheScansAnswers)
{
  RandomPoses poses;
  std::vector<CharacterNodeTransform> elements;
  for (int i = 0; i < 500; ++i)
    elements.push_back(poses.MakeElement());
  const CharacterPose pose = MakePose(elements);
  std::vector<const void*> expected;
  for (const Uuid& id : poses.ids)
    expected.push_back(ScanFor(pose->GetNodeTransformArray(), id));
  // Every thread races to index the shared pose on its first lookup; one index is kept.
  std::vector<std::thread> threads;
  std::vector<int> wrong(4, 0);
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (int round = 0; round < 200; ++round)
        for (std::size_t q = 0; q < poses.ids.size(); ++q)
          wrong[static_cast<std::size_t>(t)] += pose->GetNodeTransformByID(poses.ids[q]).GetValue().GetPointer() != expected[q];
    });
  for (std::thread& t : threads)
    t.join();
  EXPECT_EQ(wrong, std::vector<int>(4, 0));
}

} // namespace
