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

namespace kelvara
{
namespace
{

namespace fs = std::filesystem;

// The writer's exact layout of a file with two roots, an end site, a position channel on a
// non-root joint and unusual rotation orders.
const char* const kCanonical = "HIERARCHY\n"
                               "ROOT Hips\n"
                               "{\n"
                               "\tOFFSET 0 0 0\n"
                               "\tCHANNELS 6 Xposition Yposition Zposition Zrotation Xrotation Yrotation\n"
                               "\tJOINT Spine\n"
                               "\t{\n"
                               "\t\tOFFSET 0 5.5 -0.001\n"
                               "\t\tCHANNELS 3 Yrotation Xrotation Zrotation\n"
                               "\t\tEnd Site\n"
                               "\t\t{\n"
                               "\t\t\tOFFSET 0 2 0\n"
                               "\t\t}\n"
                               "\t}\n"
                               "\tJOINT Leg\n"
                               "\t{\n"
                               "\t\tOFFSET 1 -2 0.25\n"
                               "\t\tCHANNELS 4 Yposition Xrotation Zrotation Yrotation\n"
                               "\t}\n"
                               "}\n"
                               "ROOT Prop\n"
                               "{\n"
                               "\tOFFSET 10 0 0\n"
                               "\tCHANNELS 2 Zrotation Xposition\n"
                               "}\n"
                               "MOTION\n"
                               "Frames: 2\n"
                               "Frame Time: 0.033333\n"
                               "1 2 0.5 5 0.001 -0.5 8 8 9 10 11 12 13 14 15\n"
                               "-1 -2 -3 -4 -5 -6 -7 -8 -9 -10 -11 -12 -13 -14 -15\n";

std::string Replace(std::string text, const std::string& from, const std::string& to)
{
  for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
    text.replace(at, from.size(), to);
  return text;
}

BvhFile Read(const std::string& text)
{
  BvhFile f;
  std::string error;
  EXPECT_TRUE(ReadBvhFromBuffer(text, "sample.bvh", f, error)) << error << "\n" << text;
  return f;
}

void ExpectSameFile(const BvhFile& a, const BvhFile& b)
{
  auto key = [](const BvhJoint& j) {
    return std::tie(j.name, j.parent, j.offset, j.channels, j.hasEndSite, j.endSiteOffset, j.firstChannel, j.line);
  };
  ASSERT_EQ(a.joints.size(), b.joints.size());
  for (std::size_t i = 0; i < a.joints.size(); ++i)
    EXPECT_TRUE(key(a.joints[i]) == key(b.joints[i])) << "joint " << a.joints[i].name;
  EXPECT_EQ(std::tie(a.frameCount, a.frameTime, a.channelCount), std::tie(b.frameCount, b.frameTime, b.channelCount));
  EXPECT_EQ(a.motion, b.motion);
}

// A fresh folder, removed with everything in it at the end of the test.
struct TempDir
{
  std::string path = ::mkdtemp((fs::temp_directory_path() / "bvh_test.XXXXXX").string().data());
  ~TempDir() { fs::remove_all(path); }
  std::vector<std::string> Entries() const
  {
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(path))
      names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }
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
  const BvhFile f = Read(quirky);
  std::string joints;
  for (const BvhJoint& j : f.joints)
    joints += j.name + " " + std::to_string(j.parent) + " line " + std::to_string(j.line) + " channel " +
              std::to_string(j.firstChannel) + (j.hasEndSite ? " end; " : "; ");
  // Leg is a sibling of Spine, not its child.
  EXPECT_EQ(joints, "Hips -1 line 2 channel 0; Spine 0 line 6 channel 6 end; Leg 0 line 15 channel 9; "
                    "Prop -1 line 21 channel 13; ");
  EXPECT_EQ(std::tie(f.path, f.channelCount, f.frameCount), std::make_tuple("sample.bvh", 15, 2));
  // Offsets, channels and every number are checked through the writer.
  std::string text;
  std::string error;
  ASSERT_TRUE(WriteBvhToString(f, text, error)) << error;
  EXPECT_EQ(text, kCanonical);

