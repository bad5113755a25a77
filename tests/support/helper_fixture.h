// A fixture for tests that build characters: the module loaded and one helper made.
#pragma once

#include <gtest/gtest.h>

#include "support/loaded_module.h"
#include "telvo/kelvarahelper.h"

namespace kelvara_test
{

class HelperTest : public ::testing::Test
{
protected:
  void SetUp() override
  {
    LoadedModuleForTests();
    telvo::Result<telvo::KelvaraHelperRef> helper =
      telvo::CreateObject<telvo::KelvaraHelperRef>("net.telvo.animation.class.kelvarahelper");
    ASSERT_TRUE(helper.IsOk());
    _helper = helper.GetValue();
  }

  telvo::KelvaraHelperRef _helper;
};

} // namespace kelvara_test

#include <initializer_list>
#include <vector>

#include "support/values.h"
#include "telvo/characterbodypart.h"
#include "telvo/charactertree.h"

namespace kelvara_test
{

// Skeleton node n of the character-building tests has the id NodeId(n); NodeNumber reads n back
// (0 for the null id).
inline telvo::Uuid NodeId(int n)
{
  return TaggedUuid(n, 0x11);
}

inline int NodeNumber(const telvo::Uuid& id)
{
  return id.IsNull() ? 0 : id.GetBytes()[14] * 256 + id.GetBytes()[15];
}

// Skeleton node n named name, with its children; a grouping node when isTransformNode is false.
inline telvo::CharacterTreeRef MakeNode(int n, const char* name,
                                        std::initializer_list<telvo::CharacterTreeRef> children = {},
                                        bool isTransformNode = true)
{
  telvo::CharacterTreeRef node =
    Value(telvo::CharacterTreeInterface::CreateTree(NodeId(n), MakeString(name), isTransformNode));
  for (const telvo::CharacterTreeRef& child : children)
    EXPECT_TRUE(node->InsertChildLast(telvo::ObjectRef(child)).IsOk());
  return node;
}

// A body part with its skeleton keywords, discard keywords, skeleton nodes (-1: the null id) and children.
inline telvo::CharacterBodyPartRef MakeBodyPart(const char* identifier,
                                                std::initializer_list<const char*> keywords = {},
                                                std::initializer_list<const char*> discard = {},
                                                std::initializer_list<int> skeleton = {},
                                                std::initializer_list<telvo::CharacterBodyPartRef> children = {})
{
  telvo::CharacterBodyPartRef part =
    Value(telvo::CharacterBodyPartInterface::CreateBodyPart(Id(identifier), MakeString(identifier)));
  EXPECT_TRUE(part->SetSkeletonKeywords(Strings(keywords)).IsOk());
  EXPECT_TRUE(part->SetSkeletonDiscardKeywords(Strings(discard)).IsOk());
  telvo::BaseArray<telvo::Uuid> ids;
  for (int n : skeleton)
    EXPECT_TRUE(ids.Append(n < 0 ? telvo::Uuid() : NodeId(n)).IsOk());
  EXPECT_TRUE(part->SetSkeleton(ids).IsOk());
  for (const telvo::CharacterBodyPartRef& child : children)
    EXPECT_TRUE(part->InsertChildLast(telvo::ObjectRef(child)).IsOk());
  return part;
}

// The skeleton of a body part as node numbers.
inline std::vector<int> SkeletonNumbers(const telvo::CharacterBodyPartRef& part)
{
  std::vector<int> numbers;
  for (const telvo::Uuid& id : part->GetSkeleton())
    numbers.push_back(NodeNumber(id));
  return numbers;
}

} // namespace kelvara_test
