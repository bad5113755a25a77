#include "impl/kelvara_module.h"
#include "telvo/hierarchyobject.h"
#include "telvo/kelvarahelper.h"
#include "telvo/uuid.h"

namespace telvo::kelvara
{

namespace
{

constexpr const char* kUnitName = "source/impl/kelvarahelper_impl";
constexpr const char* kClassId = "net.telvo.animation.class.kelvarahelper";
constexpr const char* kImplementation = "KelvaraHelperImpl";
constexpr const char* kAssociationClassId = "net.telvo.animation.class.characterassociation";

// The node a hierarchy walk hands over, seen through interface I; NullptrError for a null node or
// one of another class (a body part under a skeleton node, say): the walk cannot read it.
template <typename I>
Result<StrongRef<I>> NodeAs(const ObjectInterface* node)
{
  I* typed = QueryInterface<I>(node);
  if (typed == nullptr)
    return TELVO_NULLPTR_ERROR();
  return StrongRef<I>(typed);
}

// A keyword prepared once per body part: its sub-keywords, upper-cased. Splitting drops empty
// pieces, so "arm&&" and "&&arm" both mean just "arm", and "&&" alone (no pieces) matches nothing.
using PreparedKeyword = BaseArray<String>;

Result<void> PrepareKeywords(const BaseArray<String>& keywords, const String& separator,
                             BaseArray<PreparedKeyword>& prepared)
{
  TELVO_TRY(prepared.EnsureCapacity(keywords.GetCount()));
  for (const String& keyword : keywords)
  {
    TELVO_TRY_ASSIGN(PreparedKeyword pieces, keyword.Split(separator));
    for (String& piece : pieces)
    {
      TELVO_TRY_ASSIGN(piece, piece.ToUpper());
    }
    TELVO_TRY(prepared.Append(std::move(pieces)));
  }
  return OK();
}

// Case-insensitive substring test with "&&" meaning "and": every sub-keyword must occur in the
// (already upper-cased) name. A keyword without sub-keywords never matches.
Bool KeywordMatches(const String& upperName, const PreparedKeyword& keyword)
{
  if (keyword.IsEmpty())
    return false;
  for (const String& piece : keyword)
    if (upperName.FindIndex(piece, 0) == -1)
      return false;
  return true;
}

Bool AnyKeywordMatches(const String& upperName, const BaseArray<PreparedKeyword>& keywords)
{
  for (const PreparedKeyword& keyword : keywords)
    if (KeywordMatches(upperName, keyword))
      return true;
  return false;
}

class KelvaraHelperImpl final : public ObjectImpl<KelvaraHelperImpl, KelvaraHelperInterface>
{
public:
  Result<void> FillBodyPart(const CharacterTreeRef& skeleton, const CharacterBodyPartRef& bodyPart) const override
  {
    if (!bodyPart)
      return TELVO_NULLPTR_ERROR();
    const BaseArray<String>& keywords = bodyPart->GetSkeletonKeywords();
    TELVO_TRY_ASSIGN(const String separator, String::Create("&&"));
    BaseArray<Uuid> found;

    if (!keywords.IsEmpty())
    {
      // The keywords do not change during the search: split and upper-case them once rather than
      // once per node.
      BaseArray<PreparedKeyword> accept;
      BaseArray<PreparedKeyword> discard;
      TELVO_TRY(PrepareKeywords(keywords, separator, accept));
      TELVO_TRY(PrepareKeywords(bodyPart->GetSkeletonDiscardKeywords(), separator, discard));

      auto visit = [&](const ObjectInterface* object, const ObjectInterface*, Int) -> Result<WalkAnswer> {
        TELVO_TRY_ASSIGN(const CharacterTreeRef node, NodeAs<CharacterTreeInterface>(object));
        TELVO_TRY_ASSIGN(const String upperName, node->GetName().ToUpper());
        // Discard keywords win; a rejected node's descendants are still searched.
        if (AnyKeywordMatches(upperName, discard))
          return WalkAnswer::Continue;
        if (!AnyKeywordMatches(upperName, accept))
          return WalkAnswer::Continue;
        // The first match in pre-order is the body part's only node: the search stops here, on
        // purpose (nodes nested under it are never taken for the same body part).
        TELVO_TRY(found.Append(node->GetUuid()));
        return WalkAnswer::Stop;
      };
      TELVO_TRY(WalkHierarchy(skeleton.GetPointer(), visit));
    }

    TELVO_TRY(bodyPart->SetSkeleton(found));

    for (const ObjectRef& child : bodyPart->GetChildren())
    {
      TELVO_TRY_ASSIGN(CharacterBodyPartRef childPart, NodeAs<CharacterBodyPartInterface>(child.GetPointer()));
      TELVO_TRY(FillBodyPart(skeleton, childPart));
    }
    return OK();
  }

  Result<CharacterAssociation> AssociateBodyPartsByIdentifier(const CharacterBodyPartRef& srcBodyPart,
                                                              const CharacterBodyPartRef& dstBodyPart,
                                                              AssociationCounters& counters) const override
  {
    if (!srcBodyPart || !dstBodyPart)
      return TELVO_ERROR(IllegalArgumentError, "Illegal argument: Condition srcBodyPart && dstBodyPart not fulfilled. ");

    TELVO_TRY_ASSIGN(CharacterAssociation association, NewInstance<CharacterAssociation>(kAssociationClassId));
    // The new association has no other holder: this never copies.
    TELVO_TRY_ASSIGN(CharacterAssociationInterface * writable, association.MakeWritable());

    counters = AssociationCounters{};

    auto visit = [&](const ObjectInterface* object, const ObjectInterface*, Int) -> Result<WalkAnswer> {
      TELVO_TRY_ASSIGN(const CharacterBodyPartRef source, NodeAs<CharacterBodyPartInterface>(object));
      ++counters.visitedSourceBodyParts;
      // Errors of one body part's visit are dropped on purpose: the walk goes on with the next
      // body part, and what was associated before the error stays.
      (void)AssociateOne(*writable, source, dstBodyPart, counters);
      return WalkAnswer::Continue;
    };
    TELVO_TRY(WalkHierarchy(srcBodyPart.GetPointer(), visit));
    return association;
  }

