#include "telvo/matrix.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

namespace telvo
{
namespace
{

Float64 Difference(const Matrix& a, const Matrix& b)
{
  return Length(a.off - b.off) + Length(a.v1 - b.v1) + Length(a.v2 - b.v2) + Length(a.v3 - b.v3);
}

struct Random
{
  Float64 Next(Float64 range) { return std::uniform_real_distribution<Float64>(-range, range)(rng); }
  Vector Point(Float64 range = 10.0) { return {Next(range), Next(range), Next(range)}; }
  std::mt19937_64 rng{20240611};
};

TEST(MatrixInverse, UndoesTheMatrix)
{
  Random random;
  for (Int i = 0; i < 1000; ++i)
  {
    // Diagonally dominant, so the condition number stays below about 6 and rounding near 1e-12;
    // a wrong sign or swapped term in the expanded formulas gives 0.1 or more.
    const Matrix m{random.Point(100.0), Vector{2.0, 0.0, 0.0} + random.Point(0.5),
                   Vector{0.0, 2.0, 0.0} + random.Point(0.5), Vector{0.0, 0.0, 2.0} + random.Point(0.5)};
    ASSERT_LT(Difference(m * Inverse(m), Matrix{}), 1e-9) << "sample " << i;
    ASSERT_LT(Difference(Inverse(m) * m, Matrix{}), 1e-9) << "sample " << i;
  }
}

TEST(MatrixInverse, OnlyAnExactlyZeroDeterminantGivesTheIdentity)
{
  const Matrix singular{{0.0, 1.0, 0.0}, {5.0, 6.0, 7.0}, {1.0, 2.0, 3.0}, {2.0, 4.0, 6.0}}; // v3 = 2 * v2
  ASSERT_EQ(Determinant3(singular), 0.0);
  EXPECT_EQ(Inverse(singular), Matrix{});
  // Powers of two keep every step exact.
  const Float64 tiny = std::ldexp(1.0, -300);
  const Matrix inv = Inverse(Matrix{{1.0, 2.0, 3.0}, {tiny, 0.0, 0.0}, {0.0, 1.0, 0.0}, {0.0, 0.0, 1.0}});
  EXPECT_EQ(inv, (Matrix{{-1.0 / tiny, -2.0, -3.0}, {1.0 / tiny, 0.0, 0.0}, {0.0, 1.0, 0.0}, {0.0, 0.0, 1.0}}));
  // A NaN determinant takes the regular path and spreads.
  Matrix nan;
  nan.v1.x = std::numeric_limits<Float64>::quiet_NaN();
  EXPECT_TRUE(std::isnan(Inverse(nan).v1.x));
}

TEST(MatrixProduct, AppliesTheRightFactorFirst)
{
  Random random;
  for (Int i = 0; i < 1000; ++i)
  {
    const Matrix a{random.Point(3.0), random.Point(3.0), random.Point(3.0), random.Point(3.0)};
    const Matrix b{random.Point(3.0), random.Point(3.0), random.Point(3.0), random.Point(3.0)};
    const Vector p = random.Point();
    ASSERT_LT(Length(TransformPoint(a * b, p) - TransformPoint(a, TransformPoint(b, p))), 1e-11) << "sample " << i;
  }
  const Matrix shift{{1.0, 0.0, 0.0}};
  const Matrix scale{{}, {2.0, 0.0, 0.0}, {0.0, 2.0, 0.0}, {0.0, 0.0, 2.0}};
  EXPECT_EQ(TransformPoint(shift * scale, Vector{1.0, 1.0, 0.0}), (Vector{3.0, 2.0, 0.0}));
  EXPECT_EQ(TransformPoint(scale * shift, Vector{1.0, 1.0, 0.0}), (Vector{4.0, 2.0, 0.0}));
  // Columns, not rows; directions leave the offset out.
  const Matrix m{{10.0, 20.0, 30.0}, {1.0, 2.0, 3.0}, {4.0, 5.0, 6.0}, {7.0, 8.0, 9.0}};
  EXPECT_EQ(TransformDirection(m, Vector{1.0, 2.0, 0.0}), (Vector{9.0, 12.0, 15.0}));
  EXPECT_EQ(TransformPoint(m, Vector{1.0, 2.0, 0.0}), (Vector{19.0, 32.0, 45.0}));
}

} // namespace
} // namespace telvo
