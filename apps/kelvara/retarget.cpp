#include "retarget.h"

#include <algorithm>

#include "match_rest.h"
#include "rotation.h"
#include "telvo/registrybase.h"

namespace kelvara
{

namespace
{

using telvo::Matrix;
using telvo::Vector;

double& Component(Vector& v, int axis)
{
  return axis == 0 ? v.x : (axis == 1 ? v.y : v.z);
}

int Index(std::size_t i)
{
  return static_cast<int>(i);
}

} // namespace

Matrix JointLocalMatrix(const BvhJoint& joint, const double* row)
{
  const double* values = row + joint.firstChannel;
  Matrix local = RotationFromChannels(joint.channels, values);
  local.off = joint.offset;
  for (std::size_t c = 0; c < joint.channels.size(); ++c)
    if (!IsRotation(joint.channels[c]))
      Component(local.off, ChannelAxis(joint.channels[c])) += values[c];
  return local;
}

bool PreparedRetarget::PairJoints(std::string& error)
{
  const BvhFile& tf = *target->file;
  const BvhFile& sf = *source->file;
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
  const BvhFile& sf = *source.file;
  const BvhFile& tf = *target.file;
  telvo::Result<telvo::CharacterSolver> solver =
    telvo::CreateObject<telvo::CharacterSolver>("net.telvo.animation.class.charactersolver");
  if (!Check(solver, "cannot make the solver", error))
    return false;
  _solver = solver.GetValue();
  auto make = [&](const Character& c, std::vector<telvo::CharacterNodeTransform>& refs,
                  std::vector<telvo::CharacterNodeTransformInterface*>& writable) {
    const std::size_t n = c.file->joints.size();
    refs.assign(n, telvo::CharacterNodeTransform());
    writable.assign(n, nullptr);
    for (std::size_t i = 0; i < n; ++i)
    {
      const int parent = c.file->joints[i].parent;
      const Matrix parentRest = parent >= 0 ? c.restGlobal[static_cast<std::size_t>(parent)] : Matrix();
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
  _sourceGlobal.assign(sf.joints.size(), Matrix());
  _targetGlobal.assign(tf.joints.size(), Matrix());
  _prepared = &prepared;
  return true;
}

bool PreparedRetarget::Prepare(std::string& error)
{
  _prepared = false;
  notes.clear();
  if (source == nullptr || target == nullptr || !helper || source->file == nullptr || target->file == nullptr)
  {
    error = "the retarget job lacks its characters or its helper";
    return false;
  }
  if (!PairJoints(error))
    return false;

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

bool RetargetJob::Validate(std::string& error)
{
  _validated = false;
  if (!Prepare(error) || !_clip.Setup(*this, error))
    return false;
  _validated = true;
  return true;
}

bool RetargetJob::Run(std::string& error)
{
  if (!_validated)
  {
    error = "the retarget job was not validated";
    return false;
  }
  return _clip.Run(*source->file, output, error);
}

bool ClipRetarget::Run(const BvhFile& sf, BvhFile& output, std::string& error)
{
  if (_prepared == nullptr)
  {
    error = "the clip retarget was not set up";
    return false;
  }
  const Character& source = *_prepared->source;
  const Character& target = *_prepared->target;
  const BvhFile& tf = *target.file;
  if (sf.joints.size() != source.file->joints.size() || sf.channelCount != source.file->channelCount ||
      sf.motion.size() != static_cast<std::size_t>(sf.frameCount) * static_cast<std::size_t>(sf.channelCount))
  {
    error = sf.path + ": the clip's skeleton is not the prepared source's";
    return false;
  }
  output = BvhFile();
  output.joints = tf.joints;
  output.channelCount = tf.channelCount;
  output.frameCount = sf.frameCount;
  output.frameTime = sf.frameTime;
  output.motion.assign(static_cast<std::size_t>(sf.frameCount) * static_cast<std::size_t>(tf.channelCount), 0.0);
  const telvo::CharacterSolverConfiguration& configuration = _prepared->Configuration();
  const telvo::CharacterAssociation& association = _prepared->Association();
  const double appliedRootScale = _prepared->appliedRootScale;
  const bool rootMotion = _prepared->rootMotion;
  const std::size_t sn = sf.joints.size();
  const std::size_t tn = tf.joints.size();
  const Vector sourceRootRest = source.restGlobal[0].off;
  const std::vector<Matrix>& rest = _prepared->targetRest.empty() ? target.restGlobal : _prepared->targetRest;
  if (rest.size() != tn)
  {
    error = "the target rest has " + std::to_string(rest.size()) + " matrices for " + std::to_string(tn) + " joints";
    return false;
  }
  for (int frame = 0; frame < sf.frameCount; ++frame)
  {
    const double* row = sf.motion.data() + static_cast<std::size_t>(frame) * static_cast<std::size_t>(sf.channelCount);
    // The current source pose: animated global matrices; the parent globals stay at rest, so
    // that each delta is the joint's whole global rotation change G(frame) * G(rest)^-1.
    for (std::size_t j = 0; j < sn; ++j)
    {
      const int parent = sf.joints[j].parent;
      const Matrix local = JointLocalMatrix(sf.joints[j], row);
      _sourceGlobal[j] = parent >= 0 ? _sourceGlobal[static_cast<std::size_t>(parent)] * local : local;
      _currentWritable[j]->SetGlobalMatrix(_sourceGlobal[j]);
    }
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

    double* out = output.motion.data() + static_cast<std::size_t>(frame) * static_cast<std::size_t>(tf.channelCount);
    const double* previous = frame > 0 ? out - tf.channelCount : nullptr;
    for (std::size_t t = 0; t < tn; ++t)
    {
      const BvhJoint& joint = tf.joints[t];
      const bool hasParent = joint.parent >= 0;
      const Matrix parentNew = hasParent ? _targetGlobal[static_cast<std::size_t>(joint.parent)] : Matrix();
      Matrix local;
      if (_deltaOfTarget[t])
      {
        // The rest global rotation, placed where the parent's new global matrix carries the
        // joint, handed over with that matrix: the delta then turns the rest orientation.
        Matrix node = telvo::Rotation3(rest[t]);
        node.off = telvo::TransformPoint(parentNew, joint.offset);
        _targetWritable[t]->SetGlobalMatrix(node);
        _targetWritable[t]->SetParentGlobalMatrix(parentNew);
        local = _solver->ApplyGlobalRotationDelta(_targetTransforms[t], _deltaOfTarget[t], false);
      }
      else
      {
        // No partner: the rest rotation relative to the parent.
        const Matrix parentRest = hasParent ? rest[static_cast<std::size_t>(joint.parent)] : Matrix();
        local = telvo::Inverse(telvo::Rotation3(parentRest)) * telvo::Rotation3(rest[t]);
      }
      local.off = joint.offset;
      if (t == 0 && rootMotion)
        local.off = joint.offset + (_sourceGlobal[0].off - sourceRootRest) * appliedRootScale;
      _targetGlobal[t] = hasParent ? parentNew * local : local;

      double* values = out + joint.firstChannel;
      ChannelsFromRotation(joint.channels, telvo::Rotation3(local),
                           previous != nullptr ? previous + joint.firstChannel : nullptr, values);
      // Position channels move the joint from its offset.
      const Vector moved = local.off - joint.offset;
      for (std::size_t c = 0; c < joint.channels.size(); ++c)
        if (!IsRotation(joint.channels[c]))
          values[c] = ChannelAxis(joint.channels[c]) == 0 ? moved.x : ChannelAxis(joint.channels[c]) == 1 ? moved.y : moved.z;
    }
  }
  // Nothing of the last frame stays referenced beyond the job's own objects.
  for (telvo::CharacterNodeTransform& d : _deltaOfTarget)
    d.Reset();
  return true;
}

bool RunWithOtherRest(const PreparedRetarget& prepared, const BvhFile& clip, BvhFile& output, std::string& error)
{
  PreparedRetarget other = prepared;
  other.targetRest = prepared.targetRest.empty()
                       ? MatchCharacterRest(*prepared.source, *prepared.target, prepared.sourceOfTarget).targetRest
                       : std::vector<Matrix>();
  ClipRetarget run;
  return run.Setup(other, error) && run.Run(clip, output, error);
}

} // namespace kelvara
