#include "io/bvh/euler.h"

#include <cmath>
#include <numbers>

namespace kelvara
{

namespace
{

using telvo::Matrix;
using telvo::Vector;

constexpr double kRadiansPerDegree = std::numbers::pi / 180.0;
constexpr double kTurn = 2.0 * std::numbers::pi;

// Below this cosine of the middle angle the first and last axes coincide (gimbal lock) and only
// a combination of the two outer angles is defined. Small enough that forcing the last angle
// costs far less than 1e-9 in the matrix, large enough to catch rounding at exactly 90 degrees.
constexpr double kLockCosine = 1e-10;

// Row row of column col: column c is the image of axis c.
double At(const Matrix& m, int row, int col)
{
  const Vector& v = col == 0 ? m.v1 : (col == 1 ? m.v2 : m.v3);
  return row == 0 ? v.x : (row == 1 ? v.y : v.z);
}

// +1 when (i, j, k) is a cyclic order of (X, Y, Z), so that axis i x axis j = +axis k.
double Parity(int i, int j)
{
  return (j - i + 3) % 3 == 1 ? 1.0 : -1.0;
}

// x shifted by whole turns to be as close as possible to near.
double NearestTurn(double x, double near)
{
  return x + kTurn * std::round((near - x) / kTurn);
}

Vector& Column(Matrix& m, int axis)
{
  return axis == 0 ? m.v1 : (axis == 1 ? m.v2 : m.v3);
}

// r = r * AxisRotation(axis, radians), turning only the two columns the axis rotation mixes
// (the pair after axis in cyclic order): a quarter of the work of the whole product.
void TurnAbout(Matrix& r, int axis, double radians)
{
  const double c = std::cos(radians);
  const double s = std::sin(radians);
  Vector& p = Column(r, (axis + 1) % 3);
  Vector& q = Column(r, (axis + 2) % 3);
  const Vector oldP = p;
  p = oldP * c + q * s;
  q = q * c - oldP * s;
}

} // namespace

Matrix AxisRotation(int axis, double radians)
{
  const double c = std::cos(radians);
  const double s = std::sin(radians);
  Matrix r;
  if (axis == 0)
  {
    r.v2 = {0.0, c, s};
    r.v3 = {0.0, -s, c};
  }
  else if (axis == 1)
  {
    r.v1 = {c, 0.0, -s};
    r.v3 = {s, 0.0, c};
  }
  else
  {
    r.v1 = {c, s, 0.0};
    r.v2 = {-s, c, 0.0};
  }
  return r;
}

Matrix RotationFromChannels(const std::vector<Channel>& channels, const double* values)
{
  Matrix r;
  for (std::size_t n = 0; n < channels.size(); ++n)
    if (IsRotation(channels[n]))
    {
      // Reducing whole turns in degrees first keeps large angles (many turns) exact; within one
      // turn fmod is the identity, and most captured angles are, so the call is skipped there.
      const double degrees = std::fabs(values[n]) < 360.0 ? values[n] : std::fmod(values[n], 360.0);
      TurnAbout(r, ChannelAxis(channels[n]), degrees * kRadiansPerDegree);
    }
  return r;
}

namespace
{

// The rotation channels of a layout: their slots and axes in order, a repeated axis left out.
struct RotationSlots
{
  std::size_t slot[3] = {};
  int axis[3] = {};
  int count = 0;

