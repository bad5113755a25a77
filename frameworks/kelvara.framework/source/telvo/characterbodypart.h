// CharacterBodyPart: one named, identified region of a character (hips, left forearm, ...).
// It records the controllers that drive it, the skeleton nodes that belong to it and the keywords
// that select and reject skeleton nodes for it. Body parts form a hierarchy of their own (each is
// a hierarchy object) and carry their name as observer objects.
#pragma once

#include "telvo/array.h"
#include "telvo/hierarchyobject.h"
#include "telvo/internedid.h"
#include "telvo/observerobject.h"
#include "telvo/registrybase.h"
#include "telvo/uuid.h"

namespace telvo
{

class CharacterBodyPartInterface;
// Shared reference: body parts are changed in place, visible to every holder.
using CharacterBodyPartRef = StrongRef<CharacterBodyPartInterface>;

class CharacterBodyPartInterface : public ObserverObjectInterface, public HierarchyObjectInterface
{
public:
  using Bases = InterfaceList<ObserverObjectInterface, HierarchyObjectInterface>;
  TELVO_INTERFACE_INFO("net.telvo.animation.interface.characterbodypart", "telvo.CharacterBodyPartInterface",
                       "telvo/characterbodypart.h", "SetIdentifier", "GetIdentifier", "SetControllers",
                       "GetControllers", "SetSkeleton", "GetSkeleton", "GetHierarchySkeleton", "ClearSkeleton",
                       "GetSkeletonCount", "SetSkeletonKeywords", "SetSkeletonDiscardKeywords", "GetSkeletonKeywords",
                       "GetSkeletonDiscardKeywords", "FindBodyPartByID", "FindBodyPartByName", "ToString")

  // The key by which body parts of two characters are matched; shared, never fails.
  virtual void SetIdentifier(const InternedId& identifier) = 0;
  virtual InternedId GetIdentifier() const = 0;
  // The array setters copy the array (elements shared); the body part's own array is a no-op;
  // OutOfMemoryError when the copy cannot be made.
  virtual Result<void> SetControllers(const BaseArray<Uuid>& controllers) = 0;
  virtual const BaseArray<Uuid>& GetControllers() const = 0;
  virtual Result<void> SetSkeleton(const BaseArray<Uuid>& skeleton) = 0;
  // This body part's skeleton nodes only.
  virtual const BaseArray<Uuid>& GetSkeleton() const = 0;
  // The skeleton nodes of this body part and of all below it, pre-order, duplicates kept.
  virtual Result<BaseArray<Uuid>> GetHierarchySkeleton() const = 0;
  virtual Result<void> ClearSkeleton(Bool recursive) = 0;
  virtual Result<Int> GetSkeletonCount(Bool recursive) const = 0;
  // Keywords select skeleton nodes by name; discard keywords reject them. Set, set, get, get.
  virtual Result<void> SetSkeletonKeywords(const BaseArray<String>& keywords) = 0;
  virtual Result<void> SetSkeletonDiscardKeywords(const BaseArray<String>& keywords) = 0;
  virtual const BaseArray<String>& GetSkeletonKeywords() const = 0;
  virtual const BaseArray<String>& GetSkeletonDiscardKeywords() const = 0;
  // The first body part of the subtree (this one included, pre-order) with that identifier or
  // name; a null reference when there is none (never an error).
  virtual Result<CharacterBodyPartRef> FindBodyPartByID(const InternedId& identifier) const = 0;
  virtual Result<CharacterBodyPartRef> FindBodyPartByName(const String& name) const = 0;
  String ToString(const FormatStatement* formatStatement = nullptr) const override = 0;

  static Result<CharacterBodyPartRef> CreateBodyPart(const InternedId& identifier, const String& name)
  {
    return CallCreateEntry<decltype(CreateBodyPart)>("CharacterBodyPartImpl", identifier, name);
  }
  static Result<void> DescribeIO(DataDescriber& describer)
  {
    return CallDescribeEntry("CharacterBodyPartImpl", describer);
  }
};

} // namespace telvo
