#include "telvo/string.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

namespace telvo
{

namespace
{
constexpr const char* kUnitName = "telvo/string";

// Largest useful precision: the smallest subnormal has 1074 digits after the point.
constexpr Int kMaxPrecision = 1074;
// Sign, 309 integer digits, point, kMaxPrecision digits: fixed text of any double fits.
constexpr Int kFloatTextSize = 1400;

Error MakeOutOfMemory()
{
  return TELVO_OUT_OF_MEMORY();
}

unsigned char FoldAscii(unsigned char c)
{
  return (c >= 'A' && c <= 'Z') ? static_cast<unsigned char>(c - 'A' + 'a') : c;
}

} // namespace

// The text follows the header in the same block; one byte more holds a terminating zero so that
// the data can go to C interfaces.
struct String::Buffer
{
  std::atomic<Int> refs;
  Int length;
  Int capacity;

  char* Data() { return reinterpret_cast<char*>(this + 1); }

  static Buffer* Allocate(Int capacity)
  {
    if (capacity < 0 || static_cast<UInt>(capacity) > std::numeric_limits<std::size_t>::max() / 2)
      return nullptr;
    void* mem = Allocator::Alloc(sizeof(Buffer) + static_cast<std::size_t>(capacity) + 1);
    if (mem == nullptr)
      return nullptr;
    Buffer* b = new (mem) Buffer{{1}, 0, capacity};
    b->Data()[0] = '\0';
    return b;
  }

  static void Release(Buffer* b)
  {
    if (b != nullptr && b->refs.fetch_sub(1, std::memory_order_acq_rel) == 1)
    {
      b->~Buffer();
      Allocator::Free(b);
    }
  }

  void SetLength(Int newLength)
  {
    length = newLength;
    Data()[newLength] = '\0';
  }

  Bool IsUnique() const { return refs.load(std::memory_order_acquire) == 1; }

