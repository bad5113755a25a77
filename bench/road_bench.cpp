// The retargeting road per frame, and filling body parts by keywords.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <vector>

#include "bench_support.h"
#include "telvo/charactersolver.h"
#include "telvo/kelvarahelper.h"

using namespace telvo;

namespace
{

Uuid MakeId(int n)
{
  Uuid::Bytes bytes{};
  bytes[0] = 0x42;
  bytes[14] = static_cast<Byte>(n >> 8);
  bytes[15] = static_cast<Byte>(n);
  return Uuid::Create(bytes).GetValue();
}

String Text(const char* text)
{
  return String::Create(text).GetValue();
}

// A rotation of angle radians about the axis (x, y, z), normalised here.
Matrix Rotation(double x, double y, double z, double angle, const Vector& offset)
{
  const Vector a = Normalized({x, y, z});
  const double c = std::cos(angle), s = std::sin(angle), t = 1.0 - c;
  Matrix m;
  m.off = offset;
  m.v1 = {t * a.x * a.x + c, t * a.x * a.y + s * a.z, t * a.x * a.z - s * a.y};
  m.v2 = {t * a.x * a.y - s * a.z, t * a.y * a.y + c, t * a.y * a.z + s * a.x};
  m.v3 = {t * a.x * a.z + s * a.y, t * a.y * a.z - s * a.x, t * a.z * a.z + c};
  return m;
}

int ParentOf(int i)
{
  return i == 0 ? -1 : (i - 1) / 3; // a bushy skeleton: every joint has up to three children
}

CharacterPose MakePose(const BaseArray<CharacterNodeTransform>& transforms)
{
  CharacterPose pose = CreateObject<CharacterPose>("net.telvo.animation.class.characterpose").GetValue();
  (void)pose.MakeWritable().GetValue()->SetNodeTransformArray(transforms);
  return pose;
}

// Global matrices of an n-joint skeleton whose local rotations are turned by `turn` radians.
std::vector<Matrix> Globals(int n, double turn)
{
  std::vector<Matrix> globals;
  for (int i = 0; i < n; ++i)
  {
    const Matrix local = Rotation(1.0 + i % 3, 0.5, i % 2, 0.1 * i + turn, {0.1 * (i % 4), 0.3, 0.05 * (i % 5)});
    globals.push_back(ParentOf(i) < 0 ? local : globals[ParentOf(i)] * local);
  }
  return globals;
}

// Times one frame of the road over every node: ExtractGlobalDeltaPose, TranslateSrcToDestID, and
// ApplyGlobalRotationDelta down the target skeleton (each target joint's node transform updated
// in place and its delta looked up by id, as a host does). Building the characters, the
// association and the frame's source pose is excluded.
void BM_RoadFrame(benchmark::State& state)
{
  kelvara_bench::LoadModuleOnce();
  const int n = static_cast<int>(state.range(0));
  const std::vector<Matrix> rest = Globals(n, 0.0);
  const std::vector<Matrix> animated = Globals(n, 0.4);

  BaseArray<CharacterNodeTransform> restArray, currentArray;
  CharacterAssociation association =
    CreateObject<CharacterAssociation>("net.telvo.animation.class.characterassociation").GetValue();
  std::vector<CharacterNodeTransform> targetNodes;
  std::vector<Uuid> targetIds;
  std::vector<Vector> restLocalOffsets;
  for (int i = 0; i < n; ++i)
  {
    const Matrix restParent = ParentOf(i) < 0 ? Matrix{} : rest[ParentOf(i)];
    (void)restArray.Append(CharacterNodeTransformInterface::CreateNodeTransform(MakeId(i), rest[i], restParent).GetValue());
    (void)currentArray.Append(
      CharacterNodeTransformInterface::CreateNodeTransform(MakeId(i), animated[i], restParent).GetValue());
    (void)association.MakeWritable().GetValue()->AssociateUuid(MakeId(i), MakeId(1000 + i));
    targetIds.push_back(MakeId(1000 + i));
    targetNodes.push_back(CharacterNodeTransformInterface::CreateNodeTransform(targetIds[i], rest[i], restParent).GetValue());
    restLocalOffsets.push_back((Inverse(restParent) * rest[i]).off);
  }
  CharacterDefinition source =
    CreateObject<CharacterDefinition>("net.telvo.animation.class.characterdefinition").GetValue();
  (void)source.MakeWritable().GetValue()->SetSkeletonRestPose(MakePose(restArray));
  CharacterSolverConfiguration configuration =
    CreateObject<CharacterSolverConfiguration>("net.telvo.animation.class.charactersolverconfiguration").GetValue();
  (void)configuration.MakeWritable().GetValue()->SetSourceCharacter(source);
  const CharacterPose current = MakePose(currentArray);
  const CharacterSolver solver = CreateObject<CharacterSolver>("net.telvo.animation.class.charactersolver").GetValue();
  const KelvaraHelperRef helper = CreateObject<KelvaraHelperRef>("net.telvo.animation.class.kelvarahelper").GetValue();
  std::vector<Matrix> newGlobals(n);

  for (auto _ : state)
  {
    Result<CharacterPose> deltas = solver->ExtractGlobalDeltaPose(configuration, current);
    Result<CharacterPose> translated = helper->TranslateSrcToDestID(association, deltas.GetValue());
    for (int i = 0; i < n; ++i)
    {
      const Matrix parent = ParentOf(i) < 0 ? Matrix{} : newGlobals[ParentOf(i)];
      CharacterNodeTransformInterface* node = targetNodes[i].MakeWritable().GetValue();
      // The joint's rest rotation at its rest offset under the parent's new global matrix.
      Matrix global = rest[i];
      global.off = TransformPoint(parent, restLocalOffsets[i]);
      node->SetGlobalMatrix(global);
      node->SetParentGlobalMatrix(parent);
      const CharacterNodeTransform delta = translated.GetValue()->GetNodeTransformByID(targetIds[i]).GetValue();
      newGlobals[i] = parent * solver->ApplyGlobalRotationDelta(targetNodes[i], delta, false);
    }
    benchmark::DoNotOptimize(newGlobals.data());
  }
  state.counters["frames/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  state.counters["node deltas/s"] =
    benchmark::Counter(static_cast<double>(state.iterations()) * n, benchmark::Counter::kIsRate);
}

// Times FillBodyPart over a tree of 20 body parts (a root with four limbs of four parts each,
// plus three more under the root) on a 100-node skeleton; every body part holds two keywords and
// one discard keyword, and its match lies at a different depth. Building the trees is excluded.
void BM_FillBodyPart(benchmark::State& state)
{
  kelvara_bench::LoadModuleOnce();
  constexpr int kNodes = 100;
  constexpr int kParts = 20;
  std::vector<CharacterTreeRef> nodes;
  char name[64];
  for (int i = 0; i < kNodes; ++i)
  {
    std::snprintf(name, sizeof(name), "%s_Joint%03d_%s", i % 7 == 0 ? "Twist" : "Bone", i, i % 2 ? "L" : "R");
    nodes.push_back(CharacterTreeInterface::CreateTree(MakeId(i), Text(name), true).GetValue());
    if (ParentOf(i) >= 0)
      (void)nodes[ParentOf(i)]->InsertChildLast(ObjectRef(nodes[i]));
  }
  std::vector<CharacterBodyPartRef> parts;
  for (int k = 0; k < kParts; ++k)
  {
    std::snprintf(name, sizeof(name), "Part%02d", k);
    parts.push_back(
      CharacterBodyPartInterface::CreateBodyPart(InternedId::Intern(name).GetValue(), Text(name)).GetValue());
    BaseArray<String> keywords, discard;
    std::snprintf(name, sizeof(name), "joint%03d&&_%s", (k * 5 + 3) % kNodes, ((k * 5 + 3) % kNodes) % 2 ? "l" : "r");
    (void)keywords.Append(Text(name));
    (void)keywords.Append(Text("no&&such&&node"));
    (void)discard.Append(Text("twist"));
    (void)parts[k]->SetSkeletonKeywords(keywords);
    (void)parts[k]->SetSkeletonDiscardKeywords(discard);
    const int parent = k == 0 ? -1 : (k <= 4 ? 0 : (k <= 16 ? k - 4 : 0));
    if (parent >= 0)
      (void)parts[parent]->InsertChildLast(ObjectRef(parts[k]));
  }
  const KelvaraHelperRef helper = CreateObject<KelvaraHelperRef>("net.telvo.animation.class.kelvarahelper").GetValue();
  for (auto _ : state)
  {
    Result<void> filled = helper->FillBodyPart(nodes[0], parts[0]);
    benchmark::DoNotOptimize(filled);
  }
  state.counters["body parts/s"] =
    benchmark::Counter(static_cast<double>(state.iterations()) * kParts, benchmark::Counter::kIsRate);
}

} // namespace

BENCHMARK(BM_RoadFrame)->Arg(31)->Arg(100);
BENCHMARK(BM_FillBodyPart);
