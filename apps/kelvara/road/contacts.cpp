#include "road/contacts.h"

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

using telvo::Vector;

std::size_t At(int i)
{
  return static_cast<std::size_t>(i);
}

Vector Across(const Vector& v, const Vector& up)
{
  return v - up * telvo::Dot(v, up);
}

// Runs of true in flags as ranges.
std::vector<FrameRange> Runs(const std::vector<bool>& flags)
{
  std::vector<FrameRange> runs;
  for (std::size_t f = 0; f < flags.size(); ++f)
  {
    if (!flags[f])
      continue;
    if (!runs.empty() && runs.back().last + 1 == static_cast<int>(f))
      runs.back().last = static_cast<int>(f);
    else
      runs.push_back({static_cast<int>(f), static_cast<int>(f)});
  }
  return runs;
}

} // namespace

Leg LegOf(const Character& c, bool left)
{
  auto joint = [&](int part) { return c.partJoint[At(part)]; };
  return left ? Leg{joint(kLeftThigh), joint(kLeftShin), joint(kLeftFoot), joint(kLeftToes)}
              : Leg{joint(kRightThigh), joint(kRightShin), joint(kRightFoot), joint(kRightToes)};
}

Vector GroundUp(const Character& c)
{
  const Vector& u = c.orientation.up;
  const double ax = std::fabs(u.x), ay = std::fabs(u.y), az = std::fabs(u.z);
  if (ay >= ax && ay >= az)
    return {0.0, u.y < 0.0 ? -1.0 : 1.0, 0.0};
  if (az >= ax)
    return {0.0, 0.0, u.z < 0.0 ? -1.0 : 1.0};
  return {u.x < 0.0 ? -1.0 : 1.0, 0.0, 0.0};
}

double LegLength(const Leg& leg, const std::vector<telvo::Matrix>& rest)
{
  if (!leg.Complete())
    return 0.0;
  return telvo::Length(rest[At(leg.shin)].off - rest[At(leg.thigh)].off) +
         telvo::Length(rest[At(leg.foot)].off - rest[At(leg.shin)].off);
}

double Floor(std::vector<double> heights)
{
  if (heights.empty())
    return 0.0;
  const std::size_t k = static_cast<std::size_t>(kFloorQuantile * static_cast<double>(heights.size()));
  std::nth_element(heights.begin(), heights.begin() + static_cast<std::ptrdiff_t>(k), heights.end());
  return heights[k];
}

std::vector<FrameRange> FindContacts(const std::vector<Vector>& positions, const Vector& up, double legLength,
                                     double frameTime)
{
  const std::size_t n = positions.size();
  if (n < 2 || !(legLength > 0.0) || !(frameTime > 0.0))
    return {};
  std::vector<double> heights(n);
  for (std::size_t f = 0; f < n; ++f)
    heights[f] = telvo::Dot(positions[f], up);
  const double floor = Floor(heights);
  const double nearHeight = floor + kContactHeightShare * legLength;
  const double stillSpeed = kContactSpeedShare * legLength;
  std::vector<bool> contact(n);
  for (std::size_t f = 0; f < n; ++f)
  {
    const std::size_t before = f > 0 ? f - 1 : f;
    const std::size_t after = f + 1 < n ? f + 1 : f;
    const double speed =
      telvo::Length(positions[after] - positions[before]) / (static_cast<double>(after - before) * frameTime);
    contact[f] = heights[f] <= nearHeight && speed <= stillSpeed;
  }
  // Close short gaps, then drop short contacts.
  const int shortest = std::max(2, static_cast<int>(std::lround(kContactMinSeconds / frameTime)));
  std::vector<FrameRange> runs = Runs(contact);
  for (std::size_t i = 1; i < runs.size(); ++i)
    if (runs[i].first - runs[i - 1].last - 1 < shortest)
      for (int f = runs[i - 1].last + 1; f < runs[i].first; ++f)
        contact[At(f)] = true;
  std::vector<FrameRange> contacts;
  for (const FrameRange& r : Runs(contact))
    if (r.last - r.first + 1 >= shortest)
      contacts.push_back(r);
  return contacts;
}

FootContacts FindFootContacts(const FootTrack& track, const Vector& up, double legLength, double frameTime)
{
  return {FindContacts(track.ankle, up, legLength, frameTime), FindContacts(track.toe, up, legLength, frameTime)};
}

double UsableLegLength(const Character& c, const Leg& leg)
{
  const double length = LegLength(leg, c.restGlobal);
  return length > 0.0 ? length : HipHeight(c);
}

std::vector<FootContacts> FindFeetContacts(const Character& c, const Clip& clip)
{
  std::vector<FootContacts> feet(2);
  if (!c.orientation.known)
    return feet;
  const Vector up = GroundUp(c);
  const std::vector<Leg> legs{LegOf(c, true), LegOf(c, false)};
  const std::vector<FootTrack> tracks = TrackFeet(*c.skeleton, clip, legs, up);
  for (std::size_t i = 0; i < legs.size(); ++i)
    if (legs[i].Complete())
      feet[i] = FindFootContacts(tracks[i], up, UsableLegLength(c, legs[i]), clip.frameTime);
  return feet;
}

