#include "batch.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <mutex>
#include <new>
#include <thread>

#include "character.h"
#include "mapping.h"
#include "match_rest.h"
#include "retarget.h"
#include "telvo/registrybase.h"

namespace kelvara
{

namespace
{

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start)
{
  return std::chrono::duration<double>(Clock::now() - start).count();
}

bool SameVector(const telvo::Vector& a, const telvo::Vector& b)
{
  return a.x == b.x && a.y == b.y && a.z == b.z;
}

// One source skeleton's share of the batch: prepared once, read by every worker afterwards.
struct SourceGroup
{
  BvhFile skeleton; // the first clip's joints, no motion: the character points at it
  Character character;
  PreparedRetarget prepared;
  int status = 0; // not 0: every clip of this skeleton fails with error
  std::string error;
  ClipReport description; // the pairing, copied into each clip's report
};

// Everything that holds module objects; destroyed before RunBatch returns.
class Shared
{
public:
  Shared(const BatchSettings& settings, std::FILE* log) : _settings(settings), _log(log) {}

  bool BuildTarget(std::string& error)
  {
    return MakeHelper(_helper, error) && BuildCharacter(*_settings.target, "target", _target, error) &&
           ChooseAndFillPreset(_target, _helper, _settings.targetPreset, error);
  }

  // The group of clip's skeleton, prepared by the first caller that needs it.
  const SourceGroup& GroupOf(const BvhFile& clip, std::mutex& logMutex)
  {
    std::lock_guard<std::mutex> lock(_mutex);
    for (const std::unique_ptr<SourceGroup>& g : _groups)
      if (SameSkeleton(g->skeleton, clip))
        return *g;
    _groups.push_back(std::make_unique<SourceGroup>());
    SourceGroup& g = *_groups.back();
    Prepare(clip, g);
    std::lock_guard<std::mutex> logLock(logMutex);
    for (const std::string& w : g.description.warnings)
      std::fprintf(_log, "%skelvara: warning: %s\n", _settings.terminal ? "\r\033[K" : "", w.c_str());
    return g;
  }

private:
  void Prepare(const BvhFile& clip, SourceGroup& g)
  {
    g.skeleton.joints = clip.joints;
    g.skeleton.channelCount = clip.channelCount;
    g.skeleton.path = clip.path;
    std::vector<JointPair> pairs;
    if (!_settings.mapPath.empty() && !ReadJointMap(_settings.mapPath, clip, *_settings.target, pairs, g.error))
    {
      g.status = 2;
      return;
    }
    if (!BuildCharacter(g.skeleton, "source", g.character, g.error) ||
        !ChooseAndFillPreset(g.character, _helper, _settings.sourcePreset, g.error))
    {
      g.status = 1;
      return;
    }
    g.prepared.source = &g.character;
    g.prepared.target = &_target;
    g.prepared.helper = _helper;
    g.prepared.mapPairs = std::move(pairs);
    g.prepared.rootScale = _settings.rootScale;
    g.prepared.rootMotion = _settings.rootMotion;
    if (!g.prepared.Prepare(g.error))
    {
      g.status = 1;
      return;
    }
    if (_settings.matchRest)
      g.prepared.targetRest = MatchCharacterRest(g.character, _target, g.prepared.sourceOfTarget).targetRest;
    DescribePairing(g.prepared, !_settings.sourcePreset.empty(), !_settings.targetPreset.empty(), g.description);
  }

  const BatchSettings& _settings;
  std::FILE* _log;
  telvo::KelvaraHelperRef _helper;
  Character _target;
  std::mutex _mutex;
  std::vector<std::unique_ptr<SourceGroup>> _groups;
};

// Progress and clip failures on the log stream: one updating line on a terminal, a line per
// clip otherwise.
class Progress
{
public:
  Progress(const BatchSettings& settings, std::mutex& mutex)
    : _out(settings.progress), _terminal(settings.terminal), _total(static_cast<int>(settings.sources.size())),
      _mutex(mutex), _start(Clock::now())
  {
  }

