// Joint maps given by hand: a JSON object {"target joint": "source joint", ...} whose pairs
// override the pairing found by the body-part keywords.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "anim/skeleton.h"

namespace kelvara
{

struct JointPair
{
  int target = -1; // joint index in the target skeleton
  int source = -1; // joint index in the source skeleton
};

// Reads and checks a map (its text; displayName stands for the file in messages) against the two
// skeletons. On failure returns false with "FILE:LINE: expected ..., found ..." in error.
bool ParseJointMap(std::string_view text, const std::string& displayName, const Skeleton& source,
                   const Skeleton& target, std::vector<JointPair>& pairs, std::string& error);

} // namespace kelvara
