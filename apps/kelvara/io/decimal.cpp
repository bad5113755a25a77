#include "io/decimal.h"

#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace kelvara
{

namespace
{

using U128 = unsigned __int128;

// Texts with more decimals than this go to the library: 10^21 times the interval's ends (below
// 2^55) still fits 128 bits.
constexpr int kMaxDecimals = 21;

constexpr std::array<U128, kMaxDecimals + 1> PowersOfTen()
{
  std::array<U128, kMaxDecimals + 1> p{};
  p[0] = 1;
  for (int i = 1; i <= kMaxDecimals; ++i)
    p[i] = p[i - 1] * 10;
  return p;
}

constexpr std::array<U128, kMaxDecimals + 1> kPow10 = PowersOfTen();

// 10^(i - 5) for i = 0..20: the next power of ten above a magnitude in [1e-6, 1e15).
constexpr double kPowersUp[] = {1e-5, 1e-4, 1e-3, 1e-2, 1e-1, 1e0,  1e1,  1e2,  1e3,  1e4, 1e5,
                                1e6,  1e7,  1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15};

// A positive double as 4m / 2^shift, with the interval of reals that read back to it: reading
// rounds to nearest, ties to the even m, and a power of two has a neighbour below at half the
// distance of the one above.
struct Interval
{
  std::uint64_t lower = 0; // ends, in units of 2^-shift
  std::uint64_t middle = 0;
  std::uint64_t upper = 0;
  int shift = 0;
  bool inclusive = false; // whether the ends themselves read back to it

  explicit Interval(double a)
  {
    const std::uint64_t bits = std::bit_cast<std::uint64_t>(a);
    const std::uint64_t fraction = bits & ((std::uint64_t{1} << 52) - 1);
    const std::uint64_t m = fraction | (std::uint64_t{1} << 52);
    shift = 1075 + 2 - static_cast<int>(bits >> 52);
    middle = 4 * m;
    upper = middle + 2;
    lower = fraction == 0 ? middle - 1 : middle - 2;
    inclusive = m % 2 == 0;
  }

  // The integers n with n / 10^d inside the interval are [lo, hi] (none when lo > hi).
  void Integers(int d, U128& lo, U128& hi) const
  {
    const U128 p = kPow10[static_cast<std::size_t>(d)];
    const U128 top = U128{upper} * p;
    const U128 bottom = U128{lower} * p;
    hi = top >> shift;
    if (!inclusive && (hi << shift) == top)
      --hi;
    lo = bottom >> shift;
    if ((lo << shift) != bottom || !inclusive)
      ++lo; // round up, and past an end that does not count
  }

  // The integer nearest to a * 10^d, ties to even.
  U128 Nearest(int d) const
  {
    const U128 exact = U128{middle} * kPow10[static_cast<std::size_t>(d)];
    const U128 half = U128{1} << (shift - 1);
    U128 n = exact >> shift;
    const U128 rest = exact - (n << shift);
    if (rest > half || (rest == half && (n & 1) != 0))
      ++n;
    return n;
  }
};

// Two digits at a time.
constexpr char kDigitPairs[] = "00010203040506070809"
                               "10111213141516171819"
                               "20212223242526272829"
                               "30313233343536373839"
                               "40414243444546474849"
                               "50515253545556575859"
                               "60616263646566676869"
                               "70717273747576777879"
                               "80818283848586878889"
                               "90919293949596979899";

// Eight digits of block (below 10^8), zeros first, at out.
void EightDigits(char* out, std::uint32_t block)
{
  for (int i = 6; i >= 0; i -= 2)
  {
    const std::uint32_t pair = block % 100;
    block /= 100;
    out[i] = kDigitPairs[2 * pair];
    out[i + 1] = kDigitPairs[2 * pair + 1];
  }
}

// The digits of n, right-aligned to end; returns where they start. Blocks of eight digits in
// 32 bits are quicker than 64-bit steps.
char* DigitsBefore(char* end, std::uint64_t n)
{
  while (n >= 100000000)
  {
    end -= 8;
    EightDigits(end, static_cast<std::uint32_t>(n % 100000000));
    n /= 100000000;
  }
  auto block = static_cast<std::uint32_t>(n);
  while (block >= 100)
  {
    const std::uint32_t pair = block % 100;
    block /= 100;
    end -= 2;
    end[0] = kDigitPairs[2 * pair];
    end[1] = kDigitPairs[2 * pair + 1];
  }
  if (block >= 10)
  {
    end -= 2;
    end[0] = kDigitPairs[2 * block];
    end[1] = kDigitPairs[2 * block + 1];
  }
  else
    *--end = static_cast<char>('0' + block);
  return end;
}

} // namespace

char* ShortestFixed(char* out, double v)
{
  const double a = std::fabs(v);
  if (!(a >= 1e-5 && a < 1e15))
    return nullptr;
  const Interval interval(a);

  // At 17 significant digits the interval holds integers. Dropping one decimal at a time, its
  // ends become ceil(lo / 10) and floor(hi / 10), until no integer is left between them: the
  // decimals before that are the fewest. The decimal exponent comes from the binary one, which
  // gives it or one less; a near power of ten may still leave it one too high, and then the
  // interval at 16 digits is empty and one more decimal is taken.
  const int binaryExponent = static_cast<int>(std::bit_cast<std::uint64_t>(a) >> 52) - 1023;
  int e10 = (binaryExponent * 1233) >> 12; // floor(binaryExponent * log10(2)) in this range
  e10 += a >= kPowersUp[e10 + 6] ? 1 : 0;
  int d = 17 - (e10 + 1);
  d = d < 0 ? 0 : (d > kMaxDecimals ? kMaxDecimals : d);
  U128 wideLo = 0;
  U128 wideHi = 0;
  interval.Integers(d, wideLo, wideHi);
  if (wideLo > wideHi && d < kMaxDecimals)
    interval.Integers(++d, wideLo, wideHi);
  if (wideLo > wideHi || wideHi >> 64 != 0)
    return nullptr;
  std::uint64_t lo = static_cast<std::uint64_t>(wideLo);
  std::uint64_t hi = static_cast<std::uint64_t>(wideHi);
  while (d > 0 && (lo + 9) / 10 <= hi / 10)
  {
    lo = (lo + 9) / 10;
    hi /= 10;
    --d;
  }
  // Of the integers left, the one nearest to v.
  std::uint64_t n = lo;
  if (lo != hi)
  {
    const U128 nearest = interval.Nearest(d);
    n = nearest < lo ? lo : (nearest > hi ? hi : static_cast<std::uint64_t>(nearest));
  }

  char digits[24];
  char* const digitsEnd = digits + sizeof digits;
  const char* first = DigitsBefore(digitsEnd, n);
  const int count = static_cast<int>(digitsEnd - first);
  char* p = out;
  if (v < 0)
    *p++ = '-';
  if (count > d)
  {
    std::memcpy(p, first, static_cast<std::size_t>(count - d));
    p += count - d;
    first += count - d;
    if (d == 0)
      return p;
    *p++ = '.';
  }
  else
  {
    std::memcpy(p, "0.00000000000000000000000", static_cast<std::size_t>(2 + d - count));
    p += 2 + d - count;
  }
  std::memcpy(p, first, static_cast<std::size_t>(digitsEnd - first));
  return p + (digitsEnd - first);
}

} // namespace kelvara
