// Framework containers and matrix arithmetic.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "telvo/array.h"
#include "telvo/hashmap.h"
#include "telvo/matrix.h"

namespace
{

using telvo::BaseArray;
using telvo::HashMap;
using telvo::Int;
using telvo::Matrix;
using telvo::UInt;

// Times appending N ints to a new array, growth and the final free included; the array starts
// without storage each iteration, so every growth step is paid.
void BM_ArrayAppend(benchmark::State& state)
{
  const Int n = state.range(0);
  for (auto _ : state)
  {
    BaseArray<Int> array;
    for (Int i = 0; i < n; ++i)
      if (array.Append(i).IsError())
        state.SkipWithError("out of memory");
    benchmark::DoNotOptimize(array.begin());
  }
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_ArrayAppend)->Arg(16)->Arg(1024)->Arg(65536);

// Keys from a fixed-seed generator, so runs are comparable; making them is never timed.
std::vector<UInt> MakeKeys(Int n, UInt seed)
{
  std::mt19937_64 rng(seed);
  std::vector<UInt> keys(static_cast<std::size_t>(n));
  for (UInt& key : keys)
    key = rng();
  return keys;
}

// Times inserting N distinct UInt keys into a new map, growth and the final flush included.
void BM_HashMapInsert(benchmark::State& state)
{
  const std::vector<UInt> keys = MakeKeys(state.range(0), 1);
  for (auto _ : state)
  {
    HashMap<UInt, Int> map;
    for (UInt key : keys)
      if (map.Insert(key, 1).IsError())
        state.SkipWithError("out of memory");
    benchmark::DoNotOptimize(map.GetCount());
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_HashMapInsert)->Arg(1000)->Arg(64000);

// Times N lookups in a map of N entries; building the map is excluded. Hits look up every stored
// key; misses look up keys of another seed, which are absent.
void FindLoop(benchmark::State& state, bool hits)
{
  const std::vector<UInt> keys = MakeKeys(state.range(0), 1);
  const std::vector<UInt> probes = hits ? keys : MakeKeys(state.range(0), 2);
  HashMap<UInt, Int> map;
  for (UInt key : keys)
    if (map.Insert(key, 1).IsError())
      state.SkipWithError("out of memory");
  for (auto _ : state)
  {
    Int found = 0;
    for (UInt key : probes)
      found += map.Find(key) != nullptr ? 1 : 0;
    benchmark::DoNotOptimize(found);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
void BM_HashMapFindHit(benchmark::State& state)
{
  FindLoop(state, true);
}
void BM_HashMapFindMiss(benchmark::State& state)
{
  FindLoop(state, false);
}
BENCHMARK(BM_HashMapFindHit)->Arg(1000)->Arg(64000);
BENCHMARK(BM_HashMapFindMiss)->Arg(1000)->Arg(64000);

Matrix SampleMatrix(telvo::Float64 t)
{
  Matrix m;
  m.v1 = {2.0 + t, 0.1, -0.2};
  m.v2 = {0.3, 1.5, 0.05 * t};
  m.v3 = {-0.1, 0.2, 1.8};
  m.off = {t, 2.0, -3.0};
  return m;
}

// Times one product of two matrices; the operands pass through DoNotOptimize so the product is
// not folded at compile time.
void BM_MatrixProduct(benchmark::State& state)
{
  Matrix a = SampleMatrix(0.5);
  Matrix b = SampleMatrix(0.25);
  for (auto _ : state)
  {
    benchmark::DoNotOptimize(a);
    benchmark::DoNotOptimize(b);
    Matrix r = a * b;
    benchmark::DoNotOptimize(r);
  }
}
BENCHMARK(BM_MatrixProduct);

// Times one affine inverse (a call into the shared library); the operand is opaque as above.
void BM_MatrixInverse(benchmark::State& state)
{
  Matrix m = SampleMatrix(0.5);
  for (auto _ : state)
  {
    benchmark::DoNotOptimize(m);
    Matrix r = telvo::Inverse(m);
    benchmark::DoNotOptimize(r);
  }
}
BENCHMARK(BM_MatrixInverse);

} // namespace
