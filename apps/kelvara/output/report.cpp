#include "output/report.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <optional>
#include <utility>

#include "anim/pose.h"
#include "io/atomic_file.h"
#include "road/match_rest.h"

namespace kelvara
{

namespace
{

using json = nlohmann::ordered_json;
using telvo::Matrix;
using telvo::Vector;

constexpr double kTinyLength = 1e-9;

std::string JointName(const Skeleton& skeleton, int joint)
{
  return skeleton.joints[static_cast<std::size_t>(joint)].name;
}

int FilledParts(const Character& c)
{
  int n = 0;
  for (int j : c.partJoint)
    n += j >= 0 ? 1 : 0;
  return n;
}

std::string PresetReason(const Character& c, bool named)
{
  if (named)
    return "named on the command line";
  const PresetTrial* chosen = nullptr;
  for (const PresetTrial& t : c.presetTrials)
    if (t.preset == c.preset)
      chosen = &t;
  if (chosen == nullptr)
    return "";
  std::string others;
  bool tie = false;
  for (const PresetTrial& t : c.presetTrials)
    if (&t != chosen)
    {
      others += (others.empty() ? "" : ", ") + t.preset + " " + std::to_string(t.filled);
      tie = tie || t.filled == chosen->filled;
    }
  std::string why = "filled " + std::to_string(chosen->filled) + " body parts (" + others + ")";
  if (tie)
    why += "; tie broken by geometry score " + std::to_string(chosen->geometryScore) + ", then preset order";
  return why;
}

json Candidates(const std::vector<PresetTrial>& trials)
{
  json out = json::array();
  for (const PresetTrial& t : trials)
    out.push_back({{"preset", t.preset}, {"filledBodyParts", t.filled}, {"geometryScore", t.geometryScore}});
  return out;
}

json CharacterJson(const CharacterReport& c)
{
  return {{"preset", c.preset},       {"presetReason", c.presetReason},       {"filledBodyParts", c.filledBodyParts},
          {"candidates", Candidates(c.candidates)}, {"notes", c.notes}, {"legLength", c.legLength}};
}

json RangesJson(const std::vector<FrameRange>& ranges)
{
  json out = json::array();
  for (const FrameRange& r : ranges)
    out.push_back({r.first, r.last});
  return out;
}

json FiguresJson(const FootFigures& f)
{
  return {{"slide", f.slide},
          {"lowestMin", f.lowestLow},
          {"lowestMax", f.lowestHigh},
          {"kneeStepDegrees", f.kneeStepDegrees}};
}

// The source's contacts for a viewer: one entry per foot that has an ankle.
json ContactsJson(const ClipReport& r)
{
  json out = json::array();
  for (std::size_t i = 0; i < r.feetPlan.feet.size() && i < r.feet.size(); ++i)
    if (r.feetPlan.feet[i].source.foot >= 0)
      out.push_back({{"foot", r.feetPlan.feet[i].left ? "left" : "right"},
                     {"joint", r.feet[i].sourceJoint},
                     {"frames", RangesJson(r.feetPlan.feet[i].contacts)}});
  return out;
}

json FeetJson(const ClipReport& r)
{
  json out = json::array();
  for (std::size_t i = 0; i < r.feetPlan.feet.size() && i < r.feet.size(); ++i)
  {
    const PlannedFoot& foot = r.feetPlan.feet[i];
    json entry = {{"foot", foot.left ? "left" : "right"},
                  {"sourceJoint", r.feet[i].sourceJoint},
                  {"targetJoint", r.feet[i].targetJoint},
                  {"contacts", RangesJson(foot.contacts)},
                  {"toeContacts", RangesJson(foot.toeContacts)}};
    if (foot.leftAlone.empty())
      entry["planted"] = r.plantFeet;
    else
      entry["leftAlone"] = foot.leftAlone;
    entry["legLength"] = {{"source", foot.sourceLegLength}, {"target", foot.targetLegLength}};
    if (r.feet[i].measured)
    {
      const FootReport& f = r.feet[i];
      entry["source"] = FiguresJson(f.source);
      const FootFigures* with = r.plantFeet ? &f.written : (f.otherMeasured ? &f.other : nullptr);
      const FootFigures* without = r.plantFeet ? (f.otherMeasured ? &f.other : nullptr) : &f.written;
      if (with != nullptr)
        entry["withPlanting"] = FiguresJson(*with);
      if (without != nullptr)
        entry["withoutPlanting"] = FiguresJson(*without);
    }
    out.push_back(entry);
  }
  return out;
}

// The bone of the other rest's run that b stands for.
const BoneAngles* OtherRestBone(const ClipReport& r, const BoneAngles& b)
{
  for (const BoneAngles& o : r.otherRestBones)
    if (o.targetJoint == b.targetJoint && o.targetChild == b.targetChild)
      return &o;
  return nullptr;
}

// The bones' mean angles averaged, {without, with} rest matching; none unless both runs were made.
std::optional<std::pair<double, double>> MeanBoneAngles(const ClipReport& r)
{
  double written = 0.0;
  double other = 0.0;
  int n = 0;
  for (const BoneAngles& b : r.bones)
    if (const BoneAngles* o = OtherRestBone(r, b))
    {
      written += b.meanDegrees;
      other += o->meanDegrees;
      ++n;
    }
  if (n == 0)
    return std::nullopt;
  written /= n;
  other /= n;
  return r.matchRest ? std::pair(other, written) : std::pair(written, other);
}

json ClipJson(const ClipReport& r)
{
  json clip = {{"source", r.source}, {"output", r.output}, {"status", r.ok ? "ok" : "failed"}};
  if (!r.ok)
    clip["error"] = r.error;
  clip["frames"] = r.frames;
  clip["frameTime"] = r.frameTime;
  if (r.described)
  {
    clip["sourceCharacter"] = CharacterJson(r.sourceCharacter);
    clip["targetCharacter"] = CharacterJson(r.targetCharacter);
    json pairs = json::array();
    for (const PairRecord& p : r.pairs)
      pairs.push_back({{"target", p.target}, {"source", p.source}, {"origin", p.origin}});
    clip["pairs"] = pairs;
    clip["unpairedTargetJoints"] = r.unpairedTarget;
    clip["unpairedSourceJoints"] = r.unpairedSource;
    clip["rootScale"] = r.rootScale;
    clip["rootScaleAuto"] = r.rootScaleAuto;
    clip["rootMotion"] = r.rootMotion;
    clip["warnings"] = r.warnings;
    clip["plantFeet"] = r.plantFeet;
    clip["hipsLowered"] = r.hipsLowered;
    clip["sourceGround"] = r.feetPlan.sourceGround;
    clip["targetGround"] = r.feetPlan.targetGround;
    clip["contacts"] = ContactsJson(r);
    clip["feet"] = FeetJson(r);
  }
  if (r.measured)
  {
    auto angles = [](const BoneAngles& b) {
      return json{{"meanAngleDegrees", b.meanDegrees}, {"maxAngleDegrees", b.maxDegrees}};
    };
    json bones = json::array();
    for (const BoneAngles& b : r.bones)
    {
      json bone = {{"targetJoint", b.targetJoint}, {"targetChild", b.targetChild}, {"sourceJoint", b.sourceJoint},
                   {"sourceChild", b.sourceChild}, {"meanAngleDegrees", b.meanDegrees}, {"maxAngleDegrees", b.maxDegrees}};
      if (const BoneAngles* other = OtherRestBone(r, b))
      {
        bone["withoutMatchRest"] = angles(r.matchRest ? *other : b);
        bone["withMatchRest"] = angles(r.matchRest ? b : *other);
      }
      bones.push_back(bone);
    }
    clip["bones"] = bones;
    clip["matchRest"] = r.matchRest;
    if (const auto means = MeanBoneAngles(r))
      clip["meanBoneAngleDegrees"] = {{"withoutMatchRest", means->first}, {"withMatchRest", means->second}};
  }
  return clip;
}

// The fastest slide of any foot: of the source, or of the target as written.
double FastestSlide(const ClipReport& r, bool target)
{
  double v = 0.0;
  for (const FootReport& f : r.feet)
    if (f.measured)
      v = std::max(v, target ? f.written.slide : f.source.slide);
  return v;
}

} // namespace

CharacterReport DescribeCharacter(const Character& c, bool presetNamed)
{
  CharacterReport r;
  r.preset = c.preset;
  r.presetReason = PresetReason(c, presetNamed);
  r.filledBodyParts = FilledParts(c);
  r.candidates = c.presetTrials;
  r.notes = c.notes;
  r.legLength = HipHeight(c);
  return r;
}

std::vector<std::string> SideWarnings(const Character& c)
{
  std::vector<std::string> warnings;
  for (const std::string& note : c.notes)
    if (note.find("swapped") != std::string::npos)
      warnings.push_back(c.role + ": " + note);
  if (!c.orientation.known)
    return warnings;
  for (int part = 0; part < kBodyPartCount; ++part)
  {
    if (!IsLeftPart(part))
      continue;
    const int l = c.partJoint[static_cast<std::size_t>(part)];
    const int r = c.partJoint[static_cast<std::size_t>(GetBodyPartInfo(part).mirror)];
    if (l < 0 || r < 0)
      continue;
    const Vector across = c.restGlobal[static_cast<std::size_t>(l)].off - c.restGlobal[static_cast<std::size_t>(r)].off;
    if (telvo::Dot(across, c.orientation.left) < 0.0)
      warnings.push_back(c.role + ": " + GetBodyPartInfo(part).name + " " + JointName(*c.skeleton, l) +
                         " lies on the character's right of " + JointName(*c.skeleton, r) + " in the rest pose");
  }
  return warnings;
}

void DescribePairing(const PreparedRetarget& prepared, bool sourcePresetNamed, bool targetPresetNamed,
                     ClipReport& report)
{
  const Character& source = *prepared.source;
  const Character& target = *prepared.target;
  const Skeleton& sf = *source.skeleton;
  const Skeleton& tf = *target.skeleton;
  report.described = true;
  report.sourceCharacter = DescribeCharacter(source, sourcePresetNamed);
  report.targetCharacter = DescribeCharacter(target, targetPresetNamed);
  report.sourceOfTarget = prepared.sourceOfTarget;
  report.pairs.clear();
  report.unpairedTarget.clear();
  report.unpairedSource.clear();
  std::vector<bool> used(sf.joints.size(), false);
  for (std::size_t t = 0; t < tf.joints.size(); ++t)
  {
    const int s = prepared.sourceOfTarget[t];
    if (s < 0)
    {
      report.unpairedTarget.push_back(tf.joints[t].name);
      continue;
    }
    used[static_cast<std::size_t>(s)] = true;
    report.pairs.push_back(PairRecord{tf.joints[t].name, JointName(sf, s), prepared.pairOrigin[t]});
  }
  for (std::size_t s = 0; s < sf.joints.size(); ++s)
    if (!used[s])
      report.unpairedSource.push_back(sf.joints[s].name);
  report.rootScale = prepared.appliedRootScale;
  report.rootScaleAuto = prepared.rootScale <= 0.0;
  report.rootMotion = prepared.rootMotion;
  report.warnings = SideWarnings(source);
  for (std::string& w : SideWarnings(target))
    report.warnings.push_back(std::move(w));
}

std::vector<BoneAngles> MeasureBoneAngles(const Skeleton& sourceSkeleton, const Clip& source,
                                          const Skeleton& outputSkeleton, const Clip& output,
                                          const std::vector<int>& sourceOfTarget)
{
  struct Bone
  {
    int t, tc, s, sc;
    double sum = 0.0;
    double max = 0.0;
    int frames = 0;
  };
  std::vector<Bone> bones;
  for (std::size_t c = 0; c < outputSkeleton.joints.size() && c < sourceOfTarget.size(); ++c)
  {
    const int t = outputSkeleton.joints[c].parent;
    if (t < 0 || sourceOfTarget[c] < 0 || sourceOfTarget[static_cast<std::size_t>(t)] < 0)
      continue;
    bones.push_back(Bone{t, static_cast<int>(c), sourceOfTarget[static_cast<std::size_t>(t)], sourceOfTarget[c]});
  }
  WorldPose sw;
  WorldPose tw;
  const int frames = std::min(source.frameCount, output.frameCount);
  for (int f = 0; f < frames; ++f)
  {
    if (!sw.Evaluate(sourceSkeleton, &source, f) || !tw.Evaluate(outputSkeleton, &output, f))
      break;
    for (Bone& b : bones)
    {
      const Vector td = tw[static_cast<std::size_t>(b.tc)].off - tw[static_cast<std::size_t>(b.t)].off;
      const Vector sd = sw[static_cast<std::size_t>(b.sc)].off - sw[static_cast<std::size_t>(b.s)].off;
      if (telvo::Length(td) < kTinyLength || telvo::Length(sd) < kTinyLength)
        continue;
      const double a = AngleDegrees(sd, td);
      b.sum += a;
      b.max = std::max(b.max, a);
      ++b.frames;
    }
  }
  std::vector<BoneAngles> out;
  for (const Bone& b : bones)
    if (b.frames > 0)
      out.push_back(BoneAngles{JointName(outputSkeleton, b.t), JointName(outputSkeleton, b.tc),
                               JointName(sourceSkeleton, b.s), JointName(sourceSkeleton, b.sc), b.sum / b.frames, b.max});
  return out;
}

void MeasureFeet(const Skeleton& sourceSkeleton, const Clip& source, const Skeleton& targetSkeleton, const Clip& target,
                 bool other, ClipReport& report)
{
  const FeetPlan& plan = report.feetPlan;
  if (!plan.usable || report.feet.size() != plan.feet.size())
    return;
  for (std::size_t i = 0; i < plan.feet.size(); ++i)
  {
    const PlannedFoot& foot = plan.feet[i];
    FootReport& out = report.feet[i];
    if (!foot.source.Complete() || !foot.target.Complete())
      continue;
    const FootFigures figures =
      MeasureFoot(TrackFoot(targetSkeleton, target, foot.target, plan.up), foot.contacts, plan.up, plan.targetGround,
                  foot.targetLegLength, target.frameTime);
    if (other)
    {
      out.other = figures;
      out.otherMeasured = true;
      continue;
    }
    out.written = figures;
    out.source = MeasureFoot(TrackFoot(sourceSkeleton, source, foot.source, plan.up), foot.contacts, plan.up,
                             plan.sourceGround, foot.sourceLegLength, source.frameTime);
    out.measured = true;
  }
}

void DescribeFeet(const PreparedRetarget& prepared, FeetPlan plan, bool planted, const PlantResult& result,
                  ClipReport& report)
{
  auto name = [](const Character& c, int joint) {
    return joint >= 0 ? JointName(*c.skeleton, joint) : std::string();
  };
  report.feet.clear();
  for (const PlannedFoot& foot : plan.feet)
  {
    FootReport f;
    f.sourceJoint = name(*prepared.source, foot.source.foot);
    f.targetJoint = name(*prepared.target, foot.target.foot);
    report.feet.push_back(f);
  }
  report.feetPlan = std::move(plan);
  report.plantFeet = planted;
  report.hipsLowered = result.hipsLowered;
}

void MeasureQuality(const AnimationFile& source, const AnimationFile& output, ClipReport& report)
{
  report.bones = MeasureBoneAngles(source.skeleton, source.clip, output.skeleton, output.clip, report.sourceOfTarget);
  MeasureFeet(source.skeleton, source.clip, output.skeleton, output.clip, false, report);
  report.measured = true;
}

bool MeasureOtherRest(const PreparedRetarget& prepared, const Clip& clip, ClipReport& report, std::string& error)
{
  Clip other;
  if (!RunWithOtherRest(prepared, clip, other, error))
    return false;
  report.matchRest = !prepared.targetRest.empty();
  report.otherRestBones =
    MeasureBoneAngles(*prepared.source->skeleton, clip, *prepared.target->skeleton, other, prepared.sourceOfTarget);
  return true;
}

bool MeasureWrittenQuality(const AnimationFile& source, const ReadRequest& request, ClipReport& report,
                           std::string& error)
{
  AnimationFile output;
  if (!ReadAnimationFile(report.output, request, output, error))
    return false;
  if (!output.hasClip)
  {
    error = report.output + ": the written file holds no animation to measure";
    return false;
  }
  MeasureQuality(source, output, report);
  return true;
}

json ReportJson(const std::vector<ClipReport>& clips, double seconds)
{
  json list = json::array();
  int failed = 0;
  long frames = 0;
  for (const ClipReport& r : clips)
  {
    list.push_back(ClipJson(r));
    failed += r.ok ? 0 : 1;
    frames += r.ok ? r.frames : 0;
  }
  return {{"clips", list},
          {"summary",
           {{"clips", clips.size()}, {"failed", failed}, {"frames", frames}, {"seconds", seconds}}}};
}

bool WriteReport(const std::string& path, const std::vector<ClipReport>& clips, double seconds, std::string& error)
{
  return WriteFileAtomically(path, ReportJson(clips, seconds).dump(2) + "\n", error);
}

void PrintReportTable(std::FILE* out, const std::vector<ClipReport>& clips)
{
  std::fprintf(out, "%-28s %-15s %6s %8s %-30s %9s %9s %5s\n", "clip", "presets", "pairs", "unpaired",
               "worst bone (max deg)", "slide src", "slide tgt", "warn");
  for (const ClipReport& r : clips)
  {
    std::string name = r.source.substr(r.source.find_last_of('/') + 1);
    if (!r.ok)
    {
      std::fprintf(out, "%-28s failed: %s\n", name.c_str(), r.error.c_str());
      continue;
    }
    const BoneAngles* worst = nullptr;
    for (const BoneAngles& b : r.bones)
      if (worst == nullptr || b.maxDegrees > worst->maxDegrees)
        worst = &b;
    char bone[96] = "-";
    if (worst != nullptr)
      std::snprintf(bone, sizeof(bone), "%s-%s %.1f", worst->targetJoint.c_str(), worst->targetChild.c_str(),
                    worst->maxDegrees);
    const std::string presets = r.sourceCharacter.preset + "/" + r.targetCharacter.preset;
    std::fprintf(out, "%-28s %-15s %6zu %8zu %-30s %9.3g %9.3g %5zu\n", name.c_str(), presets.c_str(),
                 r.pairs.size(), r.unpairedTarget.size() + r.unpairedSource.size(), bone,
                 FastestSlide(r, false), FastestSlide(r, true), r.warnings.size());
    if (const auto means = MeanBoneAngles(r))
      std::fprintf(out, "%-28s bones' mean angle %.3g degrees on the target's own rest, %.3g on the matched rest "
                   "(written: %s)\n",
                   "", means->first, means->second, r.matchRest ? "matched" : "own");
    for (std::size_t i = 0; i < r.feetPlan.feet.size() && i < r.feet.size(); ++i)
    {
      const PlannedFoot& foot = r.feetPlan.feet[i];
      const FootReport& f = r.feet[i];
      std::fprintf(out, "%-28s %s foot, contacts %s\n", "", foot.left ? "left" : "right", RangesText(foot.contacts).c_str());
      if (!foot.leftAlone.empty())
        std::fprintf(out, "%-28s   not planted: %s\n", "", foot.leftAlone.c_str());
      if (!f.measured)
        continue;
      std::fprintf(out,
                   "%-28s   slide (leg lengths/s) source %.3g, target %.3g%s; lowest point above ground %.3g to %.3g "
                   "leg lengths; knee step %.3g degrees (source %.3g)\n",
                   "", f.source.slide, f.written.slide, r.plantFeet ? " planted" : "", f.written.lowestLow,
                   f.written.lowestHigh, f.written.kneeStepDegrees, f.source.kneeStepDegrees);
      if (f.otherMeasured)
        std::fprintf(out, "%-28s   %s: slide %.3g, lowest point %.3g to %.3g, knee step %.3g\n", "",
                     r.plantFeet ? "without planting" : "with planting", f.other.slide, f.other.lowestLow,
                     f.other.lowestHigh, f.other.kneeStepDegrees);
    }
  }
}

} // namespace kelvara
