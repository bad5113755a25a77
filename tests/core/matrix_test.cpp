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
  const Vector pa[4] = {a.off, a.v1, a.v2, a.v3};
  const Vector pb[4] = {b.off, b.v1, b.v2, b.v3};
  Float64 worst = 0.0;
  for (Int i = 0; i < 4; ++i)
  {
    worst = std::fmax(worst, std::fabs(pa[i].x - pb[i].x));
    worst = std::fmax(worst, std::fabs(pa[i].y - pb[i].y));
    worst = std::fmax(worst, std::fabs(pa[i].z - pb[i].z));
  }
  return worst;
}

Bool ContainsNaN(const Matrix& m)
{
  for (const Vector& v : {m.off, m.v1, m.v2, m.v3})
    if (std::isnan(v.x) || std::isnan(v.y) || std::isnan(v.z))
      return true;
  return false;
}

// Diagonally dominant 3x3 part (2 on the diagonal, off-diagonal entries in [-0.5, 0.5]), so the
// matrix is invertible with a condition number below about 6; offsets up to 100.
class RandomMatrices
{
public:
  Matrix WellConditioned()
  {
    std::uniform_real_distribution<Float64> small(-0.5, 0.5);
    std::uniform_real_distribution<Float64> offset(-100.0, 100.0);
    Matrix m;
    m.v1 = {2.0 + small(_rng), small(_rng), small(_rng)};
    m.v2 = {small(_rng), 2.0 + small(_rng), small(_rng)};
    m.v3 = {small(_rng), small(_rng), 2.0 + small(_rng)};
    m.off = {offset(_rng), offset(_rng), offset(_rng)};
    return m;
  }
  Matrix Any()
  {
    std::uniform_real_distribution<Float64> any(-3.0, 3.0);
    Matrix m;
    for (Vector* v : {&m.off, &m.v1, &m.v2, &m.v3})
      *v = {any(_rng), any(_rng), any(_rng)};
    return m;
  }
  Vector Point()
  {
    std::uniform_real_distribution<Float64> any(-10.0, 10.0);
    return {any(_rng), any(_rng), any(_rng)};
  }

private:
  std::mt19937_64 _rng{20240611};
};

// Rounding in a 3x3 inverse and product is a few ulps times the condition number (< 6) times the
// largest magnitude involved (offsets <= 100, so products around 1e3): about 1e-12 at worst. 1e-9
// keeps a wide margin over that while any real fault (a wrong sign or swapped term in the
// expanded formulas) shows up as an error of order 0.1 or more.
constexpr Float64 kInverseTolerance = 1e-9;

TEST(MatrixInverse, TimesItselfGivesTheIdentity)
{
  RandomMatrices random;
  const Matrix identity;
  for (Int i = 0; i < 1000; ++i)
  {
    const Matrix m = random.WellConditioned();
    const Matrix inv = Inverse(m);
    ASSERT_LT(MaxDifference(m * inv, identity), kInverseTolerance) << "sample " << i;
    ASSERT_LT(MaxDifference(inv * m, identity), kInverseTolerance) << "sample " << i;
  }
}

TEST(MatrixInverse, UndoesTheMappingOfPoints)
{
  RandomMatrices random;
  for (Int i = 0; i < 1000; ++i)
  {
    const Matrix m = random.WellConditioned();
    const Vector p = random.Point();
    const Vector back = TransformPoint(Inverse(m), TransformPoint(m, p));
    ASSERT_LT(Length(back - p), kInverseTolerance) << "sample " << i;
  }
}

TEST(MatrixInverse, ExactlySingularGivesTheIdentity)
{
  Matrix m;
  m.v1 = {1.0, 2.0, 3.0};
  m.v2 = {2.0, 4.0, 6.0}; // 2 * v1
  m.v3 = {0.0, 1.0, 0.0};
  m.off = {5.0, 6.0, 7.0};
  ASSERT_EQ(Determinant3(m), 0.0);
  EXPECT_EQ(Inverse(m), Matrix{});

  Matrix zero;
  zero.v1 = zero.v2 = zero.v3 = Vector{};
  EXPECT_EQ(Inverse(zero), Matrix{});
}

