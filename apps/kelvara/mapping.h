// Joint maps given by hand: a JSON object {"target joint": "source joint", ...} whose pairs
// override the pairing found by the body-part keywords.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "bvh.h"

namespace kelvara
{

struct JointPair
{
  int target = -1; // joint index in the target file
  int source = -1; // joint index in the source file
};

// Reads and checks a map against the two skeletons. On failure returns false with
// "FILE:LINE: expected ..., found ..." in error.
bool ReadJointMap(const std::string& path, const BvhFile& source, const BvhFile& target, std::vector<JointPair>& pairs,
                  std::string& error);
// The same from memory; displayName stands for the file in messages.
bool ParseJointMap(std::string_view text, const std::string& displayName, const BvhFile& source,
                   const BvhFile& target, std::vector<JointPair>& pairs, std::string& error);

} // namespace kelvara
