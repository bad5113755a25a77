// Preview pictures read back: panels, sizes, colours, and the requests that are refused.
#include "output/preview.h"

#include <cairo.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>

#include "anim/pose.h"
#include "support/run_app.h"

namespace kelvara
{
namespace
{

using telvo::Vector;

// A standing figure, s units to the unit: hips 5 above the floor, a spine of 4 with a head end 3
// above it, two feet with toes ahead. Frame 1 turns the hips 60 degrees about Z, leaning the spine.
struct Figure
{
  Skeleton skeleton;
  Clip clip;

  PreviewClip Preview(const std::string& label) const { return PreviewClip{&skeleton, &clip, label}; }
};

Figure MakeFigure(double s, const std::string& path)
{
  Figure f;
  f.skeleton.path = path;
  for (const auto& [name, parent, x, y, end] :
       {std::tuple{"Hips", -1, 0.0, 0.0, Vector{}}, std::tuple{"Spine", 0, 0.0, 4.0, Vector{0, 3 * s, 0}},
        std::tuple{"LeftFoot", 0, 1.0, -5.0, Vector{0, 0, s}}, std::tuple{"RightFoot", 0, -1.0, -5.0, Vector{0, 0, s}}})
  {
    Joint& j = f.skeleton.joints.emplace_back();
    j.name = name;
    j.parent = parent;
    j.translation = {x * s, y * s, 0};
    j.hasEndSite = parent >= 0;
    j.endSite = end;
  }
  f.clip.frameCount = 2;
  f.clip.frameTime = 0.1;
  f.clip.jointCount = 4;
  f.clip.rotations.assign(8, Quaternion());
  f.clip.rotations[4] = AxisAngle({0, 0, 1}, M_PI / 3.0);
  f.clip.rootTranslation.assign(2, Vector{0, 5 * s, 0});
  return f;
}

// Pixels near colour c in the square panel at (x0, y0), and the rows they span.
std::pair<int, int> Find(cairo_surface_t* png, int x0, int y0, int side, const PreviewColour& c)
{
  const unsigned char* data = cairo_image_surface_get_data(png);
  int count = 0, top = -1, bottom = -1;
  for (int y = y0; y < y0 + side; ++y)
    for (int x = x0; x < x0 + side; ++x)
    {
      const std::uint32_t p = reinterpret_cast<const std::uint32_t*>(data + y * cairo_image_surface_get_stride(png))[x];
      const bool near = std::abs((p >> 16 & 0xff) - c.r * 255) < 6.5 && std::abs((p >> 8 & 0xff) - c.g * 255) < 6.5 &&
                        std::abs((p & 0xff) - c.b * 255) < 6.5;
      count += near ? 1 : 0;
      top = near && top < 0 ? y : top;
      bottom = near ? y : bottom;
    }
  return {count, top < 0 ? 0 : bottom - top + 1};
}

using Preview = kelvara_test::AppFolderTest;

// The target is the same figure in units ten times larger: fitted by rest height, both are drawn
// the same size. The spine and the left foot are mapped, the right foot not.
TEST_F(Preview, DrawsEveryPanelWithMatchingColoursOnBothSides)
{
  const PreviewOptions options{{0, kRestFrame, 1}, 200};
  const std::string path = (_dir / "preview.png").string();
  std::ofstream(path) << "not a png";
  std::string error;
  const Figure source = MakeFigure(1, "s.bvh");
  const Figure target = MakeFigure(10, "t.bvh");
  ASSERT_TRUE(RenderPreview(source.Preview("source"), target.Preview("target"), {{1, 1}, {2, 2}}, options, path, error))
    << error;
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(_dir), {}), 1) << "a temporary file was left behind";

