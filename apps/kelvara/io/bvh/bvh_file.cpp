#include "io/bvh/bvh_file.h"

#include "io/atomic_file.h"
#include "io/decimal.h"
#include "io/read_file.h"
#include "io/shares.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <cctype>
#include <locale.h>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kelvara
{

namespace
{

constexpr const char* kChannelNames[] = {"Xposition", "Yposition", "Zposition",
                                         "Xrotation", "Yrotation", "Zrotation"};

bool IsSpace(char c)
{
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

// Blanks within a line (everything but the newline).
bool IsBlank(char c)
{
  return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f';
}

// strtod in the "C" locale whatever the process locale is, so that "0.5" never depends on it.
bool ParseNumberSlow(const char* begin, const char* end, double& value)
{
  static const locale_t cLocale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(0));
  char buf[128];
  std::size_t len = static_cast<std::size_t>(end - begin);
  if (len == 0 || len >= sizeof(buf) || cLocale == static_cast<locale_t>(0))
    return false;
  std::memcpy(buf, begin, len);
  buf[len] = '\0';
  char* stop = nullptr;
  value = strtod_l(buf, &stop, cLocale);
  return stop == buf + len && std::isfinite(value);
}

// from_chars covers almost every token; what it cannot read whole ("+2", hex, out of range)
// goes to strtod. Infinities and NaNs are refused: they would poison every later computation.
inline bool ParseNumber(const char* begin, const char* end, double& value)
{
  auto r = std::from_chars(begin, end, value);
  if (r.ec == std::errc() && r.ptr == end)
    return std::isfinite(value);
  return ParseNumberSlow(begin, end, value);
}

bool ParseCount(std::string_view text, long long& value)
{
  const char* b = text.data();
  const char* e = b + text.size();
  if (b != e && *b == '+')
    ++b;
  auto r = std::from_chars(b, e, value);
  return r.ec == std::errc() && r.ptr == e && b != e;
}

// Words that structure the hierarchy and so cannot name a joint.
bool IsReservedWord(std::string_view word)
{
  static constexpr std::string_view kWords[] = {"{", "}", "ROOT", "JOINT", "End", "OFFSET", "CHANNELS", "MOTION"};
  return std::find(std::begin(kWords), std::end(kWords), word) != std::end(kWords);
}

struct Token
{
  std::string_view text; // empty at end of file
  int line = 0;
  bool Eof() const { return text.empty(); }
  bool Is(std::string_view s) const { return text == s; }
};

// Fewer rows than this are not worth a thread.
constexpr int kRowsPerShare = 256;

class Parser
{
public:
  Parser(std::string_view text, const std::string& name, BvhFile& out, std::string& error, int threads)
    : begin_(text.data()), p_(text.data()), end_(text.data() + text.size()), name_(name), out_(out),
      error_(error), threads_(threads)
  {
  }

  bool Run(BvhPart part)
  {
    out_ = BvhFile{};
    out_.path = name_;
    if (!ParseHierarchy())
      return false;
    return part == BvhPart::kHierarchy || ParseMotion();
  }

private:
  const char* begin_;
  const char* p_;
  const char* end_;
  int line_ = 1;
  const std::string& name_;
  BvhFile& out_;
  std::string& error_;
  bool havePeek_ = false;
  Token peek_;
  int threads_ = 1; // for the frames' numbers

  Token Scan()
  {
    while (p_ != end_ && IsSpace(*p_))
    {
      if (*p_ == '\n')
        ++line_;
      ++p_;
    }
    Token t;
    if (p_ == end_)
    {
      t.line = EofLine();
      return t;
    }
    const char* s = p_;
    while (p_ != end_ && !IsSpace(*p_))
      ++p_;
    t.text = std::string_view(s, static_cast<std::size_t>(p_ - s));
    t.line = line_;
    return t;
  }

  Token Next()
  {
    if (havePeek_)
    {
      havePeek_ = false;
      return peek_;
    }
    return Scan();
  }

  const Token& Peek()
  {
    if (!havePeek_)
    {
      peek_ = Scan();
      havePeek_ = true;
    }
    return peek_;
  }

  // The last line holding anything: a final newline does not open another line.
  int EofLine() const
  {
    const char* e = end_;
    if (e != begin_ && e[-1] == '\n')
      --e;
    return 1 + static_cast<int>(std::count(begin_, e, '\n'));
  }

  static std::string Describe(std::string_view text)
  {
    if (text.empty())
      return "end of file";
    constexpr std::size_t kMaxShown = 40;
    std::string s = "'";
    for (std::size_t i = 0; i < text.size() && i < kMaxShown; ++i)
    {
      unsigned char c = static_cast<unsigned char>(text[i]);
      s += (c >= 0x20 && c < 0x7f) ? static_cast<char>(c) : '?';
    }
    if (text.size() > kMaxShown)
      s += "...";
    s += "'";
    return s;
  }

  bool Fail(int line, const std::string& expected, const std::string& found)
  {
    error_ = name_ + ":" + std::to_string(line) + ": expected " + expected + ", found " + found;
    return false;
  }

  bool Fail(const Token& t, const std::string& expected) { return Fail(t.line, expected, Describe(t.text)); }

  bool Expect(std::string_view word, const std::string& shown)
  {
    Token t = Next();
    return t.Is(word) || Fail(t, shown);
  }

  bool ReadVector(telvo::Vector& v)
  {
    double* parts[3] = {&v.x, &v.y, &v.z};
    for (double* part : parts)
    {
      Token t = Next();
      if (t.Eof() || !ParseNumber(t.text.data(), t.text.data() + t.text.size(), *part))
        return Fail(t, "a number");
    }
    return true;
  }

  static bool IsKeyword(const Token& t) { return t.Eof() || IsReservedWord(t.text); }

  bool ReadChannels(BvhJoint& joint, int& channelTotal)
  {
    Token countToken = Next();
    long long count = 0;
    if (!ParseCount(countToken.text, count) || count < 0)
      return Fail(countToken, "a channel count");
    if (count > kMaxChannelsPerJoint)
      return Fail(countToken, "at most " + std::to_string(kMaxChannelsPerJoint) + " channels");
    const std::string wanted = std::to_string(count) + (count == 1 ? " channel name" : " channel names");
    for (long long i = 0; i < count; ++i)
    {
      Token t = Next();
      Channel c;
      if (!ChannelFromName(t.text, c))
        return Fail(t, IsKeyword(t) ? wanted : std::string("a channel name"));
      if (std::find(joint.channels.begin(), joint.channels.end(), c) != joint.channels.end())
        return Fail(t, "a channel not listed before");
      joint.channels.push_back(c);
    }
    // More names on the same line than the count says is a count mismatch, not a stray word.
    const Token& after = Peek();
    Channel ignored;
    if (after.line == countToken.line && ChannelFromName(after.text, ignored))
      return Fail(after, wanted);
    channelTotal += static_cast<int>(count);
    return true;
  }

  bool OpenJoint(int parent, int line, std::vector<int>& open, int& channelTotal)
  {
    Token nameToken = Next();
    if (IsKeyword(nameToken))
      return Fail(nameToken, "a joint name");
    if (out_.joints.size() >= static_cast<std::size_t>(kMaxBvhJoints))
      return Fail(nameToken, "at most " + std::to_string(kMaxBvhJoints) + " joints");
    BvhJoint joint;
    joint.name = std::string(nameToken.text);
    joint.parent = parent;
    joint.line = line;
    joint.firstChannel = channelTotal;
    if (!Expect("{", "'{'"))
      return false;
    // OFFSET and CHANNELS may come in either order, but before any child: a joint's channels
    // precede its children's in a motion row.
    bool haveOffset = false;
    bool haveChannels = false;
    for (;;)
    {
      const Token& t = Peek();
      if (t.Is("OFFSET") && !haveOffset)
      {
        Next();
        if (!ReadVector(joint.offset))
          return false;
        haveOffset = true;
      }
      else if (t.Is("CHANNELS") && !haveChannels)
      {
        Next();
        if (!ReadChannels(joint, channelTotal))
          return false;
        haveChannels = true;
      }
      else
        break;
    }
    if (!haveOffset)
      return Fail(Peek(), "OFFSET");
    open.push_back(static_cast<int>(out_.joints.size()));
    out_.joints.push_back(std::move(joint));
    return true;
  }

  bool ReadEndSite(BvhJoint& joint)
  {
    if (!Expect("Site", "'Site'") || !Expect("{", "'{'") || !Expect("OFFSET", "OFFSET") ||
        !ReadVector(joint.endSiteOffset) || !Expect("}", "'}'"))
      return false;
    joint.hasEndSite = true;
    return true;
  }

  bool ParseHierarchy()
  {
    if (!Expect("HIERARCHY", "'HIERARCHY'"))
      return false;
    std::vector<int> open; // joints whose braces are open, outermost first
    int channelTotal = 0;
    for (;;)
    {
      Token t = Next();
      if (open.empty())
      {
        if (t.Is("ROOT"))
        {
          if (!OpenJoint(-1, t.line, open, channelTotal))
            return false;
          continue;
        }
        if (t.Is("MOTION") && !out_.joints.empty())
          break;
        return Fail(t, out_.joints.empty() ? "ROOT" : "ROOT or MOTION");
      }
      BvhJoint& current = out_.joints[static_cast<std::size_t>(open.back())];
      if (t.Is("JOINT"))
      {
        if (!OpenJoint(open.back(), t.line, open, channelTotal))
          return false;
      }
      else if (t.Is("End") && !current.hasEndSite)
      {
        if (!ReadEndSite(current))
          return false;
      }
      else if (t.Is("}"))
        open.pop_back();
      else
        return Fail(t, current.hasEndSite ? "JOINT or '}'" : "JOINT, End Site or '}'");
    }
    out_.channelCount = channelTotal;
    return true;
  }

  // "Frames: 12" or "Frame Time: 0.0333": the words in any case, any blanks between them and
  // around the colon (exporters differ); the value is the line's only other token.
  bool ReadLabelLine(std::initializer_list<std::string_view> words, const std::string& shown, std::string_view& value)
  {
    const char* lineEnd = nullptr;
    if (!NextNonBlankLine(lineEnd))
      return Fail(EofLine(), shown, "end of file");
    const char* q = SkipBlanks(p_, lineEnd);
    for (std::string_view word : words)
    {
      q = SkipBlanks(q, lineEnd);
      if (static_cast<std::size_t>(lineEnd - q) < word.size() || !SameLetters(std::string_view(q, word.size()), word))
        return Fail(line_, shown, Describe(TokenAt(q, lineEnd)));
      q += word.size();
    }
    q = SkipBlanks(q, lineEnd);
    if (q == lineEnd || *q != ':')
      return Fail(line_, shown, Describe(TokenAt(q, lineEnd)));
    q = SkipBlanks(q + 1, lineEnd);
    value = TokenAt(q, lineEnd);
    if (const char* junk = SkipBlanks(q + value.size(), lineEnd); junk != lineEnd)
      return Fail(line_, "end of line", Describe(TokenAt(junk, lineEnd)));
    p_ = lineEnd;
    return true;
  }

  static bool SameLetters(std::string_view a, std::string_view b)
  {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char x, char y) { return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y)); });
  }

  bool ParseMotion()
  {
    // Whatever follows MOTION on its line is not motion.
    if (const char* junk = SkipBlanks(p_, LineEnd(p_)); junk != LineEnd(p_))
      return Fail(line_, "end of line", Describe(TokenAt(junk, LineEnd(p_))));
    p_ = LineEnd(p_);
    std::string_view countText;
    if (!ReadLabelLine({"Frames"}, "'Frames:'", countText))
      return false;
    const int countLine = line_;
    long long frames = 0;
    if (!ParseCount(countText, frames) || frames < 0)
      return Fail(countLine, "a frame count", countText.empty() ? "end of line" : Describe(countText));
    if (frames > kMaxBvhFrames)
      return Fail(countLine, "at most " + std::to_string(kMaxBvhFrames) + " frames", Describe(countText));
    std::string_view timeText;
    if (!ReadLabelLine({"Frame", "Time"}, "'Frame Time:'", timeText))
      return false;
    double frameTime = 0.0;
    if (timeText.empty() || !ParseNumber(timeText.data(), timeText.data() + timeText.size(), frameTime))
      return Fail(line_, "a frame time", timeText.empty() ? "end of line" : Describe(timeText));
    if (!(frameTime > 0.0))
      return Fail(line_, "a positive frame time", Describe(timeText));
    out_.frameTime = frameTime;

    const long long channels = out_.channelCount;
    long long read = 0;
    const char* lineEnd = p_;
    if (channels > 0)
    {
      // The frames' lines first (a quick scan), then their numbers in shares on threads; the
      // first line that is not a whole frame decides as it would reading line after line.
      std::vector<RowText> rows;
      while (static_cast<long long>(rows.size()) < frames && NextNonBlankLine(lineEnd))
      {
        rows.push_back({p_, lineEnd, line_});
        p_ = lineEnd;
      }
      const int count = static_cast<int>(rows.size());
      const int width = static_cast<int>(channels);
      out_.motion.resize(rows.size() * static_cast<std::size_t>(width));
      const int shares = ShareCount(count, threads_, kRowsPerShare);
      std::vector<RowFailure> failures(static_cast<std::size_t>(shares));
      RunShares(count, shares, [&](int share, int first, int last) {
        for (int r = first; r < last; ++r)
        {
          RowFailure& failure = failures[static_cast<std::size_t>(share)];
          failure.kind = ReadRow(rows[static_cast<std::size_t>(r)], end_, width,
                                 out_.motion.data() + static_cast<std::size_t>(r) * static_cast<std::size_t>(width),
                                 failure);
          if (failure.kind != Row::kWhole)
          {
            failure.row = r;
            return;
          }
        }
      });
      read = count;
      for (const RowFailure& failure : failures)
      {
        if (failure.kind == Row::kWhole)
          continue;
        const int rowLine = rows[static_cast<std::size_t>(failure.row)].line;
        if (failure.kind == Row::kBroken)
          return Fail(rowLine, failure.expected, failure.found);
        // A file cut off in its last frame: the frames before it are whole.
        if (failure.row + 1 < count || NextNonBlankLine(lineEnd))
          return Fail(rowLine, std::to_string(channels) + " numbers", failure.found);
        out_.warnings.push_back(name_ + ":" + std::to_string(rowLine) + ": the last frame line is incomplete (" +
                                failure.found + " of " + std::to_string(channels) + " numbers); it is left out");
        read = failure.row;
        out_.motion.resize(static_cast<std::size_t>(read) * static_cast<std::size_t>(width));
        break;
      }
      if (read < frames)
        out_.warnings.push_back(name_ + ":" + std::to_string(countLine) + ": \"Frames:\" declares " +
                                std::to_string(frames) + " frames, the file holds " + std::to_string(read) +
                                (read == 1 ? " complete one; " : " complete ones; ") + std::to_string(read) + " read");
    }
    else
      read = frames;
    out_.frameCount = static_cast<int>(read);
    if (NextNonBlankLine(lineEnd))
    {
      const int extraLine = line_;
      int extra = 1;
      for (p_ = lineEnd; NextNonBlankLine(lineEnd); p_ = lineEnd)
        ++extra;
      out_.warnings.push_back(name_ + ":" + std::to_string(extraLine) + ": " + std::to_string(extra) +
                              (extra == 1 ? " line" : " lines") + " after the " + std::to_string(frames) +
                              " frames \"Frames:\" declares; the declared frames are read, the rest is left out");
    }
    return true;
  }

  const char* LineEnd(const char* from) const
  {
    const void* nl = std::memchr(from, '\n', static_cast<std::size_t>(end_ - from));
    return nl != nullptr ? static_cast<const char*>(nl) : end_;
  }

  static const char* SkipBlanks(const char* q, const char* lineEnd)
  {
    while (q != lineEnd && IsBlank(*q))
      ++q;
    return q;
  }

  static std::string_view TokenAt(const char* q, const char* lineEnd)
  {
    const char* s = q;
    while (q != lineEnd && !IsBlank(*q))
      ++q;
    return std::string_view(s, static_cast<std::size_t>(q - s));
  }

  // Moves p_ to the start of the next line holding something (line_ follows); false at end.
  // p_ is at a newline or at the end of the buffer on entry.
  bool NextNonBlankLine(const char*& lineEnd)
  {
    for (;;)
    {
      if (p_ == end_)
        return false;
      ++p_; // the newline
      ++line_;
      lineEnd = LineEnd(p_);
      if (SkipBlanks(p_, lineEnd) != lineEnd)
        return true;
      p_ = lineEnd;
    }
  }

  // One frame's line: where it starts and ends, and its number in the file.
  struct RowText
  {
    const char* begin;
    const char* end;
    int line;
  };

  enum class Row
  {
    kWhole,
    kShort,  // fewer numbers than channels, each of them a number (found says how many)
    kBroken, // expected and found say what is wrong
  };

  struct RowFailure
  {
    Row kind = Row::kWhole;
    int row = 0;
    std::string expected;
    std::string found;
  };

  // The numbers of a frame's line into out (room for channels of them). A number cut off by the
  // end of the file (at fileEnd) makes a short frame, not a broken one.
  static Row ReadRow(const RowText& text, const char* fileEnd, int channels, double* out, RowFailure& failure)
  {
    const char* q = text.begin;
    const char* lineEnd = text.end;
    int n = 0;
    for (;;)
    {
      while (q != lineEnd && IsBlank(*q))
        ++q;
      if (q == lineEnd)
        break;
      const char* s = q;
      while (q != lineEnd && !IsBlank(*q))
        ++q;
      if (n == channels)
      {
        int count = n;
        for (const char* r = s; r != lineEnd;)
        {
          r = SkipBlanks(r, lineEnd);
          if (r == lineEnd)
            break;
          r += TokenAt(r, lineEnd).size();
          ++count;
        }
        failure.expected = std::to_string(channels) + " numbers";
        failure.found = std::to_string(count);
        return Row::kBroken;
      }
      if (!ParseNumber(s, q, out[n]))
      {
        if (q == fileEnd)
          break;
        failure.expected = "a number";
        failure.found = Describe(std::string_view(s, static_cast<std::size_t>(q - s)));
        return Row::kBroken;
      }
      ++n;
    }
    if (n != channels)
    {
      failure.found = std::to_string(n);
      return Row::kShort;
    }
    return Row::kWhole;
  }
};

