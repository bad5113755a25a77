// Batches through the built kelvara command, how they name their outputs, and the one set-up of
// characters they share with single runs.
#include "road/batch.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include <nlohmann/json.hpp>

#include "demo/demo.h"
#include "demo/demo_character.h"
#include "io/bvh/bvh_file.h"
#include "road/clip_run.h"
#include "support/loaded_module.h"
#include "support/run_app.h"

namespace kelvara
{
namespace
{

using kelvara_test::AppOutcome;
using kelvara_test::ReadWholeFile;

class BatchTest : public kelvara_test::AppFolderTest
{
protected:
  // The demo target, and the demo walk as a.bvh and c.bvh.
  void SetUp() override
  {
    AppFolderTest::SetUp();
    std::string error;
    ASSERT_TRUE(WriteBvh((_dir / "target.bvh").string(), MakeDemoTarget(), error)) << error;
    ASSERT_TRUE(WriteBvhToString(MakeDemoSource(), _walk, error)) << error;
    std::ofstream(_dir / "a.bvh") << _walk;
    std::ofstream(_dir / "c.bvh") << _walk;
  }

  // Whether every one of the files (in the test's folder) holds text.
  bool All(std::initializer_list<const char*> files, const std::string& text) const
  {
    return std::all_of(files.begin(), files.end(), [&](const char* f) { return ReadWholeFile(_dir / f) == text; });
  }