  void ClipDone(const ClipReport& r, int status, double seconds)
  {
    std::lock_guard<std::mutex> lock(_mutex);
    ++_done;
    if (status == 0)
      _frames += r.frames;
    const char* clear = _terminal ? "\r\033[K" : "";
    if (status != 0)
      std::fprintf(_out, "%skelvara: %s\n", clear, r.error.c_str());
    else if (!_terminal)
      std::fprintf(_out, "kelvara: [%d/%d] %s -> %s: %d frames in %.2f s\n", _done, _total, r.source.c_str(),
                   r.output.c_str(), r.frames, seconds);
    if (_terminal)
    {
      const double elapsed = SecondsSince(_start);
      const double left = elapsed / _done * (_total - _done);
      std::fprintf(_out, "\r\033[K%d/%d clips, %.0f frames/s, %d:%02d left", _done, _total,
                   elapsed > 0.0 ? static_cast<double>(_frames) / elapsed : 0.0, static_cast<int>(left) / 60,
                   static_cast<int>(left) % 60);
    }
    std::fflush(_out);
  }

  void Finish()
  {
    if (_terminal && _done > 0)
      std::fprintf(_out, "\n");
  }

private:
  std::FILE* _out;
  bool _terminal;
  int _total;
  std::mutex& _mutex;
  Clock::time_point _start;
  int _done = 0;
  long _frames = 0;
};

// A message that names the clip: the reader's messages already start with its path.
std::string AboutClip(const std::string& path, const std::string& error)
{
  return error.compare(0, path.size(), path) == 0 ? error : path + ": " + error;
}

int RetargetOne(const BatchSettings& settings, Shared& shared, std::mutex& logMutex, ClipReport& r)
{
  BvhFile clip;
  std::string error;
  if (!ReadBvh(r.source, clip, error))
  {
    r.error = error;
    return 2;
  }
  r.frames = clip.frameCount;
  r.frameTime = clip.frameTime;
  const SourceGroup& group = shared.GroupOf(clip, logMutex);
  if (group.status != 0)
  {
    r.error = AboutClip(r.source, group.error);
    return group.status;
  }
  BvhFile output;
  {
    ClipRetarget retarget;
    if (!retarget.Setup(group.prepared, error) || !retarget.Run(clip, output, error))
    {
      r.error = AboutClip(r.source, error);
      return 1;
    }
  }
  ClipReport otherRest;
  if (settings.measure && !MeasureOtherRest(group.prepared, clip, otherRest, error))
  {
    r.error = AboutClip(r.source, error);
    return 1;
  }
  clip = BvhFile(); // the motion is not needed any more; the report reads the file back
  output.path = r.output;
  if (!WriteBvh(r.output, output, error))
  {
    r.error = error;
    return 1;
  }
  if (settings.measure)
  {
    const std::string source = r.source;
    const std::string out = r.output;
    const int frames = r.frames;
    const double frameTime = r.frameTime;
    r = group.description;
    r.source = source;
    r.output = out;
    r.frames = frames;
    r.frameTime = frameTime;
    r.matchRest = otherRest.matchRest;
    r.otherRestBones = std::move(otherRest.otherRestBones);
    if (!MeasureWrittenQuality(r, error))
    {
      r.error = error;
      return 1;
    }
  }
  return 0;
}

} // namespace

int BatchResult::Failed() const
{
  int n = 0;
  for (int s : status)
    n += s != 0 ? 1 : 0;
  return n;
}

int BatchResult::Status() const
{
  if (!error.empty())
    return 1;
  int worst = 0;
  for (int s : status)
    if (s == 2 || (s == 1 && worst == 0))
      worst = s;
  return worst;
}

std::string BatchOutputPath(const std::string& outDir, const std::string& source)
{
  return (std::filesystem::path(outDir) / (std::filesystem::path(source).stem().string() + ".bvh")).string();
}