// Output text appended to a string whose room grows ahead of it: room reserved and not yet
// written is never touched, so that memory holds what was written and no more (a resize would
// fill the whole room first).
class Writer
{
public:
  explicit Writer(std::string& s) : s_(s) { s_.clear(); }

  void Reserve(std::size_t extra)
  {
    if (s_.size() + extra > s_.capacity())
      s_.reserve(std::max(s_.capacity() * 2, s_.size() + extra));
  }

  void Put(std::string_view text) { s_.append(text); }

  void Put(char c) { s_.push_back(c); }

  void Tabs(int n)
  {
    for (int i = 0; i < n; ++i)
      Put('\t');
  }

  // Shortest text that reads back to the same double; plain decimals in the usual range
  // (other readers of this format rarely accept exponents), exponent form only for extremes.
  void Number(double v)
  {
    const double a = std::fabs(v);
    if (a == 0.0)
    {
      Put(std::signbit(v) ? "-0" : "0");
      return;
    }
    char b[64];
    const bool plain = a >= 1e-6 && a < 1e15;
    char* end = plain ? FewDecimals(b, v) : nullptr;
    if (end == nullptr && plain)
      end = ShortestFixed(b, v);
    if (end == nullptr)
      end = (plain ? std::to_chars(b, b + 64, v, std::chars_format::fixed) : std::to_chars(b, b + 64, v)).ptr;
    s_.append(b, static_cast<std::size_t>(end - b));
  }

private:
  std::string& s_;

