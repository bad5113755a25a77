// One set-up of characters and pairing for every clip of a run, whether one clip or a batch:
// the target is read and its character built once; each distinct source skeleton gets its
// character, joint pairs, association and solver configuration once, and from then on they are
// only read, by any number of threads.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "character/character.h"
#include "io/animation_file.h"
#include "io/json/saved_character.h"
#include "road/match_rest.h"
#include "road/retarget.h"

namespace kelvara
{

// Every option that shapes a retarget, the same for one clip and for many.
struct RoadOptions
{
  std::string targetPath;          // any format read, or a saved character (.json)
  std::string targetSkeletonRoot;  // the node whose subtree is the target's skeleton ("" the skin's)
  std::string sourceCharacterPath; // a saved character standing for every source's skeleton
  std::string sourceSkeletonRoot;
  std::string animation;           // which animation of a source file; "" the first
  std::string mapPath;             // JSON {"target joint": "source joint"} over the keyword pairing
  std::string mapText;             // the same JSON given as text (mapPath then only names it in messages)
  std::string sourcePreset;        // "" the preset that fills the most body parts
  std::string targetPreset;
  double rootScale = 0.0; // <= 0: auto, the target's hip height over the source's
  bool rootMotion = true;
  bool matchRest = true;  // the target's rest turned to the source's first (match_rest.h)
  bool plantFeet = true;  // feet held on the ground during the source's contacts (plant_feet.h)

  friend bool operator==(const RoadOptions&, const RoadOptions&) = default;
};

// What went wrong and whose fault it was: the input's (a file, an option, a map) or the work's.
struct Problem
{
  bool badInput = false;
  std::string message;

  bool Set(bool isBadInput, std::string text)
  {
    badInput = isBadInput;
    message = std::move(text);
    return false;
  }
};

// A source skeleton's share of the run, prepared once.
struct SourceSide
{
  Skeleton skeleton; // the first clip's with this skeleton, or the saved character's
  Character character;
  PreparedRetarget prepared;
  RestMatch restMatch; // filled when the options match the rest
  Problem problem;     // a message: every clip of this skeleton fails with it
  const SourceSide* original = nullptr; // a worker's copy (Road::SideFor): the side it copies

  bool Ok() const { return problem.message.empty(); }
  // The side itself for a worker's copy of it, else this side.
  const SourceSide& Original() const { return original != nullptr ? *original : *this; }
};

class Road
{
public:
  explicit Road(RoadOptions options);
  ~Road();
  Road(const Road&) = delete;
  Road& operator=(const Road&) = delete;

  // Checks the presets, reads the target, the map and a saved source character, and builds the
  // target's character. The module must be loaded, and stay so until the road is gone.
  bool Setup(Problem& problem);
  // The same with the target already in memory (options.targetPath is not read).
  bool Setup(const AnimationFile& target, Problem& problem);

  const RoadOptions& Options() const { return _options; }
  const AnimationFile& Target() const { return _target; }
  const Character& TargetCharacter() const { return _targetCharacter; }
  const telvo::KelvaraHelperRef& Helper() const { return _helper; }

  // Reads a source clip as the options say (animation, skeleton root); a file without an
  // animation is bad input.
  bool ReadSource(const std::string& path, AnimationFile& out, Problem& problem) const;

  // The prepared side for clips of skeleton, made by the first caller that needs it while others
  // wait. Safe to call from several threads; the result lives as long as the road. Worker 0
  // gets the side itself, and each other worker of a batch a copy of it of its own, whose
  // prepared retarget has module objects of its own (PreparedRetarget::CopyWithOwnObjects):
  // workers running frames at the same time then touch no common reference counts. A copy that
  // cannot be made leaves the worker with the side itself.
  const SourceSide& SideFor(const Skeleton& skeleton, int worker = 0);

private:
  bool ReadShared(Problem& problem);
  bool BuildTarget(Problem& problem);
  void Prepare(SourceSide& side);
  const SourceSide& WorkerCopy(const SourceSide& side, int worker);

  RoadOptions _options;
  telvo::KelvaraHelperRef _helper;
  AnimationFile _target;
  SavedCharacter _savedTarget;
  Character _targetCharacter;
  SavedCharacter _savedSource;
  std::string _mapText;
  std::mutex _mutex;
  std::vector<std::unique_ptr<SourceSide>> _sides;
  std::map<std::pair<const SourceSide*, int>, std::unique_ptr<SourceSide>> _workerCopies;
};

// "expected a preset name (game, cmu, studio, generic), found "x"" when name is not empty and
// not a preset.
bool CheckPreset(const std::string& name, Problem& problem);

} // namespace kelvara
