// A describer that records every member declaration, for tests of DescribeIO.
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

class RecordingDescriber : public telvo::DataDescriber
{
public:
  telvo::Result<void> DeclareMember(const char* key, const telvo::DataType& type, telvo::UInt flags,
                                    telvo::MemberAccess access) override
  {
    members.push_back(DeclaredMember{key, type.name, flags, access != nullptr});
    return telvo::OK();
  }

  std::vector<DeclaredMember> members;
};

} // namespace kelvara_test
