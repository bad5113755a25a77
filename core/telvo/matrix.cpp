#include "telvo/matrix.h"

namespace telvo
{

Matrix Inverse(const Matrix& m)
{
  const Float64 det = Determinant3(m);
  if (det == 0.0)
    return Matrix{};
  const Float64 s = 1.0 / det;
  // Rows of the inverse 3x3 are the cross products of the columns, scaled by 1/det.
  Matrix r;
  r.v1 = {(m.v2.y * m.v3.z - m.v3.y * m.v2.z) * s, (m.v3.y * m.v1.z - m.v1.y * m.v3.z) * s,
          (m.v1.y * m.v2.z - m.v2.y * m.v1.z) * s};
  r.v2 = {(m.v3.x * m.v2.z - m.v2.x * m.v3.z) * s, (m.v1.x * m.v3.z - m.v3.x * m.v1.z) * s,
          (m.v2.x * m.v1.z - m.v1.x * m.v2.z) * s};
  r.v3 = {(m.v2.x * m.v3.y - m.v3.x * m.v2.y) * s, (m.v3.x * m.v1.y - m.v1.x * m.v3.y) * s,
          (m.v1.x * m.v2.y - m.v2.x * m.v1.y) * s};
  r.off = -TransformDirection(r, m.off);
  return r;
}

} // namespace telvo
