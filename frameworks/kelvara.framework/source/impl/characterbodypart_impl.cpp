#include "impl/kelvara_module.h"
#include "telvo/characterbodypart.h"

namespace telvo::kelvara
{

namespace
{

constexpr const char* kUnitName = "source/impl/characterbodypart_impl";
constexpr const char* kBodyPartClassId = "net.telvo.animation.class.characterbodypart";
constexpr const char* kBodyPartImplementation = "CharacterBodyPartImpl";

// A node of the hierarchy viewed as a body part; nullptr for a node of another class.
CharacterBodyPartInterface* AsBodyPart(const ObjectInterface* node)
{
  return telvo::QueryInterface<CharacterBodyPartInterface>(node);
}

// "<label>(<count>) :\n", the header line of an array section.
Result<String> MakeSectionHeader(std::string_view label, Int count)
{
  // A count always has digits: an empty text means its memory ran out, and a header without its
  // count is dropped like any other piece that could not be built.
  String line = String::IntToString(count);
  if (line.IsEmpty())
    return TELVO_OUT_OF_MEMORY();
  TELVO_TRY(line.Insert(0, label));
  TELVO_TRY(line.Append(std::string_view(") :\n")));
  return line;
}

void AppendUuidSection(String& result, std::string_view label, const BaseArray<Uuid>& uuids,
                       const FormatStatement* formatStatement)
{
  AppendPiece(result, MakeSectionHeader(label, uuids.GetCount()));
  // A null element prints the framework's default Uuid.
  for (const Uuid& uuid : uuids)
    AppendHandleLine(result, "\t", uuid.ToString(formatStatement), false);
}

void AppendStringSection(String& result, std::string_view label, const BaseArray<String>& texts)
{
  AppendPiece(result, MakeSectionHeader(label, texts.GetCount()));
  for (const String& text : texts)
    AppendPiece(result, MakeLine("\t", text));
}

class CharacterBodyPartImpl final : public ObjectImpl<CharacterBodyPartImpl, CharacterBodyPartInterface>
{
public:
  ObjectInterface* GetParent() const override { return _links.GetParent(); }
  const BaseArray<ObjectRef>& GetChildren() const override { return _links.GetChildren(); }
  Result<void> InsertChildLast(const ObjectRef& child) override { return _links.InsertChildLast(this, child); }
  void Remove() override { _links.Remove(this); }
  HierarchyLinks& GetHierarchyLinks() override { return _links; }

  // The observer's name is the body part's name member.
  Result<void> SetName(const String& name) override
  {
    _name = name;
    return OK();
  }
  const String& GetName() const override { return _name; }

  void SetIdentifier(const InternedId& identifier) override
  {
    if (!_identifier.IsSameObject(identifier))
      _identifier = identifier;
  }
  InternedId GetIdentifier() const override { return _identifier; }

  Result<void> SetControllers(const BaseArray<Uuid>& controllers) override { return _controllers.CopyFrom(controllers); }
  const BaseArray<Uuid>& GetControllers() const override { return _controllers; }
  Result<void> SetSkeleton(const BaseArray<Uuid>& skeleton) override { return _skeletonNodes.CopyFrom(skeleton); }
  const BaseArray<Uuid>& GetSkeleton() const override { return _skeletonNodes; }

  Result<BaseArray<Uuid>> GetHierarchySkeleton() const override
  {
    BaseArray<Uuid> result;
    TELVO_TRY(WalkHierarchy(this, [&](const ObjectInterface* node, const ObjectInterface*, Int) -> Result<WalkAnswer> {
      const CharacterBodyPartInterface* part = AsBodyPart(node);
      if (part == nullptr)
        return TELVO_NULLPTR_ERROR();
      for (const Uuid& uuid : part->GetSkeleton())
        TELVO_TRY(result.Append(uuid));
      return WalkAnswer::Continue;
    }));
    return result;
  }