  for (const std::string& variant : {Replace(quirky, "\n", "\r\n"), Replace(quirky, "\n", " \r\n\t"),
                                     Replace(Replace(quirky, "\t", "    "), " ", " \t "),
                                     quirky.substr(0, quirky.size() - 1)})
    ExpectSameFile(f, Read(variant));
}

TEST(BvhRead, ErrorsNameTheLineAndTheToken)
{
  // Line 5 lists A's channels, 6 opens B, 8-9 are B's OFFSET and CHANNELS, 13-14 the frame
  // count and time, 15-16 the motion rows.
  const std::string base = "HIERARCHY\nROOT A\n{\n  OFFSET 0 0 0\n  CHANNELS 3 Zrotation Xrotation Yrotation\n"
                           "  JOINT B\n  {\n    OFFSET 0 1 0\n    CHANNELS 1 Xrotation\n  }\n}\n"
                           "MOTION\nFrames: 2\nFrame Time: 0.1\n1 2 3 4\n5 6 7 8\n";
  Read(base);
  const std::string head = "HIERARCHY\nROOT A\n{\nOFFSET 0 0 0\nCHANNELS 6 Xposition Yposition Zposition "
                           "Xrotation Yrotation Zrotation\n}\nMOTION\n";
  std::string many = "HIERARCHY\n";
  for (int i = 0; i <= kMaxBvhJoints; ++i)
    many += "ROOT J" + std::to_string(i) + " { OFFSET 0 0 0 }\n";
  auto edit = [&](const char* from, const std::string& to) { return Replace(base, from, to); };

  const std::pair<std::string, std::string> cases[] = {
    {"", "1: expected 'HIERARCHY', found end of file"},
    {base.substr(0, base.find("  }")), "9: expected JOINT, End Site or '}', found end of file"},
    // A short line is forgiven only as the last one (a file cut short), not in the middle.
    {edit("5 6 7 8", "5 6\n7 8"), "16: expected 4 numbers, found 2"},
    {edit("1 2 3 4", "1 2 3"), "15: expected 4 numbers, found 3"},
    {edit("5 6 7 8", "5 6 7 8 9"), "16: expected 4 numbers, found 5"},
    {edit("5 6 7 8", "5 6 7 x"), "16: expected a number, found 'x'"},
    {edit("Zrotation Xrotation Y", "Wrotation Xrotation Y"), "5: expected a channel name, found 'Wrotation'"},
    {edit("Zrotation Xrotation Y", "Zrotation Zrotation Y"),
     "5: expected a channel not listed before, found 'Zrotation'"},
    {edit("5 6 7 8", "5 6 7 8x"), "16: expected a number, found '8x'"},
    {edit("1 2 3 4", "1 nan 3 4"), "15: expected a number, found 'nan'"},
    {edit("1 2 3 4", "1 2 1e400 4"), "15: expected a number, found '1e400'"},
    {edit("OFFSET 0 1 0", "OFFSET 0 y 0"), "8: expected a number, found 'y'"},
    {edit("Frames: 2\n", ""), "13: expected 'Frames:', found 'Frame'"},
    {edit("Time: 0.1", "Time: 0"), "14: expected a positive frame time, found '0'"},
    {edit("Time: 0.1", "Time: 0.1 s"), "14: expected end of line, found 's'"},
    {edit("Frames: 2", "Frames: 2 3"), "13: expected end of line, found '3'"},
    // A missing value is not the end of the file when lines follow.
    {edit("Frames: 2", "Frames:"), "13: expected a frame count, found end of line"},
    {edit("Time: 0.1", "Time:"), "14: expected a frame time, found end of line"},
    {edit("MOTION\nFrames: 2\n", "MOTION Frames: 2\n"), "12: expected end of line, found 'Frames:'"},
    {edit("Frame Time: 0.1", "Frame: 0.1"), "14: expected 'Frame Time:', found ':'"},
    {edit("Frame Time: 0.1", "Frame Time 0.1"), "14: expected 'Frame Time:', found '0.1'"},
    {edit("Xrotation Yrotation", "Xrotation"), "6: expected 3 channel names, found 'JOINT'"},
    {edit("CHANNELS 1 Xrotation", "CHANNELS 1 Xrotation Yrotation"), "9: expected 1 channel name, found 'Yrotation'"},
    {edit("}\nMOTION", "MOTION"), "11: expected JOINT, End Site or '}', found 'MOTION'"},
    {edit("  {\n", "\n"), "8: expected '{', found 'OFFSET'"},
    {edit("JOINT B", "JOINT OFFSET"), "6: expected a joint name, found 'OFFSET'"},
    {edit("    OFFSET 0 1 0\n", "\n"), "10: expected OFFSET, found '}'"},
    {edit("}\n}", "End Site { OFFSET 0 0 0 }\nEnd Site\n}\n}"), "11: expected JOINT or '}', found 'End'"},
    {edit("5 6 7 8", std::string(100, 'q') + " 6 7"), "16: expected a number, found '" + std::string(40, 'q') + "...'"},
    // Declared sizes are bounded.
    {head + "Frames: 99999999999\nFrame Time: 1\n", "8: expected at most 10000000 frames, found '99999999999'"},
    {head + "Frames: -1\nFrame Time: 1\n", "8: expected a frame count, found '-1'"},
    {Replace(head, "CHANNELS 6", "CHANNELS 7"), "5: expected at most 6 channels, found '7'"},
    {many, "10002: expected at most 10000 joints, found 'J10000'"},
  };
  for (const auto& [text, message] : cases)
  {
    BvhFile f;
    std::string error;
    EXPECT_FALSE(ReadBvhFromBuffer(text, "c.bvh", f, error));
    EXPECT_EQ(error, "c.bvh:" + message);
  }
}

// The two-joint file of the error cases with its motion section replaced: "Frames:" on line 13,
// "Frame Time:" on 14, rows from 15.
std::string WithMotion(const std::string& section)
{
  return "HIERARCHY\nROOT A\n{\n  OFFSET 0 0 0\n  CHANNELS 3 Zrotation Xrotation Yrotation\n"
         "  JOINT B\n  {\n    OFFSET 0 1 0\n    CHANNELS 1 Xrotation\n  }\n}\nMOTION\n" +
         section;
}

TEST(BvhRead, MotionOfAnotherLengthThanDeclaredIsReadWithAWarning)
{
  const std::string extra = "\" declares; the declared frames are read, the rest is left out";
  struct Case
  {
    std::string motion;
    std::vector<double> values; // what is read
    std::vector<std::string> warnings;
  };
  const Case cases[] = {
    // One line too many, as some exporters write: the declared frames, one warning at the extra line.
    {"Frames: 2\nFrame Time: 0.1\n1 2 3 4\n5 6 7 8\n9 9 9 9\n",
     {1, 2, 3, 4, 5, 6, 7, 8},
     {"c.bvh:17: 1 line after the 2 frames \"Frames:" + extra}},
    // Several, blank lines between them not counted, whatever they hold.
    {"Frames: 1\nFrame Time: 0.1\n1 2 3 4\n\n5 6 7 8\n  \nnot motion\n9\n",
     {1, 2, 3, 4},
     {"c.bvh:17: 3 lines after the 1 frames \"Frames:" + extra}},
    {"Frames: 0\nFrame Time: 0.1\n1 2 3 4\n", {}, {"c.bvh:15: 1 line after the 0 frames \"Frames:" + extra}},
    // Fewer lines than declared: the whole frames there are.
    {"Frames: 3\nFrame Time: 0.1\n1 2 3 4\n5 6 7 8\n",
     {1, 2, 3, 4, 5, 6, 7, 8},
     {"c.bvh:13: \"Frames:\" declares 3 frames, the file holds 2 complete ones; 2 read"}},
    // The largest count allowed is not reserved up front: a short file costs what it holds.
    {"Frames: 10000000\nFrame Time: 0.1\n1 2 3 4\n5 6 7 8\n",
     {1, 2, 3, 4, 5, 6, 7, 8},
     {"c.bvh:13: \"Frames:\" declares 10000000 frames, the file holds 2 complete ones; 2 read"}},
    // A file cut off within its last line, with or without the newline, blank lines after it.
    {"Frames: 3\nFrame Time: 0.1\n1 2 3 4\n5 6 7 8\n9 9",
     {1, 2, 3, 4, 5, 6, 7, 8},
     {"c.bvh:17: the last frame line is incomplete (2 of 4 numbers); it is left out",
      "c.bvh:13: \"Frames:\" declares 3 frames, the file holds 2 complete ones; 2 read"}},
    {"Frames: 3\nFrame Time: 0.1\n1 2 3 4\n5 6 7 8\n9 9 9.\n\n  \n",
     {1, 2, 3, 4, 5, 6, 7, 8},
     {"c.bvh:17: the last frame line is incomplete (3 of 4 numbers); it is left out",
      "c.bvh:13: \"Frames:\" declares 3 frames, the file holds 2 complete ones; 2 read"}},
    // Cut within a number: what is left of it is not a number, but the file still ends there.
    {"Frames: 3\nFrame Time: 0.1\n1 2 3 4\n5 6 7 8\n9 9 -",
     {1, 2, 3, 4, 5, 6, 7, 8},
     {"c.bvh:17: the last frame line is incomplete (2 of 4 numbers); it is left out",
      "c.bvh:13: \"Frames:\" declares 3 frames, the file holds 2 complete ones; 2 read"}},
  };
  for (const Case& c : cases)
  {
    SCOPED_TRACE(c.motion);
    BvhFile f;
    std::string error;
    if (!ReadBvhFromBuffer(WithMotion(c.motion), "c.bvh", f, error))
    {
      ADD_FAILURE() << error;
      continue;
    }
    EXPECT_EQ(f.motion, c.values);
    EXPECT_EQ(f.frameCount, static_cast<int>(c.values.size() / 4));
    EXPECT_EQ(f.warnings, c.warnings);
    EXPECT_LT(f.motion.capacity(), 1000u);
    std::string why;
    EXPECT_TRUE(ValidateBvh(f, why)) << why;
  }
  // A file that agrees with itself has nothing to warn about.
  EXPECT_TRUE(Read(kCanonical).warnings.empty());
}

TEST(BvhRead, ExporterSpellingsOfTheMotionHeaderAreAccepted)
{
  const BvhFile plain = Read(WithMotion("Frames: 2\nFrame Time: 0.1\n1 2 3 4\n5 6 7 8\n"));
  const char* const headers[] = {
    "Frames:2\nFrame Time:0.1\n",           "FRAMES :\t2\nframe   time :  0.1\n",
    "Frames:    2\r\nFrame Time:\t0.1  \r\n", "\tFrames: 2\n\n  Frame\tTime: 0.1\n",
    "frames: +2\nFrameTime: 0.1\n",
  };
  for (const char* header : headers)
  {
    SCOPED_TRACE(header);
    const BvhFile f = Read(WithMotion(std::string(header) + "1 2 3 4\n5 6 7 8\n"));
    ExpectSameFile(plain, f);
    EXPECT_TRUE(f.warnings.empty());
  }
  // Line numbers in warnings count CRLF lines and blank lines alike.
  BvhFile f;
  std::string error;
  ASSERT_TRUE(ReadBvhFromBuffer(Replace(WithMotion("Frames: 1\nFrame Time: 0.1\n1 2 3 4\n\n5 6 7 8"), "\n", "\r\n"),
                                "crlf.bvh", f, error))
    << error;
  EXPECT_EQ(f.warnings, (std::vector<std::string>{"crlf.bvh:17: 1 line after the 1 frames \"Frames:\" declares; the "
                                                  "declared frames are read, the rest is left out"}));
}

TEST(BvhRead, HierarchyPartStopsAtMotion)
{
  // A target's motion is never used: whatever follows MOTION is not read, however broken.
  for (const std::string& motion : {std::string("Frames: 2\nFrame Time: 0.1\n1 2 3 4\n5 6 7 8\n"),
                                    std::string("Frames: many\nnot a motion section\n"), std::string()})
  {
    BvhFile f;
    std::string error;
    ASSERT_TRUE(ReadBvhFromBuffer(WithMotion(motion), "h.bvh", f, error, BvhPart::kHierarchy)) << error;
    ASSERT_EQ(f.joints.size(), 2u);
    EXPECT_EQ(std::tie(f.joints[1].name, f.joints[1].line, f.joints[1].firstChannel, f.channelCount, f.frameCount),
              std::make_tuple("B", 6, 3, 4, 0));
    EXPECT_TRUE(f.motion.empty());
    EXPECT_TRUE(f.warnings.empty());
  }
  // The hierarchy itself is still checked.
  BvhFile f;
  std::string error;
  EXPECT_FALSE(ReadBvhFromBuffer(Replace(WithMotion(""), "OFFSET 0 1 0", "OFFSET 0 1"), "h.bvh", f, error,
                                 BvhPart::kHierarchy));
  EXPECT_EQ(error, "h.bvh:9: expected a number, found 'CHANNELS'");
}

TEST(BvhWrite, NumbersAreShortestAndReadBackBitForBit)
{
  // Captured values (a few decimals) come out as the shortest conversion writes them
  // ("-17.3198", not "-17.319800000000001"); extremes survive exactly.
  BvhFile f = Read("HIERARCHY\nROOT r { OFFSET 0 0 0 CHANNELS 1 Xrotation } MOTION\nFrames: 0\nFrame Time: 0.01\n");
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
  ExpectSameFile(f, Read(text));
}

TEST(BvhWrite, RejectsModelsItCannotWriteFaithfully)
{
  const BvhFile good = Read(kCanonical);
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
    EXPECT_TRUE(dir.Entries().empty());
  }
}

