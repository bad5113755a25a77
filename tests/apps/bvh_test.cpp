#include "bvh.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

namespace kelvara
{
namespace
{

namespace fs = std::filesystem;

const char* const kCmuClip = "/usr/share/assimp/models/BVH/01_01.bvh";

// Two roots, end sites, a position channel on a non-root joint, unusual rotation orders and
// every number form strtod accepts.
const char* const kSample = "HIERARCHY\n"
                            "ROOT Hips\n"
                            "{\n"
                            "\tOFFSET 0 0 0\n"
                            "\tCHANNELS 6 Xposition Yposition Zposition Zrotation Xrotation Yrotation\n"
                            "\tJOINT Spine\n"
                            "\t{\n"
                            "\t\tOFFSET 0 5.5 -1e-3\n"
                            "\t\tCHANNELS 3 Yrotation Xrotation Zrotation\n"
                            "\t\tEnd Site\n"
                            "\t\t{\n"
                            "\t\t\tOFFSET 0 2 0\n"
                            "\t\t}\n"
                            "\t}\n"
                            "\tJOINT Leg\n"
                            "\t{\n"
                            "\t\tCHANNELS 4 Yposition Xrotation Zrotation Yrotation\n"
                            "\t\tOFFSET 1 -2 .25\n"
                            "\t}\n"
                            "}\n"
                            "ROOT Prop\n"
                            "{\n"
                            "  OFFSET 10 0 0\n"
                            "  CHANNELS 2 Zrotation Xposition\n"
                            "}\n"
                            "MOTION\n"
                            "Frames: 2\n"
                            "Frame Time: 0.033333\n"
                            "1 +2 .5 5. 1e-3 -0.5 0x1p3 8 9 10 11 12 13 14 15\n"
                            "\n"
                            "-1 -2 -3 -4 -5 -6 -7 -8 -9 -10 -11 -12 -13 -14 -15\n";

std::string Replace(std::string text, const std::string& from, const std::string& to)
{
  std::size_t at = 0;
  while ((at = text.find(from, at)) != std::string::npos)
  {
    text.replace(at, from.size(), to);
    at += to.size();
  }
  return text;
}

void ExpectSameFile(const BvhFile& a, const BvhFile& b)
{
  ASSERT_EQ(a.joints.size(), b.joints.size());
  for (std::size_t i = 0; i < a.joints.size(); ++i)
  {
    SCOPED_TRACE("joint " + a.joints[i].name);
    EXPECT_EQ(a.joints[i].name, b.joints[i].name);
    EXPECT_EQ(a.joints[i].parent, b.joints[i].parent);
    EXPECT_EQ(a.joints[i].offset, b.joints[i].offset);
    EXPECT_EQ(a.joints[i].channels, b.joints[i].channels);
    EXPECT_EQ(a.joints[i].hasEndSite, b.joints[i].hasEndSite);
    EXPECT_EQ(a.joints[i].endSiteOffset, b.joints[i].endSiteOffset);
    EXPECT_EQ(a.joints[i].firstChannel, b.joints[i].firstChannel);
  }
  EXPECT_EQ(a.frameCount, b.frameCount);
  EXPECT_EQ(a.frameTime, b.frameTime);
  EXPECT_EQ(a.channelCount, b.channelCount);
  EXPECT_EQ(a.motion, b.motion); // the writer's numbers read back to the same doubles
}

// Fresh folder per test, removed afterwards.
class TempDir
{
public:
  TempDir()
  {
    std::string pattern = (fs::temp_directory_path() / "bvh_test.XXXXXX").string();
    path_ = ::mkdtemp(pattern.data());
  }
  ~TempDir()
  {
    std::error_code ignored;
    fs::permissions(path_, fs::perms::owner_all, ignored);
    fs::remove_all(path_, ignored);
  }
  const std::string& Path() const { return path_; }
  std::vector<std::string> Entries() const
  {
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(path_))
      names.push_back(e.path().filename().string());
    return names;
  }

private:
  std::string path_;
};

TEST(BvhRead, SampleHierarchyAndMotion)
{
  BvhFile f;
  std::string error;
  ASSERT_TRUE(ReadBvhFromBuffer(kSample, "sample.bvh", f, error)) << error;
  EXPECT_EQ(f.path, "sample.bvh");
  ASSERT_EQ(f.joints.size(), 4u);
  // Leg is a sibling of Spine, not its child; CHANNELS before OFFSET is accepted.
  const std::tuple<const char*, int, int, int, bool> joints[] = {
    // name, parent, line, first channel, end site
    {"Hips", -1, 2, 0, false}, {"Spine", 0, 6, 6, true}, {"Leg", 0, 15, 9, false}, {"Prop", -1, 21, 13, false}};
  for (std::size_t i = 0; i < 4; ++i)
  {
    const auto& [name, parent, line, firstChannel, hasEndSite] = joints[i];
    SCOPED_TRACE(name);
    EXPECT_EQ(f.joints[i].name, name);
    EXPECT_EQ(f.joints[i].parent, parent);
    EXPECT_EQ(f.joints[i].line, line);
    EXPECT_EQ(f.joints[i].firstChannel, firstChannel);
    EXPECT_EQ(f.joints[i].hasEndSite, hasEndSite);
  }
  EXPECT_EQ(f.joints[0].channels, (std::vector<Channel>{Channel::Xposition, Channel::Yposition, Channel::Zposition,
                                                        Channel::Zrotation, Channel::Xrotation, Channel::Yrotation}));
  EXPECT_EQ(f.joints[1].channels, (std::vector<Channel>{Channel::Yrotation, Channel::Xrotation, Channel::Zrotation}));
  EXPECT_EQ(f.joints[1].offset, (telvo::Vector{0, 5.5, -1e-3}));
  EXPECT_EQ(f.joints[1].endSiteOffset, (telvo::Vector{0, 2, 0}));
  EXPECT_EQ(f.joints[2].offset, (telvo::Vector{1, -2, 0.25}));
  EXPECT_EQ(f.channelCount, 15);
  EXPECT_EQ(f.frameCount, 2);
  EXPECT_DOUBLE_EQ(f.frameTime, 0.033333);
  ASSERT_EQ(f.motion.size(), 30u);
  const std::vector<double> firstRow = {1, 2, 0.5, 5, 1e-3, -0.5, 8, 8, 9, 10, 11, 12, 13, 14, 15};
  EXPECT_EQ(std::vector<double>(f.motion.begin(), f.motion.begin() + 15), firstRow);
  EXPECT_EQ(f.motion[29], -15);
}

TEST(BvhRead, LineEndingsAndBlanksDoNotMatter)
{
  BvhFile plain;
  std::string error;
  ASSERT_TRUE(ReadBvhFromBuffer(kSample, "a", plain, error)) << error;
  const std::string variants[] = {
    Replace(kSample, "\n", "\r\n"),
    Replace(Replace(kSample, "\t", "    "), " ", " \t "),
    Replace(kSample, "\n", " \r\n\t"),
    std::string(kSample).substr(0, std::strlen(kSample) - 1), // no final newline
  };
  for (const std::string& text : variants)
  {
    BvhFile f;
    ASSERT_TRUE(ReadBvhFromBuffer(text, "b", f, error)) << error << "\n" << text;
    ExpectSameFile(plain, f);
    for (std::size_t i = 0; i < f.joints.size(); ++i)
      EXPECT_EQ(f.joints[i].line, plain.joints[i].line);
  }
}

TEST(BvhRead, EdgeShapesAndMissingFile)
{
  std::string error;
  BvhFile f;
  // No frames at all, and a joint without channels.
  ASSERT_TRUE(ReadBvhFromBuffer("HIERARCHY ROOT a { OFFSET 0 0 0 } MOTION\nFrames: 0\nFrame Time: 1\n", "z", f, error))
    << error;
  EXPECT_EQ(f.frameCount, 0);
  EXPECT_EQ(f.channelCount, 0);
  // Underflowing numbers read as (nearly) zero rather than failing.
  ASSERT_TRUE(ReadBvhFromBuffer("HIERARCHY ROOT a { OFFSET 0 0 0 CHANNELS 1 Xrotation } MOTION\nFrames: 1\n"
                                "Frame Time: 1\n1e-400\n",
                                "z", f, error))
    << error;
  ASSERT_EQ(f.motion.size(), 1u);
  EXPECT_LT(std::fabs(f.motion[0]), 1e-300);

  EXPECT_FALSE(ReadBvh("/nonexistent/clip.bvh", f, error));
  EXPECT_EQ(error, "cannot read '/nonexistent/clip.bvh': No such file or directory");
}

struct BadCase
{
  const char* what;
  std::string text;
  std::string message;
};

TEST(BvhRead, ErrorsNameTheLineAndTheToken)
{
  const std::string base = "HIERARCHY\n"                             // 1
                           "ROOT A\n"                                // 2
                           "{\n"                                     // 3
                           "  OFFSET 0 0 0\n"                        // 4
                           "  CHANNELS 3 Zrotation Xrotation Yrotation\n" // 5
                           "  JOINT B\n"                             // 6
                           "  {\n"                                   // 7
                           "    OFFSET 0 1 0\n"                      // 8
                           "    CHANNELS 1 Xrotation\n"              // 9
                           "  }\n"                                   // 10
                           "}\n"                                     // 11
                           "MOTION\n"                                // 12
                           "Frames: 2\n"                             // 13
                           "Frame Time: 0.1\n"                       // 14
                           "1 2 3 4\n"                               // 15
                           "5 6 7 8\n";                              // 16
  BvhFile f;
  std::string error;
  ASSERT_TRUE(ReadBvhFromBuffer(base, "c.bvh", f, error)) << error;
  const std::string head = "HIERARCHY\nROOT A\n{\nOFFSET 0 0 0\nCHANNELS 6 Xposition Yposition Zposition "
                           "Xrotation Yrotation Zrotation\n}\nMOTION\n";
  std::string many = "HIERARCHY\n";
  for (int i = 0; i <= kMaxBvhJoints; ++i)
    many += "ROOT J" + std::to_string(i) + " { OFFSET 0 0 0 }\n";

  const BadCase cases[] = {
    {"empty", "", "c.bvh:1: expected 'HIERARCHY', found end of file"},
    {"truncated motion", Replace(base, "5 6 7 8\n", ""), "c.bvh:15: expected frame 2 of 2, found end of file"},
    {"truncated hierarchy", base.substr(0, base.find("  }")),
     "c.bvh:9: expected JOINT, End Site or '}', found end of file"},
    {"short row", Replace(base, "5 6 7 8", "5 6 7"), "c.bvh:16: expected 4 numbers, found 3"},
    {"long row", Replace(base, "5 6 7 8", "5 6 7 8 9"), "c.bvh:16: expected 4 numbers, found 5"},
    {"row split over lines", Replace(base, "5 6 7 8", "5 6\n7 8"), "c.bvh:16: expected 4 numbers, found 2"},
    {"unknown channel", Replace(base, "Zrotation Xrotation Y", "Wrotation Xrotation Y"),
     "c.bvh:5: expected a channel name, found 'Wrotation'"},
    {"channel listed twice", Replace(base, "Zrotation Xrotation Y", "Zrotation Zrotation Y"),
     "c.bvh:5: expected a channel not listed before, found 'Zrotation'"},
    {"bad motion number", Replace(base, "5 6 7 8", "5 abc 7 8"), "c.bvh:16: expected a number, found 'abc'"},
    {"partly numeric", Replace(base, "5 6 7 8", "5 6 7 8x"), "c.bvh:16: expected a number, found '8x'"},
    {"not finite", Replace(base, "1 2 3 4", "1 nan 3 4"), "c.bvh:15: expected a number, found 'nan'"},
    {"overflow", Replace(base, "1 2 3 4", "1 2 1e400 4"), "c.bvh:15: expected a number, found '1e400'"},
    {"bad offset", Replace(base, "OFFSET 0 1 0", "OFFSET 0 y 0"), "c.bvh:8: expected a number, found 'y'"},
    {"missing Frames", Replace(base, "Frames: 2\n", ""), "c.bvh:13: expected 'Frames:', found 'Frame'"},
    {"bad frame count", Replace(base, "Frames: 2", "Frames: two"), "c.bvh:13: expected a frame count, found 'two'"},
    {"missing Frame Time", Replace(base, "Frame Time: 0.1\n", ""), "c.bvh:14: expected 'Frame Time:', found '1'"},
    {"zero frame time", Replace(base, "Time: 0.1", "Time: 0"), "c.bvh:14: expected a positive frame time, found '0'"},
    {"junk after frame time", Replace(base, "Time: 0.1", "Time: 0.1 s"), "c.bvh:14: expected end of line, found 's'"},
    {"too few channel names", Replace(base, "CHANNELS 3 Zrotation Xrotation Yrotation", "CHANNELS 3 Zrotation Xrotation"),
     "c.bvh:6: expected 3 channel names, found 'JOINT'"},
    {"too many channel names", Replace(base, "CHANNELS 1 Xrotation", "CHANNELS 1 Xrotation Yrotation"),
     "c.bvh:9: expected 1 channel name, found 'Yrotation'"},
    {"channel count not a number", Replace(base, "CHANNELS 1", "CHANNELS x"),
     "c.bvh:9: expected a channel count, found 'x'"},
    {"missing close brace", Replace(base, "}\nMOTION", "MOTION"),
     "c.bvh:11: expected JOINT, End Site or '}', found 'MOTION'"},
    {"extra close brace", Replace(base, "}\nMOTION", "}\n}\nMOTION"), "c.bvh:12: expected ROOT or MOTION, found '}'"},
    {"missing open brace", Replace(base, "  {\n", "\n"), "c.bvh:8: expected '{', found 'OFFSET'"},
    {"missing joint name", Replace(base, "JOINT B", "JOINT"), "c.bvh:7: expected a joint name, found '{'"},
    {"keyword as joint name", Replace(base, "JOINT B", "JOINT OFFSET"), "c.bvh:6: expected a joint name, found 'OFFSET'"},
    {"missing OFFSET", Replace(base, "    OFFSET 0 1 0\n", "\n"), "c.bvh:10: expected OFFSET, found '}'"},
    {"no root", "HIERARCHY\nMOTION\n", "c.bvh:2: expected ROOT, found 'MOTION'"},
    {"two end sites",
     Replace(base, "CHANNELS 1 Xrotation\n", "CHANNELS 1 Xrotation\nEnd Site { OFFSET 0 0 0 }\nEnd Site\n"),
     "c.bvh:11: expected JOINT or '}', found 'End'"},
    {"extra frame", base + "9 9 9 9\n", "c.bvh:17: expected end of file after 2 frames, found '9'"},
    {"long token is shortened", Replace(base, "5 6 7 8", std::string(100, 'q') + " 6 7 8"),
     "c.bvh:16: expected a number, found '" + std::string(40, 'q') + "...'"},
    // Hostile declarations are bounded. The largest allowed count on a one-row file must fail on
    // the data, not try to reserve 60 million values first.
    {"huge frame count", head + "Frames: 99999999999\nFrame Time: 1\n",
     "c.bvh:8: expected at most 10000000 frames, found '99999999999'"},
    {"negative frame count", head + "Frames: -1\nFrame Time: 1\n", "c.bvh:8: expected a frame count, found '-1'"},
    {"largest frame count, one row", head + "Frames: 10000000\nFrame Time: 1\n1 2 3 4 5 6\n",
     "c.bvh:10: expected frame 2 of 10000000, found end of file"},
    {"seven channels", Replace(head, "CHANNELS 6", "CHANNELS 7"), "c.bvh:5: expected at most 6 channels, found '7'"},
    {"too many joints", many, "c.bvh:10002: expected at most 10000 joints, found 'J10000'"},
  };
  for (const BadCase& c : cases)
  {
    SCOPED_TRACE(c.what);
    error.clear();
    EXPECT_FALSE(ReadBvhFromBuffer(c.text, "c.bvh", f, error));
    EXPECT_EQ(error, c.message);
  }
}

TEST(BvhWrite, LayoutIsTabIndentedAndExact)
{
  BvhFile f;
  std::string error;
  ASSERT_TRUE(ReadBvhFromBuffer(kSample, "s", f, error)) << error;
  std::string text;
  ASSERT_TRUE(WriteBvhToString(f, text, error)) << error;
  EXPECT_EQ(text, "HIERARCHY\n"
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
                  "-1 -2 -3 -4 -5 -6 -7 -8 -9 -10 -11 -12 -13 -14 -15\n");
}

// One root with one channel and one value per frame.
BvhFile OneChannel(Channel channel, double frameTime, std::vector<double> values)
{
  BvhFile f;
  BvhJoint j;
  j.name = "root";
  j.channels = {channel};
  f.joints.push_back(j);
  f.channelCount = 1;
  f.frameTime = frameTime;
  f.frameCount = static_cast<int>(values.size());
  f.motion = std::move(values);
  return f;
}

TEST(BvhWrite, NumbersReadBackBitForBit)
{
  std::vector<double> values = {0.0, -0.0, 0.1, 1e-5, 1e-7, -123456.789, 1e20, 5e-324, 1.7976931348623157e308,
                                -2.2250738585072014e-308};
  std::mt19937_64 rng(7);
  for (int i = 0; i < 2000; ++i)
  {
    double v;
    const std::uint64_t bits = rng();
    std::memcpy(&v, &bits, sizeof v);
    if (std::isfinite(v))
      values.push_back(v);
  }
  const BvhFile f = OneChannel(Channel::Xrotation, 1.0 / 120.0, values);
  std::string text;
  std::string error;
  ASSERT_TRUE(WriteBvhToString(f, text, error)) << error;
  // Plain decimals in the usual range, exponents only for the extremes.
  EXPECT_NE(text.find("\n0.00001\n"), std::string::npos);
  EXPECT_NE(text.find("\n1e-07\n"), std::string::npos);
  EXPECT_NE(text.find("\n1e+20\n"), std::string::npos);
  BvhFile back;
  ASSERT_TRUE(ReadBvhFromBuffer(text, "n", back, error)) << error;
  ExpectSameFile(f, back);
  for (std::size_t k = 0; k < f.motion.size(); ++k)
    ASSERT_EQ(std::signbit(back.motion[k]), std::signbit(f.motion[k])) << k;
}

TEST(BvhWrite, CapturedValuesGetTheShortestText)
{
  // Values as capture systems write them (a few decimals) must come out as short as the
  // library's shortest conversion makes them, e.g. "-17.3198", not "-17.319800000000001".
  std::mt19937 rng(13);
  std::uniform_real_distribution<double> degrees(-1000, 1000);
  std::vector<double> values;
  for (int decimals = 0; decimals <= 12; ++decimals)
    for (int i = 0; i < 500; ++i)
      values.push_back(std::round(degrees(rng) * std::pow(10.0, decimals)) / std::pow(10.0, decimals));
  const BvhFile f = OneChannel(Channel::Zrotation, 0.01, values);
  std::string text;
  std::string error;
  ASSERT_TRUE(WriteBvhToString(f, text, error)) << error;
  std::string expected = text.substr(0, text.find("Frame Time:")) + "Frame Time: 0.01\n";
  for (double v : values)
  {
    char buf[64];
    auto r = std::to_chars(buf, buf + sizeof buf, v, std::chars_format::fixed);
    expected.append(buf, r.ptr) += '\n';
  }
  EXPECT_EQ(text, expected);
}

TEST(BvhWrite, RejectsModelsItCannotWriteFaithfully)
{
  BvhFile good;
  std::string error;
  ASSERT_TRUE(ReadBvhFromBuffer(kSample, "s", good, error)) << error;
  ASSERT_TRUE(ValidateBvh(good, error)) << error;

  struct Case
  {
    const char* what;
    void (*spoil)(BvhFile&);
  };
  const Case cases[] = {
    {"no joints", [](BvhFile& f) { f.joints.clear(); }},
    {"name with a blank", [](BvhFile& f) { f.joints[1].name = "Left Leg"; }},
    {"name that is a brace", [](BvhFile& f) { f.joints[1].name = "}"; }},
    {"name the reader takes for a keyword", [](BvhFile& f) { f.joints[2].name = "End"; }},
    // Prop would hang under Spine, whose block Leg has already closed.
    {"not depth first", [](BvhFile& f) { f.joints[3].parent = 1; }},
    {"parent after child", [](BvhFile& f) { f.joints[1].parent = 2; }},
    {"channel twice", [](BvhFile& f) { f.joints[1].channels[2] = Channel::Yrotation; }},
    {"first channel off", [](BvhFile& f) { f.joints[2].firstChannel = 8; }},
    {"channel count off", [](BvhFile& f) { f.channelCount = 14; }},
    {"motion size off", [](BvhFile& f) { f.motion.pop_back(); }},
    {"NaN value", [](BvhFile& f) { f.motion[4] = std::nan(""); }},
    {"infinite offset", [](BvhFile& f) { f.joints[0].endSiteOffset.y = HUGE_VAL; }},
    {"zero frame time", [](BvhFile& f) { f.frameTime = 0.0; }},
  };
  TempDir dir;
  for (const Case& c : cases)
  {
    SCOPED_TRACE(c.what);
    BvhFile f = good;
    c.spoil(f);
    error.clear();
    EXPECT_FALSE(ValidateBvh(f, error));
    EXPECT_FALSE(error.empty());
    std::string text = "untouched";
    EXPECT_FALSE(WriteBvhToString(f, text, error));
    const std::string out = dir.Path() + "/out.bvh";
    EXPECT_FALSE(WriteBvh(out, f, error));
    EXPECT_EQ(error.rfind("cannot write '" + out + "': ", 0), 0u) << error;
    EXPECT_TRUE(dir.Entries().empty());
  }
}

TEST(BvhWrite, FileIsReplacedAtomicallyAndFailuresLeaveNothingBehind)
{
  BvhFile f;
  std::string error;
  ASSERT_TRUE(ReadBvhFromBuffer(kSample, "s", f, error)) << error;
  std::string expected;
  ASSERT_TRUE(WriteBvhToString(f, expected, error));
  TempDir dir;
  const std::string out = dir.Path() + "/out.bvh";
  std::ofstream(out) << "an older, longer file that must be replaced entirely " << std::string(5000, 'x');
  ASSERT_TRUE(WriteBvh(out, f, error)) << error;
  std::ifstream in(out, std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), expected);
  BvhFile back;
  ASSERT_TRUE(ReadBvh(out, back, error)) << error;
  EXPECT_EQ(back.path, out);
  ExpectSameFile(f, back);