  explicit RotationSlots(const std::vector<Channel>& channels)
  {
    bool seen[3] = {};
    for (std::size_t n = 0; n < channels.size(); ++n)
    {
      if (!IsRotation(channels[n]))
        continue;
      const int a = ChannelAxis(channels[n]);
      if (seen[a])
        continue;
      seen[a] = true;
      slot[count] = n;
      axis[count] = a;
      ++count;
    }
  }
};

} // namespace

EulerAngles AnglesFromRotation(const std::vector<Channel>& channels, const Matrix& rotation, const double* previous)
{
  const RotationSlots slots(channels);
  const int count = slots.count;
  const int* axis = slots.axis;
  EulerAngles result;
  double* angle = result.radians;
  if (count == 0)
    return result;
  const bool havePrevious = previous != nullptr;
  auto prev = [&](int q) { return previous[slots.slot[q]] * kRadiansPerDegree; };

  const Matrix r = telvo::Rotation3(rotation);
  if (count == 1)
  {
    const int i = axis[0];
    const int j = (i + 1) % 3;
    const int k = (i + 2) % 3;
    angle[0] = std::atan2(At(r, k, j) - At(r, j, k), At(r, j, j) + At(r, k, k));
  }
  else if (count == 2)
  {
    // R = Ri(a) Rj(b): Rj leaves axis j alone, so column j is axis j turned by a about i.
    const int i = axis[0];
    const int j = axis[1];
    const int k = 3 - i - j;
    const double s = Parity(i, j);
    const double y = s * At(r, k, j);
    const double x = At(r, j, j);
    result.dependsOnPrevious = std::hypot(x, y) < kLockCosine;
    angle[0] = (havePrevious && result.dependsOnPrevious) ? prev(0) : std::atan2(y, x);
    const Matrix rest = AxisRotation(i, -angle[0]) * r; // Rj(b)
    angle[1] = std::atan2(s * At(rest, i, k), At(rest, k, k));
  }
  else
  {
    // R = Ri(a) Rj(b) Rk(c). Row i gives b and c; a and b are then solved from R Rk(-c), which
    // keeps the recomposition exact even where c is poorly conditioned near gimbal lock.
    const int i = axis[0];
    const int j = axis[1];
    const int k = axis[2];
    const double s = Parity(i, j);
    const double cosB = std::hypot(At(r, i, i), At(r, i, j));
    double c = 0.0;
    result.dependsOnPrevious = cosB < kLockCosine;
    if (!result.dependsOnPrevious)
      c = std::atan2(-s * At(r, i, j), At(r, i, i));
    else if (havePrevious)
      c = prev(2);
    Matrix ab = r;
    TurnAbout(ab, k, -c);
    const double a = std::atan2(s * At(ab, k, j), At(ab, j, j));
    const Matrix bOnly = AxisRotation(i, -a) * ab;
    const double b = std::atan2(s * At(bOnly, i, k), At(bOnly, k, k));
    angle[0] = a;
    angle[1] = b;
    angle[2] = c;
  }
  return result;
}

void ChannelsFromAngles(const std::vector<Channel>& channels, const EulerAngles& angles, const double* previous,
                        double* out)
{
  const RotationSlots slots(channels);
  const int count = slots.count;
  const bool havePrevious = previous != nullptr;
  double prev[3] = {};
  for (int q = 0; q < count && havePrevious; ++q)
    prev[q] = previous[slots.slot[q]] * kRadiansPerDegree;
  // A repeated axis gets 0.
  for (std::size_t n = 0; n < channels.size(); ++n)
    if (IsRotation(channels[n]))
      out[n] = 0.0;
  double angle[3] = {angles.radians[0], angles.radians[1], angles.radians[2]};
  if (count == 3 && havePrevious)
  {
    // The same rotation is also Ri(a + pi) Rj(pi - b) Rk(c + pi).
    const double other[3] = {angle[0] + std::numbers::pi, std::numbers::pi - angle[1], angle[2] + std::numbers::pi};
    double cost = 0.0;
    double otherCost = 0.0;
    for (int q = 0; q < 3; ++q)
    {
      cost += std::fabs(NearestTurn(angle[q], prev[q]) - prev[q]);
      otherCost += std::fabs(NearestTurn(other[q], prev[q]) - prev[q]);
    }
    if (otherCost < cost)
      for (int q = 0; q < 3; ++q)
        angle[q] = other[q];
  }
  for (int q = 0; q < count; ++q)
  {
    const double a = havePrevious ? NearestTurn(angle[q], prev[q]) : angle[q];
    out[slots.slot[q]] = a / kRadiansPerDegree;
  }
}

void ChannelsFromRotation(const std::vector<Channel>& channels, const Matrix& rotation, const double* previous,
                          double* out)
{
  ChannelsFromAngles(channels, AnglesFromRotation(channels, rotation, previous), previous, out);
}

} // namespace kelvara