  // Captured data mostly has a few decimals, and the general shortest conversion costs about
  // 40 ns a number. If n / 10^d reads back as v for a small d, "n with d decimals" is a
  // round-trip text: n and 10^d are exact doubles, so the division rounds exactly as parsing the
  // decimal does. Trying d upwards finds the shortest such text in practice.
  // The end of the text in b, or nullptr when no short form was found.
  static char* FewDecimals(char* b, double v)
  {
    static constexpr double kPow10[] = {1e0, 1e1, 1e2, 1e3, 1e4, 1e5, 1e6, 1e7, 1e8, 1e9};
    static constexpr std::uint64_t kIntPow10[] = {1, 10, 100, 1000, 10000, 100000, 1000000, 10000000, 100000000,
                                                  1000000000};
    // Computed values (rotations out of a retarget) have no short decimal form: one test with 9
    // decimals settles them instead of ten. Below 1e6, v * 1e9 is off its integer by less than
    // 0.13 whenever some d <= 9 fits, so a miss at 9 decimals means every d misses.
    if (std::fabs(v) < 1e6)
    {
      const double n = std::nearbyint(v * kPow10[9]);
      if (n / kPow10[9] != v)
        return nullptr;
    }
    for (int d = 0; d < 10; ++d)
    {
      const double scaled = v * kPow10[d];
      if (std::fabs(scaled) >= 9e15) // beyond exact integers
        return nullptr;
      const double n = std::nearbyint(scaled);
      if (n / kPow10[d] != v)
        continue;
      char* p = b;
      if (n < 0)
        *p++ = '-';
      const std::uint64_t m = static_cast<std::uint64_t>(std::fabs(n));
      p = std::to_chars(p, p + 24, m / kIntPow10[d]).ptr;
      std::uint64_t frac = m % kIntPow10[d];
      if (frac != 0)
      {
        int digits = d;
        while (frac % 10 == 0)
        {
          frac /= 10;
          --digits;
        }
        *p++ = '.';
        for (int k = digits - 1; k >= 0; --k)
        {
          p[k] = static_cast<char>('0' + frac % 10);
          frac /= 10;
        }
        p += digits;
      }
      return p;
    }
    return nullptr;
  }
};

