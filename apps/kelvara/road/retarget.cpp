#include "road/retarget.h"

#include <algorithm>

#include "road/match_rest.h"
#include "road/plant_feet.h"
#include "telvo/registrybase.h"

namespace kelvara
{

namespace
{

using telvo::Matrix;
using telvo::Vector;

int Index(std::size_t i)
{
  return static_cast<int>(i);
}

} // namespace

bool PreparedRetarget::PairJoints(std::string& error)
{
  const Skeleton& tf = *target->skeleton;
  const Skeleton& sf = *source->skeleton;
  telvo::Result<telvo::CharacterAssociation> association =
    helper->AssociateBodyPartsByIdentifier(source->bodyParts[kHips], target->bodyParts[kHips], counters);
  if (!Check(association, "cannot associate the body parts", error))
    return false;
  // The helper goes on past a body part it could not associate (its memory ran out) and only
  // the counters show it: every body part of ours has a partner, so anything short of all of
  // them paired is a failure, not a thinner pairing.
  telvo::Int expectedPairs = 0;
  for (int part = 0; part < kBodyPartCount; ++part)
    expectedPairs += std::min(source->bodyParts[part]->GetSkeleton().GetCount(),
                              target->bodyParts[part]->GetSkeleton().GetCount());
  if (counters.matchedBodyParts != kBodyPartCount || counters.associatedNodePairs != expectedPairs)
  {
    error = "cannot associate the body parts: Out of memory (" + std::to_string(counters.matchedBodyParts) + " of " +
            std::to_string(kBodyPartCount) + " body parts, " + std::to_string(counters.associatedNodePairs) +
            " of " + std::to_string(expectedPairs) + " joint pairs made)";
    return false;
  }
  _association = association.GetValue();

  std::unordered_map<telvo::Uuid, int, UuidHash> sourceIndex;
  for (std::size_t s = 0; s < source->uuids.size(); ++s)
    sourceIndex.emplace(source->uuids[s], Index(s));
  sourceOfTarget.assign(tf.joints.size(), -1);
  pairOrigin.assign(tf.joints.size(), "");
  for (std::size_t t = 0; t < tf.joints.size(); ++t)
  {
    // A miss is the normal case for a joint outside the body parts.
    telvo::Result<telvo::Uuid> partner = _association->GetAssociatedUuid(target->uuids[t]);
    if (partner.IsError())
      continue;
    auto found = sourceIndex.find(partner.GetValue());
    if (found == sourceIndex.end())
      continue;
    sourceOfTarget[t] = found->second;
    for (int part = 0; part < kBodyPartCount; ++part)
      if (target->partJoint[static_cast<std::size_t>(part)] == Index(t))
        pairOrigin[t] = std::string("body part ") + GetBodyPartInfo(part).name;
  }
  const std::vector<int> byBodyParts = sourceOfTarget;

  // The map wins over the keywords: its source joint leaves whatever target it drove.
  for (const JointPair& p : mapPairs)
  {
    for (std::size_t t = 0; t < tf.joints.size(); ++t)
      if (sourceOfTarget[t] == p.source)
      {
        sourceOfTarget[t] = -1;
        pairOrigin[t].clear();
      }
    sourceOfTarget[static_cast<std::size_t>(p.target)] = p.source;
    pairOrigin[static_cast<std::size_t>(p.target)] = "map";
  }
  // Joints outside the template (fingers, twist and extra spine joints) are the same joint when
  // both skeletons call them alike: an animator expects them to move, not to freeze.
  std::vector<bool> sourceUsed(sf.joints.size(), false);
  for (int s : sourceOfTarget)
    if (s >= 0)
      sourceUsed[static_cast<std::size_t>(s)] = true;
  for (std::size_t t = 0; t < tf.joints.size(); ++t)
  {
    if (sourceOfTarget[t] >= 0)
      continue;
    const int s = source->FindJoint(tf.joints[t].name);
    if (s >= 0 && !sourceUsed[static_cast<std::size_t>(s)])
    {
      sourceOfTarget[t] = s;
      sourceUsed[static_cast<std::size_t>(s)] = true;
      pairOrigin[t] = "same name";
    }
  }
  if (sourceOfTarget == byBodyParts)
    return true;

  // The association's tables cannot forget a pair, so a changed pairing gets a new association:
  // the body parts as the helper paired them, and exactly the final joint pairs.
  telvo::Result<telvo::CharacterAssociation> fresh =
    telvo::CreateObject<telvo::CharacterAssociation>("net.telvo.animation.class.characterassociation");
  if (!Check(fresh, "cannot make the association", error))
    return false;
  _association = fresh.GetValue();
  telvo::Result<telvo::CharacterAssociationInterface*> writable = _association.MakeWritable();
  if (!Check(writable, "cannot fill the association", error))
    return false;
  for (int part = 0; part < kBodyPartCount; ++part)
    if (!Check(writable.GetValue()->AssociateBodyPart(source->bodyParts[part], target->bodyParts[part]),
               "cannot fill the association", error))
      return false;
  for (std::size_t t = 0; t < tf.joints.size(); ++t)
    if (sourceOfTarget[t] >= 0 &&
        !Check(writable.GetValue()->AssociateUuid(source->uuids[static_cast<std::size_t>(sourceOfTarget[t])],
                                                  target->uuids[t]),
               "cannot fill the association", error))
      return false;
  return true;
}

bool ClipRetarget::Setup(const PreparedRetarget& prepared, std::string& error)
{
  _prepared = nullptr;
  if (!prepared.IsPrepared())
  {
    error = "the retarget was not prepared";
    return false;
  }
  const Character& source = *prepared.source;
  const Character& target = *prepared.target;
  const Skeleton& tf = *target.skeleton;
  telvo::Result<telvo::CharacterSolver> solver =
    telvo::CreateObject<telvo::CharacterSolver>("net.telvo.animation.class.charactersolver");
  if (!Check(solver, "cannot make the solver", error))
    return false;
  _solver = solver.GetValue();
  auto make = [&](const Character& c, std::vector<telvo::CharacterNodeTransform>& refs,
                  std::vector<telvo::CharacterNodeTransformInterface*>& writable) {
    const std::size_t n = c.skeleton->joints.size();
    refs.assign(n, telvo::CharacterNodeTransform());
    writable.assign(n, nullptr);
    const Matrix scene = RigidSceneTransform(*c.skeleton);
    for (std::size_t i = 0; i < n; ++i)
    {
      const int parent = c.skeleton->joints[i].parent;
      const Matrix parentRest = parent >= 0 ? c.restGlobal[static_cast<std::size_t>(parent)] : scene;
      telvo::Result<telvo::CharacterNodeTransform> t =
        telvo::CharacterNodeTransformInterface::CreateNodeTransform(c.uuids[i], c.restGlobal[i], parentRest);
      if (!Check(t, "cannot make a node transform", error))
        return false;
      refs[i] = t.GetValue();
      // Ours alone: changed in place every frame instead of copied.
      telvo::Result<telvo::CharacterNodeTransformInterface*> w = refs[i].MakeWritable();
      if (!Check(w, "cannot make a node transform", error))
        return false;
      writable[i] = w.GetValue();
    }
    return true;
  };
  if (!make(source, _currentTransforms, _currentWritable) || !make(target, _targetTransforms, _targetWritable))
    return false;

  telvo::BaseArray<telvo::CharacterNodeTransform> array;
  for (const telvo::CharacterNodeTransform& t : _currentTransforms)
    if (!Check(array.Append(t), "cannot make the current pose", error))
      return false;
  telvo::Result<telvo::CharacterPose> pose =
    telvo::CreateObject<telvo::CharacterPose>("net.telvo.animation.class.characterpose");
  if (!Check(pose, "cannot make the current pose", error))
    return false;
  _currentPose = pose.GetValue();
  telvo::Result<telvo::CharacterPoseInterface*> writablePose = _currentPose.MakeWritable();
  if (!Check(writablePose, "cannot make the current pose", error) ||
      !Check(writablePose.GetValue()->SetNodeTransformArray(array), "cannot make the current pose", error))
    return false;

  _targetIndex.clear();
  for (std::size_t t = 0; t < tf.joints.size(); ++t)
    _targetIndex.emplace(target.uuids[t], Index(t));
  _deltaOfTarget.assign(tf.joints.size(), telvo::CharacterNodeTransform());
  _targetGlobal.assign(tf.joints.size(), Matrix());
  // Offsets are stretched by the scales above them; rotations are not scaled (pose.h).
  _targetOffset.assign(tf.joints.size(), Vector{});
  {
    const Matrix& s = tf.sceneTransform;
    std::vector<Vector> scale(tf.joints.size());
    for (std::size_t t = 0; t < tf.joints.size(); ++t)
    {
      const Joint& joint = tf.joints[t];
      const Vector parentScale = joint.parent >= 0 ? scale[static_cast<std::size_t>(joint.parent)]
                                                   : Vector{telvo::Length(s.v1), telvo::Length(s.v2), telvo::Length(s.v3)};
      _targetOffset[t] = {joint.translation.x * parentScale.x, joint.translation.y * parentScale.y,
                          joint.translation.z * parentScale.z};
      scale[t] = {parentScale.x * joint.scale.x, parentScale.y * joint.scale.y, parentScale.z * joint.scale.z};
    }
  }
  _prepared = &prepared;
  return true;
}

bool PreparedRetarget::Prepare(std::string& error)
{
  _prepared = false;
  notes.clear();
  if (source == nullptr || target == nullptr || !helper || source->skeleton == nullptr || target->skeleton == nullptr)
  {
    error = "the retarget job lacks its characters or its helper";
    return false;
  }
  if (!PairJoints(error))
    return false;
  std::vector<bool> mapped;
  for (int s : sourceOfTarget)
    mapped.push_back(s >= 0);
  chains = FindChains(*target->skeleton, mapped);

  telvo::Result<telvo::CharacterSolverConfiguration> configuration =
    telvo::CreateObject<telvo::CharacterSolverConfiguration>("net.telvo.animation.class.charactersolverconfiguration");
  if (!Check(configuration, "cannot make the solver configuration", error))
    return false;
  _configuration = configuration.GetValue();
  telvo::Result<telvo::CharacterSolverConfigurationInterface*> writable = _configuration.MakeWritable();
  if (!Check(writable, "cannot set up the solver configuration", error) ||
      !Check(writable.GetValue()->Setup(source->definition, target->definition, _association),
             "cannot set up the solver configuration", error))
    return false;
  // The root's translation is carried by the host (scaled displacement), not by the solver.
  writable.GetValue()->SetApplyTranslationFromRoot(false);
  if (!Check(_configuration->Validate(), "the solver configuration is not valid", error))
    return false;

  appliedRootScale = rootScale;
  if (rootScale <= 0.0)
  {
    const double s = HipHeight(*source);
    const double t = HipHeight(*target);
    appliedRootScale = s > 0.0 && t > 0.0 ? t / s : 1.0;
    if (!(s > 0.0 && t > 0.0))
      notes.push_back("root scale 1: the hip height of a character cannot be told from its feet");
  }
  _prepared = true;
  return true;
}

bool ClipRetarget::Run(const Clip& clip, Clip& output, std::string& error)
{
  return Begin(clip, output, error) && RunFrames(clip, 0, clip.frameCount, output, error);
}

bool ClipRetarget::Begin(const Clip& clip, Clip& output, std::string& error) const
{
  if (_prepared == nullptr)
  {
    error = "the clip retarget was not set up";
    return false;
  }
  const Skeleton& sf = *_prepared->source->skeleton;
  const Skeleton& tf = *_prepared->target->skeleton;
  if (clip.jointCount != static_cast<int>(sf.joints.size()) ||
      clip.rotations.size() != static_cast<std::size_t>(clip.frameCount) * sf.joints.size() ||
      clip.rootTranslation.size() != static_cast<std::size_t>(clip.frameCount))
  {
    error = (clip.name.empty() ? sf.path : clip.name) + ": the clip's skeleton is not the prepared source's";
    return false;
  }
  const std::size_t tn = tf.joints.size();
  const std::vector<Matrix>& rest = _prepared->targetRest.empty() ? _prepared->target->restGlobal : _prepared->targetRest;
  if (rest.size() != tn)
  {
    error = "the target rest has " + std::to_string(rest.size()) + " matrices for " + std::to_string(tn) + " joints";
    return false;
  }
  output = Clip();
  output.name = clip.name;
  output.frameCount = clip.frameCount;
  output.frameTime = clip.frameTime;
  output.jointCount = static_cast<int>(tn);
  output.rotations.resize(static_cast<std::size_t>(clip.frameCount) * tn);
  output.rootTranslation.resize(static_cast<std::size_t>(clip.frameCount));
  return true;
}

bool ClipRetarget::RunFrames(const Clip& clip, int first, int last, Clip& output, std::string& error)
{
  if (_prepared == nullptr)
  {
    error = "the clip retarget was not set up";
    return false;
  }
  const Character& source = *_prepared->source;
  const Character& target = *_prepared->target;
  const Skeleton& sf = *source.skeleton;
  const Skeleton& tf = *target.skeleton;
  const std::size_t tn = tf.joints.size();
  if (first < 0 || first > last || last > clip.frameCount || output.frameCount != clip.frameCount ||
      output.rotations.size() != static_cast<std::size_t>(clip.frameCount) * tn)
  {
    error = "frames " + std::to_string(first) + " to " + std::to_string(last) + " do not fit the clip or the output";
    return false;
  }
  const telvo::CharacterSolverConfiguration& configuration = _prepared->Configuration();
  const telvo::CharacterAssociation& association = _prepared->Association();
  const double appliedRootScale = _prepared->appliedRootScale;
  const bool rootMotion = _prepared->rootMotion;
  const std::size_t sn = sf.joints.size();
  const Vector sourceRootRest = source.restGlobal[0].off;
  const Vector targetRootRest = target.restGlobal[0].off;
  const Matrix targetScene = RigidSceneTransform(tf);
  const Matrix targetSceneInverse = telvo::Inverse(tf.sceneTransform);
  const std::vector<Matrix>& rest = _prepared->targetRest.empty() ? target.restGlobal : _prepared->targetRest;
  for (int frame = first; frame < last; ++frame)
  {
    // The current source pose: animated global matrices; the parent globals stay at rest, so
    // that each delta is the joint's whole global rotation change G(frame) * G(rest)^-1.
    if (!_sourcePose.Evaluate(sf, &clip, frame))
    {
      error = clip.name + ": frame " + std::to_string(frame) + " cannot be posed";
      return false;
    }
    for (std::size_t j = 0; j < sn; ++j)
      _currentWritable[j]->SetGlobalMatrix(_sourcePose[j]);
    telvo::Result<telvo::CharacterPose> delta = _solver->ExtractGlobalDeltaPose(configuration, _currentPose);
    if (!Check(delta, "cannot extract the global deltas", error))
      return false;
    telvo::Result<telvo::CharacterPose> translated = _prepared->helper->TranslateSrcToDestID(association, delta.GetValue());
    if (!Check(translated, "cannot translate the deltas to the target", error))
      return false;
    for (telvo::CharacterNodeTransform& d : _deltaOfTarget)
      d.Reset();
    for (const telvo::CharacterNodeTransform& d : translated.GetValue()->GetNodeTransformArray())
      if (d)
        if (auto found = _targetIndex.find(d->GetUuid()); found != _targetIndex.end())
          _deltaOfTarget[static_cast<std::size_t>(found->second)] = d;

    Quaternion* rotations = output.rotations.data() + static_cast<std::size_t>(frame) * tn;
    for (std::size_t t = 0; t < tn; ++t)
    {
      const Joint& joint = tf.joints[t];
      const bool hasParent = joint.parent >= 0;
      const Matrix& parentNew = hasParent ? _targetGlobal[static_cast<std::size_t>(joint.parent)] : targetScene;
      Matrix local;
      if (_deltaOfTarget[t])
      {
        // The rest global rotation, placed where the parent's new global matrix carries the
        // joint, handed over with that matrix: the delta then turns the rest orientation.
        Matrix node = telvo::Rotation3(rest[t]);
        node.off = telvo::TransformPoint(parentNew, _targetOffset[t]);
        _targetWritable[t]->SetGlobalMatrix(node);
        _targetWritable[t]->SetParentGlobalMatrix(parentNew);
        local = telvo::Rotation3(_solver->ApplyGlobalRotationDelta(_targetTransforms[t], _deltaOfTarget[t], false));
        rotations[t] = FromMatrix(local);
      }
      else
      {
        // No partner: the joint keeps its rest rotation relative to its parent (a matched rest
        // keeps it too).
        rotations[t] = joint.rotation;
        local = ToMatrix(joint.rotation);
      }
      local.off = _targetOffset[t];
      if (t == 0)
      {
        Vector position = telvo::TransformPoint(parentNew, local.off);
        if (rootMotion)
          position = targetRootRest + (_sourcePose[0].off - sourceRootRest) * appliedRootScale;
        local.off = telvo::TransformDirection(telvo::Rotation3(telvo::Inverse(parentNew)), position - parentNew.off);
        output.rootTranslation[static_cast<std::size_t>(frame)] =
          rootMotion ? telvo::TransformPoint(targetSceneInverse, position) : joint.translation;
      }
      _targetGlobal[t] = parentNew * local;
    }
  }
  // Nothing of the last frame stays referenced beyond the job's own objects.
  for (telvo::CharacterNodeTransform& d : _deltaOfTarget)
    d.Reset();
  SpreadChains(_prepared->chains, rest, output, first, last);
  return true;
}

bool RunWithOtherRest(const PreparedRetarget& prepared, const Clip& clip, Clip& output, std::string& error)
{
  PreparedRetarget other = prepared;
  other.targetRest = prepared.targetRest.empty()
                       ? MatchCharacterRest(*prepared.source, *prepared.target, prepared.sourceOfTarget).targetRest
                       : std::vector<Matrix>();
  ClipRetarget run;
  if (!run.Setup(other, error) || !run.Run(clip, output, error))
    return false;
  if (other.plantFeet)
    PlantFeet(other, PlanFeet(other, clip, output), output);
  return true;
}

} // namespace kelvara
