// Uuid: a shared handle to a 128-bit identity.
//
// Decisions callers rely on:
// - A null handle stands for the empty Uuid (all zero bytes) and is not valid.
// - Copies share one block (atomic count); MakeWritable/SetBytes copy a shared block first.
// - Equality is by value: a null Uuid equals the all-zero Uuid and no valid one.
// - Ordering compares the 16 bytes like memcmp; GetHash is FNV-1a 64 over the 16 bytes.
// - Text is canonical 8-4-4-4-12 hex, lower case unless FormatStatement::upperCaseHex.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "telvo/errorbase.h"
#include "telvo/string.h"

namespace telvo
{

class TELVO_API Uuid
{
public:
  using Bytes = std::array<Byte, 16>;

  Uuid() = default;
  Uuid(const Uuid& other) noexcept;
  Uuid(Uuid&& other) noexcept : _block(other._block) { other._block = nullptr; }
  Uuid& operator=(const Uuid& other) noexcept;
  Uuid& operator=(Uuid&& other) noexcept;
  ~Uuid();

  static Result<Uuid> Create(const Bytes& bytes);
  // Canonical 8-4-4-4-12 hex in either case; anything else is an IllegalArgumentError.
  static Result<Uuid> FromString(std::string_view text);

  Bool IsNull() const { return _block == nullptr; }
  // Non-null and not all zero.
  Bool IsValid() const;
  // All zero for a null handle. Inline: pose lookups compare ids linearly on every frame.
  const Bytes& GetBytes() const { return _block == nullptr ? kZeroBytes : _block->bytes; }
  // 0 for a null handle.
  Int GetReferenceCount() const;
  Bool IsSameObject(const Uuid& other) const { return _block == other._block; }

  // The same object compares 0 without looking at bytes; a null handle counts as all zero.
  Int Compare(const Uuid& other) const;
  // The same answer as Compare(...) == 0, inline for the lookups of every frame.
  friend Bool operator==(const Uuid& a, const Uuid& b)
  {
    if (a._block == b._block)
      return true;
    // Two word compares instead of a call to memcmp.
    std::uint64_t x[2];
    std::uint64_t y[2];
    std::memcpy(x, a.GetBytes().data(), 16);
    std::memcpy(y, b.GetBytes().data(), 16);
    return x[0] == y[0] && x[1] == y[1];
  }
  UInt GetHash() const;

  // Gives this handle a block of its own (a new all-zero one when null); on failure no change.
  Result<void> MakeWritable();
  Result<void> SetBytes(const Bytes& bytes);

  // Never fails: the empty string when memory runs out.
  String ToString(const FormatStatement* fs = nullptr) const;

private:
  struct Block
  {
    std::atomic<Int> refs;
    Bytes bytes;
    static Block* Allocate(const Bytes& bytes);
    static void Release(Block* b);
  };
  static constexpr Bytes kZeroBytes{};
  explicit Uuid(Block* block) : _block(block) {}

  Block* _block = nullptr;
};

} // namespace telvo