  std::string _walk;
};

// One thread or two, a batch writes what a single-clip run writes, byte for byte.
TEST_F(BatchTest, BrokenClipIsReportedAndTheOthersAreWrittenAsAlone)
{
  std::ofstream(_dir / "b.bvh") << _walk.substr(0, 200);
  ASSERT_EQ(Kelvara("retarget a.bvh --target target.bvh -o single.bvh -q").status, 0);
  const std::string single = ReadWholeFile(_dir / "single.bvh");
  ASSERT_FALSE(single.empty());

  const AppOutcome run = Kelvara("retarget a.bvh b.bvh c.bvh --target target.bvh -o out --jobs 2 --report r.json");
  EXPECT_EQ(run.status, 2) << run.err;
  EXPECT_TRUE(All({"out/a.bvh", "out/c.bvh"}, single));
  EXPECT_FALSE(std::filesystem::exists(_dir / "out/b.bvh"));
  // Standard error is no terminal here: a plain line per written clip.
  for (const char* line : {"kelvara: b.bvh:", "expected", "a.bvh -> out/a.bvh: 240 frames"})
    EXPECT_NE(run.err.find(line), std::string::npos) << line << "\n" << run.err;
  for (const char* line : {"summary: 3 clips, 2 written, 1 failed; 480 frames", "  failed: b.bvh\n", " failed: b.bvh:"})
    EXPECT_NE(run.out.find(line), std::string::npos) << line << "\n" << run.out;

  // The report keeps the order of the sources, whichever thread finished first.
  const nlohmann::json report = nlohmann::json::parse(ReadWholeFile(_dir / "r.json"));
  ASSERT_EQ(report["clips"].size(), 3u);
  EXPECT_TRUE(report["clips"][1]["status"] == "failed" && report["clips"][2]["source"] == "c.bvh");
  // Two sources of one name would write one file: refused before anything is written.
  EXPECT_EQ(Kelvara("retarget a.bvh ./a.bvh --target target.bvh -o out2").status, 2);
  EXPECT_FALSE(std::filesystem::exists(_dir / "out2"));
}

// Sources read ahead, and taken longest first by several jobs, change nothing a user sees but the
// order of the progress lines: the same files, the same failures, the summary and the report in
// the order of the sources, whatever the jobs and threads.
TEST_F(BatchTest, ReadAheadKeepsWhatIsWrittenAndReportedInTheSourcesOrder)
{
  std::string error;
  for (const auto& [name, frames] : {std::pair{"long.bvh", 480}, std::pair{"short.bvh", 60}})
  {
    std::string text;
    ASSERT_TRUE(WriteBvhToString(MakeDemoSource(frames), text, error)) << error;
    std::ofstream(_dir / name) << text;
  }
  std::ofstream(_dir / "b.bvh") << _walk.substr(0, 200);
  const std::vector<std::string> clips = {"a.bvh", "b.bvh", "long.bvh", "missing.bvh", "short.bvh", "c.bvh"};
  std::string sources;
  for (const std::string& clip : clips)
    sources += clip + " ";
  // Everything a run says but its progress lines and its timings.
  struct Said
  {
    std::multiset<std::string> errors;
    std::string summary;
    std::vector<std::string> reported;
  };
  auto said = [&](const std::string& out, const std::string& options) {
    const AppOutcome run = Kelvara("retarget " + sources + "--target target.bvh -o " + out + " --report " + out +
                                   ".json " + options);
    EXPECT_EQ(run.status, 2) << options << "\n" << run.err;
    Said s;
    std::istringstream lines(run.err);
    for (std::string line; std::getline(lines, line);)
      if (line.rfind("kelvara: [", 0) != 0)
        s.errors.insert(line);
    s.summary = run.out.substr(0, run.out.find(" frames in ")) + run.out.substr(run.out.find("\n"));
    const nlohmann::json report = nlohmann::json::parse(ReadWholeFile(_dir / (out + ".json")));
    for (const nlohmann::json& clip : report["clips"])
      s.reported.push_back(clip["source"].get<std::string>() + " " + clip["status"].get<std::string>());
    return s;
  };
  const Said alone = said("one", "--jobs 1 --threads 1");
  EXPECT_EQ(alone.errors.size(), 2u);
  EXPECT_EQ(alone.summary.substr(0, alone.summary.find(';')), "summary: 6 clips, 4 written, 2 failed");
  EXPECT_NE(alone.summary.find("\n  failed: b.bvh\n  failed: missing.bvh\n"), std::string::npos) << alone.summary;
  ASSERT_EQ(alone.reported.size(), clips.size());
  for (std::size_t i = 0; i < clips.size(); ++i)
    EXPECT_EQ(alone.reported[i].substr(0, clips[i].size()), clips[i]);
  for (const char* options : {"--jobs 1 --threads 2", "--jobs 2 --threads 1", "--jobs 3"})
  {
    SCOPED_TRACE(options);
    const Said ahead = said("ahead", options);
    EXPECT_EQ(ahead.errors, alone.errors);
    EXPECT_EQ(ahead.summary, alone.summary);
    EXPECT_EQ(ahead.reported, alone.reported);
    for (const char* written : {"a.bvh", "long.bvh", "short.bvh", "c.bvh"})
      EXPECT_EQ(ReadWholeFile(_dir / "ahead" / written), ReadWholeFile(_dir / "one" / written)) << written;
    for (const char* failed : {"b.bvh", "missing.bvh"})
      EXPECT_FALSE(std::filesystem::exists(_dir / "ahead" / failed)) << failed;
    std::filesystem::remove_all(_dir / "ahead");
  }
}

// A batch reads its characters as a single run does: a missing saved source stops both alike before
// anything is written; saved characters give what the files they were saved from give.
TEST_F(BatchTest, SavedCharactersServeBatchesAsSingleRuns)
{
  const AppOutcome single = Kelvara("retarget a.bvh --target target.bvh --source-character missing.json -o one.bvh");
  const AppOutcome batch =
    Kelvara("retarget a.bvh c.bvh --target target.bvh --source-character missing.json -o out --jobs 2");
  EXPECT_TRUE(single.status == 2 && batch.status == 2) << single.err << batch.err;
  EXPECT_EQ(batch.err, "kelvara: cannot read 'missing.json'\n");
  EXPECT_EQ(single.err, batch.err);
  // Nothing beside the three inputs and the two captured streams.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(_dir), {}), 5);

  ASSERT_EQ(Kelvara("retarget a.bvh --target target.bvh -o plain.bvh -q").status, 0);
  const std::string plain = ReadWholeFile(_dir / "plain.bvh");
  ASSERT_FALSE(plain.empty());
  ASSERT_EQ(Kelvara("character target.bvh -o target.json").status, 0);
  ASSERT_EQ(Kelvara("character a.bvh -o walk.json").status, 0);
  for (const char* run : {"retarget a.bvh c.bvh --target target.json -o onto --jobs 2",
                          "retarget a.bvh --target target.json --source-character walk.json -o saved.bvh -q",
                          "retarget a.bvh c.bvh --target target.json --source-character walk.json -o out --jobs 2"})
    ASSERT_EQ(Kelvara(run).status, 0) << run;
  EXPECT_TRUE(All({"onto/a.bvh", "onto/c.bvh", "saved.bvh", "out/a.bvh", "out/c.bvh"}, plain));

  // The saved source stands for every clip's skeleton: a clip of another skeleton fails alone.
  const AppOutcome mixed =
    Kelvara("retarget a.bvh target.bvh --target target.json --source-character walk.json -o mixed --jobs 2");
  EXPECT_EQ(mixed.status, 2) << mixed.err;
  EXPECT_TRUE(All({"mixed/a.bvh"}, plain));
  EXPECT_FALSE(std::filesystem::exists(_dir / "mixed/target.bvh"));
  EXPECT_NE(mixed.err.find("kelvara: target.bvh: expected the 22 joints of walk.json, found 21\n"), std::string::npos)
    << mixed.err;
}

// Each worker runs on a copy of the side of its skeleton, yet the side's warnings come once for
// the skeleton, not once per worker.
TEST_F(BatchTest, SideWarningsOnceWhateverTheWorkers)
{
  std::string swapped = _walk;
  for (const auto& [from, to] : {std::pair{"Left", "@"}, std::pair{"Right", "Left"}, std::pair{"@", "Right"}})
    for (std::size_t at = swapped.find(from); at != std::string::npos; at = swapped.find(from, at + 1))
      swapped.replace(at, std::strlen(from), to);
  for (const char* name : {"s1.bvh", "s2.bvh", "s3.bvh", "s4.bvh"})
    std::ofstream(_dir / name) << swapped;
  for (const char* jobs : {"1", "2", "4"})
  {
    const AppOutcome run =
      Kelvara(std::string("retarget s1.bvh s2.bvh s3.bvh s4.bvh --target target.bvh -o out --jobs ") + jobs);
    ASSERT_EQ(run.status, 0) << run.err;
    std::multiset<std::string> warnings;
    std::istringstream lines(run.err);
    for (std::string line; std::getline(lines, line);)
      if (line.rfind("kelvara: warning: ", 0) == 0)
        warnings.insert(line);
    EXPECT_EQ(warnings.size(), 2u) << "--jobs " << jobs << "\n" << run.err; // the arms and the legs
    for (const char* limb : {"arm", "leg"})
      EXPECT_EQ(warnings.count("kelvara: warning: source: left and right " + std::string(limb) +
                               " swapped: the joints named left lie on the character's right in the rest pose"),
                1u)
        << limb << ", --jobs " << jobs;
  }
}

TEST(BatchNames, OutputPathsAndCollisions)
{
  EXPECT_EQ(BatchOutputPath("out", "clips/walk.fast.bvh", ".bvh"), "out/walk.fast.bvh");
  EXPECT_EQ(BatchOutputPath("out/", "run.BVH", ".bvh"), "out/run.bvh");
  EXPECT_EQ(BatchOutputPath("out", "clips/walk.fbx", ".glb"), "out/walk.glb");
  BatchSettings settings;
  settings.outDir = "out";
  settings.sources = {"a/walk.bvh", "b/run.bvh"};
  EXPECT_EQ(OutputCollision(settings), "");
  // Sources of other formats collide by their names alone.
  settings.sources.push_back("c/walk.glb");
  EXPECT_EQ(OutputCollision(settings),
            "expected sources of distinct names, found a/walk.bvh and c/walk.glb both writing out/walk.bvh");
}

// The outputs' format: the one asked for, else the target's own when it can be written.
TEST(BatchNames, OutputFormatByOptionOrTarget)
{
  std::string extension;
  std::string error;
  ASSERT_TRUE(BatchExtension("gltf", "hero.bvh", extension, error));
  EXPECT_EQ(extension, ".gltf");
  const std::pair<const char*, const char*> targets[] = {
    {"hero.GLB", ".glb"}, {"hero.gltf", ".gltf"}, {"saved.json", ".bvh"}, {"hero.X", ".glb"}, {"walk.bvh", ".bvh"}};
  for (const auto& [target, expected] : targets)
  {
    ASSERT_TRUE(BatchExtension("", target, extension, error));
    EXPECT_EQ(extension, expected) << target;
  }
  EXPECT_FALSE(BatchExtension("fbx", "hero.glb", extension, error));
  EXPECT_EQ(error, "expected --output-format bvh, glb or gltf, found \"fbx\"");
}

// A clip kept in memory (no output path) is the clip that would be written, measured the same
// way, and nothing reaches the disk.
TEST_F(BatchTest, AClipKeptInMemoryIsTheOneWritten)
{
  kelvara_test::LoadedModuleForTests();
  Road road{RoadOptions()};
  Problem problem;
  ASSERT_TRUE(road.Setup(DemoTargetFile(), problem)) << problem.message;
  ClipRun written;
  written.source = DemoSourceFile(12);
  written.outputPath = (_dir / "written.bvh").string();
  written.measure = true;
  ClipRun kept;
  kept.source = written.source;
  kept.measure = true;
  ASSERT_TRUE(RunClip(road, written)) << written.problem.message;
  ASSERT_TRUE(RunClip(road, kept)) << kept.problem.message;
  EXPECT_EQ(kept.output.rotations, written.output.rotations);
  EXPECT_EQ(kept.output.frameCount, 12);
  ASSERT_EQ(kept.clip.bones.size(), written.clip.bones.size());
  ASSERT_FALSE(kept.clip.bones.empty());
  // The written file holds six decimals; the clip in memory all of them.
  for (std::size_t b = 0; b < kept.clip.bones.size(); ++b)
    EXPECT_NEAR(kept.clip.bones[b].meanDegrees, written.clip.bones[b].meanDegrees, 1e-3);
  EXPECT_TRUE(kept.clip.ok);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(_dir), {}), 4); // target, a, c, written
}