TEST(BvhWrite, FileIsReplacedAtomicallyAndFailuresLeaveNothingBehind)
{
  const BvhFile f = Read(kCanonical);
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
  EXPECT_EQ(dir.Entries(), (std::vector<std::string>{"out.bvh", "taken.bvh"}));
  BvhFile back;
  EXPECT_FALSE(ReadBvh(missing, back, error));
  EXPECT_EQ(error, "cannot read '" + missing + "': No such file or directory");
}

TEST(BvhRealData, CmuClipReadsAndRoundTrips)
{
  const std::string clip = "/usr/share/assimp/models/BVH/01_01.bvh";
  if (!fs::exists(clip))
    GTEST_SKIP() << clip << " is not installed";
  const BvhFile f = Read(std::string(std::istreambuf_iterator<char>(std::ifstream(clip).rdbuf()), {}));
  EXPECT_EQ(std::tie(f.frameCount, f.channelCount, f.frameTime), std::make_tuple(2752, 96, 0.0083333));
  ASSERT_EQ(f.joints.size(), 31u);
  ASSERT_EQ(f.motion.size(), 2752u * 96u);
  EXPECT_EQ(std::tie(f.joints[1].name, f.joints[1].line), std::make_tuple("LHipJoint", 6));
  EXPECT_EQ(std::tie(f.joints[30].name, f.joints[30].firstChannel), std::make_tuple("RThumb", 93));
  EXPECT_EQ(std::count_if(f.joints.begin(), f.joints.end(), [](const BvhJoint& j) { return j.hasEndSite; }), 7);
  EXPECT_EQ(std::make_tuple(f.motion[0], f.motion[2], f.motion.back()), std::make_tuple(9.3722, -17.3198, -0.9244));
  EXPECT_TRUE(f.warnings.empty());

  TempDir dir;
  std::string error;
  ASSERT_TRUE(WriteBvh(dir.path + "/01_01.bvh", f, error)) << error;
  BvhFile back;
  ASSERT_TRUE(ReadBvh(dir.path + "/01_01.bvh", back, error)) << error;
  ExpectSameFile(f, back);
}

