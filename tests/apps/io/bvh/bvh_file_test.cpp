#include "io/bvh/bvh_file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "support/bvh_texts.h"

namespace kelvara
{
namespace
{

namespace fs = std::filesystem;
using kelvara_test::ExpectSameBvh;
using kelvara_test::ReadBvhText;

// The writer's exact layout of the shared hierarchy with two frames.
const std::string kCanonical = kelvara_test::kBvhHierarchy +
                               "Frames: 2\nFrame Time: 0.033333\n1 2 0.5 5 0.001 -0.5 8 8 9 10 11 12 13 14 15\n"
                               "-1 -2 -3 -4 -5 -6 -7 -8 -9 -10 -11 -12 -13 -14 -15\n";

std::string Replace(std::string text, const std::string& from, const std::string& to)
{
  for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
    text.replace(at, from.size(), to);
  return text;
}

// A two-joint file (A with 3 channels, B with 1) and the given motion section: "Frames:" on
// line 13, "Frame Time:" on 14, rows from 15.
std::string WithMotion(const std::string& section)
{
  return "HIERARCHY\nROOT A\n{\n  OFFSET 0 0 0\n  CHANNELS 3 Zrotation Xrotation Yrotation\n"
         "  JOINT B\n  {\n    OFFSET 0 1 0\n    CHANNELS 1 Xrotation\n  }\n}\nMOTION\n" +
         section;
}

std::string ReadError(const std::string& text, const char* name = "c.bvh", BvhPart part = BvhPart::kWhole)
{
  BvhFile f;
  std::string error;
  EXPECT_FALSE(ReadBvhFromBuffer(text, name, f, error, part)) << text;
  return error;
}

// A fresh folder, removed with everything in it at the end of the test.
struct TempDir
{
  std::string path = ::mkdtemp((fs::temp_directory_path() / "bvh_test.XXXXXX").string().data());
  ~TempDir() { fs::remove_all(path); }
};

TEST(BvhReadWrite, AnyLayoutReadsBackInTheWritersLayout)
{
  // Every number form strtod takes, CHANNELS before OFFSET, odd indentation, a blank line.
  std::string quirky = kCanonical;
  const std::pair<const char*, const char*> quirks[] = {
    {"\t\tOFFSET 1 -2 0.25\n\t\tCHANNELS 4 Yposition Xrotation Zrotation Yrotation\n",
     "\t\tCHANNELS 4 Yposition Xrotation Zrotation Yrotation\n\t\tOFFSET 1 -2 .25\n"},
    {"-0.001", "-1e-3"}, {"\tOFFSET 10", "  OFFSET 10"}, {"\n-1 -2", "\n\n-1 -2"},
    {"1 2 0.5 5 0.001 -0.5 8 ", "1 +2 .5 5. 1e-3 -0.5 0x1p3 "}};
  for (const auto& [from, to] : quirks)
    quirky = Replace(quirky, from, to);
  const BvhFile f = ReadBvhText(quirky);
  std::string joints;
  for (const BvhJoint& j : f.joints)
    joints += j.name + " " + std::to_string(j.parent) + " line " + std::to_string(j.line) + " channel " +
              std::to_string(j.firstChannel) + (j.hasEndSite ? " end; " : "; ");
  // Leg is a sibling of Spine, not its child.
  EXPECT_EQ(joints, "Hips -1 line 2 channel 0; Spine 0 line 6 channel 6 end; Leg 0 line 15 channel 9; "
                    "Prop -1 line 21 channel 13; ");
  EXPECT_EQ(std::tie(f.path, f.channelCount, f.frameCount), std::make_tuple("sample.bvh", 15, 2));
  EXPECT_TRUE(f.warnings.empty());
  // Offsets, channels and every number are checked through the writer.
  std::string text;
  std::string error;
  ASSERT_TRUE(WriteBvhToString(f, text, error)) << error;
  EXPECT_EQ(text, kCanonical);

  // Line ends, blanks, no final newline, and the motion header as exporters spell it.
  std::vector<std::string> variants = {Replace(quirky, "\n", "\r\n"), Replace(quirky, "\n", " \r\n\t"),
                                       Replace(Replace(quirky, "\t", "    "), " ", " \t "),
                                       quirky.substr(0, quirky.size() - 1)};
  for (const char* header : {"Frames:2\nFrame Time:0.033333\n", "FRAMES :\t2\nframe   time :  0.033333\n",
                             "Frames:    2\r\nFrame Time:\t0.033333  \r\n", "\tFrames: 2\n\n  Frame\tTime: 0.033333\n",
                             "frames: +2\nFrameTime: 0.033333\n"})
    variants.push_back(Replace(quirky, "Frames: 2\nFrame Time: 0.033333\n", header));
  for (const std::string& variant : variants)
  {
    SCOPED_TRACE(variant.substr(variant.find("MOTION")));
    const BvhFile g = ReadBvhText(variant);
    ExpectSameBvh(f, g);
    EXPECT_TRUE(g.warnings.empty());
  }
}

TEST(BvhRead, ErrorsNameTheLineAndTheToken)
{
  // Line 5 lists A's channels, 6 opens B, 8-9 are B's OFFSET and CHANNELS.
  const std::string base = WithMotion("Frames: 2\nFrame Time: 0.1\n1 2 3 4\n5 6 7 8\n");
  ReadBvhText(base);
  std::string many = "HIERARCHY\n";
  for (int i = 0; i <= kMaxBvhJoints; ++i)
    many += "ROOT J" + std::to_string(i) + " { OFFSET 0 0 0 }\n";
  auto edit = [&](const char* from, const std::string& to) { return Replace(base, from, to); };

  const std::pair<std::string, std::string> cases[] = {
    {"", "1: expected 'HIERARCHY', found end of file"},
    {base.substr(0, base.find("  }")), "9: expected JOINT, End Site or '}', found end of file"},
    // A short line is forgiven only as the last one (a file cut short), not in the middle.
    {edit("5 6 7 8", "5 6\n7 8"), "16: expected 4 numbers, found 2"},
    {edit("5 6 7 8", "5 6 7 8 9"), "16: expected 4 numbers, found 5"},
    {edit("5 6 7 8", "5 6 7 8x"), "16: expected a number, found '8x'"},
    {edit("1 2 3 4", "1 nan 3 4"), "15: expected a number, found 'nan'"},
    {edit("1 2 3 4", "1 2 1e400 4"), "15: expected a number, found '1e400'"},
    {edit("OFFSET 0 1 0", "OFFSET 0 y 0"), "8: expected a number, found 'y'"},
    {edit("Zrotation Xrotation Y", "Wrotation Xrotation Y"), "5: expected a channel name, found 'Wrotation'"},
    {edit("Zrotation Xrotation Y", "Zrotation Zrotation Y"),
     "5: expected a channel not listed before, found 'Zrotation'"},
    {edit("Xrotation Yrotation", "Xrotation"), "6: expected 3 channel names, found 'JOINT'"},
    {edit("CHANNELS 1 Xrotation", "CHANNELS 1 Xrotation Yrotation"), "9: expected 1 channel name, found 'Yrotation'"},
    {edit("Frames: 2\n", ""), "13: expected 'Frames:', found 'Frame'"},
    {edit("Frame Time: 0.1", "Frame Time 0.1"), "14: expected 'Frame Time:', found '0.1'"},
    {edit("Time: 0.1", "Time: 0"), "14: expected a positive frame time, found '0'"},
    {edit("Time: 0.1", "Time: 0.1 s"), "14: expected end of line, found 's'"},
    {edit("MOTION\nFrames: 2\n", "MOTION Frames: 2\n"), "12: expected end of line, found 'Frames:'"},
    // A missing value is not the end of the file when lines follow.
    {edit("Frames: 2", "Frames:"), "13: expected a frame count, found end of line"},
    {edit("Time: 0.1", "Time:"), "14: expected a frame time, found end of line"},
    {edit("  {\n", "\n"), "8: expected '{', found 'OFFSET'"},
    {edit("JOINT B", "JOINT OFFSET"), "6: expected a joint name, found 'OFFSET'"},
    {edit("    OFFSET 0 1 0\n", "\n"), "10: expected OFFSET, found '}'"},
    {edit("}\n}", "End Site { OFFSET 0 0 0 }\nEnd Site\n}\n}"), "11: expected JOINT or '}', found 'End'"},
    {edit("5 6 7 8", std::string(100, 'q') + " 6 7"), "16: expected a number, found '" + std::string(40, 'q') + "...'"},
    // Declared sizes are bounded.
    {edit("Frames: 2", "Frames: 99999999999"), "13: expected at most 10000000 frames, found '99999999999'"},
    {edit("Frames: 2", "Frames: -1"), "13: expected a frame count, found '-1'"},
    {edit("CHANNELS 3 Zrotation", "CHANNELS 7 Zrotation"), "5: expected at most 6 channels, found '7'"},
    {many, "10002: expected at most 10000 joints, found 'J10000'"},
  };
  for (const auto& [text, message] : cases)
    EXPECT_EQ(ReadError(text), "c.bvh:" + message);
}

TEST(BvhRead, MotionOfAnotherLengthThanDeclaredIsReadWithAWarning)
{
  const auto motion = [](const char* frames, const char* rows) {
    return WithMotion(std::string("Frames: ") + frames + "\nFrame Time: 0.1\n1 2 3 4\n" + rows);
  };
  const auto after = [](int line, const std::string& lines, int frames) {
    return "c.bvh:" + std::to_string(line) + ": " + lines + " after the " + std::to_string(frames) +
           " frames \"Frames:\" declares; the declared frames are read, the rest is left out";
  };
  const auto fewer = [](const std::string& frames) {
    return "c.bvh:13: \"Frames:\" declares " + frames + " frames, the file holds 2 complete ones; 2 read";
  };
  const auto cut = [](int numbers) {
    return "c.bvh:17: the last frame line is incomplete (" + std::to_string(numbers) + " of 4 numbers); it is left out";
  };
  const std::vector<double> two = {1, 2, 3, 4, 5, 6, 7, 8};
  const std::tuple<std::string, std::vector<double>, std::vector<std::string>> cases[] = {
    // One line too many, as some exporters write: the declared frames, one warning at the extra line.
    {motion("2", "5 6 7 8\n9 9 9 9\n"), two, {after(17, "1 line", 2)}},
    // Several, blank lines between them not counted, whatever they hold.
    {motion("1", "\n5 6 7 8\n  \nnot motion\n9\n"), {1, 2, 3, 4}, {after(17, "3 lines", 1)}},
    {motion("0", ""), {}, {after(15, "1 line", 0)}},
    // Line numbers count CRLF lines and blank lines alike.
    {Replace(motion("1", "\n5 6 7 8"), "\n", "\r\n"), {1, 2, 3, 4}, {after(17, "1 line", 1)}},
    // Fewer lines than declared: the whole frames there are. The largest count allowed is not
    // reserved up front: a short file costs what it holds.
    {motion("3", "5 6 7 8\n"), two, {fewer("3")}},
    {motion("10000000", "5 6 7 8\n"), two, {fewer("10000000")}},
    // Cut off within the last line: without the newline, with blank lines after it, within a number.
    {motion("3", "5 6 7 8\n9 9"), two, {cut(2), fewer("3")}},
    {motion("3", "5 6 7 8\n9 9 9.\n\n  \n"), two, {cut(3), fewer("3")}},
    {motion("3", "5 6 7 8\n9 9 -"), two, {cut(2), fewer("3")}},
  };
  for (const auto& [text, values, warnings] : cases)
  {
    SCOPED_TRACE(text);
    const BvhFile f = ReadBvhText(text, "c.bvh");
    EXPECT_EQ(f.motion, values);
    EXPECT_EQ(f.frameCount, static_cast<int>(values.size() / 4));
    EXPECT_EQ(f.warnings, warnings);
    EXPECT_LT(f.motion.capacity(), 1000u);
    std::string why;
    EXPECT_TRUE(ValidateBvh(f, why)) << why;
  }
}

// Long motion sections read on several threads give what one thread gives, faults included:
// the first faulty line in the file is the one reported, wherever the shares begin.
TEST(BvhRead, ThreadsReadTheSameFramesAndFaults)
{
  std::mt19937 random(5);
  std::uniform_int_distribution<int> value(-900, 900);
  std::vector<std::string> rows;
  for (int f = 0; f < 2000; ++f)
    rows.push_back(std::to_string(value(random) / 10.0) + " " + std::to_string(value(random)) + " 0.5 " +
                   std::to_string(f));
  auto file = [&](const std::vector<std::string>& lines, int declared) {
    std::string section = "Frames: " + std::to_string(declared) + "\nFrame Time: 0.01\n";
    for (const std::string& line : lines)
      section += line + "\n";
    return WithMotion(section);
  };
  auto with = [&](std::initializer_list<std::pair<int, std::string>> changes) {
    std::vector<std::string> lines = rows;
    for (const auto& [row, text] : changes)
      lines[static_cast<std::size_t>(row)] = text;
    return lines;
  };
  std::vector<std::string> cut = rows;
  cut.back() = "1 2"; // cut short in its last frame
  std::vector<std::string> blanks = rows;
  blanks.insert(blanks.begin() + 1200, {"", "   \t"});
  const std::string texts[] = {
    file(rows, 2000),
    file(rows, 1500),                                              // lines after the declared frames
    file(rows, 2500),                                              // fewer frames than declared
    file(cut, 2000),                                               // a last frame cut short
    file(blanks, 2000),                                            // blank lines count as lines
    file(with({{1700, "1 2 x 4"}}), 2000),                         // a broken number late in the file
    file(with({{600, "1 2 3 4 5"}, {1700, "1 2 x 4"}}), 2000),     // the earlier of two faults
    file(with({{1999, "1 2 3 4 5"}, {300, "1 2"}}), 2000),         // a short frame that is not the last
    file(with({{1999, "1 2"}}), 1999) + "7 7 7 7\n",               // short, then lines beyond the count
  };
  for (const std::string& text : texts)
  {
    BvhFile one;
    std::string oneError;
    const bool oneOk = ReadBvhFromBuffer(text, "t.bvh", one, oneError, BvhPart::kWhole, 1);
    for (int threads : {2, 3, 8})
    {
      BvhFile many;
      std::string manyError;
      ASSERT_EQ(ReadBvhFromBuffer(text, "t.bvh", many, manyError, BvhPart::kWhole, threads), oneOk);
      EXPECT_EQ(manyError, oneError);
      if (!oneOk)
        continue;
      EXPECT_EQ(many.frameCount, one.frameCount);
      EXPECT_EQ(many.motion, one.motion);
      EXPECT_EQ(many.warnings, one.warnings);
    }
  }
  // The faults above are found where they are.
  BvhFile f;
  std::string error;
  EXPECT_FALSE(ReadBvhFromBuffer(texts[6], "t.bvh", f, error, BvhPart::kWhole, 4));
  EXPECT_EQ(error, "t.bvh:615: expected 4 numbers, found 5");
  EXPECT_FALSE(ReadBvhFromBuffer(texts[7], "t.bvh", f, error, BvhPart::kWhole, 4));
  EXPECT_EQ(error, "t.bvh:315: expected 4 numbers, found 2");
  ASSERT_TRUE(ReadBvhFromBuffer(texts[3], "t.bvh", f, error, BvhPart::kWhole, 4)) << error;
  EXPECT_EQ(f.frameCount, 1999);
}

TEST(BvhRead, HierarchyPartStopsAtMotion)
{
  // A target's motion is never used: whatever follows MOTION is not read, however broken.
  for (const std::string motion : {"Frames: 2\nFrame Time: 0.1\n1 2 3 4\n5 6 7 8\n",
                                   "Frames: many\nnot a motion section\n", ""})
  {
    BvhFile f;
    std::string error;
    ASSERT_TRUE(ReadBvhFromBuffer(WithMotion(motion), "h.bvh", f, error, BvhPart::kHierarchy)) << error;
    ASSERT_EQ(f.joints.size(), 2u);
    EXPECT_EQ(std::tie(f.joints[1].name, f.joints[1].line, f.joints[1].firstChannel, f.channelCount, f.frameCount),
              std::make_tuple("B", 6, 3, 4, 0));
    EXPECT_TRUE(f.motion.empty() && f.warnings.empty());
  }
  // The hierarchy itself is still checked.
  EXPECT_EQ(ReadError(Replace(WithMotion(""), "OFFSET 0 1 0", "OFFSET 0 1"), "h.bvh", BvhPart::kHierarchy),
            "h.bvh:9: expected a number, found 'CHANNELS'");
}

TEST(BvhWrite, NumbersAreShortestAndReadBackBitForBit)
{
  // Captured values (a few decimals) come out as the shortest conversion writes them
  // ("-17.3198", not "-17.319800000000001"); extremes survive exactly.
  BvhFile f =
    ReadBvhText("HIERARCHY\nROOT r { OFFSET 0 0 0 CHANNELS 1 Xrotation } MOTION\nFrames: 0\nFrame Time: 0.01\n");
  std::mt19937_64 rng(7);
  std::uniform_real_distribution<double> degrees(-1000, 1000);
  std::string rows = "Frame Time: 0.01\n";
  for (int decimals = 0; decimals <= 12; ++decimals)
    for (int i = 0; i < 500; ++i)
    {
      f.motion.push_back(std::round(degrees(rng) * std::pow(10.0, decimals)) / std::pow(10.0, decimals));
      char buf[64];
      rows.append(buf, std::to_chars(buf, buf + sizeof buf, f.motion.back(), std::chars_format::fixed).ptr) += '\n';
    }
  f.motion.insert(f.motion.end(), {0.0, -0.0, 1e-5, 1e-7, 1e20, 5e-324, 1.7976931348623157e308, -2.2e-308});
  f.frameCount = static_cast<int>(f.motion.size());
  std::string text;
  std::string error;
  ASSERT_TRUE(WriteBvhToString(f, text, error)) << error;
  EXPECT_NE(text.find(rows + "0\n-0\n0.00001\n1e-07\n1e+20\n"), std::string::npos);
  ExpectSameBvh(f, ReadBvhText(text));
}

TEST(BvhWrite, RejectsModelsItCannotWriteFaithfully)
{
  const BvhFile good = ReadBvhText(kCanonical);
  const std::pair<const char*, void (*)(BvhFile&)> cases[] = {
    {"no joints", [](BvhFile& f) { f.joints.clear(); }},
    {"name with a blank", [](BvhFile& f) { f.joints[1].name = "Left Leg"; }},
    {"name the reader takes for a keyword", [](BvhFile& f) { f.joints[2].name = "End"; }},
    // Prop would hang under Spine, whose block Leg has already closed.
    {"not depth first", [](BvhFile& f) { f.joints[3].parent = 1; }},
    {"channel twice", [](BvhFile& f) { f.joints[1].channels[2] = Channel::Yrotation; }},
    {"first channel off", [](BvhFile& f) { f.joints[2].firstChannel = 8; }},
    {"motion size off", [](BvhFile& f) { f.motion.pop_back(); }},
    {"NaN value", [](BvhFile& f) { f.motion[4] = std::nan(""); }},
    {"infinite offset", [](BvhFile& f) { f.joints[0].endSiteOffset.y = HUGE_VAL; }},
  };
  TempDir dir;
  const std::string out = dir.path + "/out.bvh";
  std::string error;
  EXPECT_TRUE(ValidateBvh(good, error)) << error;
  for (const auto& [what, spoil] : cases)
  {
    SCOPED_TRACE(what);
    BvhFile f = good;
    spoil(f);
    std::string text;
    EXPECT_FALSE(ValidateBvh(f, error));
    EXPECT_FALSE(WriteBvhToString(f, text, error));
    EXPECT_FALSE(WriteBvh(out, f, error));
    EXPECT_EQ(error.rfind("cannot write '" + out + "': ", 0), 0u) << error;
    EXPECT_TRUE(fs::is_empty(dir.path));
  }
}

TEST(BvhWrite, FileIsReplacedAtomicallyAndFailuresLeaveNothingBehind)
{
  const BvhFile f = ReadBvhText(kCanonical);
  TempDir dir;
  const std::string out = dir.path + "/out.bvh";
  std::ofstream(out) << "an older, longer file that must be replaced entirely " << std::string(5000, 'x');
  std::string error;
  ASSERT_TRUE(WriteBvh(out, f, error)) << error;
  std::ifstream in(out, std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), kCanonical);

