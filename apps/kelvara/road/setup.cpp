#include "road/setup.h"

#include "io/read_file.h"
#include "road/joint_map.h"

namespace kelvara
{

bool CheckPreset(const std::string& name, Problem& problem)
{
  if (name.empty() || FindPreset(name) != nullptr)
    return true;
  return problem.Set(true, "expected a preset name (" + PresetNames() + "), found \"" + name + "\"");
}

Road::Road(RoadOptions options) : _options(std::move(options)) {}

Road::~Road() = default;

bool Road::ReadShared(Problem& problem)
{
  if (!CheckPreset(_options.sourcePreset, problem) || !CheckPreset(_options.targetPreset, problem))
    return false;
  std::string error;
  if (!_options.mapText.empty())
    _mapText = _options.mapText;
  else if (!_options.mapPath.empty())
  {
    if (!ReadWholeFile(_options.mapPath, _mapText, error))
      return problem.Set(true, _options.mapPath + ": cannot be read");
  }
  if (!MakeHelper(_helper, error))
    return problem.Set(false, error);
  if (!_options.sourceCharacterPath.empty() && !LoadSavedCharacter(_options.sourceCharacterPath, _savedSource, error))
    return problem.Set(true, error);
  return true;
}

bool Road::BuildTarget(Problem& problem)
{
  std::string error;
  if (!BuildCharacter(_target.skeleton, "target", _targetCharacter, error) ||
      !ChooseAndFillPreset(_targetCharacter, _helper, _options.targetPreset, error))
    return problem.Set(false, error);
  return true;
}

bool Road::Setup(const AnimationFile& target, Problem& problem)
{
  if (!ReadShared(problem))
    return false;
  _target = target;
  return BuildTarget(problem);
}

bool Road::Setup(Problem& problem)
{
  if (!ReadShared(problem))
    return false;
  std::string error;
  // A saved target is used as saved: its tree, rest pose and filled body parts.
  if (IsSavedCharacterPath(_options.targetPath))
  {
    if (!LoadSavedCharacter(_options.targetPath, _savedTarget, error) ||
        !CharacterFromSaved(_savedTarget, _targetCharacter, error))
      return problem.Set(true, error);
    _target = AnimationFile();
    _target.format = "saved character";
    _target.skeleton = _savedTarget.skeleton;
    _target.bvhLayout = _savedTarget.bvhLayout;
    return true;
  }
  ReadRequest request;
  request.skeletonRoot = _options.targetSkeletonRoot;
  request.motion = false;
  if (!ReadAnimationFile(_options.targetPath, request, _target, error))
    return problem.Set(true, error);
  return BuildTarget(problem);
}

bool Road::ReadSource(const std::string& path, AnimationFile& out, Problem& problem) const
{
  ReadRequest request;
  request.animation = _options.animation;
  request.skeletonRoot = _options.sourceSkeletonRoot;
  std::string error;
  if (!ReadAnimationFile(path, request, out, error))
    return problem.Set(true, error);
  if (!out.hasClip)
    return problem.Set(true, path + ": expected an animation to retarget, found none");
  return true;
}

const SourceSide& Road::SideFor(const Skeleton& skeleton, int worker)
{
  std::lock_guard<std::mutex> lock(_mutex);
  for (const std::unique_ptr<SourceSide>& side : _sides)
    if (SameSkeleton(side->skeleton, skeleton))
      return WorkerCopy(*side, worker);
  _sides.push_back(std::make_unique<SourceSide>());
  SourceSide& side = *_sides.back();
  side.skeleton = skeleton;
  Prepare(side);
  return WorkerCopy(side, worker);
}

const SourceSide& Road::WorkerCopy(const SourceSide& side, int worker)
{
  if (worker <= 0 || !side.Ok())
    return side;
  const auto found = _workerCopies.find({&side, worker});
  if (found != _workerCopies.end())
    return *found->second;
  auto copy = std::make_unique<SourceSide>();
  copy->skeleton = side.skeleton;
  copy->character = side.character;
  copy->character.skeleton = &copy->skeleton;
  copy->restMatch = side.restMatch;
  copy->original = &side;
  std::string error;
  if (!side.prepared.CopyWithOwnObjects(copy->prepared, error))
    return side; // the worker's next clip tries again
  copy->prepared.source = &copy->character;
  return *(_workerCopies[{&side, worker}] = std::move(copy));
}

void Road::Prepare(SourceSide& side)
{
  std::string error;
  Problem& problem = side.problem;
  if (!_options.sourceCharacterPath.empty())
  {
    // A saved source character stands for the clip's skeleton, which must be the saved one.
    std::string why;
    if (!SameSkeleton(_savedSource.skeleton, side.skeleton, &why))
    {
      problem.Set(true, why);
      return;
    }
    if (!CharacterFromSaved(_savedSource, side.character, error))
    {
      problem.Set(true, _options.sourceCharacterPath + ": " + error);
      return;
    }
  }
  else if (!BuildCharacter(side.skeleton, "source", side.character, error) ||
           !ChooseAndFillPreset(side.character, _helper, _options.sourcePreset, error))
  {
    problem.Set(false, error);
    return;
  }
  for (const telvo::Uuid& uuid : _targetCharacter.uuids)
    for (const telvo::Uuid& other : side.character.uuids)
      if (uuid == other)
      {
        problem.Set(true, "the source and the target share node ids (both saved from one skeleton?): give one of "
                          "them as its animation file");
        return;
      }
  std::vector<JointPair> pairs;
  if ((!_options.mapPath.empty() || !_options.mapText.empty()) &&
      !ParseJointMap(_mapText, _options.mapPath.empty() ? "joint map" : _options.mapPath, *side.character.skeleton, _target.skeleton, pairs, error))
  {
    problem.Set(true, error);
    return;
  }
  PreparedRetarget& prepared = side.prepared;
  prepared.source = &side.character;
  prepared.target = &_targetCharacter;
  prepared.helper = _helper;
  prepared.mapPairs = std::move(pairs);
  prepared.rootScale = _options.rootScale;
  prepared.rootMotion = _options.rootMotion;
  prepared.plantFeet = _options.plantFeet;
  if (!prepared.Prepare(error))
  {
    problem.Set(false, error);
    return;
  }
  if (_options.matchRest)
  {
    side.restMatch = MatchCharacterRest(side.character, _targetCharacter, prepared.sourceOfTarget);
    prepared.targetRest = side.restMatch.targetRest;
  }
}

} // namespace kelvara
