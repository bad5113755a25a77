// Observer objects carry a name with a getter and a setter.
#pragma once

#include "telvo/objectbase.h"

namespace telvo
{

class TELVO_API ObserverObjectInterface : public virtual ObjectInterface
{
public:
  using Bases = InterfaceList<ObjectInterface>;
  TELVO_INTERFACE_INFO("net.telvo.interface.observerobject", "telvo.ObserverObjectInterface",
                       "telvo/observerobject.h", "SetName", "GetName")

  // The stored name now shares `name`.
  virtual Result<void> SetName(const String& name) = 0;
  virtual const String& GetName() const = 0;
};

} // namespace telvo
