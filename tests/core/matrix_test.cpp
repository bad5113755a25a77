#include "telvo/matrix.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

namespace telvo
{
namespace
{

Vector RandomPoint(std::mt19937_64& rng, Float64 range)
{
  std::uniform_real_distribution<Float64> next(-range, range);
  return {next(rng), next(rng), next(rng)};
}

TEST(Matrix, ProductAppliesTheRightFactorFirstAndInverseUndoesIt)
{
  std::mt19937_64 rng(20240611);
  for (Int i = 0; i < 1000; ++i)
  {
    const Matrix a{RandomPoint(rng, 3.0), RandomPoint(rng, 3.0), RandomPoint(rng, 3.0), RandomPoint(rng, 3.0)};
    const Matrix b{RandomPoint(rng, 3.0), RandomPoint(rng, 3.0), RandomPoint(rng, 3.0), RandomPoint(rng, 3.0)};
    const Vector p = RandomPoint(rng, 10.0);
    ASSERT_LT(Length(TransformPoint(a * b, p) - TransformPoint(a, TransformPoint(b, p))), 1e-11) << "sample " << i;
    // Diagonally dominant: rounding stays near 1e-12, a wrong term in the formulas gives 0.1 or more.
    const Matrix m{RandomPoint(rng, 100.0), Vector{2.0, 0.0, 0.0} + RandomPoint(rng, 0.5),
                   Vector{0.0, 2.0, 0.0} + RandomPoint(rng, 0.5), Vector{0.0, 0.0, 2.0} + RandomPoint(rng, 0.5)};
    ASSERT_LT(Length(TransformPoint(Inverse(m), TransformPoint(m, p)) - p), 1e-9) << "sample " << i;
  }
  // Columns, not rows; directions leave the offset out.
  const Matrix m{{10.0, 20.0, 30.0}, {1.0, 2.0, 3.0}, {4.0, 5.0, 6.0}, {7.0, 8.0, 9.0}};
  EXPECT_EQ(TransformDirection(m, Vector{1.0, 2.0, 0.0}), (Vector{9.0, 12.0, 15.0}));
  EXPECT_EQ(TransformPoint(m, Vector{1.0, 2.0, 0.0}), (Vector{19.0, 32.0, 45.0}));
  // Only an exactly zero determinant gives the identity.
  EXPECT_EQ(Inverse(Matrix{{0.0, 1.0, 0.0}, {5.0, 6.0, 7.0}, {1.0, 2.0, 3.0}, {2.0, 4.0, 6.0}}), Matrix{});
  // Powers of two keep every step exact: a tiny determinant is no zero.
  const Float64 tiny = std::ldexp(1.0, -300);
  const Matrix inv = Inverse(Matrix{{1.0, 2.0, 3.0}, {tiny, 0.0, 0.0}, {0.0, 1.0, 0.0}, {0.0, 0.0, 1.0}});
  EXPECT_EQ(inv, (Matrix{{-1.0 / tiny, -2.0, -3.0}, {1.0 / tiny, 0.0, 0.0}, {0.0, 1.0, 0.0}, {0.0, 0.0, 1.0}}));
}

} // namespace
} // namespace telvo