  Result<CharacterPose> TranslateSrcToDestID(const CharacterAssociation& association,
                                             const CharacterPose& pose) const override
  {
    if (!pose)
      return TELVO_NULLPTR_ERROR();
    const BaseArray<CharacterNodeTransform>& source = pose->GetNodeTransformArray();
    BaseArray<CharacterNodeTransform> translated;
    TELVO_TRY(translated.EnsureCapacity(source.GetCount()));

    for (const CharacterNodeTransform& transform : source)
    {
      // A null slot has no id and therefore no partner: it is left out like any unassociated node.
      if (!transform || !association)
        continue;
      Result<Uuid> target = association->GetAssociatedUuid(transform->GetUuid());
      if (target.IsError())
        continue;
      // A private copy, so that the source pose (shared with the caller) never changes.
      CharacterNodeTransform copy = transform;
      TELVO_TRY_ASSIGN(CharacterNodeTransformInterface * writable, copy.MakeWritable());
      TELVO_TRY(writable->SetUuid(target.GetValue()));
      TELVO_TRY(translated.Append(std::move(copy)));
    }

    CharacterPose result = pose;
    TELVO_TRY_ASSIGN(CharacterPoseInterface * writablePose, result.MakeWritable());
    TELVO_TRY(writablePose->SetNodeTransformArray(translated));
    return result;
  }

  Result<Int> FindBodyPartMatchingCount(const CharacterBodyPartRef& bodyPart, const CharacterPose& pose,
                                        Bool recursive) const override
  {
    if (!bodyPart)
      return TELVO_NULLPTR_ERROR();
    Int count = 0;
    for (const Uuid& node : bodyPart->GetSkeleton())
    {
      if (!pose)
        return TELVO_NULLPTR_ERROR();
      TELVO_TRY_ASSIGN(CharacterNodeTransform transform, pose->GetNodeTransformByID(node));
      if (transform)
        ++count;
    }
    if (recursive)
    {
      for (const ObjectRef& child : bodyPart->GetChildren())
      {
        TELVO_TRY_ASSIGN(CharacterBodyPartRef childPart, NodeAs<CharacterBodyPartInterface>(child.GetPointer()));
        TELVO_TRY_ASSIGN(Int childCount, FindBodyPartMatchingCount(childPart, pose, true));
        count += childCount;
      }
    }
    return count;
  }

  // No fields: nothing to copy or describe.
  Result<void> CopyFrom(const KelvaraHelperImpl&) { return OK(); }
  static Result<void> DescribeIO(DataDescriber&) { return OK(); }

private:
  // One source body part's share of AssociateBodyPartsByIdentifier. The first error ends it;
  // counters not reached by then stay as they are.
  static Result<void> AssociateOne(CharacterAssociationInterface& association, const CharacterBodyPartRef& source,
                                   const CharacterBodyPartRef& targetRoot, AssociationCounters& counters)
  {
    const InternedId identifier = source->GetIdentifier();
    TELVO_TRY_ASSIGN(CharacterBodyPartRef target, targetRoot->FindBodyPartByID(identifier));
    if (!target)
      return OK();
    TELVO_TRY(association.AssociateBodyPart(source, target));
    ++counters.matchedBodyParts;

    // Pairing is by position only; the surplus of the longer skeleton stays unassociated.
    const BaseArray<Uuid>& sourceNodes = source->GetSkeleton();
    const BaseArray<Uuid>& targetNodes = target->GetSkeleton();
    const Int pairs = sourceNodes.GetCount() < targetNodes.GetCount() ? sourceNodes.GetCount() : targetNodes.GetCount();
    for (Int i = 0; i < pairs; ++i)
      TELVO_TRY(association.AssociateUuid(sourceNodes[i], targetNodes[i]));

    counters.sourceSkeletonNodes += sourceNodes.GetCount();
    counters.targetSkeletonNodes += targetNodes.GetCount();
    counters.associatedNodePairs += pairs;
    return OK();
  }
};

// The helper has no Create... factory: callers create it by its class id.
constinit DataTypeReference g_dataType{"telvo::KelvaraHelperRef"};
constexpr ComponentInfo kComponents[] = {OwnComponent<KelvaraHelperImpl>(kImplementation)};
constexpr InterfaceInfoFn kInterfaces[] = {&KelvaraHelperInterface::GetInterfaceInfo};
constexpr ClassInfo g_class =
  MakeClassInfo<KelvaraHelperImpl>(kClassId, &g_dataType, kImplementation, nullptr, kComponents, kInterfaces);
const ImplementationInfo g_implementation{kImplementation, &g_class, nullptr, &KelvaraHelperImpl::DescribeIO};
const UnitAnnouncer g_announcer{g_telvo,
                                kUnitName,
                                {KELVARA_COMMON_HEADERS, "telvo/hierarchyobject.h", "telvo/uuid.h",
                                 "telvo/characterassociation.h", "telvo/characterbodypart.h", "telvo/characterpose.h",
                                 "telvo/charactertree.h", "telvo/kelvarahelper.h", KELVARA_TRAILING_HEADERS},
                                &g_class,
                                &g_implementation};

} // namespace

} // namespace telvo::kelvara
