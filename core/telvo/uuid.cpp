#include "telvo/uuid.h"

#include <bit>
#include <cstdint>
#include <cstring>

namespace telvo
{

namespace
{
constexpr const char* kUnitName = "telvo/uuid";

// Offsets of the dashes in the canonical text.
constexpr Bool IsDashPosition(std::size_t i)
{
  return i == 8 || i == 13 || i == 18 || i == 23;
}

Int HexValue(char c)
{
  if (c >= '0' && c <= '9')
    return c - '0';
  if (c >= 'a' && c <= 'f')
    return c - 'a' + 10;
  if (c >= 'A' && c <= 'F')
    return c - 'A' + 10;
  return -1;
}
} // namespace

Uuid::Block* Uuid::Block::Allocate(const Bytes& bytes)
{
  void* mem = Allocator::Alloc(sizeof(Block));
  return mem == nullptr ? nullptr : new (mem) Block{{1}, bytes};
}

void Uuid::Block::Release(Block* b)
{
  if (b != nullptr && b->refs.fetch_sub(1, std::memory_order_acq_rel) == 1)
    DeleteObj(b);
}

Uuid::Uuid(const Uuid& other) noexcept : _block(other._block)
{
  if (_block != nullptr)
    _block->refs.fetch_add(1, std::memory_order_relaxed);
}

Uuid& Uuid::operator=(const Uuid& other) noexcept
{
  if (other._block != nullptr)
    other._block->refs.fetch_add(1, std::memory_order_relaxed);
  Block::Release(_block);
  _block = other._block;
  return *this;
}

Uuid& Uuid::operator=(Uuid&& other) noexcept
{
  if (this != &other)
  {
    Block::Release(_block);
    _block = other._block;
    other._block = nullptr;
  }
  return *this;
}

Uuid::~Uuid()
{
  Block::Release(_block);
}

Result<Uuid> Uuid::Create(const Bytes& bytes)
{
  Block* b = Block::Allocate(bytes);
  if (b == nullptr)
    return TELVO_OUT_OF_MEMORY();
  return Uuid(b);
}

Result<Uuid> Uuid::FromString(std::string_view text)
{
  if (text.size() != 36)
    return TELVO_ERROR(IllegalArgumentError, "Illegal argument: not a Uuid text");
  Bytes bytes{};
  std::size_t nibble = 0;
  for (std::size_t i = 0; i < text.size(); ++i)
  {
    if (IsDashPosition(i))
    {
      if (text[i] != '-')
        return TELVO_ERROR(IllegalArgumentError, "Illegal argument: not a Uuid text");
      continue;
    }
    Int v = HexValue(text[i]);
    if (v < 0)
      return TELVO_ERROR(IllegalArgumentError, "Illegal argument: not a Uuid text");
    bytes[nibble / 2] = static_cast<Byte>(bytes[nibble / 2] | (nibble % 2 == 0 ? v << 4 : v));
    ++nibble;
  }
  return Create(bytes);
}

Bool Uuid::IsValid() const
{
  return _block != nullptr && _block->bytes != kZeroBytes;
}

Int Uuid::GetReferenceCount() const
{
  return _block == nullptr ? 0 : _block->refs.load(std::memory_order_acquire);
}

// Pose lookups compare ids linearly on every frame, so this compares two 8-byte words inline
// instead of calling memcmp; read big-endian, the words order like memcmp does.
Int Uuid::Compare(const Uuid& other) const
{
  if (_block == other._block)
    return 0;
  const Byte* a = GetBytes().data();
  const Byte* b = other.GetBytes().data();
  for (std::size_t half = 0; half < 16; half += 8)
  {
    std::uint64_t x;
    std::uint64_t y;
    std::memcpy(&x, a + half, 8);
    std::memcpy(&y, b + half, 8);
    if (x == y)
      continue;
    if constexpr (std::endian::native == std::endian::little)
    {
      x = __builtin_bswap64(x);
      y = __builtin_bswap64(y);
    }
    return x < y ? -1 : 1;
  }
  return 0;
}

UInt Uuid::GetHash() const
{
  const Bytes& bytes = GetBytes();
  return String::HashText(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

Result<void> Uuid::MakeWritable()
{
  if (_block != nullptr && _block->refs.load(std::memory_order_acquire) == 1)
    return OK();
  Block* b = Block::Allocate(GetBytes());
  if (b == nullptr)
    return TELVO_OUT_OF_MEMORY();
  Block::Release(_block);
  _block = b;
  return OK();
}

Result<void> Uuid::SetBytes(const Bytes& bytes)
{
  TELVO_TRY(MakeWritable());
  _block->bytes = bytes;
  return OK();
}

String Uuid::ToString(const FormatStatement* fs) const
{
  const char* digits = (fs != nullptr && fs->upperCaseHex) ? "0123456789ABCDEF" : "0123456789abcdef";
  const Bytes& bytes = GetBytes();
  char text[36];
  std::size_t nibble = 0;
  for (std::size_t i = 0; i < sizeof(text); ++i)
  {
    if (IsDashPosition(i))
    {
      text[i] = '-';
      continue;
    }
    Byte b = bytes[nibble / 2];
    text[i] = digits[nibble % 2 == 0 ? b >> 4 : b & 0xF];
    ++nibble;
  }
  Result<String> result = String::Create(std::string_view(text, sizeof(text)));
  return result.IsOk() ? std::move(result).GetValue() : String();
}

} // namespace telvo
