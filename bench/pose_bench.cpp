// Pose lookup by node id, as retargeting does it for every node of every frame.
//
// Timed: one GetNodeTransformByID call through the interface, including the answer's reference
// being taken and released. Excluded: building the pose and the ids (done once per benchmark).
// The id looked up is equal by value to the element's but a distinct handle, as ids coming from
// another character's tables are, so every visited element is compared by its bytes.
#include <benchmark/benchmark.h>

#include <array>

#include "bench_support.h"
#include "telvo/characterpose.h"

namespace
{

using telvo::BaseArray;
using telvo::CharacterNodeTransform;
using telvo::CharacterPose;
using telvo::Uuid;

enum Position : int
{
  kFirst,
  kMiddle,
  kLast,
  kMissing,
};

// Distinct ids that share their leading bytes, so that each comparison reads well into the id.
Uuid NodeId(int index)
{
  Uuid::Bytes bytes{};
  bytes.fill(0x5a);
  bytes[14] = static_cast<telvo::Byte>(index >> 8);
  bytes[15] = static_cast<telvo::Byte>(index & 0xff);
  return telvo::Uuid::Create(bytes).GetValue();
}

CharacterPose MakePose(int nodes)
{
  kelvara_bench::LoadModuleOnce();
  BaseArray<CharacterNodeTransform> transforms;
  for (int i = 0; i < nodes; ++i)
    (void)transforms.Append(
      telvo::CharacterNodeTransformInterface::CreateNodeTransform(NodeId(i), telvo::Matrix(), telvo::Matrix()).GetValue());
  CharacterPose pose = telvo::CreateObject<CharacterPose>("net.telvo.animation.class.characterpose").GetValue();
  (void)pose.MakeWritable().GetValue()->SetNodeTransformArray(transforms);
  return pose;
}

void BM_GetNodeTransformByID(benchmark::State& state)
{
  const int nodes = static_cast<int>(state.range(0));
  const auto position = static_cast<Position>(state.range(1));
  CharacterPose pose = MakePose(nodes);
  const int index = position == kFirst ? 0 : position == kMiddle ? nodes / 2 : position == kLast ? nodes - 1 : nodes;
  const Uuid id = NodeId(index);
  const bool expectFound = position != kMissing;
  for (auto _ : state)
  {
    telvo::Result<CharacterNodeTransform> found = pose->GetNodeTransformByID(id);
    benchmark::DoNotOptimize(found.GetValue().GetPointer());
  }
  if (static_cast<bool>(pose->GetNodeTransformByID(id).GetValue()) != expectFound)
    state.SkipWithError("the lookup answered wrongly");
  state.SetLabel(std::array<const char*, 4>{"first", "middle", "last", "missing"}[position]);
}

BENCHMARK(BM_GetNodeTransformByID)->ArgNames({"nodes", "position"})->ArgsProduct({{16, 64, 256}, {kFirst, kMiddle, kLast, kMissing}});

} // namespace
