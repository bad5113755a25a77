// Built-in characters for `kelvara demo`: a walking source and a differently built target, so
// that the whole retarget road can run without any file.
//
// Both characters stand with Y up, face +Z and have their left side on +X (the layout of the
// common motion-capture clips).
//
// Source: motion-capture naming and layout (Hips, LowerBack, Spine, Spine1, Neck, Head,
// Left/RightShoulder, Arm, ForeArm, Hand, Left/RightUpLeg, Leg, Foot, ToeBase; 22 joints), in the
// units of those clips (a person about 29 units tall, hips 17.9 above the ground), rest pose a
// T-pose (arms along +-X, legs straight down, toes along +Z). Hips carries
// "Xposition Yposition Zposition Zrotation Yrotation Xrotation", every other joint
// "Zrotation Yrotation Xrotation". End sites on Head, the hands and the toes.
//
// Target: game-rig naming (pelvis, spine_01, spine_02, neck_01, head, clavicle_l, upperarm_l,
// lowerarm_l, hand_l, thigh_l, calf_l, foot_l, ball_l and the same with _r; 21 joints), in
// centimetres (about 165 cm tall), with shorter legs and longer arms than the source, rest pose an
// A-pose (upper and lower arms 45 degrees below horizontal, legs straight down) and
// "Xrotation Yrotation Zrotation" channels (pelvis: positions first). Its single frame is all
// zeros: only its skeleton matters to a retarget.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "io/bvh/bvh_file.h"

namespace kelvara
{

// Length of one walk cycle (two steps). At the default 60 frames a second it is exactly 66
// frames, so that frame f and frame f + 66 hold the same pose.
constexpr double kDemoCycleSeconds = 1.1;

// The source walking forward (+Z) at a steady speed for frameCount frames of frameTime seconds:
// legs and knees in phase opposition, arms swinging against the legs, pelvis and spine twisting
// a little, the hips bobbing so that the lower foot stays on the ground (y = 0). Frame f shows
// time f * frameTime. Deterministic: the same arguments give the same file. frameCount < 0 is
// treated as 0; frameTime must be positive.
BvhFile MakeDemoSource(int frameCount = 240, double frameTime = 1.0 / 60.0);

// The target skeleton with one frame of zero motion.
BvhFile MakeDemoTarget();

// Which target joint should take the motion of which source joint: {target, source}, one pair
// per target joint, in target file order. The source's LowerBack has no counterpart.
std::vector<std::pair<std::string, std::string>> DemoExpectedPairs();

} // namespace kelvara
