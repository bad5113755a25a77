// CharacterNodeInfo: the identity of one scene node (a skeleton joint or a controller): its Uuid
// and its name. Node transforms, tree nodes and character definitions extend it.
#pragma once

#include "telvo/dataserialize.h"
#include "telvo/objectbase.h"
#include "telvo/registrybase.h"
#include "telvo/string.h"
#include "telvo/uuid.h"

namespace telvo
{

class CharacterNodeInfoInterface;
// Copy-on-write reference.
using CharacterNodeInfo = CowRef<CharacterNodeInfoInterface>;

class CharacterNodeInfoInterface : public virtual ObjectInterface
{
public:
  using Bases = InterfaceList<ObjectInterface>;
  TELVO_INTERFACE_INFO("net.telvo.animation.interface.characternodeinfo", "telvo.CharacterNodeInfoInterface",
                       "telvo/characternodeinfo.h", "SetUuid", "GetUuid", "SetName", "GetName", "ToString")

  // Shares uuid. Fails only with OutOfMemoryError, the stored id then unchanged.
  virtual Result<void> SetUuid(const Uuid& uuid) = 0;
  // The stored id itself; a null Uuid until one is set.
  virtual const Uuid& GetUuid() const = 0;
  // Shares name; never fails.
  virtual Result<void> SetName(const String& name) = 0;
  virtual const String& GetName() const = 0;
  // "Object ID : <uuid>\nObject Name : <name>\n"; the format statement goes to the Uuid's text.
  String ToString(const FormatStatement* formatStatement = nullptr) const override = 0;

  static Result<CharacterNodeInfo> CreateNodeInfo(const Uuid& uuid, const String& name)
  {
    return CallCreateEntry<decltype(CreateNodeInfo)>("CharacterNodeInfoImpl", uuid, name);
  }
  static Result<void> DescribeIO(DataDescriber& describer)
  {
    return CallDescribeEntry("CharacterNodeInfoImpl", describer);
  }
};

} // namespace telvo
