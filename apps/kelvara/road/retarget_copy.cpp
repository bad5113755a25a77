// PreparedRetarget::CopyWithOwnObjects: the module objects the frames touch, copied down to their
// ids, so that the threads of a batch or of one clip's frames each have a set of their own.
#include "road/retarget.h"

#include "telvo/registrybase.h"

namespace kelvara
{

namespace
{

// The same id in a block of its own: a copied handle shares its block, and its count, until then.
bool OwnId(const telvo::Uuid& id, telvo::Uuid& own, std::string& error)
{
  own = id;
  return Check(own.MakeWritable(), "cannot copy an id", error);
}

// pose with node transforms of its own, each with its own id.
bool OwnPose(const telvo::CharacterPose& pose, telvo::CharacterPose& own, std::string& error)
{
  const char* what = "cannot copy the rest pose";
  telvo::BaseArray<telvo::CharacterNodeTransform> nodes;
  for (const telvo::CharacterNodeTransform& node : pose->GetNodeTransformArray())
  {
    telvo::CharacterNodeTransform copy = node;
    if (copy)
    {
      telvo::Uuid id;
      telvo::Result<telvo::CharacterNodeTransformInterface*> writable = copy.MakeWritable();
      if (!Check(writable, what, error) || !OwnId(node->GetUuid(), id, error) ||
          !Check(writable.GetValue()->SetUuid(id), what, error))
        return false;
    }
    if (!Check(nodes.Append(std::move(copy)), what, error))
      return false;
  }
  own = pose;
  telvo::Result<telvo::CharacterPoseInterface*> writable = own.MakeWritable();
  return Check(writable, what, error) && Check(writable.GetValue()->SetNodeTransformArray(nodes), what, error);
}

// definition with a rest pose and an id of its own (its trees are cloned by the copy itself).
bool OwnDefinition(const telvo::CharacterDefinition& definition, telvo::CharacterDefinition& own, std::string& error)
{
  const char* what = "cannot copy the source's definition";
  telvo::CharacterPose rest;
  telvo::Uuid id;
  if (!OwnPose(definition->GetSkeletonRestPose(), rest, error) || !OwnId(definition->GetUuid(), id, error))
    return false;
  own = definition;
  telvo::Result<telvo::CharacterDefinitionInterface*> writable = own.MakeWritable();
  return Check(writable, what, error) && Check(writable.GetValue()->SetSkeletonRestPose(rest), what, error) &&
         Check(writable.GetValue()->SetUuid(id), what, error);
}

// A new association that answers for the source's body parts and joints as association does,
// with ids of its own.
bool OwnAssociation(const telvo::CharacterAssociation& association, const Character& source,
                    telvo::CharacterAssociation& own, std::string& error)
{
  const char* what = "cannot copy the association";
  telvo::Result<telvo::CharacterAssociation> fresh =
    telvo::CreateObject<telvo::CharacterAssociation>("net.telvo.animation.class.characterassociation");
  if (!Check(fresh, what, error))
    return false;
  own = fresh.GetValue();
  telvo::Result<telvo::CharacterAssociationInterface*> writable = own.MakeWritable();
  if (!Check(writable, what, error))
    return false;
  for (const telvo::CharacterBodyPartRef& part : source.bodyParts)
  {
    if (!part)
      continue;
    const telvo::InternedId id = part->GetIdentifier();
    telvo::Result<telvo::InternedId> partner = association->GetAssociatedId(id);
    if (partner.IsOk() && !Check(writable.GetValue()->AssociateId(id, partner.GetValue()), what, error))
      return false;
  }
  for (const telvo::Uuid& joint : source.uuids)
  {
    telvo::Result<telvo::Uuid> partner = association->GetAssociatedUuid(joint);
    if (partner.IsError())
      continue;
    telvo::Uuid ownJoint;
    telvo::Uuid ownPartner;
    if (!OwnId(joint, ownJoint, error) || !OwnId(partner.GetValue(), ownPartner, error) ||
        !Check(writable.GetValue()->AssociateUuid(ownJoint, ownPartner), what, error))
      return false;
  }
  return true;
}

} // namespace

bool PreparedRetarget::CopyWithOwnObjects(PreparedRetarget& copy, std::string& error) const
{
  if (!_prepared)
  {
    error = "the retarget was not prepared";
    return false;
  }
  const char* what = "cannot copy the solver configuration";
  telvo::Result<telvo::CharacterDefinition> sourceDefinition = _configuration->GetSourceCharacter();
  if (!Check(sourceDefinition, what, error))
    return false;
  telvo::CharacterDefinition definition;
  telvo::CharacterAssociation association;
  if (!OwnDefinition(sourceDefinition.GetValue(), definition, error) ||
      !OwnAssociation(_association, *source, association, error))
    return false;
  telvo::CharacterSolverConfiguration configuration = _configuration;
  telvo::Result<telvo::CharacterSolverConfigurationInterface*> writable = configuration.MakeWritable();
  if (!Check(writable, what, error) || !Check(writable.GetValue()->SetSourceCharacter(definition), what, error) ||
      !Check(writable.GetValue()->SetCharacterAssociation(association), what, error) ||
      !Check(configuration->Validate(), what, error))
    return false;
  copy = *this;
  copy._association = std::move(association);
  copy._configuration = std::move(configuration);
  return true;
}

} // namespace kelvara
