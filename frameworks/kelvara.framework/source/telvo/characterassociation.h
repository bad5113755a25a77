// CharacterAssociation: which target node corresponds to which source node (by Uuid) and which
// target body part to which source body part (by identifier). Both tables are symmetric: every
// association is stored both ways, so one lookup serves both directions.
#pragma once

#include "telvo/characterbodypart.h"
#include "telvo/hashmap.h"

namespace telvo
{

class CharacterAssociationInterface;
// Copy-on-write reference.
using CharacterAssociation = CowRef<CharacterAssociationInterface>;

class CharacterAssociationInterface : public virtual ObjectInterface
{
public:
  using Bases = InterfaceList<ObjectInterface>;
  TELVO_INTERFACE_INFO("net.telvo.animation.interface.characterassociation", "telvo.CharacterAssociationInterface",
                       "telvo/characterassociation.h", "AssociateBodyPart", "AssociateUuid", "GetAssociatedUuid",
                       "AssociateId", "GetAssociatedId", "ToString")

  // Associates the two body parts' identifiers (through AssociateId); their skeleton nodes are
  // not paired here. NullptrError for a null body part.
  virtual Result<void> AssociateBodyPart(CharacterBodyPartRef source, CharacterBodyPartRef target) = 0;
  // Both ways; the last call wins. IllegalArgumentError for a null or empty Uuid.
  virtual Result<void> AssociateUuid(const Uuid& source, const Uuid& target) = 0;
  // IllegalArgumentError "No value associated to this Uuid" on a miss.
  virtual Result<Uuid> GetAssociatedUuid(const Uuid& uuid) const = 0;
  virtual Result<void> AssociateId(const InternedId& source, const InternedId& target) = 0;
  virtual Result<InternedId> GetAssociatedId(const InternedId& id) const = 0;
  // Both tables in the maps' iteration order.
  String ToString(const FormatStatement* formatStatement = nullptr) const override = 0;

  static Result<void> DescribeIO(DataDescriber& describer)
  {
    return CallDescribeEntry("CharacterAssociationImpl", describer);
  }
};

} // namespace telvo
