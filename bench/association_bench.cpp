// Association lookups on the per-frame path, and the copy a change of a shared definition makes.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <vector>

#include "bench_support.h"
#include "telvo/characterassociation.h"
#include "telvo/characterdefinition.h"

using namespace telvo;

namespace
{

Uuid MakeUuid(unsigned tag, unsigned n)
{
  char text[40];
  std::snprintf(text, sizeof(text), "%08x-0000-4000-8000-%012x", tag, n);
  return Uuid::FromString(text).GetValue();
}

String Str(const std::string& text)
{
  return String::Create(text).GetValue();
}

// Timed: GetAssociatedUuid for every source and then every target id of an association of
// state.range(0) pairs (two lookups per pair, both directions). Excluded: building the
// association and the id handles.
void BM_GetAssociatedUuidBothWays(benchmark::State& state)
{
  kelvara_bench::LoadModuleOnce();
  const unsigned pairs = static_cast<unsigned>(state.range(0));
  CharacterAssociation association =
    CreateObject<CharacterAssociation>("net.telvo.animation.class.characterassociation").GetValue();
  CharacterAssociationInterface* writable = association.MakeWritable().GetValue();
  std::vector<Uuid> ids;
  for (unsigned n = 0; n < pairs; ++n)
  {
    ids.push_back(MakeUuid(0x5a, n));
    ids.push_back(MakeUuid(0x7d, n));
    if (writable->AssociateUuid(ids[ids.size() - 2], ids.back()).IsError())
    {
      state.SkipWithError("association could not be filled");
      return;
    }
  }
  const CharacterAssociationInterface* reader = association.GetPointer();
  for (auto _ : state)
  {
    for (const Uuid& id : ids)
    {
      Result<Uuid> partner = reader->GetAssociatedUuid(id);
      benchmark::DoNotOptimize(partner);
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(ids.size()));
}
BENCHMARK(BM_GetAssociatedUuidBothWays)->Arg(32)->Arg(256)->Arg(4096);

// A skeleton of 31 nodes: a root with five chains of six joints.
CharacterTreeRef MakeSkeleton()
{
  CharacterTreeRef root = CharacterTreeInterface::CreateTree(MakeUuid(0x11, 0), Str("Hips"), true).GetValue();
  for (unsigned chain = 0; chain < 5; ++chain)
  {
    CharacterTreeRef parent = root;
    for (unsigned depth = 0; depth < 6; ++depth)
    {
      const unsigned n = 1 + chain * 6 + depth;
      CharacterTreeRef node =
        CharacterTreeInterface::CreateTree(MakeUuid(0x11, n), Str("Joint" + std::to_string(n)), true).GetValue();
      (void)parent->InsertChildLast(ObjectRef(node));
      parent = node;
    }
  }
  return root;
}

// 20 body parts: a root with 19 children, each with a keyword and a skeleton node.
CharacterBodyPartRef MakeBodyParts()
{
  CharacterBodyPartRef root =
    CharacterBodyPartInterface::CreateBodyPart(InternedId::Intern("Body").GetValue(), Str("Body")).GetValue();
  for (unsigned n = 1; n < 20; ++n)
  {
    const std::string name = "Part" + std::to_string(n);
    CharacterBodyPartRef part =
      CharacterBodyPartInterface::CreateBodyPart(InternedId::Intern(name).GetValue(), Str(name)).GetValue();
    BaseArray<String> keywords;
    (void)keywords.Append(Str(name));
    (void)part->SetSkeletonKeywords(keywords);
    BaseArray<Uuid> skeleton;
    (void)skeleton.Append(MakeUuid(0x11, n));
    (void)part->SetSkeleton(skeleton);
    (void)root->InsertChildLast(ObjectRef(part));
  }
  return root;
}

// Timed: MakeWritable on a definition shared with a second holder (cloning the 31-node skeleton
// and the 20 body parts, sharing both rest poses, copying 8 controllers) and one SetName on the
// private copy, then releasing the copy. Excluded: building the shared definition.
void BM_DefinitionCopyOnWrite(benchmark::State& state)
{
  kelvara_bench::LoadModuleOnce();
  CharacterDefinition shared =
    CreateObject<CharacterDefinition>("net.telvo.animation.class.characterdefinition").GetValue();
  CharacterDefinitionInterface* writable = shared.MakeWritable().GetValue();
  (void)writable->SetUuid(MakeUuid(0x22, 0));
  (void)writable->SetName(Str("Actor"));
  (void)writable->SetSkeletonTree(MakeSkeleton());
  (void)writable->SetBodyPartTree(MakeBodyParts());
  (void)writable->SetSkeletonRestPose(
    CreateObject<CharacterPose>("net.telvo.animation.class.characterpose").GetValue());
  BaseArray<Uuid> controllers;
  for (unsigned n = 0; n < 8; ++n)
    (void)controllers.Append(MakeUuid(0x33, n));
  (void)writable->SetControllers(controllers);
  const String name = Str("Copy");

  for (auto _ : state)
  {
    CharacterDefinition copy = shared;
    Result<CharacterDefinitionInterface*> own = copy.MakeWritable();
    if (own.IsError())
    {
      state.SkipWithError("copy failed");
      return;
    }
    benchmark::DoNotOptimize(own.GetValue()->SetName(name));
  }
}
BENCHMARK(BM_DefinitionCopyOnWrite);

} // namespace
