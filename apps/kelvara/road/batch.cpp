#include "road/batch.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <mutex>
#include <numeric>
#include <new>
#include <set>
#include <system_error>
#include <thread>

#include "road/clip_run.h"

namespace kelvara
{

namespace
{

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start)
{
  return std::chrono::duration<double>(Clock::now() - start).count();
}

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

// Side warnings (left and right swapped) once per source skeleton, not once per clip.
class SideWarningsOnce
{
public:
  SideWarningsOnce(const BatchSettings& settings, std::mutex& mutex) : _settings(settings), _mutex(mutex) {}

  void Say(const SourceSide& side, const ClipReport& r)
  {
    std::lock_guard<std::mutex> lock(_mutex);
    if (!_said.insert(&side.Original()).second)
      return;
    for (const std::string& w : r.warnings)
      std::fprintf(_settings.progress, "%skelvara: warning: %s\n", _settings.terminal ? "\r\033[K" : "", w.c_str());
  }

private:
  const BatchSettings& _settings;
  std::mutex& _mutex;
  std::set<const SourceSide*> _said;
};

// One source for a worker: the file as read, or why it could not be read.
struct SourceRead
{
  std::size_t index = 0; // in the batch's sources
  bool ok = false;
  AnimationFile file;
  Problem problem;
  double seconds = 0.0;
};

// The batch's sources handed to its workers, read in the given order. With read-ahead, a thread
// of its own reads the next source while the workers retarget, keeping at most one read and not
// yet taken (memory holds a clip per worker and one more); a worker that finds none ready reads
// the next source itself rather than wait, so no core is idle while a file is parsed.
class Sources
{
public:
  Sources(const Road& road, const std::vector<std::string>& paths, std::vector<std::size_t> order, bool readAhead)
    : _road(road), _paths(paths), _order(std::move(order))
  {
    if (!readAhead)
      return;
    try
    {
      _reader = std::thread([this] { ReadAhead(); });
    }
    catch (const std::system_error&) // no thread for the reader: the workers read
    {
    }
  }

  ~Sources()
  {
    {
      std::lock_guard<std::mutex> lock(_mutex);
      _stop = true;
    }
    _changed.notify_all();
    if (_reader.joinable())
      _reader.join();
  }

  Sources(const Sources&) = delete;
  Sources& operator=(const Sources&) = delete;

  // The next source, read (or failed); false once every source has been taken.
  bool Take(SourceRead& next)
  {
    std::unique_lock<std::mutex> lock(_mutex);
    if (_ready.empty() && _claimed < _order.size())
    {
      const std::size_t index = _order[_claimed++];
      lock.unlock();
      next = Read(index);
      return true;
    }
    // One read ahead, or, with every source claimed, the last one still in the reader's hands.
    _changed.wait(lock, [&] { return !_ready.empty() || !_reading; });
    if (_ready.empty())
      return false;
    next = std::move(_ready.front());
    _ready.pop_front();
    lock.unlock();
    _changed.notify_all(); // room for the reader
    return true;
  }

private:
  SourceRead Read(std::size_t index) const
  {
    const Clock::time_point start = Clock::now();
    SourceRead read;
    read.index = index;
    // A reader cannot let an exception out either: memory running out fails this clip alone.
    try
    {
      read.ok = _road.ReadSource(_paths[index], read.file, read.problem);
    }
    catch (const std::bad_alloc&)
    {
      read.file = AnimationFile();
      read.ok = false;
      read.problem.Set(false, "out of memory");
    }
    read.seconds = SecondsSince(start);
    return read;
  }

  void ReadAhead()
  {
    std::unique_lock<std::mutex> lock(_mutex);
    for (;;)
    {
      _changed.wait(lock, [&] { return _stop || _ready.empty(); });
      if (_stop || _claimed == _order.size())
        break;
      const std::size_t index = _order[_claimed++];
      _reading = true;
      lock.unlock();
      SourceRead read = Read(index);
      lock.lock();
      _ready.push_back(std::move(read));
      _reading = false;
      _changed.notify_all();
    }
  }

  const Road& _road;
  const std::vector<std::string>& _paths;
  const std::vector<std::size_t> _order;
  std::mutex _mutex;
  std::condition_variable _changed;
  std::size_t _claimed = 0;     // sources of _order a reader or a worker has begun
  std::deque<SourceRead> _ready; // read ahead, not yet taken
  bool _reading = false;        // the reader is reading one
  bool _stop = false;
  std::thread _reader;
};

// The sources' indices in the order to retarget them. Workers side by side take the largest files
// first: the batch then ends on its shortest clips, and no core waits long for the last one. One
// worker goes in the order given.
std::vector<std::size_t> ReadingOrder(const std::vector<std::string>& sources, int jobs)
{
  std::vector<std::size_t> order(sources.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  if (jobs <= 1)
    return order;
  std::vector<std::uintmax_t> bytes;
  for (const std::string& source : sources)
  {
    std::error_code unknown; // a file that cannot be sized fails when it is read
    const std::uintmax_t size = std::filesystem::file_size(source, unknown);
    bytes.push_back(unknown ? 0 : size);
  }
  std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) { return bytes[a] > bytes[b]; });
  return order;
}