// Clips of one skeleton share one prepared side, whatever their length; the smallest change of a
// rest offset makes another.
TEST(BatchRoad, ClipsOfOneSkeletonShareOnePreparedSide)
{
  kelvara_test::LoadedModuleForTests();
  Road road{RoadOptions()};
  Problem problem;
  ASSERT_TRUE(road.Setup(DemoTargetFile(), problem)) << problem.message;
  const SourceSide& walk = road.SideFor(DemoSourceFile(10).skeleton);
  ASSERT_TRUE(walk.Ok()) << walk.problem.message;
  EXPECT_EQ(&road.SideFor(DemoSourceFile(20).skeleton), &walk);
  Skeleton moved = DemoSourceFile(10).skeleton;
  moved.joints[3].translation.y += 1e-9;
  const SourceSide& other = road.SideFor(moved);
  EXPECT_NE(&other, &walk);
  EXPECT_EQ(&road.SideFor(moved), &other);
}

// The workers of a batch run on copies of a side whose module objects, down to the ids the frames
// copy, are their own (no reference count is shared), and which retarget every frame as the side
// itself does: with the body parts' pairing and with a map, which makes a new association.
TEST(BatchRoad, WorkersCopiesOfASideHaveObjectsOfTheirOwnAndRetargetAlike)
{
  kelvara_test::LoadedModuleForTests();
  const AnimationFile walk = DemoSourceFile(30);
  for (const char* map : {"", R"({"thigh_l": "RightUpLeg", "thigh_r": "LeftUpLeg"})"})
  {
    SCOPED_TRACE(map);
    RoadOptions options;
    options.mapText = map;
    Road road{options};
    Problem problem;
    ASSERT_TRUE(road.Setup(DemoTargetFile(), problem)) << problem.message;
    const SourceSide& side = road.SideFor(walk.skeleton);
    ASSERT_TRUE(side.Ok()) << side.problem.message;
    const SourceSide& copy = road.SideFor(walk.skeleton, 1);
    ASSERT_NE(&copy, &side);
    EXPECT_EQ(&copy.Original(), &side);
    EXPECT_EQ(&road.SideFor(walk.skeleton, 0), &side);
    EXPECT_EQ(&road.SideFor(walk.skeleton, 1), &copy);
    EXPECT_NE(&road.SideFor(walk.skeleton, 2), &copy);
    const PreparedRetarget& shared = side.prepared;
    const PreparedRetarget& own = copy.prepared;
    EXPECT_EQ(std::count(shared.pairOrigin.begin(), shared.pairOrigin.end(), "map"), *map != 0 ? 2 : 0);

    EXPECT_FALSE(own.Configuration().IsSameObject(shared.Configuration()));
    const telvo::CharacterDefinition sharedSource = shared.Configuration()->GetSourceCharacter().GetValue();
    const telvo::CharacterDefinition ownSource = own.Configuration()->GetSourceCharacter().GetValue();
    ASSERT_FALSE(ownSource.IsSameObject(sharedSource));
    const auto& sharedRest = sharedSource->GetSkeletonRestPose()->GetNodeTransformArray();
    const auto& ownRest = ownSource->GetSkeletonRestPose()->GetNodeTransformArray();
    ASSERT_EQ(ownRest.GetCount(), sharedRest.GetCount());
    for (telvo::Int i = 0; i < ownRest.GetCount(); ++i)
    {
      EXPECT_FALSE(ownRest[i].IsSameObject(sharedRest[i])) << i;
      EXPECT_TRUE(ownRest[i]->GetUuid() == sharedRest[i]->GetUuid()) << i;
      EXPECT_FALSE(ownRest[i]->GetUuid().IsSameObject(sharedRest[i]->GetUuid())) << i;
    }
    int pairs = 0;
    for (const telvo::Uuid& joint : side.character.uuids)
    {
      telvo::Result<telvo::Uuid> sharedPartner = shared.Association()->GetAssociatedUuid(joint);
      telvo::Result<telvo::Uuid> ownPartner = own.Association()->GetAssociatedUuid(joint);
      ASSERT_EQ(ownPartner.IsOk(), sharedPartner.IsOk());
      if (ownPartner.IsError())
        continue;
      ++pairs;
      EXPECT_TRUE(ownPartner.GetValue() == sharedPartner.GetValue());
      EXPECT_FALSE(ownPartner.GetValue().IsSameObject(sharedPartner.GetValue()));
    }
    EXPECT_GE(pairs, 15);

    Clip fromShared;
    Clip fromOwn;
    ClipRetarget first;
    ClipRetarget second;
    std::string error;
    ASSERT_TRUE(first.Setup(shared, error) && first.Run(walk.clip, fromShared, error)) << error;
    ASSERT_TRUE(second.Setup(own, error) && second.Run(walk.clip, fromOwn, error)) << error;
    EXPECT_EQ(fromOwn.rotations, fromShared.rotations);
    EXPECT_EQ(fromOwn.rootTranslation, fromShared.rootTranslation);
  }
}

} // namespace
} // namespace kelvara