  // The rename fails on an existing folder: the written temporary must be removed again.
  const std::string folder = dir.Path() + "/taken.bvh";
  fs::create_directory(folder);
  EXPECT_FALSE(WriteBvh(folder, f, error));
  EXPECT_EQ(error.rfind("cannot write '" + folder + "': ", 0), 0u) << error;
  EXPECT_TRUE(fs::is_empty(folder));
  const std::string missing = dir.Path() + "/no/such/out.bvh";
  EXPECT_FALSE(WriteBvh(missing, f, error));
  EXPECT_EQ(error, "cannot write '" + missing + "': cannot create a file in '" + dir.Path() +
                     "/no/such': No such file or directory");
  EXPECT_FALSE(WriteBvh(dir.Path() + "/", f, error));
  EXPECT_EQ(error, "cannot write '" + dir.Path() + "/': not a file name");
  // No temporary left anywhere.
  std::vector<std::string> entries = dir.Entries();
  std::sort(entries.begin(), entries.end());
  EXPECT_EQ(entries, (std::vector<std::string>{"out.bvh", "taken.bvh"}));
}

TEST(BvhWrite, ReadOnlyFolderGivesClearError)
{
  if (::geteuid() == 0)
    GTEST_SKIP() << "permissions do not bind root";
  BvhFile f;
  std::string error;
  ASSERT_TRUE(ReadBvhFromBuffer(kSample, "s", f, error)) << error;
  TempDir dir;
  fs::permissions(dir.Path(), fs::perms::owner_read | fs::perms::owner_exec);
  const std::string out = dir.Path() + "/out.bvh";
  EXPECT_FALSE(WriteBvh(out, f, error));
  EXPECT_EQ(error, "cannot write '" + out + "': cannot create a file in '" + dir.Path() + "': Permission denied");
  EXPECT_TRUE(dir.Entries().empty());
}

