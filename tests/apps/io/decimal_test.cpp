// The shortest decimal text against the library's, on random values of the kinds the host
// meets: computed doubles of every magnitude, captured data with a few decimals, and the awkward
// ones (powers of two, neighbours of round decimals).
#include "io/decimal.h"

#include <gtest/gtest.h>

#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <string>

namespace kelvara
{
namespace
{

std::string LibraryFixed(double v)
{
  char b[512];
  return std::string(b, std::to_chars(b, b + sizeof b, v, std::chars_format::fixed).ptr);
}

// Checks one value: when ShortestFixed takes it, the text is the library's and reads back to v.
// Returns whether it took it.
bool CheckFormat(double v)
{
  char b[kShortestFixedMax + 8];
  const char* end = ShortestFixed(b, v);
  if (end == nullptr)
    return false;
  const std::string text(static_cast<const char*>(b), end);
  EXPECT_LE(text.size(), static_cast<std::size_t>(kShortestFixedMax));
  EXPECT_EQ(text, LibraryFixed(v)) << "for " << std::hexfloat << v;
  double back = 0.0;
  const auto r = std::from_chars(text.data(), text.data() + text.size(), back);
  EXPECT_TRUE(r.ec == std::errc() && r.ptr == text.data() + text.size()) << text;
  EXPECT_EQ(std::bit_cast<std::uint64_t>(back), std::bit_cast<std::uint64_t>(v)) << text;
  return true;
}

TEST(ShortestFixed, WritesTheLibrarysTextForRandomDoubles)
{
  std::mt19937_64 random(20261125);
  int taken = 0;
  // Every bit pattern with a magnitude between 1e-6 and 1e16: all the exponents around the range
  // edges, and every mantissa.
  std::uniform_int_distribution<std::uint64_t> bits(std::bit_cast<std::uint64_t>(1e-6),
                                                    std::bit_cast<std::uint64_t>(1e16));
  for (int i = 0; i < 300000; ++i)
  {
    const double v = std::bit_cast<double>(bits(random));
    taken += CheckFormat(i % 2 ? -v : v) ? 1 : 0;
  }
  EXPECT_GT(taken, 200000);

  // Angles and positions as a retarget computes them.
  std::uniform_real_distribution<double> angle(-180.0, 180.0);
  for (int i = 0; i < 200000; ++i)
    EXPECT_TRUE(CheckFormat(angle(random)));
}

TEST(ShortestFixed, WritesTheLibrarysTextForShortDecimalsAndTheirNeighbours)
{
  std::mt19937_64 random(7);
  std::uniform_int_distribution<std::int64_t> mantissa(-99999999, 99999999);
  std::uniform_int_distribution<int> decimals(0, 12);
  for (int i = 0; i < 100000; ++i)
  {
    const double v = static_cast<double>(mantissa(random)) / std::pow(10.0, decimals(random));
    if (v == 0.0)
      continue;
    CheckFormat(v);
    CheckFormat(std::nextafter(v, 0.0));
    CheckFormat(std::nextafter(v, 2 * v));
  }
  // Powers of two have a narrower interval below them than above.
  for (int e = -16; e < 50; ++e)
  {
    const double p = std::ldexp(1.0, e);
    EXPECT_TRUE(CheckFormat(p)) << e;
    CheckFormat(std::nextafter(p, 0.0));
    CheckFormat(std::nextafter(p, 2 * p));
  }
  for (double v : {1e-5, 0.1, 0.3, 2.0 / 3.0, 1.0, 9.999999999999999, 999999999999999.9, 123456.7890123456})
    EXPECT_TRUE(CheckFormat(v)) << v;
}

TEST(ShortestFixed, LeavesToTheLibraryWhatItDoesNotCover)
{
  char b[kShortestFixedMax];
  const double infinity = std::numeric_limits<double>::infinity();
  for (double v : {0.0, -0.0, 1e15, 1e300, 9.99e-6, 5e-324, infinity, -std::nan("")})
    EXPECT_EQ(ShortestFixed(b, v), nullptr) << v;
}

} // namespace
} // namespace kelvara
