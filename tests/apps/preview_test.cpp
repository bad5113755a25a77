#include "preview.h"

#include <cairo.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bvh.h"
#include "skeleton_pose.h"

namespace kelvara
{
namespace
{

namespace fs = std::filesystem;

// A small standing figure, s file units to the unit: hips 5 above the floor, a spine of 4 with
// a head end site 3 above it, and two feet. Frame 0 stands straight; frame 1 turns the hips 60
// degrees about Z, which leans the hips-to-spine bone.
BvhFile Figure(double s, const std::string& path)
{
  BvhFile f;
  f.path = path;
  BvhJoint hips;
  hips.name = "Hips";
  hips.channels = {Channel::Xposition, Channel::Yposition, Channel::Zposition,
                   Channel::Zrotation, Channel::Xrotation, Channel::Yrotation};
  BvhJoint spine;
  spine.name = "Spine";
  spine.parent = 0;
  spine.offset = {0, 4 * s, 0};
  spine.channels = {Channel::Zrotation, Channel::Xrotation, Channel::Yrotation};
  spine.firstChannel = 6;
  spine.hasEndSite = true;
  spine.endSiteOffset = {0, 3 * s, 0};
  BvhJoint left;
  left.name = "LeftFoot";
  left.parent = 0;
  left.offset = {s, -5 * s, 0};
  left.hasEndSite = true;
  left.endSiteOffset = {0, 0, s};
  left.firstChannel = 9;
  BvhJoint right = left;
  right.name = "RightFoot";
  right.offset = {-s, -5 * s, 0};
  f.joints = {hips, spine, left, right};
  f.channelCount = 9;
  f.frameCount = 2;
  f.motion = {0, 5 * s, 0, 0, 0, 0, 0, 0, 0, //
              0, 5 * s, 0, 60, 0, 0, 0, 0, 0};
  return f;
}

// Spine and left foot mapped; the right foot left unmapped.
const std::vector<std::pair<int, int>> kPairs = {{1, 1}, {2, 2}};

struct Image
{
  int width = 0;
  int height = 0;
  std::vector<std::uint32_t> pixels; // 0x00RRGGBB

  std::uint32_t At(int x, int y) const { return pixels[static_cast<std::size_t>(y) * width + x]; }
};

bool Decode(const std::string& path, Image& image)
{
  cairo_surface_t* s = cairo_image_surface_create_from_png(path.c_str());
  const bool ok = cairo_surface_status(s) == CAIRO_STATUS_SUCCESS;
  if (ok)
  {
    cairo_surface_flush(s);
    image.width = cairo_image_surface_get_width(s);
    image.height = cairo_image_surface_get_height(s);
    const int stride = cairo_image_surface_get_stride(s);
    const unsigned char* data = cairo_image_surface_get_data(s);
    image.pixels.resize(static_cast<std::size_t>(image.width) * image.height);
    for (int y = 0; y < image.height; ++y)
      for (int x = 0; x < image.width; ++x)
        image.pixels[static_cast<std::size_t>(y) * image.width + x] =
            reinterpret_cast<const std::uint32_t*>(data + static_cast<std::ptrdiff_t>(y) * stride)[x] & 0xffffffu;
  }
  cairo_surface_destroy(s);
  return ok;
}

bool Near(std::uint32_t pixel, const PreviewColour& c, int tolerance = 6)
{
  auto channel = [](double v) { return static_cast<int>(std::lround(v * 255.0)); };
  return std::abs(static_cast<int>((pixel >> 16) & 0xff) - channel(c.r)) <= tolerance &&
         std::abs(static_cast<int>((pixel >> 8) & 0xff) - channel(c.g)) <= tolerance &&
         std::abs(static_cast<int>(pixel & 0xff) - channel(c.b)) <= tolerance;
}

struct Region
{
  int x0, y0, x1, y1; // half-open
};

int Count(const Image& image, Region r, const PreviewColour& c)
{
  int n = 0;
  for (int y = r.y0; y < r.y1; ++y)
    for (int x = r.x0; x < r.x1; ++x)
      n += Near(image.At(x, y), c) ? 1 : 0;
  return n;
}

int CountNotBackground(const Image& image, Region r)
{
  return (r.x1 - r.x0) * (r.y1 - r.y0) - Count(image, r, PreviewBackground());
}

// Rows spanned by pixels of colour c within r, or -1 when there are none.
int RowsSpanned(const Image& image, Region r, const PreviewColour& c)
{
  int top = -1, bottom = -1;
  for (int y = r.y0; y < r.y1; ++y)
    for (int x = r.x0; x < r.x1; ++x)
      if (Near(image.At(x, y), c))
      {
        if (top < 0)
          top = y;
        bottom = y;
      }
  return top < 0 ? -1 : bottom - top + 1;
}

class Preview : public ::testing::Test
{
protected:
  void SetUp() override
  {
    dir_ = fs::temp_directory_path() / ("kelvara-preview-" + std::to_string(::getpid()) + "-" +
                                        ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(dir_);
    fs::create_directories(dir_);
  }
  void TearDown() override { fs::remove_all(dir_); }

  std::string PathOf(const std::string& name) const { return (dir_ / name).string(); }
  std::size_t FilesInDir() const
  {
    return static_cast<std::size_t>(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()));
  }