std::string OutputCollision(const std::string& outDir, const std::vector<std::string>& sources)
{
  for (std::size_t i = 0; i < sources.size(); ++i)
    for (std::size_t j = 0; j < i; ++j)
      if (BatchOutputPath(outDir, sources[i]) == BatchOutputPath(outDir, sources[j]))
        return "expected sources of distinct names, found " + sources[j] + " and " + sources[i] +
               " both writing " + BatchOutputPath(outDir, sources[i]);
  return "";
}

bool SameSkeleton(const BvhFile& a, const BvhFile& b)
{
  if (a.joints.size() != b.joints.size() || a.channelCount != b.channelCount)
    return false;
  for (std::size_t j = 0; j < a.joints.size(); ++j)
  {
    const BvhJoint& x = a.joints[j];
    const BvhJoint& y = b.joints[j];
    if (x.name != y.name || x.parent != y.parent || !SameVector(x.offset, y.offset) || x.channels != y.channels ||
        x.hasEndSite != y.hasEndSite || (x.hasEndSite && !SameVector(x.endSiteOffset, y.endSiteOffset)))
      return false;
  }
  return true;
}

BatchResult RunBatch(const BatchSettings& settings)
{
  const Clock::time_point start = Clock::now();
  BatchResult result;
  const std::size_t n = settings.sources.size();
  result.clips.resize(n);
  result.status.assign(n, 1);
  for (std::size_t i = 0; i < n; ++i)
  {
    result.clips[i].source = settings.sources[i];
    result.clips[i].output = BatchOutputPath(settings.outDir, settings.sources[i]);
  }
  std::mutex logMutex;
  {
    Shared shared(settings, settings.progress);
    if (!shared.BuildTarget(result.error))
    {
      result.seconds = SecondsSince(start);
      return result;
    }
    Progress progress(settings, logMutex);
    std::atomic<std::size_t> next{0};
    auto work = [&] {
      for (std::size_t i = next++; i < n; i = next++)
      {
        const Clock::time_point clipStart = Clock::now();
        ClipReport& r = result.clips[i];
        // A worker thread cannot let an exception out: memory running out fails this clip alone
        // (its output is written atomically, so nothing partial is left).
        try
        {
          result.status[i] = RetargetOne(settings, shared, logMutex, r);
        }
        catch (const std::bad_alloc&)
        {
          r.error = AboutClip(r.source, "out of memory");
          result.status[i] = 1;
        }
        r.ok = result.status[i] == 0;
        progress.ClipDone(r, result.status[i], SecondsSince(clipStart));
      }
    };
    const int jobs = std::max(1, std::min(settings.jobs, static_cast<int>(n)));
    std::vector<std::thread> workers;
    for (int j = 1; j < jobs; ++j)
      workers.emplace_back(work);
    work();
    for (std::thread& t : workers)
      t.join();
    progress.Finish();
  }
  for (std::size_t i = 0; i < n; ++i)
    if (result.status[i] == 0)
      result.frames += result.clips[i].frames;
  result.seconds = SecondsSince(start);
  return result;
}

void PrintBatchSummary(std::FILE* out, const BatchResult& result)
{
  const double seconds = result.seconds > 0.0 ? result.seconds : 1e-9;
  const int failed = result.Failed();
  std::fprintf(out, "summary: %zu clips, %zu written, %d failed; %ld frames in %.2f s (%.0f frames/s, %.2f clips/s)\n",
               result.clips.size(), result.clips.size() - static_cast<std::size_t>(failed), failed, result.frames,
               result.seconds, static_cast<double>(result.frames) / seconds,
               static_cast<double>(result.clips.size() - static_cast<std::size_t>(failed)) / seconds);
  for (std::size_t i = 0; i < result.clips.size(); ++i)
    if (result.status[i] != 0)
      std::fprintf(out, "  failed: %s\n", result.clips[i].source.c_str());
}

} // namespace kelvara