  // The rename fails on an existing folder: the written temporary must be removed again.
  const std::string folder = dir.path + "/taken.bvh";
  fs::create_directory(folder);
  EXPECT_FALSE(WriteBvh(folder, f, error));
  EXPECT_EQ(error.rfind("cannot write '" + folder + "': ", 0), 0u) << error;
  EXPECT_TRUE(fs::is_empty(folder));
  const std::string missing = dir.path + "/no/such/out.bvh";
  EXPECT_FALSE(WriteBvh(missing, f, error));
  EXPECT_EQ(error, "cannot write '" + missing + "': cannot create a file in '" + dir.path +
                     "/no/such': No such file or directory");
  EXPECT_FALSE(WriteBvh(dir.path + "/", f, error));
  EXPECT_EQ(error, "cannot write '" + dir.path + "/': not a file name");
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.path), {}), 2) << "a temporary file was left behind";
  BvhFile back;
  EXPECT_FALSE(ReadBvh(missing, back, error));
  EXPECT_EQ(error, "cannot read '" + missing + "': No such file or directory");
}

TEST(BvhRealData, CapturedClipsReadTheDeclaredFramesAndRoundTrip)
{
  // Boxing_Toes.bvh declares "Frames: 3069" on line 128 and holds motion rows on lines 130 to
  // 3199: one more than declared.
  const std::string folder = "/usr/share/assimp/models/BVH/";
  const std::string extra = folder + "Boxing_Toes.bvh:3199: 1 line after the 3069 frames \"Frames:\" declares; "
                                     "the declared frames are read, the rest is left out";
  const std::tuple<std::string, int, int, double, std::size_t, double, double, std::vector<std::string>> clips[] = {
    {"01_01.bvh", 2752, 96, 0.0083333, 31, 9.3722, -0.9244, {}},
    {"Boxing_Toes.bvh", 3069, 66, 0.01, 21, -6.101614, -1.329659, {extra}},
  };
  for (const auto& [name, frames, channels, frameTime, joints, first, last, warnings] : clips)
  {
    const std::string clip = folder + name;
    if (!fs::exists(clip))
      GTEST_SKIP() << clip << " is not installed";
    SCOPED_TRACE(clip);
    BvhFile f;
    BvhFile hierarchy;
    std::string error;
    ASSERT_TRUE(ReadBvh(clip, f, error)) << error;
    EXPECT_EQ(std::tie(f.frameCount, f.channelCount, f.frameTime, f.warnings),
              std::tie(frames, channels, frameTime, warnings));
    ASSERT_EQ(f.joints.size(), joints);
    ASSERT_EQ(f.motion.size(), static_cast<std::size_t>(frames * channels));
    // The first row's first value and the last declared row's last: an extra row is not read.
    EXPECT_EQ(std::make_tuple(f.motion.front(), f.motion.back()), std::make_tuple(first, last));
    ASSERT_TRUE(ReadBvh(clip, hierarchy, error, BvhPart::kHierarchy)) << error;
    EXPECT_EQ(std::make_tuple(hierarchy.frameCount, hierarchy.channelCount, hierarchy.joints.size()),
              std::make_tuple(0, channels, joints));
    EXPECT_TRUE(hierarchy.warnings.empty());

    TempDir dir;
    BvhFile back;
    ASSERT_TRUE(WriteBvh(dir.path + "/" + name, f, error)) << error;
    ASSERT_TRUE(ReadBvh(dir.path + "/" + name, back, error)) << error;
    ExpectSameBvh(f, back);
  }
}

} // namespace
} // namespace kelvara