void WriteRows(Writer& w, const BvhFile& file, int first, int last)
{
  const std::size_t row = static_cast<std::size_t>(file.channelCount);
  const double* v = file.motion.data() + static_cast<std::size_t>(first) * row;
  for (int f = first; f < last; ++f)
  {
    for (std::size_t c = 0; c < row; ++c)
    {
      if (c != 0)
        w.Put(' ');
      w.Number(*v++);
    }
    w.Put('\n');
  }
}

void WriteVector(Writer& w, const telvo::Vector& v)
{
  w.Number(v.x);
  w.Put(' ');
  w.Number(v.y);
  w.Put(' ');
  w.Number(v.z);
}

} // namespace

const char* ChannelName(Channel channel)
{
  return kChannelNames[static_cast<int>(channel)];
}

bool ChannelFromName(std::string_view name, Channel& channel)
{
  for (int i = 0; i < 6; ++i)
    if (name == kChannelNames[i])
    {
      channel = static_cast<Channel>(i);
      return true;
    }
  return false;
}

bool IsRotation(Channel channel)
{
  return channel >= Channel::Xrotation;
}

int ChannelAxis(Channel channel)
{
  return static_cast<int>(channel) % 3;
}

bool ReadBvhFromBuffer(std::string_view text, const std::string& displayName, BvhFile& out, std::string& error,
                       BvhPart part, int threads)
{
  return Parser(text, displayName, out, error, threads).Run(part);
}

