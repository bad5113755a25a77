#include "anim/skeleton.h"

#include <cmath>
#include <map>
#include <utility>

namespace kelvara
{

namespace
{

bool Finite(const telvo::Vector& v)
{
  return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z);
}

bool Finite(const telvo::Matrix& m)
{
  return Finite(m.off) && Finite(m.v1) && Finite(m.v2) && Finite(m.v3);
}

} // namespace

int Skeleton::FindJoint(std::string_view name) const
{
  for (std::size_t i = 0; i < joints.size(); ++i)
    if (joints[i].name == name)
      return static_cast<int>(i);
  return -1;
}

telvo::Matrix LocalMatrix(const telvo::Vector& translation, const Quaternion& rotation, const telvo::Vector& scale)
{
  telvo::Matrix m = ToMatrix(rotation);
  m.v1 = m.v1 * scale.x;
  m.v2 = m.v2 * scale.y;
  m.v3 = m.v3 * scale.z;
  m.off = translation;
  return m;
}

telvo::Matrix RigidSceneTransform(const Skeleton& skeleton)
{
  telvo::Matrix rigid = ToMatrix(FromMatrix(skeleton.sceneTransform));
  rigid.off = skeleton.sceneTransform.off;
  return rigid;
}

bool ValidateSkeleton(const Skeleton& skeleton, std::string& error)
{
  const std::size_t n = skeleton.joints.size();
  if (n == 0 || n > static_cast<std::size_t>(kMaxJoints))
  {
    error = skeleton.path + ": expected 1 to " + std::to_string(kMaxJoints) + " joints, found " + std::to_string(n);
    return false;
  }
  for (std::size_t i = 0; i < n; ++i)
  {
    const Joint& j = skeleton.joints[i];
    auto fail = [&](const std::string& what) {
      error = skeleton.path + ": joint " + std::to_string(i) + " ('" + j.name + "'): " + what;
      return false;
    };
    if (j.name.empty())
      return fail("expected a name, found none");
    if (j.parent < -1 || j.parent >= static_cast<int>(i))
      return fail("expected an earlier joint as parent, found " + std::to_string(j.parent));
    if (!Finite(j.translation) || !Finite(j.scale) || !Finite(j.endSite) || !std::isfinite(Norm(j.rotation)))
      return fail("expected finite numbers");
    if (std::fabs(Norm(j.rotation) - 1.0) > 1e-6)
      return fail("expected a unit rotation");
    if (j.scale.x == 0.0 || j.scale.y == 0.0 || j.scale.z == 0.0)
      return fail("expected a scale without zeros");
  }
  if (!Finite(skeleton.sceneTransform) || std::fabs(telvo::Determinant3(skeleton.sceneTransform)) < 1e-12)
  {
    error = skeleton.path + ": expected a scene transform that can be inverted";
    return false;
  }
  return true;
}

bool SameSkeleton(const Skeleton& a, const Skeleton& b, std::string* why)
{
  auto differ = [&](const std::string& what) {
    if (why != nullptr)
      *why = what;
    return false;
  };
  if (a.joints.size() != b.joints.size())
    return differ(b.path + ": expected the " + std::to_string(a.joints.size()) + " joints of " + a.path + ", found " +
                  std::to_string(b.joints.size()));
  for (std::size_t i = 0; i < a.joints.size(); ++i)
  {
    const Joint& x = a.joints[i];
    const Joint& y = b.joints[i];
    if (x.name != y.name || x.parent != y.parent || !(x.translation == y.translation) || !(x.rotation == y.rotation) ||
        !(x.scale == y.scale))
      return differ(b.path + (y.line > 0 ? ":" + std::to_string(y.line) : std::string()) + ": expected joint '" +
                    x.name + "' of " + a.path + ", found '" + y.name + "' with another parent or rest transform");
  }
  if (!(a.sceneTransform == b.sceneTransform))
    return differ(b.path + ": expected the scene transform of " + a.path + ", found another one");
  return true;
}

std::vector<std::string> JointPathPieces(const Skeleton& skeleton)
{
  const std::size_t n = skeleton.joints.size();
  std::vector<std::string> pieces(n);
  // Siblings seen so far per (parent, name): a later sibling of the same name gets "#k".
  std::map<std::pair<int, std::string_view>, int> seen;
  for (std::size_t i = 0; i < n; ++i)
  {
    const Joint& joint = skeleton.joints[i];
    const int same = seen[{joint.parent, joint.name}]++;
    pieces[i] = same == 0 ? joint.name : joint.name + "#" + std::to_string(same + 1);
  }
  return pieces;
}

std::vector<std::string> JointPaths(const Skeleton& skeleton)
{
  std::vector<std::string> paths = JointPathPieces(skeleton);
  for (std::size_t i = 0; i < paths.size(); ++i)
  {
    const int parent = skeleton.joints[i].parent;
    if (parent >= 0 && static_cast<std::size_t>(parent) < i)
      paths[i] = paths[static_cast<std::size_t>(parent)] + "/" + paths[i];
  }
  return paths;
}

std::vector<int> JointDepths(const Skeleton& skeleton)
{
  std::vector<int> depth(skeleton.joints.size(), 0);
  for (std::size_t i = 0; i < depth.size(); ++i)
  {
    const int parent = skeleton.joints[i].parent;
    if (parent >= 0 && static_cast<std::size_t>(parent) < i)
      depth[i] = depth[static_cast<std::size_t>(parent)] + 1;
  }
  return depth;
}

} // namespace kelvara
