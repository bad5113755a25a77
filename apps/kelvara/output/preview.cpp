#include "output/preview.h"

#include "io/atomic_file.h"

#include <cairo.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>

#include "anim/pose.h"

namespace kelvara
{

namespace
{

using telvo::Matrix;
using telvo::Vector;

constexpr int kMinPanel = 64;
constexpr int kMaxPanel = 4096;
// cairo's image surfaces are limited to this many pixels a side.
constexpr int kMaxImageSide = 32767;
// Finding the ground looks at no more than this many frames, spread over the clip.
constexpr int kGroundSamples = 2000;

// Panel geometry shared by all columns, derived from the panel size.
struct Layout
{
  double panel = 0.0;
  double fontSize = 0.0;
  double lineWidth = 0.0;
  double top = 0.0;    // highest point a fitted figure reaches
  double ground = 0.0; // y of the ground line within a panel
};

Layout MakeLayout(int panelSize)
{
  Layout l;
  l.panel = panelSize;
  l.fontSize = std::max(8.0, l.panel / 26.0);
  l.lineWidth = std::max(2.0, l.panel / 100.0);
  l.top = l.fontSize * 1.8 + l.panel * 0.04;
  l.ground = l.panel * 0.92;
  return l;
}

struct Bounds
{
  Vector lo{std::numeric_limits<double>::infinity(), std::numeric_limits<double>::infinity(),
            std::numeric_limits<double>::infinity()};
  Vector hi{-std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity(),
            -std::numeric_limits<double>::infinity()};