bool ReadBvh(const std::string& path, BvhFile& out, std::string& error, BvhPart part, int threads)
{
  std::string data;
  return ReadWholeFile(path, data, error) && ReadBvhFromBuffer(data, path, out, error, part, threads);
}

bool ValidateBvh(const BvhFile& file, std::string& error)
{
  auto fail = [&](std::size_t joint, const std::string& what) {
    error = "joint " + std::to_string(joint) + " ('" + file.joints[joint].name + "'): " + what;
    return false;
  };
  if (file.joints.empty() || file.joints.size() > static_cast<std::size_t>(kMaxBvhJoints))
  {
    error = "a file needs between 1 and " + std::to_string(kMaxBvhJoints) + " joints, not " +
            std::to_string(file.joints.size());
    return false;
  }
  std::vector<int> chain; // ancestors of the joint being checked, root first
  int channelTotal = 0;
  for (std::size_t i = 0; i < file.joints.size(); ++i)
  {
    const BvhJoint& j = file.joints[i];
    if (j.name.empty() || IsReservedWord(j.name) ||
        std::any_of(j.name.begin(), j.name.end(), [](char c) { return IsSpace(c); }))
      return fail(i, "a name must be one word other than a keyword");
    // Depth-first order: the parent is the previous joint or one of its ancestors.
    while (!chain.empty() && chain.back() != j.parent)
      chain.pop_back();
    if (j.parent != -1 && chain.empty())
      return fail(i, "parent " + std::to_string(j.parent) + " is not an open ancestor in file order");
    chain.push_back(static_cast<int>(i));
    if (j.channels.size() > static_cast<std::size_t>(kMaxChannelsPerJoint))
      return fail(i, "more than " + std::to_string(kMaxChannelsPerJoint) + " channels");
    for (std::size_t c = 0; c < j.channels.size(); ++c)
      if (std::find(j.channels.begin(), j.channels.begin() + static_cast<std::ptrdiff_t>(c), j.channels[c]) !=
          j.channels.begin() + static_cast<std::ptrdiff_t>(c))
        return fail(i, std::string("channel ") + ChannelName(j.channels[c]) + " listed twice");
    if (j.firstChannel != channelTotal)
      return fail(i, "first channel " + std::to_string(j.firstChannel) + " should be " + std::to_string(channelTotal));
    channelTotal += static_cast<int>(j.channels.size());
    const telvo::Vector& o = j.offset;
    const telvo::Vector& e = j.endSiteOffset;
    if (!std::isfinite(o.x) || !std::isfinite(o.y) || !std::isfinite(o.z) || !std::isfinite(e.x) ||
        !std::isfinite(e.y) || !std::isfinite(e.z))
      return fail(i, "offset is not finite");
  }
  if (file.channelCount != channelTotal)
  {
    error = "channel count " + std::to_string(file.channelCount) + " should be " + std::to_string(channelTotal);
    return false;
  }
  if (file.frameCount < 0 || file.frameCount > kMaxBvhFrames)
  {
    error = "frame count " + std::to_string(file.frameCount) + " is out of range";
    return false;
  }
  if (!std::isfinite(file.frameTime) || !(file.frameTime > 0.0))
  {
    error = "frame time must be a positive number";
    return false;
  }
  if (file.motion.size() != static_cast<std::size_t>(file.frameCount) * static_cast<std::size_t>(channelTotal))
  {
    error = "motion holds " + std::to_string(file.motion.size()) + " values, not " + std::to_string(file.frameCount) +
            " frames of " + std::to_string(channelTotal);
    return false;
  }
  for (std::size_t k = 0; k < file.motion.size(); ++k)
    if (!std::isfinite(file.motion[k]))
    {
      error = "motion value " + std::to_string(k % static_cast<std::size_t>(channelTotal)) + " of frame " +
              std::to_string(k / static_cast<std::size_t>(channelTotal) + 1) + " is not finite";
      return false;
    }
  return true;
}

