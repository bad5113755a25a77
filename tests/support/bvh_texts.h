// BVH texts the BVH tests share, and reading and comparing them.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "io/bvh/bvh_file.h"

namespace kelvara_test
{

// Two roots, an end site, a position channel on a non-root joint, two- and four-channel joints
// and unusual rotation orders, in the writer's exact layout, up to and including MOTION.
inline const std::string kBvhHierarchy =
  "HIERARCHY\nROOT Hips\n{\n\tOFFSET 0 0 0\n\tCHANNELS 6 Xposition Yposition Zposition Zrotation Xrotation Yrotation\n"
  "\tJOINT Spine\n\t{\n\t\tOFFSET 0 5.5 -0.001\n\t\tCHANNELS 3 Yrotation Xrotation Zrotation\n"
  "\t\tEnd Site\n\t\t{\n\t\t\tOFFSET 0 2 0\n\t\t}\n\t}\n"
  "\tJOINT Leg\n\t{\n\t\tOFFSET 1 -2 0.25\n\t\tCHANNELS 4 Yposition Xrotation Zrotation Yrotation\n\t}\n}\n"
  "ROOT Prop\n{\n\tOFFSET 10 0 0\n\tCHANNELS 2 Zrotation Xposition\n}\nMOTION\n";

inline kelvara::BvhFile ReadBvhText(const std::string& text, const std::string& path = "sample.bvh")
{
  kelvara::BvhFile f;
  std::string error;
  EXPECT_TRUE(kelvara::ReadBvhFromBuffer(text, path, f, error)) << error << "\n" << text;
  return f;
}

// Same joints (declaring lines and channel slots included), counts and frame time; motion equal,
// or within tolerance when it went through rotations.
inline void ExpectSameBvh(const kelvara::BvhFile& a, const kelvara::BvhFile& b, double tolerance = 0.0)
{
  auto key = [](const kelvara::BvhJoint& j) {
    return std::tie(j.name, j.parent, j.offset, j.channels, j.hasEndSite, j.endSiteOffset, j.firstChannel, j.line);
  };
  ASSERT_EQ(a.joints.size(), b.joints.size());
  for (std::size_t i = 0; i < a.joints.size(); ++i)
    EXPECT_TRUE(key(a.joints[i]) == key(b.joints[i])) << "joint " << a.joints[i].name;
  EXPECT_EQ(std::tie(a.frameCount, a.frameTime, a.channelCount), std::tie(b.frameCount, b.frameTime, b.channelCount));
  ASSERT_EQ(a.motion.size(), b.motion.size());
  for (std::size_t k = 0; k < a.motion.size(); ++k)
    ASSERT_NEAR(a.motion[k], b.motion[k], tolerance) << "value " << k << " of a row of " << a.channelCount;
}

} // namespace kelvara_test
