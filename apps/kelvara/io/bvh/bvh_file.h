// Motion capture files in the BVH text format: a plain file model, a reader and a writer.
//
// The model is the file's raw content (joints in file order, channel lists, motion rows); it is
// kept separate from the module's character so that reading and writing stay lossless.
// Offsets and positions are in the file's units; rotation values are in degrees.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "telvo/matrix.h"

namespace kelvara
{

enum class Channel
{
  Xposition,
  Yposition,
  Zposition,
  Xrotation,
  Yrotation,
  Zrotation
};

// "Xposition" ... "Zrotation".
const char* ChannelName(Channel channel);
// False when name is not one of the six channel names (case sensitive).
bool ChannelFromName(std::string_view name, Channel& channel);
bool IsRotation(Channel channel);
// 0, 1, 2 for the X, Y, Z channels of either kind.
int ChannelAxis(Channel channel);

struct BvhJoint
{
  std::string name;
  int parent = -1; // index into BvhFile::joints; -1 for a root
  telvo::Vector offset;
  std::vector<Channel> channels;
  bool hasEndSite = false;
  telvo::Vector endSiteOffset;
  int line = 0;         // line of the ROOT/JOINT keyword; 0 for joints not read from a file
  int firstChannel = 0; // index of the joint's first channel within a motion row
};

struct BvhFile
{
  std::vector<BvhJoint> joints; // file order: depth first, parents before children
  int frameCount = 0;
  double frameTime = 0.0; // seconds
  int channelCount = 0;
  std::vector<double> motion; // frameCount * channelCount values, one row per frame
  std::string path;           // where it was read from (or the display name given)
  // What the reader accepted but a user should know: "FILE:LINE: ..." texts (a motion section
  // longer or shorter than its "Frames:" line says).
  std::vector<std::string> warnings;
};

// Limits on what a file may declare, so that a hostile file cannot make the reader allocate
// without bound.
constexpr int kMaxBvhJoints = 10000;
constexpr int kMaxBvhFrames = 10000000;
constexpr int kMaxChannelsPerJoint = 6;

// How much of a file to read: a target's motion is never used.
enum class BvhPart
{
  kWhole,
  kHierarchy, // up to MOTION; no frames
};

// Reads a file as exporters write it: tabs, CRLF, trailing blanks, any spacing in "Frame Time:"
// and a missing last newline are accepted. A motion section with more lines than "Frames:"
// declares is read up to the declared count, one with fewer complete lines (a file cut short)
// up to its last complete frame, each with a warning in out.warnings. Broken structure fails:
// false, out unspecified, error "FILE:LINE: expected X, found Y" (or a message naming the path
// when it cannot be read). The frames' numbers may be read by up to threads threads (0: every
// core); the result is the same whatever their number.
bool ReadBvh(const std::string& path, BvhFile& out, std::string& error, BvhPart part = BvhPart::kWhole,
             int threads = 1);
// The same from memory; displayName stands for the file in messages and in out.path.
bool ReadBvhFromBuffer(std::string_view text, const std::string& displayName, BvhFile& out, std::string& error,
                       BvhPart part = BvhPart::kWhole, int threads = 1);

// Checks that the model can be written as is: depth-first joint order, names that are single
// tokens, distinct channels per joint, firstChannel/channelCount consistent, motion sized
// frameCount * channelCount, finite numbers. Returns false with a message otherwise.
bool ValidateBvh(const BvhFile& file, std::string& error);

// Writes the text form into text (replacing its content). The motion rows may be written by up to
// threads threads (0: every core); the text is the same whatever their number.
bool WriteBvhToString(const BvhFile& file, std::string& text, std::string& error, int threads = 1);
// Writes path atomically: a temporary file beside it is written, synced and renamed over path.
// On failure nothing is left behind and any existing file at path is untouched.
bool WriteBvh(const std::string& path, const BvhFile& file, std::string& error, int threads = 1);

} // namespace kelvara