// The clip of source (as read) retargeted by worker into r (its source and output set): 0 when
// written, else 2 for bad input and 1 for any other failure, with r.error.
int RetargetOne(Road& road, const BatchSettings& settings, int worker, SourceRead& source, SideWarningsOnce& warnings,
                ClipReport& r)
{
  if (!source.ok)
  {
    r.error = AboutClip(r.source, source.problem.message);
    return source.problem.badInput ? 2 : 1;
  }
  ClipRun run;
  run.worker = worker;
  run.source = std::move(source.file);
  run.outputPath = r.output;
  run.describe = true; // the side warnings come with the pairing's description
  run.measure = settings.measure;
  run.replaceAnimations = settings.replaceAnimations;
  run.threads = settings.threads;
  const bool ok = RunClip(road, run);
  if (run.side != nullptr)
    warnings.Say(*run.side, run.clip);
  std::string path = std::move(r.source);
  r = std::move(run.clip);
  r.source = std::move(path); // the path as given, whatever the file calls itself
  if (!ok)
  {
    r.error = AboutClip(r.source, run.problem.message);
    return run.problem.badInput ? 2 : 1;
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
  int worst = 0;
  for (int s : status)
    if (s == 2 || (s == 1 && worst == 0))
      worst = s;
  return worst;
}

bool BatchExtension(const std::string& format, const std::string& targetPath, std::string& extension,
                    std::string& error)
{
  if (!format.empty())
  {
    extension = "." + format;
    if (extension == ".bvh" || extension == ".glb" || extension == ".gltf")
      return true;
    error = "expected --output-format bvh, glb or gltf, found \"" + format + "\"";
    return false;
  }
  std::string ext = std::filesystem::path(targetPath).extension().string();
  std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char ch) { return static_cast<char>(std::tolower(ch)); });
  extension = ext == ".bvh" || ext == ".gltf" || ext == ".glb" ? ext : ext == ".json" ? ".bvh" : ".glb";
  return true;
}

std::string BatchOutputPath(const std::string& outDir, const std::string& source, const std::string& extension)
{
  return (std::filesystem::path(outDir) / (std::filesystem::path(source).stem().string() + extension)).string();
}

std::string OutputCollision(const BatchSettings& settings)
{
  const std::vector<std::string>& sources = settings.sources;
  auto out = [&](std::size_t i) { return BatchOutputPath(settings.outDir, sources[i], settings.extension); };
  for (std::size_t i = 0; i < sources.size(); ++i)
    for (std::size_t j = 0; j < i; ++j)
      if (out(i) == out(j))
        return "expected sources of distinct names, found " + sources[j] + " and " + sources[i] + " both writing " +
               out(i);
  return "";
}

BatchResult RunBatch(Road& road, const BatchSettings& settings)
{
  const Clock::time_point start = Clock::now();
  BatchResult result;
  const std::size_t n = settings.sources.size();
  result.clips.resize(n);
  result.status.assign(n, 1);
  for (std::size_t i = 0; i < n; ++i)
  {
    result.clips[i].source = settings.sources[i];
    result.clips[i].output = BatchOutputPath(settings.outDir, settings.sources[i], settings.extension);
  }
  const int jobs = std::max(1, std::min(settings.jobs, static_cast<int>(n)));
  std::mutex logMutex;
  {
    SideWarningsOnce warnings(settings, logMutex);
    Progress progress(settings, logMutex);
    // One clip at a time on one thread reads and retargets in turn; any more work at once gets a
    // reader.
    const bool readAhead = n > 1 && (jobs > 1 || settings.threads != 1);
    Sources sources(road, settings.sources, ReadingOrder(settings.sources, jobs), readAhead);
    auto work = [&](int worker) {
      SourceRead source;
      while (sources.Take(source))
      {
        const Clock::time_point clipStart = Clock::now();
        const std::size_t i = source.index;
        ClipReport& r = result.clips[i];
        // A worker thread cannot let an exception out: memory running out fails this clip alone
        // (its output is written atomically, so nothing partial is left).
        try
        {
          result.status[i] = RetargetOne(road, settings, worker, source, warnings, r);
        }
        catch (const std::bad_alloc&)
        {
          r.error = AboutClip(r.source, "out of memory");
          result.status[i] = 1;
        }
        r.ok = result.status[i] == 0;
        progress.ClipDone(r, result.status[i], source.seconds + SecondsSince(clipStart));
      }
    };
    std::vector<std::thread> workers;
    try
    {
      for (int j = 1; j < jobs; ++j)
        workers.emplace_back(work, j);
    }
    catch (const std::system_error&) // fewer threads than jobs: the ones started share the clips
    {
    }
    work(0);
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
