#include "telvo/matrix.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

namespace telvo
{
namespace
{

// Largest absolute difference over the twelve components.
Float64 MaxDifference(const Matrix& a, const Matrix& b)
{
  Float64 worst = 0.0;
  for (const auto& [p, q] : {std::pair{a.off, b.off}, {a.v1, b.v1}, {a.v2, b.v2}, {a.v3, b.v3}})
    worst = std::fmax(worst, std::fmax(std::fabs(p.x - q.x), std::fmax(std::fabs(p.y - q.y), std::fabs(p.z - q.z))));
  return worst;
}

class Random
{
public:
  // Diagonally dominant 3x3 part (2 on the diagonal, off-diagonal entries in [-0.5, 0.5]), so
  // the matrix is invertible with a condition number below about 6; offsets up to 100.
  Matrix WellConditioned()
  {
    Matrix m;
    m.v1 = {2.0 + Next(0.5), Next(0.5), Next(0.5)};
    m.v2 = {Next(0.5), 2.0 + Next(0.5), Next(0.5)};
    m.v3 = {Next(0.5), Next(0.5), 2.0 + Next(0.5)};
    m.off = Point(100.0);
    return m;
  }
  Matrix Any() { return Matrix{Point(3.0), Point(3.0), Point(3.0), Point(3.0)}; }
  Vector Point(Float64 range = 10.0) { return {Next(range), Next(range), Next(range)}; }

private:
  Float64 Next(Float64 range) { return std::uniform_real_distribution<Float64>(-range, range)(_rng); }
  std::mt19937_64 _rng{20240611};
};

TEST(MatrixInverse, UndoesTheMatrixAndItsMappingOfPoints)
{
  // Rounding is a few ulps times the condition number (< 6) times the largest magnitude (about
  // 1e3): 1e-12 at worst. A wrong sign or swapped term in the expanded formulas gives 0.1 or more.
  constexpr Float64 tolerance = 1e-9;
  Random random;
  for (Int i = 0; i < 1000; ++i)
  {
    const Matrix m = random.WellConditioned();
    const Matrix inv = Inverse(m);
    ASSERT_LT(MaxDifference(m * inv, Matrix{}), tolerance) << "sample " << i;
    ASSERT_LT(MaxDifference(inv * m, Matrix{}), tolerance) << "sample " << i;
    const Vector p = random.Point();
    ASSERT_LT(Length(TransformPoint(inv, TransformPoint(m, p)) - p), tolerance) << "sample " << i;
  }
}

TEST(MatrixInverse, OnlyAnExactlyZeroDeterminantGivesTheIdentity)
{
  Matrix singular{{5.0, 6.0, 7.0}, {1.0, 2.0, 3.0}, {2.0, 4.0, 6.0}, {0.0, 1.0, 0.0}}; // v2 = 2 * v1
  ASSERT_EQ(Determinant3(singular), 0.0);
  EXPECT_EQ(Inverse(singular), Matrix{});
  EXPECT_EQ(Inverse(Matrix{{}, {}, {}, {}}), Matrix{});

  // Powers of two keep every step exact.
  const Float64 tiny = std::ldexp(1.0, -300);
  Matrix m;
  m.v1 = {tiny, 0.0, 0.0};
  m.off = {1.0, 2.0, 3.0};
  const Matrix inv = Inverse(m);
  EXPECT_EQ(inv.v1, (Vector{1.0 / tiny, 0.0, 0.0}));
  EXPECT_EQ(inv.v2, (Vector{0.0, 1.0, 0.0}));
  EXPECT_EQ(inv.off, (Vector{-1.0 / tiny, -2.0, -3.0}));

  // A NaN determinant takes the regular path and spreads.
  Matrix nan;
  nan.v1.x = std::numeric_limits<Float64>::quiet_NaN();
  EXPECT_TRUE(std::isnan(Inverse(nan).v1.x));
}

TEST(MatrixProduct, AgreesWithHomogeneousArithmetic)
{
  // Plain 4x4 homogeneous arithmetic (columns v1, v2, v3, off) as an independent check.
  auto toMat4 = [](const Matrix& m, Float64 (&out)[4][4]) {
    const Vector columns[4] = {m.v1, m.v2, m.v3, m.off};
    for (Int c = 0; c < 4; ++c)
    {
      out[0][c] = columns[c].x;
      out[1][c] = columns[c].y;
      out[2][c] = columns[c].z;
      out[3][c] = c == 3 ? 1.0 : 0.0;
    }
  };
  Random random;
  for (Int i = 0; i < 1000; ++i)
  {
    const Matrix a = random.Any();
    const Matrix b = random.Any();
    Float64 ma[4][4], mb[4][4], actual[4][4], expected[4][4] = {};
    toMat4(a, ma);
    toMat4(b, mb);
    toMat4(a * b, actual);
    for (Int r = 0; r < 4; ++r)
      for (Int c = 0; c < 4; ++c)
      {
        for (Int k = 0; k < 4; ++k)
          expected[r][c] += ma[r][k] * mb[k][c];
        // Entries up to 3, sums of four products up to 36: summation order differs by a few ulps.
        ASSERT_NEAR(actual[r][c], expected[r][c], 1e-12) << "sample " << i << " at " << r << "," << c;
      }
    const Vector p = random.Point();
    ASSERT_LT(Length(TransformPoint(a * b, p) - TransformPoint(a, TransformPoint(b, p))), 1e-11) << "sample " << i;
  }
}

TEST(MatrixProduct, AppliesTheRightFactorFirstAndDirectionsIgnoreTheOffset)
{
  Matrix shift;
  shift.off = {1.0, 0.0, 0.0};
  const Matrix scale{{}, {2.0, 0.0, 0.0}, {0.0, 2.0, 0.0}, {0.0, 0.0, 2.0}};
  const Matrix turn{{}, {0.0, 1.0, 0.0}, {-1.0, 0.0, 0.0}, {0.0, 0.0, 1.0}}; // quarter turn about z
  const Vector p{1.0, 1.0, 0.0};
  EXPECT_EQ(TransformPoint(shift * scale, p), (Vector{3.0, 2.0, 0.0}));
  EXPECT_EQ(TransformPoint(scale * shift, p), (Vector{4.0, 2.0, 0.0}));
  EXPECT_EQ(TransformPoint(turn * shift, Vector{}), (Vector{0.0, 1.0, 0.0}));
  EXPECT_EQ(TransformPoint(shift * turn, Vector{}), (Vector{1.0, 0.0, 0.0}));

  Matrix m;
  m.off = {10.0, 20.0, 30.0};
  m.v1 = {0.0, 0.0, 3.0};
  EXPECT_EQ(TransformDirection(m, Vector{1.0, 0.0, 0.0}), (Vector{0.0, 0.0, 3.0}));
  EXPECT_EQ(TransformPoint(m, Vector{1.0, 0.0, 0.0}), (Vector{10.0, 20.0, 33.0}));
  EXPECT_EQ(Rotation3(m).off, Vector{});
}

} // namespace
} // namespace telvo
