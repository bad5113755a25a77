// The shortest decimal text of a double in plain (fixed) notation, for the text formats the
// host writes in bulk (a BVH clip is a few hundred thousand numbers).
//
// ShortestFixed writes what std::to_chars(v, chars_format::fixed) writes: the fewest decimals that
// read back to v, and of those the text closest to v. It covers the magnitudes motion data has
// and says when a value is not one of them; the caller then uses the library.
#pragma once

namespace kelvara
{

// The longest text ShortestFixed writes: a sign, 17 significant digits, a point and up to 21
// decimals with their leading zeros.
constexpr int kShortestFixedMax = 48;

// Writes v at out (which has room for kShortestFixedMax characters) and returns the end of the
// text, or nullptr when v is not a finite non-zero value of magnitude in [1e-5, 1e15) whose text
// fits 21 decimals; out is then left as it was.
char* ShortestFixed(char* out, double v);

} // namespace kelvara
