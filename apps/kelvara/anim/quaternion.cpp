#include "anim/quaternion.h"

#include <algorithm>
#include <numbers>

namespace kelvara
{

telvo::Matrix ToMatrix(const Quaternion& q)
{
  const double w = q.w, x = q.x, y = q.y, z = q.z;
  telvo::Matrix r;
  r.v1 = {1.0 - 2.0 * (y * y + z * z), 2.0 * (x * y + w * z), 2.0 * (x * z - w * y)};
  r.v2 = {2.0 * (x * y - w * z), 1.0 - 2.0 * (x * x + z * z), 2.0 * (y * z + w * x)};
  r.v3 = {2.0 * (x * z + w * y), 2.0 * (y * z - w * x), 1.0 - 2.0 * (x * x + y * y)};
  return r;
}

Quaternion FromMatrix(const telvo::Matrix& m)
{
  const telvo::Vector c1 = telvo::Normalized(m.v1);
  const telvo::Vector c2 = telvo::Normalized(m.v2);
  const telvo::Vector c3 = telvo::Normalized(m.v3);
  // Element (row, column): column c is the image of axis c.
  const double m00 = c1.x, m10 = c1.y, m20 = c1.z;
  const double m01 = c2.x, m11 = c2.y, m21 = c2.z;
  const double m02 = c3.x, m12 = c3.y, m22 = c3.z;
  const double trace = m00 + m11 + m22;
  Quaternion q;
  // The largest of w, x, y, z is taken from the diagonal, so that the division is well conditioned.
  if (trace > 0.0)
  {
    const double s = 2.0 * std::sqrt(trace + 1.0);
    q = {0.25 * s, (m21 - m12) / s, (m02 - m20) / s, (m10 - m01) / s};
  }
  else if (m00 > m11 && m00 > m22)
  {
    const double s = 2.0 * std::sqrt(1.0 + m00 - m11 - m22);
    q = {(m21 - m12) / s, 0.25 * s, (m01 + m10) / s, (m02 + m20) / s};
  }
  else if (m11 > m22)
  {
    const double s = 2.0 * std::sqrt(1.0 + m11 - m00 - m22);
    q = {(m02 - m20) / s, (m01 + m10) / s, 0.25 * s, (m12 + m21) / s};
  }
  else
  {
    const double s = 2.0 * std::sqrt(1.0 + m22 - m00 - m11);
    q = {(m10 - m01) / s, (m02 + m20) / s, (m12 + m21) / s, 0.25 * s};
  }
  q = Normalized(q);
  if (q.w < 0.0)
    q = {-q.w, -q.x, -q.y, -q.z};
  return q;
}

Quaternion AxisAngle(const telvo::Vector& unitAxis, double radians)
{
  const double s = std::sin(0.5 * radians);
  return {std::cos(0.5 * radians), unitAxis.x * s, unitAxis.y * s, unitAxis.z * s};
}

telvo::Vector Rotate(const Quaternion& q, const telvo::Vector& v)
{
  // v + 2 u x (u x v + w v), with u the vector part: two cross products instead of two products.
  const telvo::Vector u{q.x, q.y, q.z};
  const telvo::Vector t = telvo::Cross(u, v) * 2.0;
  return v + t * q.w + telvo::Cross(u, t);
}

Quaternion Slerp(const Quaternion& a, const Quaternion& b, double t)
{
  double d = Dot(a, b);
  Quaternion end = b;
  if (d < 0.0)
  {
    d = -d;
    end = {-b.w, -b.x, -b.y, -b.z};
  }
  double wa = 1.0 - t;
  double wb = t;
  // Nearly equal rotations: the linear blend is as exact and avoids dividing by sin(0).
  if (d < 0.9995)
  {
    const double angle = std::acos(std::clamp(d, -1.0, 1.0));
    const double s = std::sin(angle);
    wa = std::sin((1.0 - t) * angle) / s;
    wb = std::sin(t * angle) / s;
  }
  return Normalized({wa * a.w + wb * end.w, wa * a.x + wb * end.x, wa * a.y + wb * end.y, wa * a.z + wb * end.z});
}

double AngleBetweenDegrees(const Quaternion& a, const Quaternion& b)
{
  const Quaternion d = Conjugate(a) * b;
  const double vector = std::sqrt(d.x * d.x + d.y * d.y + d.z * d.z);
  // atan2 of the half angle's sine and cosine keeps small angles exact where acos loses them.
  return 2.0 * std::atan2(vector, std::fabs(d.w)) * 180.0 / std::numbers::pi;
}

} // namespace kelvara
