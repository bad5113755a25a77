// The viewer page as users get it: written by the kelvara command, opened from disk in headless
// Chromium by check_view.mjs, and compared with what kelvara's own readers say the files hold.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "anim/pose.h"
#include "demo/demo.h"
#include "demo/demo_character.h"
#include "io/animation_file.h"
#include "output/view_page.h"
#include "support/run_app.h"

namespace kelvara
{
namespace
{

using nlohmann::json;

const std::string kCmuWalk = "/usr/share/assimp/models/BVH/01_01.bvh";
const std::string kCmuClip = "/usr/share/assimp/models/BVH/01_03.bvh";
const std::string kSkinnedCharacter = "/usr/share/assimp/models/X/BCN_Epileptic.X";
constexpr const char* kBase64Digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

AnimationFile Read(const std::string& path, bool lastAnimation)
{
  ReadRequest request;
  request.lastAnimation = lastAnimation;
  AnimationFile file;
  std::string error;
  EXPECT_TRUE(ReadAnimationFile(path, request, file, error)) << error;
  return file;
}

// World positions of every joint at frames, as kelvara's readers and poses put them.
json Positions(const AnimationFile& file, const std::vector<int>& frames)
{
  json out = json::object();
  for (int frame : frames)
  {
    WorldPose pose;
    EXPECT_TRUE(pose.Evaluate(file.skeleton, &file.clip, frame));
    json& joints = out[std::to_string(frame)];
    for (std::size_t j = 0; j < pose.Size(); ++j)
      joints[file.skeleton.joints[j].name] = {pose[j].off.x, pose[j].off.y, pose[j].off.z};
  }
  return out;
}

// Pairs whose target joint ends a bone (has a parent), the ones a figure colours.
json ColouredPairs(const json& pairs, const Skeleton& target)
{
  json out = json::array();
  for (const json& pair : pairs)
  {
    const int t = target.FindJoint(pair[1].get<std::string>());
    if (t >= 0 && target.joints[static_cast<std::size_t>(t)].parent >= 0)
      out.push_back(pair);
  }
  return out;
}

json ReportBones(const json& clip)
{
  json out = json::array();
  for (const json& bone : clip["bones"])
    out.push_back({{"sourceChild", bone["sourceChild"]}, {"targetChild", bone["targetChild"]},
                   {"mean", bone["meanAngleDegrees"]}, {"max", bone["maxAngleDegrees"]}});
  return out;
}

// The data a page carries, read back from its JSON element.
json PageData(const std::string& html)
{
  const std::string open = "<script type=\"application/json\" id=\"kelvara-data\">";
  const std::size_t from = html.find(open);
  const std::size_t to = html.find("</script>", from);
  if (from == std::string::npos || to == std::string::npos)
    return json();
  return json::parse(html.substr(from + open.size(), to - from - open.size()));
}

class ViewPageTest : public kelvara_test::AppFolderTest
{
protected:
  // Runs the browser check of page against expected; its figures go to the test's output.
  void CheckInBrowser(const std::string& page, const json& expected)
  {
    const std::filesystem::path expectedPath = _dir / "expected.json";
    std::ofstream(expectedPath) << expected.dump();
    const std::string command = "'" KELVARA_NODE "' '" KELVARA_VIEW_CHECK "' '" + (_dir / page).string() + "' '" +
                                expectedPath.string() + "' >'" + (_dir / "check.txt").string() + "' 2>&1";
    const int status = std::system(command.c_str());
    const std::string said = kelvara_test::ReadWholeFile(_dir / "check.txt");
    EXPECT_EQ(status, 0) << said;
    std::printf("%s: %s", page.c_str(), said.c_str());
  }

  json ReadJson(const std::string& name) const { return json::parse(kelvara_test::ReadWholeFile(_dir / name)); }
};

TEST_F(ViewPageTest, DemoPagePlaysTheWalkAndTheSkinnedCharacter)
{
  const kelvara_test::AppOutcome run = Kelvara("demo -o demo_out.bvh");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("wrote demo_out.html"), std::string::npos) << run.out;
  const json data = PageData(kelvara_test::ReadWholeFile(_dir / "demo_out.html"));
  ASSERT_TRUE(data.is_object());
  EXPECT_EQ(data["result"]["format"], "glb");
  EXPECT_EQ(data["source"]["format"], "bvh");

