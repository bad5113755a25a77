// InternedId: a shared handle to an identifier text interned in one process-wide table.
//
// Decisions callers rely on:
// - Interning the same text twice gives the very same object; the entry leaves the table when
//   its last handle goes.
// - The null id is the empty id; interning the empty text gives it without allocating.
// - The hash is computed once at interning: FNV-1a 64 of the text, equal to String::GetHash.
// - operator== is object identity (the hash-map rule); IsSameText also accepts a different
//   object with byte-for-byte equal text, as made by another module's table.
#pragma once

#include <atomic>
#include <string_view>

#include "telvo/errorbase.h"
#include "telvo/string.h"

namespace telvo
{

class TELVO_API InternedId
{
public:
  // The interned object; opaque outside the table's own unit.
  struct Entry;

  InternedId() = default;
  InternedId(const InternedId& other) noexcept;
  InternedId(InternedId&& other) noexcept : _entry(other._entry) { other._entry = nullptr; }
  InternedId& operator=(const InternedId& other) noexcept;
  InternedId& operator=(InternedId&& other) noexcept;
  ~InternedId();

  // On OutOfMemoryError the table is left as it was.
  static Result<InternedId> Intern(std::string_view text);
  // An id object with this text that is not entered in the table.
  static Result<InternedId> CreateDetached(std::string_view text);

  Bool IsEmpty() const { return _entry == nullptr; }
  // 0 for the null id.
  UInt GetHash() const;
  // Empty for the null id.
  const String& GetString() const;
  std::string_view View() const { return GetString().View(); }
  // 0 for the null id.
  Int GetReferenceCount() const;
  Bool IsSameObject(const InternedId& other) const { return _entry == other._entry; }

  // The very same object only; a null id equals only a null id.
  friend Bool operator==(const InternedId& a, const InternedId& b) { return a._entry == b._entry; }
  // The same object, or both non-null with byte-for-byte equal (case-sensitive) texts.
  Bool IsSameText(const InternedId& other) const;

  // The text; the null id prints the empty text.
  String ToString(const FormatStatement* fs = nullptr) const;

  // Entries currently in the interning table.
  static Int GetTableCount();

private:
  explicit InternedId(Entry* entry) : _entry(entry) {}
  static void Release(Entry* entry);

  Entry* _entry = nullptr;
};

} // namespace telvo