TEST(BvhRealData, BoxingClipWithOneLineMoreThanDeclaredReadsTheDeclaredFrames)
{
  // "Frames: 3069" on line 128, motion rows on lines 130 to 3199: one row more than declared.
  const std::string clip = "/usr/share/assimp/models/BVH/Boxing_Toes.bvh";
  if (!fs::exists(clip))
    GTEST_SKIP() << clip << " is not installed";
  BvhFile f;
  std::string error;
  ASSERT_TRUE(ReadBvh(clip, f, error)) << error;
  EXPECT_EQ(std::tie(f.frameCount, f.channelCount, f.frameTime), std::make_tuple(3069, 66, 0.01));
  ASSERT_EQ(f.joints.size(), 21u);
  ASSERT_EQ(f.motion.size(), 3069u * 66u);
  // The first row's first value and line 3198's last: the extra row is not read.
  EXPECT_EQ(std::make_tuple(f.motion[0], f.motion.back()), std::make_tuple(-6.101614, -1.329659));
  EXPECT_EQ(f.warnings, (std::vector<std::string>{clip + ":3199: 1 line after the 3069 frames \"Frames:\" declares; "
                                                         "the declared frames are read, the rest is left out"}));

  BvhFile hierarchy;
  ASSERT_TRUE(ReadBvh(clip, hierarchy, error, BvhPart::kHierarchy)) << error;
  EXPECT_EQ(std::tie(hierarchy.frameCount, hierarchy.channelCount), std::make_tuple(0, 66));
  EXPECT_EQ(hierarchy.joints.size(), 21u);
  EXPECT_TRUE(hierarchy.warnings.empty());
}

} // namespace
} // namespace kelvara