  Result<void> ClearSkeleton(Bool recursive) override
  {
    _skeletonNodes.Flush();
    if (!recursive)
      return OK();
    for (const ObjectRef& child : _links.GetChildren())
    {
      CharacterBodyPartInterface* part = AsBodyPart(child.GetPointer());
      if (part == nullptr)
        return TELVO_NULLPTR_ERROR();
      TELVO_TRY(part->ClearSkeleton(true));
    }
    return OK();
  }

  Result<Int> GetSkeletonCount(Bool recursive) const override
  {
    Int count = _skeletonNodes.GetCount();
    if (!recursive)
      return count;
    for (const ObjectRef& child : _links.GetChildren())
    {
      const CharacterBodyPartInterface* part = AsBodyPart(child.GetPointer());
      if (part == nullptr)
        return TELVO_NULLPTR_ERROR();
      TELVO_TRY_ASSIGN(const Int childCount, part->GetSkeletonCount(true));
      count += childCount;
    }
    return count;
  }

  Result<void> SetSkeletonKeywords(const BaseArray<String>& keywords) override
  {
    return _skeletonKeywords.CopyFrom(keywords);
  }
  Result<void> SetSkeletonDiscardKeywords(const BaseArray<String>& keywords) override
  {
    return _skeletonDiscardKeywords.CopyFrom(keywords);
  }
  const BaseArray<String>& GetSkeletonKeywords() const override { return _skeletonKeywords; }
  const BaseArray<String>& GetSkeletonDiscardKeywords() const override { return _skeletonDiscardKeywords; }

  Result<CharacterBodyPartRef> FindBodyPartByID(const InternedId& identifier) const override
  {
    CharacterBodyPartRef found;
    TELVO_TRY(WalkHierarchy(this, [&](const ObjectInterface* node, const ObjectInterface*, Int) -> Result<WalkAnswer> {
      CharacterBodyPartInterface* part = AsBodyPart(node);
      if (part == nullptr)
        return TELVO_NULLPTR_ERROR();
      // Another module's table may hold the same text in a different object: equal texts match.
      if (!part->GetIdentifier().IsSameText(identifier))
        return WalkAnswer::Continue;
      found = CharacterBodyPartRef(part);
      return WalkAnswer::Stop;
    }));
    return found;
  }

  Result<CharacterBodyPartRef> FindBodyPartByName(const String& name) const override
  {
    CharacterBodyPartRef found;
    TELVO_TRY(WalkHierarchy(this, [&](const ObjectInterface* node, const ObjectInterface*, Int) -> Result<WalkAnswer> {
      CharacterBodyPartInterface* part = AsBodyPart(node);
      // A node of another class counts as a body part with an empty name.
      const String nodeName = part != nullptr ? part->GetName() : String();
      if (nodeName.ComparePart(name, 0, 0) == 0)
      {
        found = CharacterBodyPartRef(part);
        return WalkAnswer::Stop;
      }
      // Such a node has no body parts below it that this hierarchy could reach.
      return part != nullptr ? WalkAnswer::Continue : WalkAnswer::SkipChildren;
    }));
    return found;
  }

  String ToString(const FormatStatement* formatStatement = nullptr) const override
  {
    String result;
    AppendPiece(result, MakeLine("Name : ", _name));
    // The null identifier prints the empty text.
    AppendHandleLine(result, "Identifier : ", _identifier.ToString(formatStatement), _identifier.IsEmpty());
    AppendUuidSection(result, "Controllers (", _controllers, formatStatement);
    AppendUuidSection(result, "Skeleton Nodes (", _skeletonNodes, formatStatement);
    AppendStringSection(result, "Skeleton Keywords (", _skeletonKeywords);
    AppendStringSection(result, "Skeleton Discard Keywords (", _skeletonDiscardKeywords);
    return result;
  }

  static Result<CharacterBodyPartRef> CreateBodyPart(const InternedId& identifier, const String& name)
  {
    TELVO_TRY_ASSIGN(CharacterBodyPartRef part, NewInstance<CharacterBodyPartRef>(kBodyPartClassId));
    part->SetIdentifier(identifier);
    // The body part is handed out even when its name could not be set.
    (void)part->SetName(name);
    return part;
  }

