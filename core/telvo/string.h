// String: reference-counted, copy-on-write UTF-8 text, and the framework's text conversions.
//
// Decisions callers rely on:
// - The empty string holds no storage: creating, copying or destroying it never allocates.
// - Copies share one buffer (atomic count); moves steal it. A mutation of a shared buffer first
//   makes a private copy; if that allocation fails the string is left exactly as it was.
// - Equality and ComparePart mode 0 are byte for byte and case-sensitive ("arm" != "Arm").
// - GetHash is FNV-1a 64-bit over the bytes (the same function InternedId uses).
// - Split drops empty pieces ("&&arm&&" split at "&&" gives just "arm").
// - Text conversions never fail: when memory runs out they yield the empty string.
#pragma once

#include <atomic>
#include <string_view>

#include "telvo/array.h"
#include "telvo/errorbase.h"
#include "telvo/matrix.h"

namespace telvo
{

// How numbers and identities are written. The defaults give the shortest exact text, unpadded.
struct FormatStatement
{
  // Minimum number of characters; shorter text is padded on the left with fill; -1: no padding.
  Int width = -1;
  // Digits after the decimal point; negative (-3 by convention): shortest text that reads back exactly.
  Int precision = -3;
  // Forces scientific notation (with precision digits when precision >= 0).
  Bool exponential = false;
  // Padding character; it goes in front of any sign ("00-2.5").
  Char fill = ' ';
  // Uuids print their hex digits in upper case.
  Bool upperCaseHex = false;
};

class TELVO_API String
{
public:
  String() = default;
  String(const String& other) noexcept;
  String(String&& other) noexcept : _buffer(other._buffer) { other._buffer = nullptr; }
  String& operator=(const String& other) noexcept;
  String& operator=(String&& other) noexcept;
  ~String();

  // A copy of text; the empty text gives the empty string without allocating.
  static Result<String> Create(std::string_view text);

  Int GetLength() const;
  Bool IsEmpty() const { return _buffer == nullptr || GetLength() == 0; }
  std::string_view View() const;
  // Number of holders of the buffer; 0 for a string without storage.
  Int GetReferenceCount() const;
  Bool IsSameBuffer(const String& other) const { return _buffer == other._buffer; }

  // Appending to a string without storage shares other's buffer instead of copying it.
  Result<void> Append(const String& other);
  // Growth over-allocates by half so that repeated appends are amortised.
  Result<void> Append(std::string_view text);
  // position must lie in [0, GetLength()], otherwise IllegalArgumentError and no change.
  Result<void> Insert(Int position, const String& text);
  Result<void> Insert(Int position, std::string_view text);
  // Makes the buffer private with room for at least capacity bytes: appends up to it cannot fail.
  Result<void> Reserve(Int capacity);

  // Compares this string from start (clamped to [0, length]) to its end with the whole of other.
  // mode 0: exact bytes; mode 1: ASCII case-insensitive; any other mode acts as 0. <0, 0, >0.
  Int ComparePart(const String& other, Int mode, Int start = 0) const;
  // ASCII letters upper-cased; other bytes (UTF-8 sequences included) are kept as they are.
  Result<String> ToUpper() const;
  // Pieces between occurrences of separator, empty pieces dropped; an empty separator gives the
  // whole string as the only piece ([] for the empty string).
  Result<BaseArray<String>> Split(const String& separator) const;
  // Index of the first occurrence of sub at or after start (negative start counts as 0), or -1.
  // An empty sub is found at start when start <= length.
  Int FindIndex(const String& sub, Int start = 0) const;

  friend Bool operator==(const String& a, const String& b) { return a.View() == b.View(); }
  // FNV-1a 64-bit over the bytes.
  UInt GetHash() const { return HashText(View()); }
  // FNV-1a 64-bit over text: the one hash of text in the framework.
  static UInt HashText(std::string_view text);

  static String IntToString(Int value);
  static String BoolToString(Bool value);
  // NaN prints "nan", infinities "inf" and "-inf"; precisions above 1074 act as 1074, where
  // every double is exact already.
  static String FloatToString(Float64 value, Int width, Int precision, Bool exponential, Char fill);
  static String FloatToString(Float64 value, const FormatStatement* fs = nullptr);

private:
  struct Buffer;
  explicit String(Buffer* buffer) : _buffer(buffer) {}

  Buffer* _buffer = nullptr;
};

// "(v1,v2,v3,off)" with each vector "(x,y,z)", no blanks: the offset last although stored first,
// as stored texts expect. The identity is "((1,0,0),(0,1,0),(0,0,1),(0,0,0))".
TELVO_API String MatrixToString(const Matrix& m, const FormatStatement* fs = nullptr);

// "{" + the element texts joined by "," + "}". Never fails: a piece that finds no memory is
// dropped, and the empty string comes back if not even the braces fit.
template <typename ARRAY, typename TEXT>
String ArrayToString(const ARRAY& array, TEXT&& elementText)
{
  String result;
  if (result.Reserve(2).IsError() || result.Append(std::string_view("{")).IsError())
    return String();
  Bool first = true;
  for (const auto& element : array)
  {
    String piece = elementText(element);
    // Room for the comma, the piece and the closing brace, so that no half piece is ever left.
    if (result.Reserve(result.GetLength() + piece.GetLength() + 2).IsError())
      continue;
    if (!first)
      (void)result.Append(std::string_view(","));
    (void)result.Append(piece.View());
    first = false;
  }
  (void)result.Append(std::string_view("}"));
  return result;
}

} // namespace telvo
