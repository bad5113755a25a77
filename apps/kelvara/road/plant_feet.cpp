#include "road/plant_feet.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "anim/pose.h"
#include "io/shares.h"
#include "road/frame_threads.h"
#include "road/match_rest.h"

namespace kelvara
{

namespace
{

using telvo::Matrix;
using telvo::Vector;

std::size_t At(int i)
{
  return static_cast<std::size_t>(i);
}

Vector Across(const Vector& v, const Vector& up)
{
  return v - up * telvo::Dot(v, up);
}

Vector Unit(const Vector& v)
{
  const double n = telvo::Length(v);
  return n > 0.0 ? v * (1.0 / n) : Vector{};
}

// A smooth ramp from 0 (t <= 0) to 1 (t >= 1).
double Ease(double t)
{
  t = std::clamp(t, 0.0, 1.0);
  return t * t * (3.0 - 2.0 * t);
}

Quaternion WorldRotation(const WorldPose& world, int joint)
{
  return FromMatrix(world[At(joint)]);
}

// The world rotation of joint's parent (the scene's above the root).
Quaternion ParentRotation(const Skeleton& skeleton, const WorldPose& world, int joint)
{
  const int p = skeleton.joints[At(joint)].parent;
  return p >= 0 ? WorldRotation(world, p) : FromMatrix(RigidSceneTransform(skeleton));
}

// A unit direction square to axis, from the parts of v square to it; any when they vanish.
Vector SquareTo(const Vector& axis, const Vector& v)
{
  const Vector s = v - axis * telvo::Dot(v, axis);
  if (telvo::Length(s) > 1e-9 * std::max(1.0, telvo::Length(v)))
    return Unit(s);
  const Vector other = std::fabs(axis.x) < 0.9 ? Vector{1, 0, 0} : Vector{0, 1, 0};
  return Unit(telvo::Cross(axis, other));
}

// How much the toes' direction counts, against the knee's own offset from the hip-to-ankle line,
// in choosing the side the knee bends to: a bent knee keeps its plane, a leg close to straight
// (whose plane is ill defined) bends towards its toes instead of flipping from frame to frame.
constexpr double kToeBendShare = 0.15;

// A leg held stretched further than this share of its length has a knee whose angle swings
// widely for a small move of the foot; the hips go lower instead.
constexpr double kLongestReach = 0.98;

// The hips' drop per frame, smoothed: no less than needed at any frame, and changing by no more
// than a (width + 1)th of the largest drop per frame: the largest drop within width frames,
// averaged over width frames on either side.
std::vector<double> SmoothDrop(const std::vector<double>& drop, int width)
{
  const long n = static_cast<long>(drop.size());
  std::vector<double> widest(drop.size(), 0.0);
  for (long f = 0; f < n; ++f)
    for (long g = std::max(0L, f - width); g <= std::min(n - 1, f + width); ++g)
      widest[static_cast<std::size_t>(f)] = std::max(widest[static_cast<std::size_t>(f)], drop[static_cast<std::size_t>(g)]);
  std::vector<double> smooth(drop.size(), 0.0);
  for (long f = 0; f < n; ++f)
  {
    double sum = 0.0;
    const long first = std::max(0L, f - width);
    const long last = std::min(n - 1, f + width);
    for (long g = first; g <= last; ++g)
      sum += widest[static_cast<std::size_t>(g)];
    smooth[static_cast<std::size_t>(f)] = sum / static_cast<double>(last - first + 1);
  }
  return smooth;
}

struct LegState
{
  const PlannedFoot* foot = nullptr;
  std::vector<double> weight; // per frame
  std::vector<Vector> hip;    // per frame: the thigh joint where the transfer put it
  std::vector<Vector> free;   // per frame: the ankle where the transfer put it
  std::vector<Vector> held;   // per frame with a weight: where the hold puts it
};

// Moves the ankle of leg in world (posed from the frame's rotations) to goal by turning thigh and
// shin, and writes their local rotations and the ankle's (which keeps ankleWorld) into local.
void ReachWithLeg(const Skeleton& skeleton, const WorldPose& world, const Leg& leg, const Vector& goal,
                  const Quaternion& ankleWorld, Quaternion* local)
{
  const Vector hip = world[At(leg.thigh)].off;
  const Vector knee = world[At(leg.shin)].off;
  const Vector ankle = world[At(leg.foot)].off;
  const double l1 = telvo::Length(knee - hip);
  const double l2 = telvo::Length(ankle - knee);
  if (!(l1 > 0.0) || !(l2 > 0.0))
    return;
  const Vector toGoal = goal - hip;
  const Vector axis = Unit(toGoal);
  if (telvo::Length(axis) == 0.0)
    return;
  // A leg reaches no nearer than folded and no further than nearly straight; a straight knee has
  // no plane to bend in.
  const double reach = std::clamp(telvo::Length(toGoal), std::fabs(l1 - l2) + 1e-6 * (l1 + l2), (l1 + l2) * (1.0 - 1e-6));
  const Vector toe = leg.toe >= 0 ? Unit(world[At(leg.toe)].off - ankle) : Vector{};
  const Vector bend = SquareTo(axis, (knee - hip) + toe * (kToeBendShare * l1));
  const double cosHip = std::clamp((l1 * l1 + reach * reach - l2 * l2) / (2.0 * l1 * reach), -1.0, 1.0);
  const Vector newKnee = hip + (axis * cosHip + bend * std::sqrt(1.0 - cosHip * cosHip)) * l1;
  const Vector newAnkle = hip + axis * reach;

  const Quaternion thighTurn = FromMatrix(MinimalRotation(knee - hip, newKnee - hip));
  const Vector turnedShin = Rotate(thighTurn, ankle - knee);
  const Quaternion shinTurn = FromMatrix(MinimalRotation(turnedShin, newAnkle - newKnee));
  // Everything below the thigh turns with it, everything below the shin with both.
  const Quaternion thighParent = ParentRotation(skeleton, world, leg.thigh);
  const Quaternion thighWorld = thighTurn * WorldRotation(world, leg.thigh);
  local[At(leg.thigh)] = Normalized(Conjugate(thighParent) * thighWorld);
  const Quaternion shinParent = thighTurn * ParentRotation(skeleton, world, leg.shin);
  const Quaternion shinWorld = shinTurn * thighTurn * WorldRotation(world, leg.shin);
  local[At(leg.shin)] = Normalized(Conjugate(shinParent) * shinWorld);
  const Quaternion ankleParent = shinTurn * thighTurn * ParentRotation(skeleton, world, leg.foot);
  local[At(leg.foot)] = Normalized(Conjugate(ankleParent) * ankleWorld);
}

} // namespace

FeetPlan PlanFeet(const PreparedRetarget& prepared, const Clip& source, const Clip& output, int threads)
{
  FeetPlan plan;
  const Character& sc = *prepared.source;
  const Character& tc = *prepared.target;
  const Skeleton& sf = *sc.skeleton;
  const Skeleton& tf = *tc.skeleton;
  plan.usable = sc.orientation.known;
  plan.up = GroundUp(sc);
  const std::vector<Leg> sourceLegs{LegOf(sc, true), LegOf(sc, false)};
  const std::vector<FootTrack> sourceTracks =
    plan.usable ? TrackFeet(sf, source, sourceLegs, plan.up, threads) : std::vector<FootTrack>(2);
  std::vector<double> lowest(static_cast<std::size_t>(source.frameCount), 0.0);
  bool anyFoot = false;
  for (std::size_t i = 0; i < sourceLegs.size(); ++i)
  {
    const bool left = i == 0;
    PlannedFoot foot;
    foot.left = left;
    foot.source = sourceLegs[i];
    foot.target = LegOf(tc, left);
    foot.sourceLegLength = LegLength(foot.source, sc.restGlobal);
    foot.targetLegLength = LegLength(foot.target, tc.restGlobal);
    const char* side = left ? "left" : "right";
    const std::vector<int>& pairs = prepared.sourceOfTarget;
    if (!plan.usable)
      foot.leftAlone = "the source's up cannot be told from its rest pose";
    else if (!foot.source.Complete())
      foot.leftAlone = std::string("the source has no ") + side + " thigh, shin and foot";
    else if (!foot.target.Complete())
      foot.leftAlone = std::string("the target has no ") + side + " thigh, shin and foot";
    else if (pairs[At(foot.target.thigh)] != foot.source.thigh || pairs[At(foot.target.shin)] != foot.source.shin ||
             pairs[At(foot.target.foot)] != foot.source.foot)
      foot.leftAlone = std::string("the ") + side + " thigh, shin and foot are not paired with the source's";
    else if (!(foot.sourceLegLength > 0.0) || !(foot.targetLegLength > 0.0))
      foot.leftAlone = std::string("the ") + side + " leg has no length in a rest pose";
    const FootTrack& track = sourceTracks[i];
    if (plan.usable && foot.source.Complete())
    {
      FootContacts contacts = FindFootContacts(track, plan.up, UsableLegLength(sc, foot.source), source.frameTime);
      foot.contacts = std::move(contacts.ankle);
      foot.toeContacts = std::move(contacts.toe);
      for (std::size_t f = 0; f < track.lowest.size() && f < lowest.size(); ++f)
        lowest[f] = anyFoot ? std::min(lowest[f], track.lowest[f]) : track.lowest[f];
      anyFoot = anyFoot || !track.lowest.empty();
    }
    plan.feet.push_back(std::move(foot));
  }
  if (!plan.usable)
    return plan;
  plan.sourceGround = anyFoot ? Floor(lowest) : 0.0;
  std::vector<double> standing;
  const std::vector<FootTrack> targetTracks =
    TrackFeet(tf, output, {plan.feet[0].target, plan.feet[1].target}, plan.up, threads);
  for (std::size_t i = 0; i < plan.feet.size(); ++i)
    for (const FrameRange& r : plan.feet[i].contacts)
      for (int f = r.first; f <= r.last && f < static_cast<int>(targetTracks[i].lowest.size()); ++f)
        standing.push_back(targetTracks[i].lowest[At(f)]);
  if (!standing.empty())
  {
    std::nth_element(standing.begin(), standing.begin() + static_cast<std::ptrdiff_t>(standing.size() / 2), standing.end());
    plan.targetGround = standing[standing.size() / 2];
  }
  else
    plan.targetGround = telvo::Dot(tc.restGlobal[0].off, plan.up) +
                        (plan.sourceGround - telvo::Dot(sc.restGlobal[0].off, plan.up)) * prepared.appliedRootScale;
  return plan;
}

PlantResult PlantFeet(const PreparedRetarget& prepared, const FeetPlan& plan, Clip& output, int threads)
{
  PlantResult result;
  const Skeleton& tf = *prepared.target->skeleton;
  const std::size_t frames = static_cast<std::size_t>(output.frameCount);
  const std::size_t tn = static_cast<std::size_t>(output.jointCount);
  if (!plan.usable || frames == 0 || !(output.frameTime > 0.0))
    return result;
  const Vector& up = plan.up;

  // Where each planted ankle is held, from the transferred motion.
  std::vector<LegState> legs;
  for (const PlannedFoot& foot : plan.feet)
  {
    if (!foot.leftAlone.empty())
      continue;
    LegState leg;
    leg.foot = &foot;
    leg.weight.assign(frames, 0.0);
    leg.held.assign(frames, Vector{});
    legs.push_back(std::move(leg));
  }
  if (legs.empty())
    return result;
  std::vector<Leg> targetLegs;
  for (const LegState& leg : legs)
    targetLegs.push_back(leg.foot->target);
  const std::vector<FootTrack> tracks = TrackFeet(tf, output, targetLegs, up, threads);
  for (std::size_t i = 0; i < legs.size(); ++i)
  {
    LegState& leg = legs[i];
    const FootTrack& track = tracks[i];
    leg.free = track.ankle;
    leg.hip = track.hip;
    const std::vector<FrameRange>& contacts = leg.foot->contacts;
    const int ease = std::max(1, static_cast<int>(std::lround(kPlantEaseSeconds / output.frameTime)));
    const int lastFrame = static_cast<int>(frames) - 1;
    for (std::size_t c = 0; c < contacts.size(); ++c)
    {
      const FrameRange& r = contacts[c];
      if (r.first > lastFrame)
        continue;
      const int last = std::min(r.last, lastFrame);
      // The ramps lie outside the contact, each within half the gap to its neighbour.
      const int before = c > 0 ? r.first - contacts[c - 1].last - 1 : r.first;
      const int after = c + 1 < contacts.size() ? contacts[c + 1].first - last - 1 : lastFrame - last;
      const int easeIn = std::min(ease, c > 0 ? before / 2 : before);
      const int easeOut = std::min(ease, c + 1 < contacts.size() ? after / 2 : after);
      const Vector touchDown = Across(track.ankle[At(r.first)], up);
      for (int f = r.first - easeIn; f <= last + easeOut; ++f)
      {
        // The ankle over the touch-down point, at the height that puts the foot's lowest point
        // (as the transferred ankle rotation holds it) on the ground.
        const double ankleAboveLowest = telvo::Dot(track.ankle[At(f)], up) - track.lowest[At(f)];
        const Vector held = touchDown + up * (plan.targetGround + ankleAboveLowest);
        const double w = f < r.first ? static_cast<double>(f - (r.first - easeIn - 1)) / (easeIn + 1)
                         : f > last  ? static_cast<double>(last + easeOut + 1 - f) / (easeOut + 1)
                                     : 1.0;
        leg.weight[At(f)] = Ease(w);
        leg.held[At(f)] = held;
      }
    }
  }

  // How far the hips must go down for each leg to reach its goal, spread over neighbouring frames
  // so that the hips never drop in one frame.
  std::vector<double> drop(frames, 0.0);
  for (const LegState& leg : legs)
  {
    const double reach = leg.foot->targetLegLength * kLongestReach;
    for (std::size_t f = 0; f < frames; ++f)
    {
      if (!(leg.weight[f] > 0.0))
        continue;
      // The hold itself must be in reach: while easing, the leg's goal lies between it and the
      // free ankle, which the leg reaches by its own rotations.
      const Vector toGoal = leg.held[f] - leg.hip[f];
      const double across = telvo::Length(Across(toGoal, up));
      const double below = -telvo::Dot(toGoal, up);
      const double reachable = across < reach ? std::sqrt(reach * reach - across * across) : 0.0;
      drop[f] = std::max(drop[f], below - reachable);
    }
  }
  const std::vector<double> smoothDrop =
    SmoothDrop(drop, std::max(1, static_cast<int>(std::lround(kPlantEaseSeconds / output.frameTime))));
  // Down along up in the world is, for the root's local translation, the scene's inverse turn
  // divided by the scene's scale.
  const Matrix& scene = tf.sceneTransform;
  const Vector sceneScale{telvo::Length(scene.v1), telvo::Length(scene.v2), telvo::Length(scene.v3)};
  const Quaternion sceneInverse = Conjugate(FromMatrix(RigidSceneTransform(tf)));
  for (std::size_t f = 0; f < frames; ++f)
  {
    if (!(smoothDrop[f] > 0.0))
      continue;
    const Vector down = Rotate(sceneInverse, up * -smoothDrop[f]);
    Vector& root = output.rootTranslation[f];
    root = root + Vector{down.x / sceneScale.x, down.y / sceneScale.y, down.z / sceneScale.z};
    result.hipsLowered = std::max(result.hipsLowered, smoothDrop[f]);
  }

  // Each frame with a foot held: the leg reaches from where the transfer put the ankle (gone down
  // with the hips) towards the hold, the ankle keeping its transferred world rotation. A free leg
  // keeps its rotations and goes down with the hips. Frames stand alone from here: shares of them
  // on threads.
  const int shares = FrameThreads(output.frameCount, threads);
  std::vector<int> planted(static_cast<std::size_t>(shares), 0);
  RunShares(output.frameCount, shares, [&](int share, int first, int last) {
    WorldPose world;
    for (std::size_t f = static_cast<std::size_t>(first); f < static_cast<std::size_t>(last); ++f)
    {
      bool held = false;
      for (const LegState& leg : legs)
        held = held || leg.weight[f] > 0.0;
      if (!held)
        continue;
      ++planted[static_cast<std::size_t>(share)];
      Quaternion* local = output.rotations.data() + f * tn;
      // One pose serves both legs: neither leg's joints lie above the other's.
      if (!world.Evaluate(tf, &output, static_cast<int>(f)))
        continue;
      for (const LegState& leg : legs)
      {
        if (!(leg.weight[f] > 0.0))
          continue;
        const Leg& t = leg.foot->target;
        const Vector lowered = leg.free[f] - up * smoothDrop[f];
        ReachWithLeg(tf, world, t, lowered + (leg.held[f] - lowered) * leg.weight[f], WorldRotation(world, t.foot),
                     local);
      }
    }
  });
  for (int count : planted)
    result.plantedFrames += count;
  return result;
}

} // namespace kelvara
