#include "character/character.h"

#include "anim/pose.h"

#include <cmath>

#include "telvo/registrybase.h"

namespace kelvara
{

namespace
{

using telvo::Matrix;
using telvo::Vector;

bool MakeString(std::string_view text, telvo::String& out, std::string& error)
{
  telvo::Result<telvo::String> s = telvo::String::Create(text);
  if (!Check(s, "cannot make a text", error))
    return false;
  out = std::move(s).GetValue();
  return true;
}

bool MakeStrings(const std::vector<std::string>& texts, telvo::BaseArray<telvo::String>& out, std::string& error)
{
  out.Flush();
  for (const std::string& t : texts)
  {
    telvo::String s;
    if (!MakeString(t, s, error) || !Check(out.Append(s), "cannot grow a keyword list", error))
      return false;
  }
  return true;
}

Vector JointPosition(const Character& c, int joint)
{
  return c.restGlobal[static_cast<std::size_t>(joint)].off;
}

bool IsDescendant(const Skeleton& skeleton, int joint, int ancestor)
{
  for (int j = skeleton.joints[static_cast<std::size_t>(joint)].parent; j >= 0;
       j = skeleton.joints[static_cast<std::size_t>(j)].parent)
    if (j == ancestor)
      return true;
  return false;
}

// Side agreement of one left part with its mirror: > 0 when the left joint lies on the left.
double SideValue(const Character& c, int leftPart)
{
  const int l = c.partJoint[static_cast<std::size_t>(leftPart)];
  const int r = c.partJoint[static_cast<std::size_t>(GetBodyPartInfo(leftPart).mirror)];
  if (!c.orientation.known || l < 0 || r < 0)
    return 0.0;
  return telvo::Dot(JointPosition(c, l) - JointPosition(c, r), c.orientation.left);
}

// How well the filled joints fit a humanoid: parts whose joint lies below their parent part's
// joint, and left parts that lie on the left. Decides between presets that fill equally many.
int GeometryScore(const Character& c)
{
  int score = 0;
  for (int part = 0; part < kBodyPartCount; ++part)
  {
    const int parent = GetBodyPartInfo(part).parent;
    const int j = c.partJoint[static_cast<std::size_t>(part)];
    if (parent >= 0 && j >= 0 && c.partJoint[static_cast<std::size_t>(parent)] >= 0 &&
        IsDescendant(*c.skeleton, j, c.partJoint[static_cast<std::size_t>(parent)]))
      ++score;
    if (IsLeftPart(part) && SideValue(c, part) > 0.0)
      ++score;
  }
  return score;
}

bool SetPartJoint(Character& c, int part, int joint, std::string& error)
{
  telvo::BaseArray<telvo::Uuid> skeleton;
  if (joint >= 0 && !Check(skeleton.Append(c.uuids[static_cast<std::size_t>(joint)]), "cannot fill a body part", error))
    return false;
  if (!Check(c.bodyParts[part]->SetSkeleton(skeleton), "cannot fill a body part", error))
    return false;
  c.partJoint[static_cast<std::size_t>(part)] = joint;
  return true;
}

bool FillWithPreset(Character& c, const telvo::KelvaraHelperRef& helper, const Preset& preset, telvo::Int& count,
                    std::string& error)
{
  telvo::BaseArray<telvo::String> keywords;
  telvo::BaseArray<telvo::String> discard;
  for (int part = 0; part < kBodyPartCount; ++part)
  {
    if (!MakeStrings(preset.parts[part].keywords, keywords, error) ||
        !MakeStrings(preset.parts[part].discard, discard, error) ||
        !Check(c.bodyParts[part]->SetSkeletonKeywords(keywords), "cannot set keywords", error) ||
        !Check(c.bodyParts[part]->SetSkeletonDiscardKeywords(discard), "cannot set keywords", error))
      return false;
  }
  if (!Check(helper->FillBodyPart(c.skeletonRoot, c.bodyParts[kHips]), "cannot fill the body parts", error))
    return false;
  telvo::Result<telvo::Int> matched = helper->FindBodyPartMatchingCount(c.bodyParts[kHips], c.restPose, true);
  if (!Check(matched, "cannot count the filled body parts", error))
    return false;
  count = matched.GetValue();
  if (!ReadFilledParts(c, error))
    return false;
  c.orientation = ComputeOrientation(c);
  return true;
}

// One joint drives one body part: a later part (pre-order) that claims a joint already taken
// is emptied, so that no target joint receives two deltas.
bool DropDoubleClaims(Character& c, std::string& error)
{
  for (int part = 0; part < kBodyPartCount; ++part)
    for (int earlier = 0; earlier < part; ++earlier)
      if (c.partJoint[static_cast<std::size_t>(part)] >= 0 &&
          c.partJoint[static_cast<std::size_t>(part)] == c.partJoint[static_cast<std::size_t>(earlier)])
      {
        c.notes.push_back(std::string(GetBodyPartInfo(part).name) + " left empty: its joint " +
                          c.skeleton->joints[static_cast<std::size_t>(c.partJoint[static_cast<std::size_t>(part)])].name +
                          " already fills " + GetBodyPartInfo(earlier).name);
        if (!SetPartJoint(c, part, -1, error))
          return false;
        break;
      }
  return true;
}

// A limb whose "left" joints lie on the character's right (by the rest pose) trades its joints
// with the mirror limb: names lie more often than geometry.
bool PutSidesRight(Character& c, std::string& error)
{
  if (!c.orientation.known)
    return true;
  struct Limb
  {
    const char* name;
    int first;
    int last;
  };
  for (const Limb& limb : {Limb{"arm", kLeftClavicle, kLeftHand}, Limb{"leg", kLeftThigh, kLeftToes}})
  {
    double side = 0.0;
    for (int part = limb.first; part <= limb.last; ++part)
      side += SideValue(c, part);
    if (side >= 0.0)
      continue;
    for (int part = limb.first; part <= limb.last; ++part)
    {
      const int mirror = GetBodyPartInfo(part).mirror;
      const int l = c.partJoint[static_cast<std::size_t>(part)];
      const int r = c.partJoint[static_cast<std::size_t>(mirror)];
      if (!SetPartJoint(c, part, r, error) || !SetPartJoint(c, mirror, l, error))
        return false;
    }
    c.notes.push_back(std::string("left and right ") + limb.name +
                      " swapped: the joints named left lie on the character's right in the rest pose");
  }
  return true;
}

} // namespace

bool MakeHelper(telvo::KelvaraHelperRef& helper, std::string& error)
{
  telvo::Result<telvo::KelvaraHelperRef> made =
    telvo::CreateObject<telvo::KelvaraHelperRef>("net.telvo.animation.class.kelvarahelper");
  if (!Check(made, "cannot make the helper", error))
    return false;
  helper = made.GetValue();
  return true;
}

std::string ErrorText(const telvo::Error& error)
{
  if (!error.IsSet())
    return "no error";
  return std::string(error.GetMessage()) + " [" + error.GetClass().name + ", " + error.GetUnit() + "]";
}

int Character::FindJoint(std::string_view name) const
{
  return skeleton->FindJoint(name);
}

namespace
{

// FNV-1a with the 128-bit prime and offset basis, fed piece by piece.
class IdHash
{
public:
  void Feed(std::string_view text)
  {
    const unsigned __int128 prime = (static_cast<unsigned __int128>(1) << 88) + 0x13b;
    for (unsigned char ch : text)
    {
      _h ^= ch;
      _h *= prime;
    }
  }

