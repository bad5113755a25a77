// Counting the nodes of skeleton trees.
#include <benchmark/benchmark.h>

#include "bench_support.h"
#include "telvo/charactertree.h"

namespace
{

using telvo::CharacterTreeInterface;
using telvo::CharacterTreeRef;
using telvo::Int;

// A skeleton-like tree of n nodes: a spine of n/4 nodes, and chains of up to six nodes (limbs,
// fingers) hung off the spine nodes in turn. Every fifth node is a grouping node.
CharacterTreeRef MakeSkeleton(Int n)
{
  Int made = 0;
  auto node = [&] {
    ++made;
    return CharacterTreeInterface::CreateTree(telvo::Uuid(), telvo::String(), made % 5 != 0).GetValue();
  };
  CharacterTreeRef root = node();
  CharacterTreeRef spine[64];
  const Int spineLength = n / 4 < 1 ? 1 : (n / 4 > 64 ? 64 : n / 4);
  spine[0] = root;
  for (Int i = 1; i < spineLength; ++i)
  {
    spine[i] = node();
    (void)spine[i - 1]->InsertChildLast(spine[i]);
  }
  for (Int at = 0; made < n; at = (at + 1) % spineLength)
  {
    CharacterTreeRef tip = spine[at];
    for (Int j = 0; j < 6 && made < n; ++j)
    {
      CharacterTreeRef next = node();
      (void)tip->InsertChildLast(next);
      tip = next;
    }
  }
  return root;
}

// Times one GetHiearchyCount over the whole tree (range 1: 1 counts only transform nodes).
// Building the tree is excluded; it is made once per run.
void BM_TreeCount(benchmark::State& state)
{
  kelvara_bench::LoadModuleOnce();
  const Int n = state.range(0);
  const bool onlyTransformNodes = state.range(1) != 0;
  CharacterTreeRef root = MakeSkeleton(n);
  if (root->GetHiearchyCount(false).GetValue() != n)
    state.SkipWithError("the tree has the wrong size");
  for (auto _ : state)
  {
    telvo::Result<Int> count = root->GetHiearchyCount(onlyTransformNodes);
    benchmark::DoNotOptimize(count);
  }
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_TreeCount)->ArgsProduct({{16, 64, 256}, {0, 1}});

} // namespace
