// Node transforms and poses for module tests; the module must be loaded first.
#pragma once

#include <vector>

#include "support/values.h"
#include "telvo/characterpose.h"

namespace kelvara_test
{

inline telvo::CharacterNodeTransform MakeTransform(const telvo::Uuid& id, const telvo::Matrix& global,
                                                   const telvo::Matrix& parentGlobal = telvo::Matrix())
{
  return Value(telvo::CharacterNodeTransformInterface::CreateNodeTransform(id, global, parentGlobal));
}

inline telvo::CharacterPose MakePose(const std::vector<telvo::CharacterNodeTransform>& transforms)
{
  telvo::CharacterPose pose = Value(telvo::CreateObject<telvo::CharacterPose>("net.telvo.animation.class.characterpose"));
  telvo::BaseArray<telvo::CharacterNodeTransform> array;
  for (const telvo::CharacterNodeTransform& t : transforms)
    EXPECT_TRUE(array.Append(t).IsOk());
  EXPECT_TRUE(Value(pose.MakeWritable())->SetNodeTransformArray(array).IsOk());
  return pose;
}

} // namespace kelvara_test