TEST(MatrixInverse, TinyDeterminantIsNotTreatedAsSingular)
{
  // Powers of two keep every step exact.
  const Float64 tiny = std::ldexp(1.0, -300);
  Matrix m;
  m.v1 = {tiny, 0.0, 0.0};
  m.off = {1.0, 2.0, 3.0};
  const Matrix inv = Inverse(m);
  EXPECT_EQ(inv.v1, (Vector{1.0 / tiny, 0.0, 0.0}));
  EXPECT_EQ(inv.v2, (Vector{0.0, 1.0, 0.0}));
  EXPECT_EQ(inv.off, (Vector{-1.0 / tiny, -2.0, -3.0}));
}

TEST(MatrixInverse, NaNDeterminantTakesTheRegularPath)
{
  Matrix m;
  m.v1.x = std::numeric_limits<Float64>::quiet_NaN();
  ASSERT_TRUE(std::isnan(Determinant3(m)));
  const Matrix inv = Inverse(m);
  EXPECT_TRUE(ContainsNaN(inv));
}

// Plain 4x4 homogeneous arithmetic (columns v1, v2, v3, off): an independent check of the product.
using Mat4 = Float64[4][4];

void ToMat4(const Matrix& m, Mat4& out)
{
  const Vector columns[4] = {m.v1, m.v2, m.v3, m.off};
  for (Int c = 0; c < 4; ++c)
  {
    out[0][c] = columns[c].x;
    out[1][c] = columns[c].y;
    out[2][c] = columns[c].z;
    out[3][c] = c == 3 ? 1.0 : 0.0;
  }
}

TEST(MatrixProduct, AgreesWithHomogeneousArithmetic)
{
  RandomMatrices random;
  for (Int i = 0; i < 1000; ++i)
  {
    const Matrix a = random.Any();
    const Matrix b = random.Any();
    Mat4 ma, mb;
    ToMat4(a, ma);
    ToMat4(b, mb);
    Mat4 expected = {};
    for (Int r = 0; r < 4; ++r)
      for (Int c = 0; c < 4; ++c)
        for (Int k = 0; k < 4; ++k)
          expected[r][c] += ma[r][k] * mb[k][c];
    Mat4 actual;
    ToMat4(a * b, actual);
    // Entries up to 3, sums of four products up to 36: summation order differs by a few ulps.
    for (Int r = 0; r < 4; ++r)
      for (Int c = 0; c < 4; ++c)
        ASSERT_NEAR(actual[r][c], expected[r][c], 1e-12) << "sample " << i << " at " << r << "," << c;

    const Vector p = random.Point();
    const Vector viaProduct = TransformPoint(a * b, p);
    const Vector stepwise = TransformPoint(a, TransformPoint(b, p));
    ASSERT_LT(Length(viaProduct - stepwise), 1e-11) << "sample " << i;
  }
}

TEST(MatrixProduct, AppliesTheRightFactorFirst)
{
  Matrix shift;
  shift.off = {1.0, 0.0, 0.0};
  Matrix scale;
  scale.v1 = {2.0, 0.0, 0.0};
  scale.v2 = {0.0, 2.0, 0.0};
  scale.v3 = {0.0, 0.0, 2.0};
  const Vector p{1.0, 1.0, 0.0};
  EXPECT_EQ(TransformPoint(shift * scale, p), (Vector{3.0, 2.0, 0.0}));
  EXPECT_EQ(TransformPoint(scale * shift, p), (Vector{4.0, 2.0, 0.0}));

  // Quarter turn about z: x -> y.
  Matrix turn;
  turn.v1 = {0.0, 1.0, 0.0};
  turn.v2 = {-1.0, 0.0, 0.0};
  EXPECT_EQ(TransformPoint(turn * shift, Vector{}), (Vector{0.0, 1.0, 0.0}));
  EXPECT_EQ(TransformPoint(shift * turn, Vector{}), (Vector{1.0, 0.0, 0.0}));
}

TEST(MatrixProduct, DirectionsIgnoreTheOffset)
{
  Matrix m;
  m.off = {10.0, 20.0, 30.0};
  m.v1 = {0.0, 0.0, 3.0};
  EXPECT_EQ(TransformDirection(m, Vector{1.0, 0.0, 0.0}), (Vector{0.0, 0.0, 3.0}));
  EXPECT_EQ(TransformPoint(m, Vector{1.0, 0.0, 0.0}), (Vector{10.0, 20.0, 33.0}));
  EXPECT_EQ(Rotation3(m).off, Vector{});
}

} // namespace
} // namespace telvo
