// The host's own road on a real clip: reading and writing BVH text (MB/s) and the numbers in it,
// writing the result into the demo character's GLB, and a whole retarget (pairing, configuration,
// every frame) of CMU 01_01 onto the demo's 21-joint target. The clip is not part of the tree: the benchmarks
// that need it skip when it is absent.
#include <benchmark/benchmark.h>

#include <charconv>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "bench_support.h"
#include "demo/demo_character.h"
#include "io/bvh/bvh_file.h"
#include "io/bvh/bvh_model.h"
#include "io/decimal.h"
#include "io/gltf/gltf.h"
#include "road/clip_run.h"
#include "telvo/registrybase.h"

namespace
{

const char* ClipPath()
{
  const char* env = std::getenv("KELVARA_CLIP");
  return env != nullptr ? env : "/usr/share/assimp/models/BVH/01_01.bvh";
}

// The clip's text, or empty when it cannot be read.
const std::string& ClipText()
{
  static const std::string text = [] {
    std::ifstream in(ClipPath(), std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return in ? s.str() : std::string();
  }();
  return text;
}

void BM_ReadBvh(benchmark::State& state)
{
  const std::string& text = ClipText();
  if (text.empty())
  {
    state.SkipWithError("the clip is not readable (set KELVARA_CLIP)");
    return;
  }
  kelvara::BvhFile file;
  std::string error;
  for (auto _ : state)
    if (!kelvara::ReadBvhFromBuffer(text, "clip", file, error))
    {
      state.SkipWithError(error.c_str());
      return;
    }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_ReadBvh)->Unit(benchmark::kMillisecond);

void BM_WriteBvh(benchmark::State& state)
{
  kelvara::BvhFile file;
  std::string error;
  if (ClipText().empty() || !kelvara::ReadBvhFromBuffer(ClipText(), "clip", file, error))
  {
    state.SkipWithError("the clip is not readable (set KELVARA_CLIP)");
    return;
  }
  std::string text;
  for (auto _ : state)
    if (!kelvara::WriteBvhToString(file, text, error))
    {
      state.SkipWithError(error.c_str());
      return;
    }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_WriteBvh)->Unit(benchmark::kMillisecond);

// The shortest text of computed numbers (angles with every digit in use), ours against the
// library's: ns per number.
const std::vector<double>& ComputedAngles()
{
  static const std::vector<double> angles = [] {
    std::mt19937_64 random(1);
    std::uniform_real_distribution<double> degrees(-180.0, 180.0);
    std::vector<double> v(100000);
    for (double& a : v)
      a = degrees(random);
    return v;
  }();
  return angles;
}

void BM_ShortestFixed(benchmark::State& state)
{
  char text[kelvara::kShortestFixedMax];
  for (auto _ : state)
    for (double v : ComputedAngles())
      benchmark::DoNotOptimize(kelvara::ShortestFixed(text, v));
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * ComputedAngles().size()));
}
BENCHMARK(BM_ShortestFixed)->Unit(benchmark::kMillisecond);

void BM_LibraryToCharsFixed(benchmark::State& state)
{
  char text[64];
  for (auto _ : state)
    for (double v : ComputedAngles())
      benchmark::DoNotOptimize(std::to_chars(text, text + sizeof text, v, std::chars_format::fixed).ptr);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * ComputedAngles().size()));
}
BENCHMARK(BM_LibraryToCharsFixed)->Unit(benchmark::kMillisecond);

// The clip as the host's model, or false when it cannot be read.
bool ClipFile(kelvara::AnimationFile& file)
{
  kelvara::BvhFile bvh;
  std::string error;
  if (ClipText().empty() || !kelvara::ReadBvhFromBuffer(ClipText(), "clip", bvh, error))
    return false;
  file = kelvara::BvhToAnimationFile(bvh, true, "clip");
  return true;
}

// Pairing and every frame of a fresh prepared retarget per iteration, as `kelvara retarget` does
// once; the characters are built outside the timing.
void BM_RetargetClipOntoDemoTarget(benchmark::State& state)
{
  kelvara_bench::LoadModuleOnce();
  kelvara::AnimationFile source;
  if (!ClipFile(source))
  {
    state.SkipWithError("the clip is not readable (set KELVARA_CLIP)");
    return;
  }
  const kelvara::AnimationFile target = kelvara::DemoTargetFile();
  std::string error;
  telvo::Result<telvo::KelvaraHelperRef> helper =
    telvo::CreateObject<telvo::KelvaraHelperRef>("net.telvo.animation.class.kelvarahelper");
  kelvara::Character sourceCharacter;
  kelvara::Character targetCharacter;
  if (helper.IsError() || !kelvara::BuildCharacter(source.skeleton, "source", sourceCharacter, error) ||
      !kelvara::ChooseAndFillPreset(sourceCharacter, helper.GetValue(), "", error) ||
      !kelvara::BuildCharacter(target.skeleton, "target", targetCharacter, error) ||
      !kelvara::ChooseAndFillPreset(targetCharacter, helper.GetValue(), "", error))
  {
    state.SkipWithError(("cannot build the characters: " + error).c_str());
    return;
  }
  kelvara::Clip output;
  for (auto _ : state)
  {
    kelvara::PreparedRetarget prepared;
    prepared.source = &sourceCharacter;
    prepared.target = &targetCharacter;
    prepared.helper = helper.GetValue();
    kelvara::ClipRetarget run;
    if (!prepared.Prepare(error) || !run.Setup(prepared, error) || !run.Run(source.clip, output, error))
    {
      state.SkipWithError(error.c_str());
      return;
    }
    benchmark::DoNotOptimize(output.rotations.data());
  }
  state.counters["frames"] = source.clip.frameCount;
  state.counters["frames/s"] =
    benchmark::Counter(static_cast<double>(source.clip.frameCount), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_RetargetClipOntoDemoTarget)->Unit(benchmark::kMillisecond);

// The clip's motion written into the demo character's document as a GLB (bytes in memory; the
// file system is left out). The motion is the clip's own on a skeleton of its joints' count, so
// what is timed is packing the document and encoding the keyframes.
void BM_WriteGlb(benchmark::State& state)
{
  kelvara::AnimationFile source;
  if (!ClipFile(source))
  {
    state.SkipWithError("the clip is not readable (set KELVARA_CLIP)");
    return;
  }
  const kelvara::AnimationFile character = kelvara::DemoCharacterFile();
  kelvara::Clip clip = kelvara::RestClip(character.skeleton, source.clip.frameCount, source.clip.frameTime);
  std::string bytes;
  std::string error;
  for (auto _ : state)
  {
    if (!kelvara::GltfBytes(character, clip, kelvara::WriteRequest(), true, bytes, error))
    {
      state.SkipWithError(error.c_str());
      return;
    }
    benchmark::DoNotOptimize(bytes.data());
  }
  state.counters["keyframes"] = clip.frameCount * clip.jointCount;
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(bytes.size()));
}
BENCHMARK(BM_WriteGlb)->Unit(benchmark::kMillisecond);

} // namespace