  fs::path dir_;
};

TEST_F(Preview, DrawsEveryPanelWithMatchingColoursOnBothSides)
{
  // The target is the same figure in units ten times larger: fitting by rest height must make
  // both the same size on the page.
  const BvhFile source = Figure(1.0, "source.bvh");
  const BvhFile target = Figure(10.0, "target.bvh");
  PreviewOptions options;
  options.frames = {0, 1};
  options.panelSize = 200;
  const std::string path = PathOf("preview.png");
  // An older picture is replaced whole.
  std::ofstream(path) << "not a png";

  std::string error;
  ASSERT_TRUE(RenderPreview(source, target, kPairs, options, path, error)) << error;
  EXPECT_TRUE(error.empty());
  EXPECT_EQ(FilesInDir(), 1u) << "a temporary file was left behind";

  Image image;
  ASSERT_TRUE(Decode(path, image));
  EXPECT_EQ(image.width, 4 * 200);
  EXPECT_EQ(image.height, 2 * 200);

  for (int row = 0; row < 2; ++row)
    for (int column = 0; column < 4; ++column)
    {
      SCOPED_TRACE("row " + std::to_string(row) + ", column " + std::to_string(column));
      const Region panel{column * 200, row * 200, column * 200 + 200, row * 200 + 200};
      EXPECT_GT(CountNotBackground(image, panel), 400);
      // Every panel shows both mapped bones in their pair's colour, and the unmapped foot grey.
      EXPECT_GT(Count(image, panel, MappedBoneColour(0)), 20);
      EXPECT_GT(Count(image, panel, MappedBoneColour(1)), 10);
      EXPECT_GT(Count(image, panel, UnmappedBoneColour()), 10);
    }

  // Same figure, same rest height: the standing spine spans the same rows on both sides.
  const int sourceSpine = RowsSpanned(image, {0, 0, 200, 200}, MappedBoneColour(0));
  const int targetSpine = RowsSpanned(image, {400, 0, 600, 200}, MappedBoneColour(0));
  EXPECT_GT(sourceSpine, 30);
  EXPECT_NEAR(sourceSpine, targetSpine, 2);
  // Leaning by 60 degrees shortens it to about half its height in the front view.
  const int leaning = RowsSpanned(image, {0, 200, 200, 400}, MappedBoneColour(0));
  EXPECT_NEAR(leaning, sourceSpine / 2.0, 4.0);
}

TEST_F(Preview, DefaultFramesAndTheRestPoseSizeThePicture)
{
  const BvhFile source = Figure(1.0, "source.bvh");
  const BvhFile target = Figure(2.0, "target.bvh");
  PreviewOptions options;
  options.panelSize = 96;
  std::string error;
  Image image;

  // First, middle and last of a two-frame clip are frames 0 and 1: two rows.
  ASSERT_TRUE(RenderPreview(source, target, kPairs, options, PathOf("default.png"), error)) << error;
  ASSERT_TRUE(Decode(PathOf("default.png"), image));
  EXPECT_EQ(image.width, 4 * 96);
  EXPECT_EQ(image.height, 2 * 96);

  options.frames = {kRestFrame, 1, kRestFrame};
  ASSERT_TRUE(RenderPreview(source, target, {}, options, PathOf("rest.png"), error)) << error;
  ASSERT_TRUE(Decode(PathOf("rest.png"), image));
  EXPECT_EQ(image.height, 3 * 96);
  // Without a mapping nothing is coloured.
  EXPECT_EQ(Count(image, {0, 0, image.width, image.height}, MappedBoneColour(0)), 0);
  EXPECT_GT(Count(image, {0, 0, image.width, image.height}, UnmappedBoneColour()), 100);
}

TEST_F(Preview, BadRequestsGiveAnErrorAndNoFile)
{
  const BvhFile source = Figure(1.0, "walk.bvh");
  BvhFile target = Figure(1.0, "short.bvh");
  target.frameCount = 1;
  target.motion.resize(9);
  const std::string path = PathOf("preview.png");
  PreviewOptions options;
  std::string error;

  options.frames = {0, 5};
  EXPECT_FALSE(RenderPreview(source, Figure(1.0, "t.bvh"), kPairs, options, path, error));
  EXPECT_NE(error.find("frame 5"), std::string::npos) << error;
  EXPECT_NE(error.find("walk.bvh"), std::string::npos) << error;
  EXPECT_NE(error.find("0-1"), std::string::npos) << error;

  // Frame 1 is in the source but not in the shorter target.
  options.frames = {1};
  EXPECT_FALSE(RenderPreview(source, target, kPairs, options, path, error));
  EXPECT_NE(error.find("target clip 'short.bvh'"), std::string::npos) << error;

  options.frames = {-2};
  EXPECT_FALSE(RenderPreview(source, source, kPairs, options, path, error));
  EXPECT_NE(error.find("-2"), std::string::npos) << error;

  options.frames = {0};
  EXPECT_FALSE(RenderPreview(source, source, {{1, 4}}, options, path, error));
  EXPECT_NE(error.find("out of range"), std::string::npos) << error;

  options.panelSize = 10;
  EXPECT_FALSE(RenderPreview(source, source, kPairs, options, path, error));
  EXPECT_NE(error.find("panel size"), std::string::npos) << error;

  options.panelSize = 320;
  options.frames.assign(200, 0);
  EXPECT_FALSE(RenderPreview(source, source, kPairs, options, path, error));
  EXPECT_NE(error.find("do not fit"), std::string::npos) << error;

  options.frames = {0};
  EXPECT_FALSE(RenderPreview(source, source, kPairs, options, PathOf("missing/preview.png"), error));
  EXPECT_NE(error.find("missing"), std::string::npos) << error;

  EXPECT_EQ(FilesInDir(), 0u);
}

} // namespace
} // namespace kelvara
