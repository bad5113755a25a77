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

json SlidesJson(const std::vector<FootSliding>& slides)
{
  json out = json::array();
  for (const FootSliding& s : slides)
    out.push_back({{"joint", s.joint}, {"speed", s.speed}, {"lowSeconds", s.lowSeconds}});
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
    clip["footSliding"] = {{"source", SlidesJson(r.sourceFeet)}, {"target", SlidesJson(r.targetFeet)}};
  }
  return clip;
}

double FastestSlide(const std::vector<FootSliding>& slides)
{
  double v = 0.0;
  for (const FootSliding& s : slides)
    v = std::max(v, s.speed);
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
  r.upKnown = c.orientation.known;
  r.up = c.orientation.up;
  for (int part : {kLeftFoot, kLeftToes, kRightFoot, kRightToes})
    if (const int j = c.partJoint[static_cast<std::size_t>(part)]; j >= 0)
      r.footJoints.push_back(j);
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

FootSliding MeasureFootSliding(const Skeleton& skeleton, const Clip& clip, int joint, const Vector& up, double band)
{
  FootSliding slide;
  slide.joint = JointName(skeleton, joint);
  std::vector<Vector> positions;
  WorldPose world;
  for (int f = 0; f < clip.frameCount && world.Evaluate(skeleton, &clip, f); ++f)
    positions.push_back(world[static_cast<std::size_t>(joint)].off);
  if (positions.size() < 2)
    return slide;
  double lowest = telvo::Dot(positions[0], up);
  for (const Vector& p : positions)
    lowest = std::min(lowest, telvo::Dot(p, up));
  auto low = [&](const Vector& p) { return telvo::Dot(p, up) <= lowest + band; };
  double travel = 0.0;
  for (std::size_t f = 0; f + 1 < positions.size(); ++f)
    if (low(positions[f]) && low(positions[f + 1]))
    {
      const Vector d = positions[f + 1] - positions[f];
      travel += telvo::Length(d - up * telvo::Dot(d, up));
      slide.lowSeconds += clip.frameTime;
    }
  slide.speed = slide.lowSeconds > 0.0 ? travel / slide.lowSeconds : 0.0;
  return slide;
}

void MeasureQuality(const AnimationFile& source, const AnimationFile& output, ClipReport& report)
{
  report.bones = MeasureBoneAngles(source.skeleton, source.clip, output.skeleton, output.clip, report.sourceOfTarget);
  auto feet = [](const AnimationFile& file, const CharacterReport& c) {
    std::vector<FootSliding> slides;
    if (!c.upKnown)
      return slides;
    for (int j : c.footJoints)
      if (j >= 0 && static_cast<std::size_t>(j) < file.skeleton.joints.size())
        slides.push_back(MeasureFootSliding(file.skeleton, file.clip, j, c.up, kFootBandShare * c.legLength));
    return slides;
  };
  report.sourceFeet = feet(source, report.sourceCharacter);
  report.targetFeet = feet(output, report.targetCharacter);
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
                 FastestSlide(r.sourceFeet), FastestSlide(r.targetFeet), r.warnings.size());
    if (const auto means = MeanBoneAngles(r))
      std::fprintf(out, "%-28s bones' mean angle %.3g degrees without --match-rest, %.3g with (written: %s)\n", "",
                   means->first, means->second, r.matchRest ? "with" : "without");
  }
}

} // namespace kelvara
