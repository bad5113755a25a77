#include "road/match_rest.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <numbers>

namespace kelvara
{

namespace
{

using telvo::Matrix;
using telvo::Vector;

// Below this length a direction is taken as none; the files' units are centimetres or inches,
// so no real bone comes near it.
constexpr double kTiny = 1e-12;
// Unit directions closer to one line than this (sine of the angle) leave the turn about it free.
constexpr double kCollinear = 1e-9;

std::size_t At(int index)
{
  return static_cast<std::size_t>(index);
}

// Parent of a joint as the hierarchy is walked here: a parent that does not come earlier counts
// as none, so that a malformed file cannot send a walk in circles.
int ParentOf(const Skeleton& file, std::size_t joint)
{
  const int parent = file.joints[joint].parent;
  return parent >= 0 && At(parent) < joint ? parent : -1;
}

using Matrix4 = std::array<std::array<double, 4>, 4>;

// Cyclic Jacobi on a symmetric 4x4 matrix: a ends diagonal (the eigenvalues), the columns of v
// are the eigenvectors. A handful of sweeps reach machine precision at this size.
void SymmetricEigen(Matrix4& a, Matrix4& v)
{
  for (int i = 0; i < 4; ++i)
    for (int j = 0; j < 4; ++j)
      v[At(i)][At(j)] = i == j ? 1.0 : 0.0;
  for (int sweep = 0; sweep < 64; ++sweep)
  {
    double off = 0.0;
    double all = 0.0;
    for (std::size_t p = 0; p < 4; ++p)
      for (std::size_t q = 0; q < 4; ++q)
      {
        all += a[p][q] * a[p][q];
        if (p != q)
          off += a[p][q] * a[p][q];
      }
    if (off <= 1e-32 * all)
      return;
    for (std::size_t p = 0; p < 3; ++p)
      for (std::size_t q = p + 1; q < 4; ++q)
      {
        if (a[p][q] == 0.0)
          continue;
        const double theta = (a[q][q] - a[p][p]) / (2.0 * a[p][q]);
        const double t = (theta >= 0.0 ? 1.0 : -1.0) / (std::fabs(theta) + std::sqrt(theta * theta + 1.0));
        const double c = 1.0 / std::sqrt(t * t + 1.0);
        const double s = t * c;
        for (std::size_t k = 0; k < 4; ++k)
        {
          const double kp = a[k][p];
          const double kq = a[k][q];
          a[k][p] = c * kp - s * kq;
          a[k][q] = s * kp + c * kq;
        }
        for (std::size_t k = 0; k < 4; ++k)
        {
          const double pk = a[p][k];
          const double qk = a[q][k];
          a[p][k] = c * pk - s * qk;
          a[q][k] = s * pk + c * qk;
        }
        for (std::size_t k = 0; k < 4; ++k)
        {
          const double kp = v[k][p];
          const double kq = v[k][q];
          v[k][p] = c * kp - s * kq;
          v[k][q] = s * kp + c * kq;
        }
      }
  }
}

bool OnOneLine(const std::vector<Vector>& units)
{
  for (const Vector& u : units)
    if (telvo::Length(telvo::Cross(u, units.front())) > kCollinear)
      return false;
  return true;
}

} // namespace

double AngleDegrees(const Vector& a, const Vector& b)
{
  if (telvo::Length(a) < kTiny || telvo::Length(b) < kTiny)
    return 0.0;
  // atan2 keeps small angles exact where acos of a dot product near 1 loses them.
  return std::atan2(telvo::Length(telvo::Cross(a, b)), telvo::Dot(a, b)) * 180.0 / std::numbers::pi;
}

Matrix MinimalRotation(const Vector& from, const Vector& to)
{
  if (telvo::Length(from) < kTiny || telvo::Length(to) < kTiny)
    return Matrix();
  const Vector a = telvo::Normalized(from);
  const Vector b = telvo::Normalized(to);
  const Vector axis = telvo::Cross(a, b);
  const double s = telvo::Length(axis);
  const double c = telvo::Dot(a, b);
  if (s > kTiny)
    return ToMatrix(AxisAngle(axis * (1.0 / s), std::atan2(s, c)));
  if (c > 0.0)
    return Matrix();
  // Opposite: any axis square to a does; the one least along a is the best conditioned.
  const Vector helper = std::fabs(a.x) <= std::fabs(a.y) && std::fabs(a.x) <= std::fabs(a.z) ? Vector{1.0, 0.0, 0.0}
                        : std::fabs(a.y) <= std::fabs(a.z)                                  ? Vector{0.0, 1.0, 0.0}
                                                                                             : Vector{0.0, 0.0, 1.0};
  return ToMatrix(AxisAngle(telvo::Normalized(telvo::Cross(a, helper)), std::numbers::pi));
}

Matrix BestFitRotation(const std::vector<Vector>& from, const std::vector<Vector>& to, const std::vector<double>& weights)
{
  std::vector<Vector> a;
  std::vector<Vector> b;
  std::vector<double> w;
  const std::size_t n = std::min({from.size(), to.size(), weights.size()});
  for (std::size_t i = 0; i < n; ++i)
    if (weights[i] > 0.0 && telvo::Length(from[i]) >= kTiny && telvo::Length(to[i]) >= kTiny)
    {
      a.push_back(telvo::Normalized(from[i]));
      b.push_back(telvo::Normalized(to[i]));
      w.push_back(weights[i]);
    }
  if (a.empty())
    return Matrix();
  if (OnOneLine(a) || OnOneLine(b))
  {
    Vector meanA;
    Vector meanB;
    for (std::size_t i = 0; i < a.size(); ++i)
    {
      meanA = meanA + a[i] * w[i];
      meanB = meanB + b[i] * w[i];
    }
    if (telvo::Length(meanA) < kCollinear || telvo::Length(meanB) < kCollinear)
      return MinimalRotation(a.front(), b.front());
    return MinimalRotation(meanA, meanB);
  }

  // Cross-covariance s[j][k] = sum w a_j b_k; the quaternion maximising sum w b . R a is the
  // eigenvector of the largest eigenvalue of its symmetric 4x4 form.
  double s[3][3] = {};
  for (std::size_t i = 0; i < a.size(); ++i)
  {
    const double av[3] = {a[i].x, a[i].y, a[i].z};
    const double bv[3] = {b[i].x, b[i].y, b[i].z};
    for (int j = 0; j < 3; ++j)
      for (int k = 0; k < 3; ++k)
        s[j][k] += w[i] * av[j] * bv[k];
  }
  const double xx = s[0][0], xy = s[0][1], xz = s[0][2];
  const double yx = s[1][0], yy = s[1][1], yz = s[1][2];
  const double zx = s[2][0], zy = s[2][1], zz = s[2][2];
  Matrix4 m = {{{xx + yy + zz, yz - zy, zx - xz, xy - yx},
                {yz - zy, xx - yy - zz, xy + yx, zx + xz},
                {zx - xz, xy + yx, -xx + yy - zz, yz + zy},
                {xy - yx, zx + xz, yz + zy, -xx - yy + zz}}};
  Matrix4 v;
  SymmetricEigen(m, v);
  std::size_t best = 0;
  for (std::size_t i = 1; i < 4; ++i)
    if (m[i][i] > m[best][best])
      best = i;
  return ToMatrix(Normalized(Quaternion{v[0][best], v[1][best], v[2][best], v[3][best]}));
}

std::vector<MappedBone> MappedBones(const Skeleton& target, const std::vector<int>& sourceOfTarget,
                                    const std::vector<Matrix>& sourceRest, const std::vector<Matrix>& targetRest)
{
  std::vector<MappedBone> bones;
  const std::size_t n = std::min({target.joints.size(), sourceOfTarget.size(), targetRest.size()});
  for (std::size_t t = 0; t < n; ++t)
  {
    const int s = sourceOfTarget[t];
    if (s < 0 || At(s) >= sourceRest.size())
      continue;
    int up = ParentOf(target, t);
    while (up >= 0 && (sourceOfTarget[At(up)] < 0 || At(sourceOfTarget[At(up)]) >= sourceRest.size()))
      up = ParentOf(target, At(up));
    if (up < 0)
      continue;
    const MappedBone bone{up, static_cast<int>(t), sourceOfTarget[At(up)], s};
    if (telvo::Length(targetRest[t].off - targetRest[At(up)].off) < kTiny ||
        telvo::Length(sourceRest[At(s)].off - sourceRest[At(bone.sourceJoint)].off) < kTiny)
      continue;
    bones.push_back(bone);
  }
  return bones;
}

std::vector<double> BoneDirectionAngles(const std::vector<MappedBone>& bones, const std::vector<Matrix>& sourceWorld,
                                        const std::vector<Matrix>& targetWorld)
{
  std::vector<double> angles;
  angles.reserve(bones.size());
  for (const MappedBone& b : bones)
    angles.push_back(AngleDegrees(sourceWorld[At(b.sourceChild)].off - sourceWorld[At(b.sourceJoint)].off,
                                  targetWorld[At(b.targetChild)].off - targetWorld[At(b.targetJoint)].off));
  return angles;
}

std::vector<Matrix> MatchRestPose(const Skeleton& target, const std::vector<Matrix>& targetRest,
                                  const std::vector<Matrix>& sourceRest, const std::vector<int>& sourceOfTarget)
{
  const std::size_t n = targetRest.size();
  std::vector<Matrix> corrected(n);
  if (target.joints.size() != n || sourceOfTarget.size() != n)
    return targetRest;

  // Per mapped joint, its bones: the child as seen from the joint's own rest frame, and where the
  // source bone points in the world.
  struct Bone
  {
    Vector local;
    Vector source;
  };
  std::vector<std::vector<Bone>> bonesOf(n);
  for (const MappedBone& b : MappedBones(target, sourceOfTarget, sourceRest, targetRest))
    bonesOf[At(b.targetJoint)].push_back(
      {telvo::TransformPoint(telvo::Inverse(targetRest[At(b.targetJoint)]), targetRest[At(b.targetChild)].off),
       sourceRest[At(b.sourceChild)].off - sourceRest[At(b.sourceJoint)].off});

  std::vector<Vector> from;
  std::vector<Vector> to;
  std::vector<double> weights;
  for (std::size_t t = 0; t < n; ++t)
  {
    // Following the parent's correction first, so that the roll about a bone and every unmapped
    // joint's rotation relative to its parent stay the target's own.
    const int parent = ParentOf(target, t);
    corrected[t] = parent >= 0 ? corrected[At(parent)] * (telvo::Inverse(targetRest[At(parent)]) * targetRest[t])
                               : targetRest[t];
    if (bonesOf[t].empty())
      continue;
    const Matrix rotation = telvo::Rotation3(corrected[t]);
    from.clear();
    to.clear();
    weights.clear();
    for (const Bone& b : bonesOf[t])
    {
      from.push_back(telvo::TransformDirection(rotation, b.local));
      to.push_back(b.source);
      weights.push_back(1.0);
    }
    const Matrix turn = from.size() == 1 ? MinimalRotation(from[0], to[0]) : BestFitRotation(from, to, weights);
    const Vector position = corrected[t].off;
    corrected[t] = turn * rotation;
    corrected[t].off = position;
  }
  return corrected;
}

int RestMatch::WorstBefore() const
{
  if (before.empty())
    return -1;
  return static_cast<int>(std::max_element(before.begin(), before.end()) - before.begin());
}

double RestMatch::MaxAfter() const
{
  return after.empty() ? 0.0 : *std::max_element(after.begin(), after.end());
}

RestMatch MatchCharacterRest(const Character& source, const Character& target, const std::vector<int>& sourceOfTarget)
{
  RestMatch match;
  match.targetRest = MatchRestPose(*target.skeleton, target.restGlobal, source.restGlobal, sourceOfTarget);
  match.bones = MappedBones(*target.skeleton, sourceOfTarget, source.restGlobal, target.restGlobal);
  match.before = BoneDirectionAngles(match.bones, source.restGlobal, target.restGlobal);
  match.after = BoneDirectionAngles(match.bones, source.restGlobal, match.targetRest);
  return match;
}

} // namespace kelvara
