// Preview pictures: source and target skeletons drawn side by side as stick figures, so that a
// retarget can be checked without opening a scene.
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "anim/clip.h"
#include "anim/skeleton.h"

namespace kelvara
{

struct PreviewOptions
{
  // Frames to draw, one row each, in this order; kRestFrame (-1) draws the rest pose. Empty means
  // the first, middle and last frames of the shorter clip (the rest pose when neither has motion).
  std::vector<int> frames;
  // Side of one square panel in pixels (64 to 4096).
  int panelSize = 320;
};

struct PreviewColour
{
  double r = 0.0;
  double g = 0.0;
  double b = 0.0;
};

// Colour of the bones of the pairIndex-th mapped pair, the same on both sides; neighbouring
// indices get clearly different hues.
PreviewColour MappedBoneColour(std::size_t pairIndex);
// Colour of bones whose child joint is not mapped, and of end-site bones.
PreviewColour UnmappedBoneColour();
// Panel background.
PreviewColour PreviewBackground();

// A skeleton moving as a clip (null: the rest pose only) and the label its panels show.
struct PreviewClip
{
  const Skeleton* skeleton = nullptr;
  const Clip* clip = nullptr;
  std::string label;
};

// Draws a grid of square panels into a PNG at pngPath: one row per frame, four columns (source
// front, source side, target front, target side), each labelled with the frame, the side and the
// view. The image is 4 * panelSize wide and rows * panelSize high. Y is up; the front view looks
// along -Z, the side view along -X. Each figure keeps one scale in every panel, fitted from its
// rest pose, and follows its root horizontally; feet stand on a ground line at the lowest height
// the clip reaches. The bone ending at a joint of mappedJoints (source joint, target joint) is
// drawn in that pair's colour on both sides; other bones are grey.
//
// The file is written atomically (a temporary file beside it, then renamed). Returns false with a
// message, and writes nothing, when a frame is in neither clip, an index is out of range or the
// picture cannot be drawn or written.
bool RenderPreview(const PreviewClip& source, const PreviewClip& target,
                   const std::vector<std::pair<int, int>>& mappedJoints, const PreviewOptions& options,
                   const std::string& pngPath, std::string& error);

// The same with several results side by side after the source, two columns each (front, side),
// with a heavier border between figures: 2 * (1 + targets) panels wide. The pairs' target joints
// index every one of targets.
bool RenderPreview(const PreviewClip& source, const std::vector<PreviewClip>& targets,
                   const std::vector<std::pair<int, int>>& mappedJoints, const PreviewOptions& options,
                   const std::string& pngPath, std::string& error);

} // namespace kelvara
