// A describer that records every member declaration, for tests of DescribeIO and DescribeClass.
#pragma once

#include <string>
#include <vector>

#include "telvo/dataserialize.h"

namespace kelvara_test
{

struct DeclaredMember
{
  std::string key;
  std::string type;
  telvo::UInt flags;
  bool hasAccess;

  friend bool operator==(const DeclaredMember&, const DeclaredMember&) = default;
};

// Records each accepted declaration with its component and accessor. The failAt-th declaration
// (from 1; 0: none) is refused with `failure` and not recorded.
class RecordingDescriber : public telvo::DataDescriber
{
public:
  explicit RecordingDescriber(int failAt = 0) : failAt(failAt) {}

  void EnterComponent(const telvo::ComponentInfo& component) override { _component = component.implementationName; }

  telvo::Result<void> DeclareMember(const char* key, const telvo::DataType& type, telvo::UInt flags,
                                    telvo::MemberAccess access) override
  {
    if (++calls == failAt)
      return failure;
    members.push_back(DeclaredMember{key, type.name, flags, access != nullptr});
    components.push_back(_component);
    accesses.push_back(access);
    return telvo::OK();
  }

  std::vector<DeclaredMember> members;
  std::vector<std::string> components;
  std::vector<telvo::MemberAccess> accesses;
  int failAt;
  int calls = 0;
  telvo::Error failure = RefusalError();

private:
  static telvo::Error RefusalError()
  {
    constexpr const char* kUnitName = "recording_describer";
    return TELVO_ERROR(telvo::UnexpectedError, "describer refused");
  }

  std::string _component;
};

} // namespace kelvara_test

#include <gtest/gtest.h>

namespace kelvara_test
{

// describe(describer) declares exactly `expected`, in order, and stops at whichever declaration
// the describer refuses, handing back the describer's error.
template <typename DESCRIBE>
void ExpectDescribes(DESCRIBE&& describe, const std::vector<DeclaredMember>& expected)
{
  RecordingDescriber describer;
  ASSERT_TRUE(describe(describer).IsOk());
  EXPECT_EQ(describer.members, expected);
  for (int failAt = 1; failAt <= static_cast<int>(expected.size()); ++failAt)
  {
    RecordingDescriber refusing(failAt);
    telvo::Result<void> result = describe(refusing);
    ASSERT_TRUE(result.IsError()) << "refused declaration " << failAt;
    EXPECT_TRUE(result.GetError() == refusing.failure) << "refused declaration " << failAt;
    EXPECT_EQ(refusing.calls, failAt);
  }
}

} // namespace kelvara_test