TEST(BvhRealData, CmuClipReadsAndRoundTrips)
{
  if (!fs::exists(kCmuClip))
    GTEST_SKIP() << kCmuClip << " is not installed";
  BvhFile f;
  std::string error;
  ASSERT_TRUE(ReadBvh(kCmuClip, f, error)) << error;
  EXPECT_EQ(f.joints.size(), 31u);
  EXPECT_EQ(f.frameCount, 2752);
  EXPECT_NEAR(f.frameTime, 0.008333, 1e-6);
  EXPECT_EQ(f.channelCount, 96);
  ASSERT_EQ(f.motion.size(), 2752u * 96u);
  EXPECT_EQ(f.joints[0].name, "Hips");
  EXPECT_EQ(f.joints[0].channels.size(), 6u);
  EXPECT_EQ(f.joints[1].name, "LHipJoint");
  EXPECT_EQ(f.joints[1].line, 6);
  EXPECT_EQ(f.joints.back().name, "RThumb");
  EXPECT_EQ(f.joints.back().firstChannel, 93);
  EXPECT_EQ(std::count_if(f.joints.begin(), f.joints.end(), [](const BvhJoint& j) { return j.hasEndSite; }), 7);
  EXPECT_EQ(f.motion[0], 9.3722);
  EXPECT_EQ(f.motion[2], -17.3198);
  EXPECT_EQ(f.motion.back(), -0.9244);

  TempDir dir;
  const std::string out = dir.Path() + "/01_01.bvh";
  ASSERT_TRUE(WriteBvh(out, f, error)) << error;
  BvhFile back;
  ASSERT_TRUE(ReadBvh(out, back, error)) << error;
  ExpectSameFile(f, back);
  EXPECT_EQ(dir.Entries(), std::vector<std::string>{"01_01.bvh"});
}

} // namespace
} // namespace kelvara
