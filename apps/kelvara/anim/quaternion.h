// Rotations as unit quaternions, the form clips keep them in (w first; files that store x, y, z,
// w are reordered by their readers), and their conversions to and from telvo matrices.
#pragma once

#include <cmath>

#include "telvo/matrix.h"

namespace kelvara
{

struct Quaternion
{
  double w = 1.0;
  double x = 0.0;
  double y = 0.0;
  double z = 0.0;

  friend bool operator==(const Quaternion& a, const Quaternion& b) = default;
};

// a * b: b first, then a (as for matrices).
inline Quaternion operator*(const Quaternion& a, const Quaternion& b)
{
  return {a.w * b.w - a.x * b.x - a.y * b.y - a.z * b.z, a.w * b.x + a.x * b.w + a.y * b.z - a.z * b.y,
          a.w * b.y - a.x * b.z + a.y * b.w + a.z * b.x, a.w * b.z + a.x * b.y - a.y * b.x + a.z * b.w};
}

inline Quaternion Conjugate(const Quaternion& q)
{
  return {q.w, -q.x, -q.y, -q.z};
}

inline double Norm(const Quaternion& q)
{
  return std::sqrt(q.w * q.w + q.x * q.x + q.y * q.y + q.z * q.z);
}

// q scaled to length 1; a zero or non-finite q gives the identity.
inline Quaternion Normalized(const Quaternion& q)
{
  const double n = Norm(q);
  if (!(n > 0.0) || !std::isfinite(n))
    return {};
  return {q.w / n, q.x / n, q.y / n, q.z / n};
}

inline double Dot(const Quaternion& a, const Quaternion& b)
{
  return a.w * b.w + a.x * b.x + a.y * b.y + a.z * b.z;
}

// The rotation matrix of a unit quaternion (zero offset).
telvo::Matrix ToMatrix(const Quaternion& q);

// The rotation of a matrix's 3x3 part; columns are normalised first, so a uniform scale is
// ignored. The result has w >= 0.
Quaternion FromMatrix(const telvo::Matrix& m);

// Rotation of radians about a unit axis.
Quaternion AxisAngle(const telvo::Vector& unitAxis, double radians);

// v turned by q.
telvo::Vector Rotate(const Quaternion& q, const telvo::Vector& v);

// Spherical interpolation along the shorter arc; t = 0 gives a, t = 1 gives b (or -b).
Quaternion Slerp(const Quaternion& a, const Quaternion& b, double t);

// Angle in degrees of the rotation that takes a to b (0 to 180), exact near zero.
double AngleBetweenDegrees(const Quaternion& a, const Quaternion& b);

} // namespace kelvara