  // A copy is the body part with its whole subtree, and without a parent.
  Result<void> CopyFrom(const CharacterBodyPartImpl& src)
  {
    SetIdentifier(src._identifier);
    if (!_name.IsSameBuffer(src._name))
      _name = src._name;
    TELVO_TRY(_controllers.CopyFrom(src._controllers));
    TELVO_TRY(_skeletonNodes.CopyFrom(src._skeletonNodes));
    TELVO_TRY(_skeletonKeywords.CopyFrom(src._skeletonKeywords));
    TELVO_TRY(_skeletonDiscardKeywords.CopyFrom(src._skeletonDiscardKeywords));
    return _links.CloneChildrenFrom(this, src._links);
  }

  static Result<void> DescribeIO(DataDescriber& describer)
  {
    static constinit DataTypeReference internedIdType{"InternedId"};
    static constinit DataTypeReference stringType{"String"};
    static constinit DataTypeReference uuidType{"Uuid"};
    TELVO_TRY(DeclareMember(describer, "_identifier", internedIdType, DESCRIBEFLAGS_NONE,
                            [](void* impl) -> void* { return &Self(impl)->_identifier; }));
    TELVO_TRY(DeclareMember(describer, "_name", stringType, DESCRIBEFLAGS_NONE,
                            [](void* impl) -> void* { return &Self(impl)->_name; }));
    TELVO_TRY(DeclareMember(describer, "_controllers", uuidType, DESCRIBEFLAGS_ARRAY,
                            [](void* impl) -> void* { return &Self(impl)->_controllers; }));
    TELVO_TRY(DeclareMember(describer, "_skeletonNodes", uuidType, DESCRIBEFLAGS_ARRAY,
                            [](void* impl) -> void* { return &Self(impl)->_skeletonNodes; }));
    TELVO_TRY(DeclareMember(describer, "_skeletonKeywords", stringType, DESCRIBEFLAGS_ARRAY,
                            [](void* impl) -> void* { return &Self(impl)->_skeletonKeywords; }));
    return DeclareMember(describer, "_skeletonDiscardKeywords", stringType, DESCRIBEFLAGS_ARRAY,
                         [](void* impl) -> void* { return &Self(impl)->_skeletonDiscardKeywords; });
  }

private:
  static CharacterBodyPartImpl* Self(void* impl) { return static_cast<CharacterBodyPartImpl*>(impl); }

  // Fields in declaration order; destruction releases them last first, then the children.
  HierarchyLinks _links;
  InternedId _identifier;
  String _name;
  BaseArray<Uuid> _controllers;
  BaseArray<Uuid> _skeletonNodes;
  BaseArray<String> _skeletonKeywords;
  BaseArray<String> _skeletonDiscardKeywords;
};

constinit DataTypeReference g_dataType{"telvo::CharacterBodyPartRef"};
constexpr ComponentInfo kComponents[] = {OwnComponent<CharacterBodyPartImpl>(kBodyPartImplementation)};
constexpr InterfaceInfoFn kInterfaces[] = {&CharacterBodyPartInterface::GetInterfaceInfo};
constexpr ClassInfo g_class = MakeClassInfo<CharacterBodyPartImpl>(kBodyPartClassId, &g_dataType,
                                                                   kBodyPartImplementation, nullptr, kComponents,
                                                                   kInterfaces);
const ImplementationInfo g_implementation{kBodyPartImplementation, &g_class,
                                          reinterpret_cast<void (*)()>(&CharacterBodyPartImpl::CreateBodyPart),
                                          &CharacterBodyPartImpl::DescribeIO};
const UnitAnnouncer g_announcer{g_telvo,
                                kUnitName,
                                {KELVARA_COMMON_HEADERS, "telvo/uuid.h", "telvo/internedid.h",
                                 "telvo/hierarchyobject.h", "telvo/observerobject.h", "telvo/characterbodypart.h",
                                 KELVARA_TRAILING_HEADERS},
                                &g_class,
                                &g_implementation};

} // namespace

} // namespace telvo::kelvara