std::vector<int> FootJoints(const Skeleton& skeleton, int ankle)
{
  std::vector<int> joints{ankle};
  std::vector<bool> inside(skeleton.joints.size(), false);
  inside[At(ankle)] = true;
  for (std::size_t j = At(ankle) + 1; j < skeleton.joints.size(); ++j)
  {
    const int p = skeleton.joints[j].parent;
    if (p >= 0 && inside[At(p)])
    {
      inside[j] = true;
      joints.push_back(static_cast<int>(j));
    }
  }
  return joints;
}

std::vector<FootTrack> TrackFeet(const Skeleton& skeleton, const Clip& clip, const std::vector<Leg>& legs,
                                 const Vector& up, int threads)
{
  std::vector<FootTrack> tracks(legs.size());
  std::vector<std::vector<int>> feet(legs.size());
  bool any = false;
  for (std::size_t i = 0; i < legs.size(); ++i)
    if (legs[i].Complete())
    {
      feet[i] = FootJoints(skeleton, legs[i].foot);
      any = true;
    }
  if (!any)
    return tracks;
  const std::size_t frames = static_cast<std::size_t>(std::max(0, clip.frameCount));
  for (std::size_t i = 0; i < legs.size(); ++i)
    if (legs[i].Complete())
    {
      FootTrack& track = tracks[i];
      track.hip.resize(frames);
      track.ankle.resize(frames);
      track.toe.resize(legs[i].toe >= 0 ? frames : 0);
      track.lowest.resize(frames);
      track.kneeDegrees.resize(frames);
    }
  // Each frame stands alone: shares of them on threads, each with a pose of its own. A frame that
  // cannot be posed ends the tracks.
  const int shares = FrameThreads(clip.frameCount, threads);
  std::vector<int> ends(static_cast<std::size_t>(shares), clip.frameCount);
  RunShares(clip.frameCount, shares, [&](int share, int first, int last) {
    WorldPose world;
    for (int f = first; f < last; ++f)
    {
      if (!world.Evaluate(skeleton, &clip, f))
      {
        ends[static_cast<std::size_t>(share)] = f;
        return;
      }
      for (std::size_t i = 0; i < legs.size(); ++i)
      {
        const Leg& leg = legs[i];
        if (!leg.Complete())
          continue;
        FootTrack& track = tracks[i];
        const std::size_t at = At(f);
        track.hip[at] = world[At(leg.thigh)].off;
        track.ankle[at] = world[At(leg.foot)].off;
        if (leg.toe >= 0)
          track.toe[at] = world[At(leg.toe)].off;
        double lowest = telvo::Dot(world[At(leg.foot)].off, up);
        for (int j : feet[i])
          lowest = std::min({lowest, telvo::Dot(world[At(j)].off, up), telvo::Dot(world.EndSite(skeleton, At(j)), up)});
        track.lowest[at] = lowest;
        const Vector thigh = world[At(leg.shin)].off - world[At(leg.thigh)].off;
        const Vector shin = world[At(leg.foot)].off - world[At(leg.shin)].off;
        track.kneeDegrees[at] = AngleDegrees(thigh, shin);
      }
    }
  });
  const std::size_t end = static_cast<std::size_t>(*std::min_element(ends.begin(), ends.end()));
  for (FootTrack& track : tracks)
  {
    for (std::vector<Vector>* v : {&track.hip, &track.ankle, &track.toe})
      v->resize(std::min(v->size(), end));
    for (std::vector<double>* v : {&track.lowest, &track.kneeDegrees})
      v->resize(std::min(v->size(), end));
  }
  return tracks;
}

FootTrack TrackFoot(const Skeleton& skeleton, const Clip& clip, const Leg& leg, const Vector& up)
{
  return TrackFeet(skeleton, clip, {leg}, up)[0];
}

FootFigures MeasureFoot(const FootTrack& track, const std::vector<FrameRange>& contacts, const Vector& up,
                        double ground, double legLength, double frameTime)
{
  FootFigures figures;
  const int frames = static_cast<int>(track.ankle.size());
  for (std::size_t f = 1; f < track.kneeDegrees.size(); ++f)
    figures.kneeStepDegrees =
      std::max(figures.kneeStepDegrees, std::fabs(track.kneeDegrees[f] - track.kneeDegrees[f - 1]));
  if (!(legLength > 0.0))
    return figures;
  double travel = 0.0;
  int steps = 0;
  bool first = true;
  for (const FrameRange& r : contacts)
    for (int f = r.first; f <= r.last && f < frames; ++f)
    {
      const double height = (track.lowest[At(f)] - ground) / legLength;
      figures.lowestLow = first ? height : std::min(figures.lowestLow, height);
      figures.lowestHigh = first ? height : std::max(figures.lowestHigh, height);
      first = false;
      ++figures.contactFrames;
      if (f > r.first)
      {
        travel += telvo::Length(Across(track.ankle[At(f)] - track.ankle[At(f - 1)], up));
        ++steps;
      }
    }
  if (steps > 0 && frameTime > 0.0)
    figures.slide = travel / legLength / (steps * frameTime);
  return figures;
}

std::string RangesText(const std::vector<FrameRange>& ranges)
{
  if (ranges.empty())
    return "none";
  std::string text;
  for (const FrameRange& r : ranges)
    text += (text.empty() ? "" : ", ") + std::to_string(r.first) + "-" + std::to_string(r.last);
  return text;
}

} // namespace kelvara
