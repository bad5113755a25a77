#include "impl/kelvara_module.h"
#include "telvo/characterassociation.h"

namespace telvo::kelvara
{

namespace
{

constexpr const char* kUnitName = "source/impl/characterassociation_impl";
constexpr const char* kClassId = "net.telvo.animation.class.characterassociation";
constexpr const char* kImplementationName = "CharacterAssociationImpl";

// The argument error speaks of a Uuid for ids too: callers and stored logs match this text.
Error InvalidArgument()
{
  return TELVO_ERROR(IllegalArgumentError, "Illegal argument: Source or Target doesn't have a valid Uuid");
}

// Ids share the Uuid wording on purpose.
Error NoAssociatedValue()
{
  return TELVO_ERROR(IllegalArgumentError, "No value associated to this Uuid");
}

// The text of one key or value; `dropped` when the conversion ran out of memory.
struct HandleText
{
  String owned;
  const char* literal = nullptr;
  Bool dropped = false;

  std::string_view View() const { return literal != nullptr ? std::string_view(literal) : owned.View(); }
};

HandleText TextOf(const Uuid& uuid, const FormatStatement* formatStatement)
{
  if (uuid.IsNull())
    return HandleText{String(), "nullptr", false};
  String text = uuid.ToString(formatStatement);
  // A Uuid never prints empty: an empty text means its conversion found no memory.
  const Bool dropped = text.IsEmpty();
  return HandleText{std::move(text), nullptr, dropped};
}

HandleText TextOf(const InternedId& id, const FormatStatement* formatStatement)
{
  String text = id.ToString(formatStatement);
  // Stored ids are never empty, so an empty text is a failed conversion.
  const Bool dropped = text.IsEmpty() && !id.IsEmpty();
  return HandleText{std::move(text), nullptr, dropped};
}

// "{" key "->" value "," ... "}" in the map's iteration order. An entry whose text cannot be
// built is dropped whole; the empty string comes back if not even the braces fit.
template <typename MAP>
String TableToString(const MAP& table, const FormatStatement* formatStatement)
{
  String result;
  if (result.Reserve(2).IsError() || result.Append(std::string_view("{")).IsError())
    return String();
  Bool first = true;
  for (const auto& entry : table)
  {
    HandleText key = TextOf(entry.GetKey(), formatStatement);
    HandleText value = TextOf(entry.GetValue(), formatStatement);
    if (key.dropped || value.dropped)
      continue;
    // Room for the comma, the entry and the closing brace, so that the appends below cannot fail.
    const Int needed = result.GetLength() + 1 + static_cast<Int>(key.View().size() + 2 + value.View().size()) + 1;
    if (result.Reserve(needed).IsError())
      continue;
    if (!first)
      (void)result.Append(std::string_view(","));
    (void)result.Append(key.View());
    (void)result.Append(std::string_view("->"));
    (void)result.Append(value.View());
    first = false;
  }
  (void)result.Append(std::string_view("}"));
  return result;
}

// Not final: AssociateBodyPart reaches AssociateId through the method table, so a class that
// replaces AssociateId is honoured.
class CharacterAssociationImpl : public ObjectImpl<CharacterAssociationImpl, CharacterAssociationInterface>
{
public:
  CharacterAssociationImpl()
  {
    _uuidAssTable.SetLoadFactor(HashMap<Uuid, Uuid>::kDefaultLoadFactor);
    _idAssTable.SetLoadFactor(HashMap<InternedId, InternedId>::kDefaultLoadFactor);
  }

  ~CharacterAssociationImpl() override
  {
    _idAssTable.Flush();
    _uuidAssTable.Flush();
  }

  Result<void> AssociateBodyPart(CharacterBodyPartRef source, CharacterBodyPartRef target) override
  {
    if (!source)
      return TELVO_NULLPTR_ERROR();
    InternedId sourceId = source->GetIdentifier();
    if (!target)
      return TELVO_NULLPTR_ERROR();
    InternedId targetId = target->GetIdentifier();
    CharacterAssociationInterface& self = *this;
    return self.AssociateId(sourceId, targetId);
  }