bool WriteBvhToString(const BvhFile& file, std::string& text, std::string& error, int threads)
{
  if (!ValidateBvh(file, error))
    return false;
  Writer w(text);
  // Room for the longest numbers (about 24 characters with their separator): the text never
  // moves while it grows, and the room the usual shorter ones leave is never touched.
  w.Reserve(file.joints.size() * 160 + file.motion.size() * 25 + 256);
  w.Put("HIERARCHY\n");
  std::vector<int> open; // joints whose braces are open
  auto closeUntil = [&](int parent) {
    while (!open.empty() && open.back() != parent)
    {
      w.Tabs(static_cast<int>(open.size()) - 1);
      w.Put("}\n");
      open.pop_back();
    }
  };
  for (std::size_t i = 0; i < file.joints.size(); ++i)
  {
    const BvhJoint& j = file.joints[i];
    closeUntil(j.parent);
    const int depth = static_cast<int>(open.size());
    w.Tabs(depth);
    w.Put(j.parent < 0 ? "ROOT " : "JOINT ");
    w.Put(j.name);
    w.Put('\n');
    w.Tabs(depth);
    w.Put("{\n");
    w.Tabs(depth + 1);
    w.Put("OFFSET ");
    WriteVector(w, j.offset);
    w.Put('\n');
    w.Tabs(depth + 1);
    w.Put("CHANNELS ");
    w.Put(std::to_string(j.channels.size()));
    for (Channel c : j.channels)
    {
      w.Put(' ');
      w.Put(ChannelName(c));
    }
    w.Put('\n');
    if (j.hasEndSite)
    {
      w.Tabs(depth + 1);
      w.Put("End Site\n");
      w.Tabs(depth + 1);
      w.Put("{\n");
      w.Tabs(depth + 2);
      w.Put("OFFSET ");
      WriteVector(w, j.endSiteOffset);
      w.Put('\n');
      w.Tabs(depth + 1);
      w.Put("}\n");
    }
    open.push_back(static_cast<int>(i));
  }
  closeUntil(-1);
  w.Put("MOTION\nFrames: ");
  w.Put(std::to_string(file.frameCount));
  w.Put("\nFrame Time: ");
  w.Number(file.frameTime);
  w.Put('\n');
  // Rows are written apart from one another: shares of them on threads of their own, each into
  // a text of its own but the first, which goes on in place.
  const int shares = ShareCount(file.frameCount, threads, kRowsPerShare);
  std::vector<std::string> shareTexts(static_cast<std::size_t>(shares - 1));
  RunShares(file.frameCount, shares, [&](int share, int first, int last) {
    if (share == 0)
      WriteRows(w, file, first, last);
    else
    {
      Writer own(shareTexts[static_cast<std::size_t>(share - 1)]);
      own.Reserve(static_cast<std::size_t>(last - first) * static_cast<std::size_t>(file.channelCount) * 25);
      WriteRows(own, file, first, last);
    }
  });
  for (std::string& shareText : shareTexts)
  {
    w.Put(shareText);
    std::string().swap(shareText);
  }
  return true;
}

bool WriteBvh(const std::string& path, const BvhFile& file, std::string& error, int threads)
{
  std::string text;
  if (!WriteBvhToString(file, text, error, threads))
  {
    error = "cannot write '" + path + "': " + error;
    return false;
  }
  return WriteFileAtomically(path, text, error);
}

} // namespace kelvara