  // True when text points into this block: such text must not be moved while it is copied.
  Bool Contains(const char* p)
  {
    auto at = reinterpret_cast<std::uintptr_t>(p);
    auto begin = reinterpret_cast<std::uintptr_t>(Data());
    return at >= begin && at <= begin + static_cast<std::uintptr_t>(capacity);
  }
};

namespace
{
// Capacity for a string growing to newLength: exact for the first content, half again after.
Int GrowCapacity(Int oldLength, Int newLength)
{
  return oldLength == 0 ? newLength : newLength + newLength / 2;
}
} // namespace

String::String(const String& other) noexcept : _buffer(other._buffer)
{
  if (_buffer != nullptr)
    _buffer->refs.fetch_add(1, std::memory_order_relaxed);
}

String& String::operator=(const String& other) noexcept
{
  // Take the new reference first: other may be held only through this string.
  if (other._buffer != nullptr)
    other._buffer->refs.fetch_add(1, std::memory_order_relaxed);
  Buffer::Release(_buffer);
  _buffer = other._buffer;
  return *this;
}

String& String::operator=(String&& other) noexcept
{
  if (this != &other)
  {
    Buffer::Release(_buffer);
    _buffer = other._buffer;
    other._buffer = nullptr;
  }
  return *this;
}

String::~String()
{
  Buffer::Release(_buffer);
}

Result<String> String::Create(std::string_view text)
{
  if (text.empty())
    return String();
  Buffer* b = Buffer::Allocate(static_cast<Int>(text.size()));
  if (b == nullptr)
    return MakeOutOfMemory();
  std::memcpy(b->Data(), text.data(), text.size());
  b->SetLength(static_cast<Int>(text.size()));
  return String(b);
}

Int String::GetLength() const
{
  return _buffer == nullptr ? 0 : _buffer->length;
}

std::string_view String::View() const
{
  if (_buffer == nullptr)
    return {};
  return std::string_view(_buffer->Data(), static_cast<std::size_t>(_buffer->length));
}

Int String::GetReferenceCount() const
{
  return _buffer == nullptr ? 0 : _buffer->refs.load(std::memory_order_acquire);
}

Result<void> String::Append(const String& other)
{
  if (_buffer == nullptr)
  {
    *this = other;
    return OK();
  }
  return Append(other.View());
}

Result<void> String::Append(std::string_view text)
{
  return Insert(GetLength(), text);
}

Result<void> String::Insert(Int position, const String& text)
{
  return Insert(position, text.View());
}

Result<void> String::Insert(Int position, std::string_view text)
{
  Int length = GetLength();
  if (position < 0 || position > length)
    return TELVO_ERROR(IllegalArgumentError, "Illegal argument: insert position out of range");
  if (text.empty())
    return OK();
  Int n = static_cast<Int>(text.size());
  if (n > std::numeric_limits<Int>::max() / 2 - length)
    return MakeOutOfMemory();
  Int newLength = length + n;

  if (_buffer != nullptr && _buffer->IsUnique() && _buffer->capacity >= newLength &&
      !(position < length && _buffer->Contains(text.data())))
  {
    // In place. Text from our own block is only possible when appending, where it lies wholly
    // before the bytes being written.
    char* data = _buffer->Data();
    std::memmove(data + position + n, data + position, static_cast<std::size_t>(length - position));
    std::memcpy(data + position, text.data(), text.size());
    _buffer->SetLength(newLength);
    return OK();
  }

  Buffer* b = Buffer::Allocate(GrowCapacity(length, newLength));
  if (b == nullptr)
    return MakeOutOfMemory();
  const char* old = _buffer == nullptr ? nullptr : _buffer->Data();
  if (position > 0)
    std::memcpy(b->Data(), old, static_cast<std::size_t>(position));
  std::memcpy(b->Data() + position, text.data(), text.size());
  if (length > position)
    std::memcpy(b->Data() + position + n, old + position, static_cast<std::size_t>(length - position));
  b->SetLength(newLength);
  // Released only now: text may have pointed into the old block.
  Buffer::Release(_buffer);
  _buffer = b;
  return OK();
}

Result<void> String::Reserve(Int capacity)
{
  if (capacity <= 0 && _buffer == nullptr)
    return OK();
  if (_buffer != nullptr && _buffer->IsUnique() && _buffer->capacity >= capacity)
    return OK();
  Int length = GetLength();
  Buffer* b = Buffer::Allocate(std::max(capacity, length));
  if (b == nullptr)
    return MakeOutOfMemory();
  if (length > 0)
    std::memcpy(b->Data(), _buffer->Data(), static_cast<std::size_t>(length));
  b->SetLength(length);
  Buffer::Release(_buffer);
  _buffer = b;
  return OK();
}

Int String::ComparePart(const String& other, Int mode, Int start) const
{
  std::string_view a = View();
  start = std::clamp<Int>(start, 0, static_cast<Int>(a.size()));
  a.remove_prefix(static_cast<std::size_t>(start));
  std::string_view b = other.View();
  std::size_t n = std::min(a.size(), b.size());
  for (std::size_t i = 0; i < n; ++i)
  {
    auto ca = static_cast<unsigned char>(a[i]);
    auto cb = static_cast<unsigned char>(b[i]);
    if (mode == 1)
    {
      ca = FoldAscii(ca);
      cb = FoldAscii(cb);
    }
    if (ca != cb)
      return ca < cb ? -1 : 1;
  }
  if (a.size() == b.size())
    return 0;
  return a.size() < b.size() ? -1 : 1;
}

Result<String> String::ToUpper() const
{
  Int length = GetLength();
  if (length == 0)
    return String();
  Buffer* b = Buffer::Allocate(length);
  if (b == nullptr)
    return MakeOutOfMemory();
  const char* src = _buffer->Data();
  char* dst = b->Data();
  for (Int i = 0; i < length; ++i)
  {
    char c = src[i];
    dst[i] = (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
  }
  b->SetLength(length);
  return String(b);
}

Result<BaseArray<String>> String::Split(const String& separator) const
{
  BaseArray<String> pieces;
  std::string_view text = View();
  if (text.empty())
    return pieces;
  std::string_view sep = separator.View();
  if (sep.empty())
  {
    TELVO_TRY(pieces.Append(*this));
    return pieces;
  }
  std::size_t begin = 0;
  while (begin <= text.size())
  {
    std::size_t end = text.find(sep, begin);
    if (end == std::string_view::npos)
      end = text.size();
    if (end > begin)
    {
      TELVO_TRY_ASSIGN(String piece, Create(text.substr(begin, end - begin)));
      TELVO_TRY(pieces.Append(std::move(piece)));
    }
    if (end == text.size())
      break;
    begin = end + sep.size();
  }
  return pieces;
}

Int String::FindIndex(const String& sub, Int start) const
{
  std::string_view text = View();
  if (start < 0)
    start = 0;
  if (start > static_cast<Int>(text.size()))
    return -1;
  std::size_t at = text.find(sub.View(), static_cast<std::size_t>(start));
  return at == std::string_view::npos ? -1 : static_cast<Int>(at);
}

UInt String::HashText(std::string_view text)
{
  UInt hash = 14695981039346656037ull;
  for (char c : text)
  {
    hash ^= static_cast<unsigned char>(c);
    hash *= 1099511628211ull;
  }
  return hash;
}

String String::IntToString(Int value)
{
  char text[24];
  auto [end, ec] = std::to_chars(text, text + sizeof(text), value);
  (void)ec;
  Result<String> result = Create(std::string_view(text, static_cast<std::size_t>(end - text)));
  return result.IsOk() ? std::move(result).GetValue() : String();
}

String String::BoolToString(Bool value)
{
  Result<String> result = Create(value ? "true" : "false");
  return result.IsOk() ? std::move(result).GetValue() : String();
}

String String::FloatToString(Float64 value, Int width, Int precision, Bool exponential, Char fill)
{
  char text[kFloatTextSize];
  std::size_t length = 0;
  if (std::isnan(value))
  {
    // One spelling for every NaN: the sign and payload of a NaN carry no meaning here.
    std::memcpy(text, "nan", 3);
    length = 3;
  }
  else
  {
    std::to_chars_result r{};
    char* end = text + sizeof(text);
    if (precision < 0)
      r = exponential ? std::to_chars(text, end, value, std::chars_format::scientific)
                      : std::to_chars(text, end, value);
    else
      r = std::to_chars(text, end, value,
                        exponential ? std::chars_format::scientific : std::chars_format::fixed,
                        static_cast<int>(std::min(precision, kMaxPrecision)));
    if (r.ec != std::errc())
      return String();
    length = static_cast<std::size_t>(r.ptr - text);
  }

  Int padding = width > static_cast<Int>(length) ? width - static_cast<Int>(length) : 0;
  if (padding == 0)
  {
    Result<String> result = Create(std::string_view(text, length));
    return result.IsOk() ? std::move(result).GetValue() : String();
  }
  String result;
  if (result.Reserve(width).IsError())
    return String();
  Buffer* b = result._buffer;
  std::memset(b->Data(), static_cast<unsigned char>(fill), static_cast<std::size_t>(padding));
  std::memcpy(b->Data() + padding, text, length);
  b->SetLength(width);
  return result;
}

String String::FloatToString(Float64 value, const FormatStatement* fs)
{
  FormatStatement defaults;
  if (fs == nullptr)
    fs = &defaults;
  return FloatToString(value, fs->width, fs->precision, fs->exponential, fs->fill);
}

String MatrixToString(const Matrix& m, const FormatStatement* fs)
{
  String result;
  auto add = [&](std::string_view text) { return result.Append(text).IsOk(); };
  auto addVector = [&](const Vector& v) {
    // A component that found no memory comes back empty: that makes the whole text fail too.
    String x = String::FloatToString(v.x, fs);
    String y = String::FloatToString(v.y, fs);
    String z = String::FloatToString(v.z, fs);
    return !x.IsEmpty() && !y.IsEmpty() && !z.IsEmpty() && add("(") && add(x.View()) && add(",") &&
           add(y.View()) && add(",") && add(z.View()) && add(")");
  };
  Bool ok = add("(") && addVector(m.v1) && add(",") && addVector(m.v2) && add(",") &&
            addVector(m.v3) && add(",") && addVector(m.off) && add(")");
  return ok ? result : String();
}

} // namespace telvo