  const AnimationFile result = Read((_dir / "demo_out.glb").string(), true);
  json pairs = json::array();
  for (const auto& [target, source] : DemoExpectedPairs())
    if (!source.empty())
      pairs.push_back({source, target});
  const std::vector<int> frames = {10, 100};
  json expected = {{"frames", frames}, {"tolerance", 1e-4}, {"resultMesh", true},
                   {"result", Positions(result, frames)}, {"source", Positions(DemoSourceFile(240), frames)},
                   {"pairs", ColouredPairs(pairs, result.skeleton)}, {"reportBones", ReportBones(data["report"])},
                   {"contacts", data["report"]["contacts"]}};
  EXPECT_FALSE(data["report"]["contacts"].empty()); // a walk puts its feet down
  CheckInBrowser("demo_out.html", expected);
}

TEST_F(ViewPageTest, SkinnedGltfCharacterWithTheReportTintAndFootContacts)
{
  kelvara_test::AppOutcome run = Kelvara("retarget '" + kCmuWalk + "' --target '" + kSkinnedCharacter +
                                         "' -o walk.gltf --report walk.json --view walk.html -q");
  ASSERT_EQ(run.status, 0) << run.err;
  json report = ReadJson("walk.json");
  json& clip = report["clips"][0];
  // The page written in the same run carries the same report.
  const json inRun = PageData(kelvara_test::ReadWholeFile(_dir / "walk.html"));
  EXPECT_EQ(inRun["report"]["bones"], clip["bones"]);

  // The report's ground contacts of the walk; the page marks them on its timeline. The same report
  // without them must still open (older reports have none).
  const json contacts = clip["contacts"];
  ASSERT_TRUE(contacts.is_array());
  ASSERT_GE(contacts.size(), 2u) << contacts;
  std::ofstream(_dir / "contacts.json") << report.dump(2);
  clip.erase("contacts");
  std::ofstream(_dir / "no_contacts.json") << report.dump(2);
  run = Kelvara("view '" + kCmuWalk + "' --result walk.gltf --report no_contacts.json -o no_contacts.html");
  ASSERT_EQ(run.status, 0) << run.err;
  run = Kelvara("view '" + kCmuWalk + "' --result walk.gltf --report contacts.json -o view.html");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(PageData(kelvara_test::ReadWholeFile(_dir / "view.html"))["result"]["format"], "gltf"); // as written

  const AnimationFile result = Read((_dir / "walk.gltf").string(), true);
  json pairs = json::array();
  for (const json& pair : clip["pairs"])
    pairs.push_back({pair["source"], pair["target"]});
  const std::vector<int> frames = {100, 1500};
  // CMU units are about 2.5 cm: 1e-4 of them is far below anything on screen, above float32's
  // rounding along a 6-joint chain.
  json expected = {{"frames", frames}, {"tolerance", 1e-4}, {"resultMesh", true},
                   {"result", Positions(result, frames)}, {"source", Positions(Read(kCmuWalk, false), frames)},
                   {"pairs", ColouredPairs(pairs, result.skeleton)}, {"reportBones", ReportBones(clip)},
                   {"contacts", contacts}};
  CheckInBrowser("view.html", expected);

  // Without contacts nothing is marked, and nothing else changes.
  expected.erase("contacts");
  CheckInBrowser("no_contacts.html", expected);
}

TEST_F(ViewPageTest, BvhResultWithoutReportShowsBonesInThePairsOfTheRetarget)
{
  ASSERT_EQ(Kelvara("demo --write-target target.bvh").status, 0);
  kelvara_test::AppOutcome run =
    Kelvara("retarget '" + kCmuClip + "' --target target.bvh -o out.bvh --report out.json -q");
  ASSERT_EQ(run.status, 0) << run.err;
  run = Kelvara("view '" + kCmuClip + "' --result out.bvh -o page.html");
  ASSERT_EQ(run.status, 0) << run.err;
  const json data = PageData(kelvara_test::ReadWholeFile(_dir / "page.html"));
  EXPECT_TRUE(data["report"].is_null());
  EXPECT_EQ(data["result"]["format"], "bvh");
  EXPECT_EQ(data["result"]["data"], kelvara_test::ReadWholeFile(_dir / "out.bvh"));

  // The page pairs the files as the retarget did, in the same order (so in the same colours).
  const json report = ReadJson("out.json");
  json reportPairs = json::array();
  for (const json& pair : report["clips"][0]["pairs"])
    reportPairs.push_back({pair["source"], pair["target"]});
  json pagePairs = json::array();
  for (const json& pair : data["pairs"])
    pagePairs.push_back({pair["source"], pair["target"]});
  EXPECT_EQ(pagePairs, reportPairs);

  const AnimationFile result = Read((_dir / "out.bvh").string(), false);
  const std::vector<int> frames = {0, 200};
  json expected = {{"frames", frames}, {"tolerance", 1e-4}, {"resultMesh", false},
                   {"result", Positions(result, frames)}, {"pairs", ColouredPairs(pagePairs, result.skeleton)}};
  CheckInBrowser("page.html", expected);
}

TEST_F(ViewPageTest, BadInputEndsWithAMessageAndNoPage)
{
  ASSERT_EQ(Kelvara("demo -o demo_out.bvh").status, 0);
  const std::string view = "view demo_out.bvh --result demo_out.glb ";

  kelvara_test::AppOutcome run = Kelvara(view + "-o page.png");
  EXPECT_EQ(run.status, 2);
  EXPECT_NE(run.err.find("expected an .html file"), std::string::npos) << run.err;

  run = Kelvara("view demo_out.bvh --result missing.glb -o page.html");
  EXPECT_EQ(run.status, 2);
  EXPECT_NE(run.err.find("missing.glb"), std::string::npos) << run.err;

  std::ofstream(_dir / "broken.json") << "{\n  \"clips\": [\n    {\"pairs\": [}\n  ]\n}\n";
  run = Kelvara(view + "-o page.html --report broken.json");
  EXPECT_EQ(run.status, 2);
  EXPECT_NE(run.err.find("broken.json:3:"), std::string::npos) << run.err;

  // A report of another run: its pairs name joints these files do not have.
  std::ofstream(_dir / "other.json")
    << R"({"clips": [{"output": "demo_out.glb", "pairs": [{"target": "thigh_l", "source": "LeftThigh"}]}]})";
  run = Kelvara(view + "-o page.html --report other.json");
  EXPECT_EQ(run.status, 2);
  EXPECT_NE(run.err.find("other.json"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("LeftThigh"), std::string::npos) << run.err;

  run = Kelvara("retarget demo_out.bvh demo_out.bvh --target demo_out.glb -o outs/ --view page.html");
  EXPECT_EQ(run.status, 2);
  EXPECT_NE(run.err.find("--view"), std::string::npos) << run.err;
  EXPECT_FALSE(std::filesystem::exists(_dir / "page.html"));
}

TEST(ViewPage, NamesCannotEndTheDataElement)
{
  ViewPage page;
  page.frames = 1;
  page.frameTime = 1.0 / 30.0;
  page.source = {"a.bvh", "bvh", "HIERARCHY </script><script>alert(1)</script> <!--", -1};
  page.result = {"b.glb", "glb", std::string("glTF\0\x01\xff", 7), -1};
  page.pairs = {{"</script>", "<!-- x"}};
  const std::string html = ViewPageHtml(page);
  // The page's own two elements close, nothing else does.
  std::size_t closes = 0;
  for (std::size_t at = html.find("</script>"); at != std::string::npos; at = html.find("</script>", at + 1))
    ++closes;
  EXPECT_EQ(closes, 2u);
  const json data = PageData(html);
  EXPECT_EQ(data["source"]["data"], page.source.bytes);
  EXPECT_EQ(data["pairs"][0]["source"], "</script>");
  EXPECT_EQ(data["result"]["data"], "Z2xURgAB/w==");
}

TEST_F(ViewPageTest, FilesABrowserCannotReadAreEmbeddedAsGlb)
{
  // A .gltf whose buffer lies beside it, and an X file: both become a GLB of what was read.
  const AnimationFile walk = Read(kCmuWalk, false);
  std::string error;
  WriteRequest request;
  ASSERT_TRUE(WriteAnimationFile((_dir / "walk.gltf").string(), walk, walk.clip, request, error)) << error;
  std::string text = kelvara_test::ReadWholeFile(_dir / "walk.gltf");
  ViewFile embedded;
  const AnimationFile whole = Read((_dir / "walk.gltf").string(), true);
  ASSERT_TRUE(EmbedClipFile((_dir / "walk.gltf").string(), whole, true, embedded, error)) << error;
  EXPECT_EQ(embedded.format, "gltf"); // our writer keeps buffers inside: taken as it is
  EXPECT_EQ(embedded.bytes, text);

  json document = json::parse(text);
  const std::string uri = document["buffers"][0]["uri"];
  // Move the buffer into a file of its own.
  std::string bytes;
  unsigned bits = 0;
  int count = 0;
  for (const char c : uri.substr(uri.find(',') + 1))
  {
    const std::size_t digit = std::string_view(kBase64Digits).find(c);
    if (digit == std::string_view::npos)
      break;
    bits = bits << 6 | static_cast<unsigned>(digit);
    if ((count += 6) >= 8)
      bytes += static_cast<char>((bits >> (count -= 8)) & 0xff);
  }
  std::ofstream(_dir / "walk.bin", std::ios::binary) << bytes;
  document["buffers"][0]["uri"] = "walk.bin";
  std::ofstream(_dir / "split.gltf") << document.dump();
  const AnimationFile split = Read((_dir / "split.gltf").string(), true);
  ASSERT_TRUE(EmbedClipFile((_dir / "split.gltf").string(), split, true, embedded, error)) << error;
  EXPECT_EQ(embedded.format, "glb");
  EXPECT_EQ(embedded.bytes.substr(0, 4), "glTF");

  const AnimationFile x = Read(kSkinnedCharacter, false);
  ASSERT_TRUE(EmbedClipFile(kSkinnedCharacter, x, false, embedded, error)) << error;
  EXPECT_EQ(embedded.format, "glb");
  EXPECT_EQ(embedded.name, "BCN_Epileptic.X");
}

} // namespace
} // namespace kelvara