  void Add(const Vector& p)
  {
    lo = {std::min(lo.x, p.x), std::min(lo.y, p.y), std::min(lo.z, p.z)};
    hi = {std::max(hi.x, p.x), std::max(hi.y, p.y), std::max(hi.z, p.z)};
  }
  bool Empty() const { return !(lo.y <= hi.y); }
};

void AddPose(Bounds& b, const std::vector<Matrix>& world, const std::vector<Vector>& ends)
{
  for (const Matrix& m : world)
    b.Add(m.off);
  for (const Vector& e : ends)
    b.Add(e);
}

// One skeleton with what is needed to draw it the same way in every panel.
struct Figure
{
  const Skeleton* skeleton = nullptr;
  const Clip* clip = nullptr; // null: the rest pose only
  WorldPose pose;
  std::string label;
  std::vector<int> pairOfJoint; // mapping pair index per joint, -1 when unmapped
  double scale = 1.0;           // pixels per world unit
  double groundHeight = 0.0;    // world height drawn on the ground line, for motion frames
  std::vector<Matrix> world;    // scratch, reused per panel
  std::vector<Vector> ends;
};

int FrameCount(const Figure& f)
{
  return f.clip != nullptr ? f.clip->frameCount : 0;
}

// Poses f at frame into f.world and f.ends; both empty when the frame is not in the clip.
bool PoseFigure(Figure& f, int frame)
{
  f.world.clear();
  f.ends.clear();
  if (!f.pose.Evaluate(*f.skeleton, f.clip, frame))
    return false;
  f.world = f.pose.Matrices();
  for (std::size_t j = 0; j < f.world.size(); ++j)
    f.ends.push_back(f.pose.EndSite(*f.skeleton, j));
  return true;
}

void FitFigure(Figure& f, const Layout& layout)
{
  PoseFigure(f, kRestFrame);
  Bounds rest;
  AddPose(rest, f.world, f.ends);
  const double height = rest.hi.y - rest.lo.y;
  const double width = std::max(rest.hi.x - rest.lo.x, rest.hi.z - rest.lo.z);
  // Room is left above and beside the rest pose for raised arms and strides.
  const double fitHeight = height > 0.0 ? 0.85 * (layout.ground - layout.top) / height : 0.0;
  const double fitWidth = width > 0.0 ? 0.85 * layout.panel / width : 0.0;
  f.scale = fitHeight > 0.0 && fitWidth > 0.0 ? std::min(fitHeight, fitWidth) : std::max(fitHeight, fitWidth);
  if (!(f.scale > 0.0) || !std::isfinite(f.scale))
    f.scale = 1.0;

  // The lowest point the clip reaches is where its feet touch the floor; the rest pose alone
  // says nothing about where the motion puts the root.
  Bounds motion;
  const int frames = FrameCount(f);
  const int stride = std::max(1, frames / kGroundSamples);
  for (int frame = 0; frame < frames; frame += stride)
    if (PoseFigure(f, frame))
      AddPose(motion, f.world, f.ends);
  f.groundHeight = motion.Empty() ? (rest.Empty() ? 0.0 : rest.lo.y) : motion.lo.y;
}

void SetColour(cairo_t* cr, const PreviewColour& c)
{
  cairo_set_source_rgb(cr, c.r, c.g, c.b);
}

// Draws f at frame into the panel whose top-left corner is (x0, y0).
void DrawFigure(cairo_t* cr, Figure& f, int frame, bool side, double x0, double y0, const Layout& layout)
{
  PoseFigure(f, frame);
  if (f.world.empty())
    return;

  double ground = f.groundHeight;
  if (frame == kRestFrame)
  {
    Bounds b;
    AddPose(b, f.world, f.ends);
    ground = b.lo.y;
  }
  // Horizontal screen axis: +X seen from the front, -Z seen from the left-hand side.
  auto across = [side](const Vector& p) { return side ? -p.z : p.x; };
  const double centre = across(f.world[0].off);
  const double mid = x0 + layout.panel / 2.0;
  const double base = y0 + layout.ground;
  auto line = [&](const Vector& a, const Vector& b) {
    cairo_move_to(cr, mid + (across(a) - centre) * f.scale, base - (a.y - ground) * f.scale);
    cairo_line_to(cr, mid + (across(b) - centre) * f.scale, base - (b.y - ground) * f.scale);
  };

  const std::vector<Joint>& joints = f.skeleton->joints;
  // Grey first, so that coloured bones stay visible where they cross.
  SetColour(cr, UnmappedBoneColour());
  for (std::size_t i = 0; i < joints.size(); ++i)
  {
    const int parent = joints[i].parent;
    if (parent >= 0 && static_cast<std::size_t>(parent) < i && f.pairOfJoint[i] < 0)
      line(f.world[static_cast<std::size_t>(parent)].off, f.world[i].off);
    if (joints[i].hasEndSite)
      line(f.world[i].off, f.ends[i]);
  }
  cairo_stroke(cr);
  for (std::size_t i = 0; i < joints.size(); ++i)
  {
    const int parent = joints[i].parent;
    if (parent < 0 || static_cast<std::size_t>(parent) >= i || f.pairOfJoint[i] < 0)
      continue;
    SetColour(cr, MappedBoneColour(static_cast<std::size_t>(f.pairOfJoint[i])));
    line(f.world[static_cast<std::size_t>(parent)].off, f.world[i].off);
    cairo_stroke(cr);
  }
}

void DrawPanel(cairo_t* cr, Figure& f, int frame, bool side, double x0, double y0, const Layout& layout)
{
  cairo_save(cr);
  cairo_rectangle(cr, x0, y0, layout.panel, layout.panel);
  cairo_clip(cr);

  // Ground line across the whole panel.
  cairo_set_line_width(cr, 1.0);
  cairo_set_source_rgb(cr, 0.55, 0.50, 0.42);
  cairo_move_to(cr, x0, y0 + std::round(layout.ground) + 0.5);
  cairo_line_to(cr, x0 + layout.panel, y0 + std::round(layout.ground) + 0.5);
  cairo_stroke(cr);

  cairo_set_line_width(cr, layout.lineWidth);
  cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND);
  cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);
  DrawFigure(cr, f, frame, side, x0, y0, layout);

  const std::string text = (frame == kRestFrame ? std::string("rest") : "frame " + std::to_string(frame)) + "  " +
                           f.label + (side ? " side" : " front");
  cairo_set_source_rgb(cr, 0.15, 0.15, 0.15);
  cairo_set_font_size(cr, layout.fontSize);
  cairo_move_to(cr, x0 + layout.fontSize * 0.6, y0 + layout.fontSize * 1.4);
  cairo_show_text(cr, text.c_str());
  cairo_restore(cr);
}

// Thin borders between panels; heavier ones between figures (every two columns).
void DrawGrid(cairo_t* cr, int rows, int columns, const Layout& layout)
{
  const double width = columns * layout.panel;
  const double height = rows * layout.panel;
  cairo_set_source_rgb(cr, 0.82, 0.82, 0.82);
  cairo_set_line_width(cr, 1.0);
  for (int c = 1; c < columns; c += 2)
  {
    cairo_move_to(cr, c * layout.panel + 0.5, 0);
    cairo_line_to(cr, c * layout.panel + 0.5, height);
  }
  for (int r = 1; r < rows; ++r)
  {
    cairo_move_to(cr, 0, r * layout.panel + 0.5);
    cairo_line_to(cr, width, r * layout.panel + 0.5);
  }
  cairo_stroke(cr);
  cairo_set_source_rgb(cr, 0.25, 0.25, 0.25);
  cairo_set_line_width(cr, 2.0);
  for (int c = 2; c < columns; c += 2)
  {
    cairo_move_to(cr, c * layout.panel, 0);
    cairo_line_to(cr, c * layout.panel, height);
  }
  cairo_stroke(cr);
}