  Result<void> AssociateUuid(const Uuid& source, const Uuid& target) override
  {
    if (!source.IsValid() || !target.IsValid())
      return InvalidArgument();
    // A failure of the second insert leaves the first one in place: callers get the error and
    // no association is ever half undone.
    TELVO_TRY(_uuidAssTable.Insert(source, target));
    return _uuidAssTable.Insert(target, source);
  }

  Result<Uuid> GetAssociatedUuid(const Uuid& uuid) const override
  {
    // Per-frame path: a lookup allocates nothing beyond the returned handle's share.
    const Uuid* value = _uuidAssTable.Find(uuid);
    if (value == nullptr)
      return NoAssociatedValue();
    return *value;
  }

  Result<void> AssociateId(const InternedId& source, const InternedId& target) override
  {
    if (source.IsEmpty() || target.IsEmpty())
      return InvalidArgument();
    TELVO_TRY(_idAssTable.Insert(source, target));
    return _idAssTable.Insert(target, source);
  }

  Result<InternedId> GetAssociatedId(const InternedId& id) const override
  {
    const InternedId* value = _idAssTable.Find(id);
    if (value == nullptr)
      return NoAssociatedValue();
    return *value;
  }

  // The format statement goes to the Uuid texts, as node info does with its id.
  String ToString(const FormatStatement* formatStatement = nullptr) const override
  {
    String result;
    AppendPiece(result, "Uuid Association Table : \n");
    AppendPiece(result, TableToString(_uuidAssTable, formatStatement));
    AppendPiece(result, "InternedId Association Table : \n");
    AppendPiece(result, TableToString(_idAssTable, formatStatement));
    return result;
  }

  Result<void> CopyFrom(const CharacterAssociationImpl& src)
  {
    if (&src == this)
      return OK();
    TELVO_TRY(_uuidAssTable.CopyFrom(src._uuidAssTable));
    return _idAssTable.CopyFrom(src._idAssTable);
  }

  // Each table is declared twice, key type then value type: the describer's form for maps.
  static Result<void> DescribeIO(DataDescriber& describer)
  {
    static constinit DataTypeReference uuidType{"Uuid"};
    static constinit DataTypeReference idType{"InternedId"};
    TELVO_TRY(DeclareMember(describer, "_uuidAssTable", uuidType, DESCRIBEFLAGS_MAP, [](void* component) -> void* {
      return &static_cast<CharacterAssociationImpl*>(component)->_uuidAssTable;
    }));
    TELVO_TRY(DeclareMember(describer, "_uuidAssTable", uuidType, DESCRIBEFLAGS_MAP, nullptr));
    TELVO_TRY(DeclareMember(describer, "_idAssTable", idType, DESCRIBEFLAGS_MAP, [](void* component) -> void* {
      return &static_cast<CharacterAssociationImpl*>(component)->_idAssTable;
    }));
    return DeclareMember(describer, "_idAssTable", idType, DESCRIBEFLAGS_MAP, nullptr);
  }

private:
  HashMap<Uuid, Uuid> _uuidAssTable;
  HashMap<InternedId, InternedId> _idAssTable;
};

constinit DataTypeReference g_dataType{"telvo::CharacterAssociation"};
constexpr ComponentInfo kComponents[] = {OwnComponent<CharacterAssociationImpl>(kImplementationName)};
constexpr InterfaceInfoFn kInterfaces[] = {&CharacterAssociationInterface::GetInterfaceInfo};
constexpr ClassInfo g_class =
  MakeClassInfo<CharacterAssociationImpl>(kClassId, &g_dataType, kImplementationName, nullptr, kComponents, kInterfaces);
// Created by class id only: the interface has no factory.
const ImplementationInfo g_implementation{kImplementationName, &g_class, nullptr, &CharacterAssociationImpl::DescribeIO};
const UnitAnnouncer g_announcer{g_telvo,
                                kUnitName,
                                {KELVARA_COMMON_HEADERS, "telvo/uuid.h", "telvo/internedid.h", "telvo/hashmap.h",
                                 "telvo/characterbodypart.h", "telvo/characterassociation.h", KELVARA_TRAILING_HEADERS},
                                &g_class,
                                &g_implementation};

} // namespace

} // namespace telvo::kelvara
