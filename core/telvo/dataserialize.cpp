#include "telvo/dataserialize.h"

namespace telvo
{

namespace
{
constexpr const char* kUnitName = "telvo/dataserialize";
}

Result<void> DeclareMember(DataDescriber& describer, const char* key, const DataTypeReference& type, UInt flags,
                           MemberAccess access)
{
  const DataType* resolved = type.Get();
  if (resolved == nullptr)
    return TELVO_ERROR(UnexpectedError, "The member's data type is not registered");
  return describer.DeclareMember(key, *resolved, flags, access);
}

Result<void> DescribeClass(const ClassInfo& cls, DataDescriber& describer)
{
  for (const ComponentInfo& component : cls.components)
  {
    describer.EnterComponent(component);
    TELVO_TRY(component.describe(describer));
  }
  return OK();
}

} // namespace telvo