bool CheckFrames(const std::vector<int>& frames, const Figure& f, const std::string& side, std::string& error)
{
  const int frameCount = FrameCount(f);
  for (int frame : frames)
  {
    if (frame == kRestFrame || (frame >= 0 && frame < frameCount))
      continue;
    if (frame < 0)
      error = "frame " + std::to_string(frame) + " is not a frame number (frames count from 0; -1 is the rest pose)";
    else
      error = "frame " + std::to_string(frame) + " is beyond the " + side + " clip '" + f.skeleton->path +
              "', which has " + std::to_string(frameCount) + " frames" +
              (frameCount > 0 ? " (0-" + std::to_string(frameCount - 1) + ")" : "");
    return false;
  }
  return true;
}

bool MapJoints(const std::vector<std::pair<int, int>>& pairs, Figure& source, Figure& target, std::string& error)
{
  source.pairOfJoint.assign(source.skeleton->joints.size(), -1);
  target.pairOfJoint.assign(target.skeleton->joints.size(), -1);
  for (std::size_t n = 0; n < pairs.size(); ++n)
  {
    const auto [s, t] = pairs[n];
    if (s < 0 || static_cast<std::size_t>(s) >= source.pairOfJoint.size() || t < 0 ||
        static_cast<std::size_t>(t) >= target.pairOfJoint.size())
    {
      error = "mapped joint pair " + std::to_string(n) + " (" + std::to_string(s) + ", " + std::to_string(t) +
              ") is out of range: the source has " + std::to_string(source.pairOfJoint.size()) + " joints, the " +
              target.label + " " + std::to_string(target.pairOfJoint.size());
      return false;
    }
    // A joint in several pairs keeps its first colour.
    if (source.pairOfJoint[static_cast<std::size_t>(s)] < 0)
      source.pairOfJoint[static_cast<std::size_t>(s)] = static_cast<int>(n);
    if (target.pairOfJoint[static_cast<std::size_t>(t)] < 0)
      target.pairOfJoint[static_cast<std::size_t>(t)] = static_cast<int>(n);
  }
  return true;
}

// Cairo hands the encoded PNG over in pieces; they are gathered in memory and written at once.
cairo_status_t AppendToString(void* closure, const unsigned char* data, unsigned int length)
{
  static_cast<std::string*>(closure)->append(reinterpret_cast<const char*>(data), length);
  return CAIRO_STATUS_SUCCESS;
}

bool WritePngAtomically(cairo_surface_t* surface, const std::string& path, std::string& error)
{
  std::string png;
  const cairo_status_t status = cairo_surface_write_to_png_stream(surface, AppendToString, &png);
  if (status != CAIRO_STATUS_SUCCESS)
  {
    error = "cannot write '" + path + "': " + cairo_status_to_string(status);
    return false;
  }
  return WriteFileAtomically(path, png, error);
}

PreviewColour FromHsv(double h, double s, double v)
{
  const double sector = h * 6.0;
  const int i = static_cast<int>(std::floor(sector)) % 6;
  const double f = sector - std::floor(sector);
  const double p = v * (1.0 - s);
  const double q = v * (1.0 - s * f);
  const double t = v * (1.0 - s * (1.0 - f));
  switch (i)
  {
  case 0: return {v, t, p};
  case 1: return {q, v, p};
  case 2: return {p, v, t};
  case 3: return {p, q, v};
  case 4: return {t, p, v};
  default: return {v, p, q};
  }
}

} // namespace

PreviewColour MappedBoneColour(std::size_t pairIndex)
{
  // Stepping the hue by the golden ratio keeps consecutive pairs (usually neighbouring bones)
  // far apart on the colour wheel; darker rounds follow once the wheel has been gone round.
  constexpr double kGolden = 0.6180339887498949;
  const double hue = std::fmod(0.02 + static_cast<double>(pairIndex) * kGolden, 1.0);
  const double value = (pairIndex / 7) % 2 == 0 ? 0.88 : 0.62;
  return FromHsv(hue, 0.85, value);
}

PreviewColour UnmappedBoneColour()
{
  return {0.66, 0.66, 0.66};
}

