// The node-info component: the identity part of node info, node transforms, tree nodes and
// character definitions. Classes built on node info derive from CharacterNodeInfoComponent and
// forward to this one implementation. Private to the module.
#pragma once

#include <atomic>

#include "impl/kelvara_module.h"
#include "telvo/characternodeinfo.h"

namespace telvo::kelvara
{

inline constexpr const char* kNodeInfoClassId = "net.telvo.animation.class.characternodeinfo";
inline constexpr const char* kNodeInfoImplementation = "CharacterNodeInfoImpl";

// The fields and the implementation of node info. Field order is declaration order: the id, then
// the name (destruction releases the name first).
class CharacterNodeInfoPart
{
public:
  Result<void> SetUuid(const Uuid& uuid);
  const Uuid& GetUuid() const { return _objectId; }
  Result<void> SetName(const String& name);
  const String& GetName() const { return _objectName; }
  String ToString(const FormatStatement* formatStatement) const;

  Result<void> CopyFrom(const CharacterNodeInfoPart& src);
  static Result<void> DescribeIO(DataDescriber& describer);

  Uuid _objectId;
  String _objectName;
  // Set once a pose has indexed this object by its id: from then on a change of id makes every
  // pose's index stale (IndexedIdChanges), and lookups scan again.
  mutable std::atomic<Bool> _indexedById{false};
};

// How many times the id of an object some pose had indexed has changed in this process.
std::atomic<UInt>& IndexedIdChanges();

template <typename INTERFACE>
class CharacterNodeInfoComponent : public INTERFACE, public CharacterNodeInfoPart
{
public:
  using InterfaceType = INTERFACE;

  Result<void> SetUuid(const Uuid& uuid) override { return CharacterNodeInfoPart::SetUuid(uuid); }
  const Uuid& GetUuid() const override { return CharacterNodeInfoPart::GetUuid(); }
  Result<void> SetName(const String& name) override { return CharacterNodeInfoPart::SetName(name); }
  const String& GetName() const override { return CharacterNodeInfoPart::GetName(); }
  String ToString(const FormatStatement* formatStatement = nullptr) const override
  {
    return CharacterNodeInfoPart::ToString(formatStatement);
  }
};

// The node-info part of any object of a class built on node info; nullptr when it has none.
inline const CharacterNodeInfoPart* FindNodeInfoPart(const ObjectInterface* object)
{
  return object != nullptr ? static_cast<const CharacterNodeInfoPart*>(object->FindComponent(kNodeInfoImplementation))
                           : nullptr;
}

// The component record of the node-info part inside an instance of IMPL.
template <typename IMPL>
constexpr ComponentInfo NodeInfoComponent()
{
  return PartComponent<IMPL, CharacterNodeInfoPart>(kNodeInfoImplementation);
}

} // namespace telvo::kelvara