  cairo_surface_t* png = cairo_image_surface_create_from_png(path.c_str());
  ASSERT_EQ(cairo_surface_status(png), CAIRO_STATUS_SUCCESS);
  EXPECT_EQ(cairo_image_surface_get_width(png), 4 * 200);
  EXPECT_EQ(cairo_image_surface_get_height(png), 3 * 200);
  for (int panel = 0; panel < 12; ++panel)
    for (const PreviewColour& colour : {MappedBoneColour(0), MappedBoneColour(1), UnmappedBoneColour()})
      EXPECT_GT(Find(png, panel % 4 * 200, panel / 4 * 200, 200, colour).first, 10) << panel;
  // The standing spine spans the same rows on both sides and at rest; leaning 60 degrees halves it.
  const int standing = Find(png, 0, 0, 200, MappedBoneColour(0)).second;
  EXPECT_GT(standing, 30);
  EXPECT_NEAR(Find(png, 400, 0, 200, MappedBoneColour(0)).second, standing, 2);
  EXPECT_NEAR(Find(png, 0, 200, 200, MappedBoneColour(0)).second, standing, 2);
  EXPECT_NEAR(Find(png, 0, 400, 200, MappedBoneColour(0)).second, standing / 2.0, 3.0);
  cairo_surface_destroy(png);

  // Two results beside the source, the second in the rest pose only: two columns each, the
  // pairs coloured in every figure.
  const Figure other = MakeFigure(3, "u.bvh");
  const PreviewClip restOnly{&other.skeleton, nullptr, "rest"};
  ASSERT_TRUE(RenderPreview(source.Preview("source"), {target.Preview("target"), restOnly}, {{1, 1}},
                            {{kRestFrame}, 128}, path, error))
    << error;
  png = cairo_image_surface_create_from_png(path.c_str());
  ASSERT_EQ(cairo_surface_status(png), CAIRO_STATUS_SUCCESS);
  EXPECT_EQ(cairo_image_surface_get_width(png), 6 * 128);
  EXPECT_EQ(cairo_image_surface_get_height(png), 128);
  for (int panel = 0; panel < 6; ++panel)
    EXPECT_GT(Find(png, panel * 128, 0, 128, MappedBoneColour(0)).first, 10) << panel;
  cairo_surface_destroy(png);
}

TEST_F(Preview, BadRequestsGiveAnErrorAndNoFile)
{
  const Figure source = MakeFigure(1, "walk.bvh");
  Figure target = MakeFigure(2, "short.bvh");
  target.clip.frameCount = 1;
  target.clip.rotations.resize(4);
  target.clip.rootTranslation.resize(1);
  PreviewOptions options;
  std::string error;
  auto refusal = [&](std::vector<int> frames, int panelSize = 96, std::vector<std::pair<int, int>> pairs = {},
                     bool sourceMoves = true) {
    options.frames = frames;
    options.panelSize = panelSize;
    const PreviewClip from{&source.skeleton, sourceMoves ? &source.clip : nullptr, "source"};
    const std::string path = (_dir / "missing/p.png").string();
    EXPECT_FALSE(RenderPreview(from, target.Preview("target"), pairs, options, path, error));
    return error;
  };
  const std::pair<std::string, std::string> cases[] = {
    {refusal({0, 5}), "frame 5 is beyond the source clip 'walk.bvh', which has 2 frames (0-1)"},
    {refusal({1}), "frame 1 is beyond the target clip 'short.bvh', which has 1 frames (0-0)"},
    {refusal({0}, 96, {}, false), "frame 0 is beyond the source clip 'walk.bvh', which has 0 frames"},
    {refusal({-2}), "frame -2 is not a frame number (frames count from 0; -1 is the rest pose)"},
    {refusal({0}, 96, {{1, 4}}), "mapped joint pair 0 (1, 4) is out of range: the source has 4 joints, the target 4"},
    {refusal({0}, 10), "panel size 10 is outside 64-4096 pixels"},
    {refusal(std::vector<int>(200, 0), 320), "200 frames of 320 pixels do not fit in one picture (at most 102)"},
    {refusal({0}), "cannot write '" + (_dir / "missing/p.png").string() + "': cannot create a file in '" +
                     (_dir / "missing").string() + "': No such file or directory"}};
  for (const auto& [message, expected] : cases)
    EXPECT_EQ(message, expected);
  EXPECT_FALSE(std::filesystem::exists(_dir / "missing"));
}

} // namespace
} // namespace kelvara
