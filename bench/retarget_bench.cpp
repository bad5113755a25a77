// The host's own road on a real clip: reading and writing BVH text (MB/s), and a whole retarget
// (pairing, configuration, every frame) of CMU 01_01 onto the demo's 21-joint target. The clip
// is not part of the tree: the benchmarks that need it skip when it is absent.
#include <benchmark/benchmark.h>

#include <fstream>
#include <sstream>
#include <string>

#include "bench_support.h"
#include "bvh.h"
#include "character.h"
#include "demo.h"
#include "retarget.h"
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

// Validate and Run of a fresh job per iteration, as `kelvara retarget` does once; the characters
// are built outside the timing.
void BM_RetargetClipOntoDemoTarget(benchmark::State& state)
{
  kelvara_bench::LoadModuleOnce();
  kelvara::BvhFile source;
  std::string error;
  if (ClipText().empty() || !kelvara::ReadBvhFromBuffer(ClipText(), "clip", source, error))
  {
    state.SkipWithError("the clip is not readable (set KELVARA_CLIP)");
    return;
  }
  const kelvara::BvhFile target = kelvara::MakeDemoTarget();
  telvo::Result<telvo::KelvaraHelperRef> helper =
    telvo::CreateObject<telvo::KelvaraHelperRef>("net.telvo.animation.class.kelvarahelper");
  kelvara::Character sourceCharacter;
  kelvara::Character targetCharacter;
  if (helper.IsError() || !kelvara::BuildCharacter(source, "source", sourceCharacter, error) ||
      !kelvara::ChooseAndFillPreset(sourceCharacter, helper.GetValue(), "", error) ||
      !kelvara::BuildCharacter(target, "target", targetCharacter, error) ||
      !kelvara::ChooseAndFillPreset(targetCharacter, helper.GetValue(), "", error))
  {
    state.SkipWithError(("cannot build the characters: " + error).c_str());
    return;
  }
  for (auto _ : state)
  {
    kelvara::RetargetJob job;
    job.source = &sourceCharacter;
    job.target = &targetCharacter;
    job.helper = helper.GetValue();
    if (!job.Validate(error) || !job.Run(error))
    {
      state.SkipWithError(error.c_str());
      return;
    }
    benchmark::DoNotOptimize(job.output.motion.data());
  }
  state.counters["frames"] = source.frameCount;
  state.counters["frames/s"] =
    benchmark::Counter(static_cast<double>(source.frameCount), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_RetargetClipOntoDemoTarget)->Unit(benchmark::kMillisecond);

} // namespace
