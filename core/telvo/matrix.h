// Vectors and 3-D affine matrices of 64-bit floats.
//
// A Matrix maps a point p to off + p.x * v1 + p.y * v2 + p.z * v3 (column vectors). The offset is
// stored first; its text form writes it last: "(v1,v2,v3,off)". A * B applies B first, then A.
// Products and inverses are written out as scalar expressions over the twelve components: no
// loops, no allocation.
#pragma once

#include <cmath>

#include "telvo/system.h"

namespace telvo
{

struct Vector
{
  Float64 x = 0.0;
  Float64 y = 0.0;
  Float64 z = 0.0;

  friend Bool operator==(const Vector& a, const Vector& b) = default;
  friend Vector operator+(const Vector& a, const Vector& b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
  friend Vector operator-(const Vector& a, const Vector& b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
  friend Vector operator-(const Vector& a) { return {-a.x, -a.y, -a.z}; }
  friend Vector operator*(const Vector& a, Float64 s) { return {a.x * s, a.y * s, a.z * s}; }
  friend Vector operator*(Float64 s, const Vector& a) { return {a.x * s, a.y * s, a.z * s}; }
};

inline Float64 Dot(const Vector& a, const Vector& b)
{
  return a.x * b.x + a.y * b.y + a.z * b.z;
}

inline Vector Cross(const Vector& a, const Vector& b)
{
  return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}

inline Float64 Length(const Vector& a)
{
  return std::sqrt(Dot(a, a));
}

// a scaled to length 1; the zero vector stays zero.
inline Vector Normalized(const Vector& a)
{
  Float64 len = Length(a);
  return len == 0.0 ? a : a * (1.0 / len);
}

struct Matrix
{
  Vector off;
  Vector v1{1.0, 0.0, 0.0};
  Vector v2{0.0, 1.0, 0.0};
  Vector v3{0.0, 0.0, 1.0};

  friend Bool operator==(const Matrix& a, const Matrix& b) = default;
};

// The 3x3 part applied to a direction (the offset is ignored).
inline Vector TransformDirection(const Matrix& m, const Vector& d)
{
  return {m.v1.x * d.x + m.v2.x * d.y + m.v3.x * d.z, m.v1.y * d.x + m.v2.y * d.y + m.v3.y * d.z,
          m.v1.z * d.x + m.v2.z * d.y + m.v3.z * d.z};
}

// The whole affine map applied to a point.
inline Vector TransformPoint(const Matrix& m, const Vector& p)
{
  return m.off + TransformDirection(m, p);
}

// a * b: b first, then a.
inline Matrix operator*(const Matrix& a, const Matrix& b)
{
  Matrix r;
  r.off = a.off + TransformDirection(a, b.off);
  r.v1 = TransformDirection(a, b.v1);
  r.v2 = TransformDirection(a, b.v2);
  r.v3 = TransformDirection(a, b.v3);
  return r;
}

// The 3x3 part alone (offset zero).
inline Matrix Rotation3(const Matrix& m)
{
  Matrix r = m;
  r.off = Vector{};
  return r;
}

// Determinant of the 3x3 part, v3 . (v1 x v2) in its expanded form.
inline Float64 Determinant3(const Matrix& m)
{
  return m.v3.x * (m.v1.y * m.v2.z - m.v1.z * m.v2.y) + m.v3.y * (m.v1.z * m.v2.x - m.v1.x * m.v2.z) +
         m.v3.z * (m.v1.x * m.v2.y - m.v1.y * m.v2.x);
}

// Affine inverse. A determinant of exactly 0.0 gives the identity (no tolerance); a NaN
// determinant takes the regular path.
TELVO_API Matrix Inverse(const Matrix& m);

} // namespace telvo
