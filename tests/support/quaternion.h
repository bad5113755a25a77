// Rotations as quaternions and matrix products by the plain formulas, so that the module's matrix
// results are checked against arithmetic that shares none of its code.
#pragma once

#include <algorithm>
#include <cmath>

#include "telvo/matrix.h"

namespace kelvara_test
{

struct Quat
{
  double w = 1.0, x = 0.0, y = 0.0, z = 0.0;
};

inline Quat operator*(const Quat& a, const Quat& b)
{
  return {a.w * b.w - a.x * b.x - a.y * b.y - a.z * b.z, a.w * b.x + a.x * b.w + a.y * b.z - a.z * b.y,
          a.w * b.y - a.x * b.z + a.y * b.w + a.z * b.x, a.w * b.z + a.x * b.y - a.y * b.x + a.z * b.w};
}

inline Quat Conjugate(const Quat& q)
{
  return {q.w, -q.x, -q.y, -q.z};
}

inline Quat AxisAngle(double ax, double ay, double az, double degrees)
{
  const double half = degrees * M_PI / 360.0;
  const double s = std::sin(half) / std::sqrt(ax * ax + ay * ay + az * az);
  return {std::cos(half), ax * s, ay * s, az * s};
}

inline telvo::Vector Rotate(const Quat& q, const telvo::Vector& v)
{
  const Quat r = q * Quat{0.0, v.x, v.y, v.z} * Conjugate(q);
  return {r.x, r.y, r.z};
}

// The matrix of rotation q at position offset.
inline telvo::Matrix Place(const Quat& q, const telvo::Vector& offset)
{
  telvo::Matrix m;
  m.off = offset;
  m.v1 = Rotate(q, {1, 0, 0});
  m.v2 = Rotate(q, {0, 1, 0});
  m.v3 = Rotate(q, {0, 0, 1});
  return m;
}

inline telvo::Matrix Mul(const telvo::Matrix& a, const telvo::Matrix& b)
{
  auto apply = [&](const telvo::Vector& d) { return a.v1 * d.x + a.v2 * d.y + a.v3 * d.z; };
  telvo::Matrix r;
  r.off = a.off + apply(b.off);
  r.v1 = apply(b.v1);
  r.v2 = apply(b.v2);
  r.v3 = apply(b.v3);
  return r;
}

inline double MaxDiff(const telvo::Vector& a, const telvo::Vector& b)
{
  return std::max({std::abs(a.x - b.x), std::abs(a.y - b.y), std::abs(a.z - b.z)});
}

inline double MaxDiff(const telvo::Matrix& a, const telvo::Matrix& b)
{
  return std::max({MaxDiff(a.off, b.off), MaxDiff(a.v1, b.v1), MaxDiff(a.v2, b.v2), MaxDiff(a.v3, b.v3)});
}

// The largest difference between the axes of m and those of the rotation q (the offset ignored).
inline double AxesDiff(const telvo::Matrix& m, const Quat& q)
{
  return MaxDiff(m, Place(q, m.off));
}

} // namespace kelvara_test