PreviewColour PreviewBackground()
{
  return {1.0, 1.0, 1.0};
}

bool RenderPreview(const PreviewClip& source, const PreviewClip& target,
                   const std::vector<std::pair<int, int>>& mappedJoints, const PreviewOptions& options,
                   const std::string& pngPath, std::string& error)
{
  return RenderPreview(source, std::vector<PreviewClip>{target}, mappedJoints, options, pngPath, error);
}

bool RenderPreview(const PreviewClip& source, const std::vector<PreviewClip>& targets,
                   const std::vector<std::pair<int, int>>& mappedJoints, const PreviewOptions& options,
                   const std::string& pngPath, std::string& error)
{
  error.clear();
  if (options.panelSize < kMinPanel || options.panelSize > kMaxPanel)
  {
    error = "panel size " + std::to_string(options.panelSize) + " is outside " + std::to_string(kMinPanel) + "-" +
            std::to_string(kMaxPanel) + " pixels";
    return false;
  }
  std::vector<Figure> figures(1 + targets.size());
  figures[0].skeleton = source.skeleton;
  figures[0].clip = source.clip;
  figures[0].label = source.label.empty() ? "source" : source.label;
  for (std::size_t i = 0; i < targets.size(); ++i)
  {
    figures[i + 1].skeleton = targets[i].skeleton;
    figures[i + 1].clip = targets[i].clip;
    figures[i + 1].label = targets[i].label.empty() ? "target" : targets[i].label;
  }
  for (const Figure& f : figures)
    if (f.skeleton == nullptr)
    {
      error = "the " + f.label + " has no skeleton to draw";
      return false;
    }
  const int columns = 2 * static_cast<int>(figures.size());
  if (targets.empty() || columns > kMaxImageSide / options.panelSize)
  {
    error = "expected 1 to " + std::to_string(kMaxImageSide / options.panelSize / 2 - 1) +
            " results to draw beside the source, found " + std::to_string(targets.size());
    return false;
  }
  for (const Figure& f : figures)
    if (f.skeleton->joints.empty())
    {
      error = "the " + f.label + " has no joints to draw";
      return false;
    }

  std::vector<int> frames = options.frames;
  if (frames.empty())
  {
    int shorter = FrameCount(figures[0]);
    for (const Figure& f : figures)
      shorter = std::min(shorter, FrameCount(f));
    if (shorter <= 0)
      frames = {kRestFrame};
    else
    {
      frames = {0, (shorter - 1) / 2, shorter - 1};
      frames.erase(std::unique(frames.begin(), frames.end()), frames.end());
    }
  }
  for (const Figure& f : figures)
    if (!CheckFrames(frames, f, f.label, error))
      return false;
  if (frames.size() > static_cast<std::size_t>(kMaxImageSide / options.panelSize))
  {
    error = std::to_string(frames.size()) + " frames of " + std::to_string(options.panelSize) +
            " pixels do not fit in one picture (at most " + std::to_string(kMaxImageSide / options.panelSize) + ")";
    return false;
  }
  for (std::size_t i = 1; i < figures.size(); ++i)
    if (!MapJoints(mappedJoints, figures[0], figures[i], error))
      return false;

  const Layout layout = MakeLayout(options.panelSize);
  for (Figure& f : figures)
    FitFigure(f, layout);

  const int rows = static_cast<int>(frames.size());
  cairo_surface_t* surface =
      cairo_image_surface_create(CAIRO_FORMAT_RGB24, columns * options.panelSize, rows * options.panelSize);
  cairo_t* cr = cairo_create(surface);
  SetColour(cr, PreviewBackground());
  cairo_paint(cr);
  cairo_select_font_face(cr, "sans-serif", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
  for (int r = 0; r < rows; ++r)
    for (int c = 0; c < columns; ++c)
      DrawPanel(cr, figures[static_cast<std::size_t>(c / 2)], frames[static_cast<std::size_t>(r)], c % 2 == 1,
                c * layout.panel, r * layout.panel, layout);
  DrawGrid(cr, rows, columns, layout);

  const cairo_status_t status = cairo_status(cr);
  bool ok = false;
  if (status != CAIRO_STATUS_SUCCESS)
    error = "cannot draw the preview: " + std::string(cairo_status_to_string(status));
  else
  {
    cairo_surface_flush(surface);
    ok = WritePngAtomically(surface, pngPath, error);
  }
  cairo_destroy(cr);
  cairo_surface_destroy(surface);
  return ok;
}

} // namespace kelvara