  telvo::Uuid::Bytes Bytes() const
  {
    telvo::Uuid::Bytes bytes{};
    for (int i = 0; i < 16; ++i)
      bytes[static_cast<std::size_t>(i)] = static_cast<telvo::Byte>(_h >> (8 * (15 - i)));
    bytes[6] = static_cast<telvo::Byte>((bytes[6] & 0x0f) | 0x80); // version 8: made by its owner's rule
    bytes[8] = static_cast<telvo::Byte>((bytes[8] & 0x3f) | 0x80);
    return bytes;
  }

private:
  unsigned __int128 _h = (static_cast<unsigned __int128>(0x6c62272e07bb0142ULL) << 64) | 0x62b821756295c58dULL;
};

} // namespace

telvo::Uuid::Bytes JointIdBytes(std::string_view role, std::string_view path)
{
  IdHash h;
  h.Feed(role);
  h.Feed(":");
  h.Feed(path);
  return h.Bytes();
}

std::vector<telvo::Uuid::Bytes> JointIdsBytes(std::string_view role, const Skeleton& skeleton)
{
  const std::vector<std::string> pieces = JointPathPieces(skeleton);
  std::vector<IdHash> hashes(pieces.size());
  std::vector<telvo::Uuid::Bytes> ids(pieces.size());
  for (std::size_t i = 0; i < pieces.size(); ++i)
  {
    const int parent = skeleton.joints[i].parent;
    if (parent >= 0 && static_cast<std::size_t>(parent) < i)
    {
      hashes[i] = hashes[static_cast<std::size_t>(parent)];
      hashes[i].Feed("/");
    }
    else
    {
      hashes[i].Feed(role);
      hashes[i].Feed(":");
    }
    hashes[i].Feed(pieces[i]);
    ids[i] = hashes[i].Bytes();
  }
  return ids;
}

bool BuildCharacter(const Skeleton& skeleton, std::string_view role, Character& out, std::string& error)
{
  out = Character();
  out.role = std::string(role);
  out.skeleton = &skeleton;
  out.partJoint.fill(-1);
  const std::size_t n = skeleton.joints.size();
  if (n == 0)
  {
    error = skeleton.path + ": the skeleton has no joints";
    return false;
  }
  out.uuids.resize(n);
  out.nodes.resize(n);
  out.restGlobal = RestWorld(skeleton);
  const std::vector<telvo::Uuid::Bytes> ids = JointIdsBytes(role, skeleton);
  const Matrix scene = RigidSceneTransform(skeleton);
  std::vector<int> roots;
  telvo::BaseArray<telvo::CharacterNodeTransform> transforms;
  if (!Check(transforms.EnsureCapacity(static_cast<telvo::Int>(n)), "cannot make the rest pose", error))
    return false;
  for (std::size_t i = 0; i < n; ++i)
  {
    const Joint& joint = skeleton.joints[i];
    telvo::Result<telvo::Uuid> uuid = telvo::Uuid::Create(ids[i]);
    if (!Check(uuid, "cannot make a node id", error))
      return false;
    out.uuids[i] = uuid.GetValue();
    telvo::String name;
    if (!MakeString(joint.name, name, error))
      return false;
    telvo::Result<telvo::CharacterTreeRef> node = telvo::CharacterTreeInterface::CreateTree(out.uuids[i], name, true);
    if (!Check(node, "cannot make a skeleton node", error))
      return false;
    out.nodes[i] = node.GetValue();

    Matrix parentGlobal = scene;
    if (joint.parent >= 0)
    {
      parentGlobal = out.restGlobal[static_cast<std::size_t>(joint.parent)];
      if (!Check(out.nodes[static_cast<std::size_t>(joint.parent)]->InsertChildLast(telvo::ObjectRef(out.nodes[i])),
                 "cannot link a skeleton node", error))
        return false;
    }
    else
      roots.push_back(static_cast<int>(i));
    telvo::Result<telvo::CharacterNodeTransform> transform =
      telvo::CharacterNodeTransformInterface::CreateNodeTransform(out.uuids[i], out.restGlobal[i], parentGlobal);
    if (!Check(transform, "cannot make a rest node transform", error))
      return false;
    telvo::Result<telvo::CharacterNodeTransformInterface*> writable = transform.GetValue().MakeWritable();
    if (!Check(writable, "cannot name a rest node transform", error) ||
        !Check(writable.GetValue()->SetName(name), "cannot name a rest node transform", error) ||
        !Check(transforms.Append(transform.GetValue()), "cannot make the rest pose", error))
      return false;
  }

  if (roots.size() == 1)
    out.skeletonRoot = out.nodes[static_cast<std::size_t>(roots[0])];
  else
  {
    // Several roots hang under one grouping node, which is no joint.
    telvo::Result<telvo::Uuid> uuid = telvo::Uuid::Create(JointIdBytes(role, ""));
    telvo::String name;
    if (!Check(uuid, "cannot make a node id", error) || !MakeString("(roots)", name, error))
      return false;
    telvo::Result<telvo::CharacterTreeRef> group = telvo::CharacterTreeInterface::CreateTree(uuid.GetValue(), name, false);
    if (!Check(group, "cannot make a skeleton node", error))
      return false;
    out.skeletonRoot = group.GetValue();
    for (int r : roots)
      if (!Check(out.skeletonRoot->InsertChildLast(telvo::ObjectRef(out.nodes[static_cast<std::size_t>(r)])),
                 "cannot link a skeleton node", error))
        return false;
  }

  telvo::Result<telvo::CharacterPose> pose =
    telvo::CreateObject<telvo::CharacterPose>("net.telvo.animation.class.characterpose");
  if (!Check(pose, "cannot make the rest pose", error))
    return false;
  out.restPose = pose.GetValue();
  telvo::Result<telvo::CharacterPoseInterface*> writablePose = out.restPose.MakeWritable();
  if (!Check(writablePose, "cannot make the rest pose", error) ||
      !Check(writablePose.GetValue()->SetNodeTransformArray(transforms), "cannot make the rest pose", error))
    return false;

  for (int part = 0; part < kBodyPartCount; ++part)
  {
    const BodyPartInfo& info = GetBodyPartInfo(part);
    telvo::Result<telvo::InternedId> id = telvo::InternedId::Intern(info.identifier);
    telvo::String name;
    if (!Check(id, "cannot make a body-part identifier", error) || !MakeString(info.name, name, error))
      return false;
    telvo::Result<telvo::CharacterBodyPartRef> bodyPart =
      telvo::CharacterBodyPartInterface::CreateBodyPart(id.GetValue(), name);
    if (!Check(bodyPart, "cannot make a body part", error))
      return false;
    out.bodyParts[part] = bodyPart.GetValue();
    if (info.parent >= 0 &&
        !Check(out.bodyParts[info.parent]->InsertChildLast(telvo::ObjectRef(out.bodyParts[part])),
               "cannot link a body part", error))
      return false;
  }

  telvo::Result<telvo::CharacterDefinition> definition =
    telvo::CreateObject<telvo::CharacterDefinition>("net.telvo.animation.class.characterdefinition");
  if (!Check(definition, "cannot make the character definition", error))
    return false;
  out.definition = definition.GetValue();
  telvo::Result<telvo::CharacterDefinitionInterface*> writable = out.definition.MakeWritable();
  telvo::Result<telvo::Uuid> characterId = telvo::Uuid::Create(JointIdBytes(role, "(character)"));
  telvo::String characterName;
  if (!Check(writable, "cannot fill the character definition", error) || !Check(characterId, "cannot make an id", error) ||
      !MakeString(skeleton.path, characterName, error))
    return false;
  telvo::CharacterDefinitionInterface* d = writable.GetValue();
  return Check(d->SetUuid(characterId.GetValue()), "cannot fill the character definition", error) &&
         Check(d->SetName(characterName), "cannot fill the character definition", error) &&
         Check(d->SetSkeletonTree(out.skeletonRoot), "cannot fill the character definition", error) &&
         Check(d->SetBodyPartTree(out.bodyParts[kHips]), "cannot fill the character definition", error) &&
         Check(d->SetSkeletonRestPose(out.restPose), "cannot fill the character definition", error);
}

bool ReadFilledParts(Character& c, std::string& error)
{
  (void)error;
  for (int part = 0; part < kBodyPartCount; ++part)
  {
    const telvo::BaseArray<telvo::Uuid>& skeleton = c.bodyParts[part]->GetSkeleton();
    int joint = -1;
    if (!skeleton.IsEmpty())
      for (std::size_t j = 0; j < c.uuids.size(); ++j)
        if (c.uuids[j] == skeleton[0])
        {
          joint = static_cast<int>(j);
          break;
        }
    c.partJoint[static_cast<std::size_t>(part)] = joint;
  }
  return true;
}

Orientation ComputeOrientation(const Character& c)
{
  Orientation o;
  auto joint = [&](int part) { return c.partJoint[static_cast<std::size_t>(part)]; };
  const int hips = joint(kHips) >= 0 ? joint(kHips) : 0;
  Vector feet;
  int footCount = 0;
  Vector toesDirection;
  for (int foot : {kLeftFoot, kRightFoot})
  {
    const int toes = foot + 1;
    if (joint(foot) >= 0)
    {
      feet = feet + JointPosition(c, joint(foot));
      ++footCount;
      if (joint(toes) >= 0)
        toesDirection = toesDirection + (JointPosition(c, joint(toes)) - JointPosition(c, joint(foot)));
    }
  }
  if (footCount == 0)
    return o;
  o.up = telvo::Normalized(JointPosition(c, hips) - feet * (1.0 / footCount));
  o.forward = telvo::Normalized(toesDirection - o.up * telvo::Dot(toesDirection, o.up));
  if (telvo::Length(o.up) == 0.0 || telvo::Length(o.forward) == 0.0)
    return o;
  o.left = telvo::Cross(o.up, o.forward);
  o.known = true;
  return o;
}

double HipHeight(const Character& c)
{
  if (!c.orientation.known)
    return 0.0;
  const int hips = c.partJoint[kHips] >= 0 ? c.partJoint[kHips] : 0;
  double lowest = 0.0;
  bool found = false;
  for (int part : {kLeftFoot, kLeftToes, kRightFoot, kRightToes})
    if (const int j = c.partJoint[static_cast<std::size_t>(part)]; j >= 0)
    {
      const double h = telvo::Dot(JointPosition(c, j), c.orientation.up);
      lowest = found ? std::min(lowest, h) : h;
      found = true;
    }
  return found ? telvo::Dot(JointPosition(c, hips), c.orientation.up) - lowest : 0.0;
}

bool ChooseAndFillPreset(Character& c, const telvo::KelvaraHelperRef& helper, const std::string& presetName,
                         std::string& error)
{
  std::vector<const Preset*> candidates;
  if (!presetName.empty())
  {
    const Preset* p = FindPreset(presetName);
    if (p == nullptr)
    {
      error = "expected a preset name (" + PresetNames() + "), found \"" + presetName + "\"";
      return false;
    }
    candidates.push_back(p);
  }
  else
    for (const Preset& p : GetPresets())
      candidates.push_back(&p);

  const Preset* best = nullptr;
  telvo::Int bestCount = -1;
  int bestScore = -1;
  c.presetTrials.clear();
  for (const Preset* p : candidates)
  {
    telvo::Int count = 0;
    if (!FillWithPreset(c, helper, *p, count, error))
      return false;
    const int score = GeometryScore(c);
    c.presetTrials.push_back(PresetTrial{p->name, static_cast<int>(count), score});
    if (count > bestCount || (count == bestCount && score > bestScore))
    {
      best = p;
      bestCount = count;
      bestScore = score;
    }
  }
  c.notes.clear();
  telvo::Int count = 0;
  if (!FillWithPreset(c, helper, *best, count, error) || !DropDoubleClaims(c, error) || !PutSidesRight(c, error))
    return false;
  c.preset = best->name;
  return true;
}

} // namespace kelvara
