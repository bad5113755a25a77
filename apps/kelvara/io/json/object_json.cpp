#include "io/json/object_json.h"

#include <map>
#include <vector>

#include "telvo/characterassociation.h"
#include "telvo/characterbodypart.h"
#include "telvo/characterbodypartsolversetting.h"
#include "telvo/characterdefinition.h"
#include "telvo/characternodeinfo.h"
#include "telvo/characternodetransform.h"
#include "telvo/characterpose.h"
#include "telvo/charactersolverconfiguration.h"
#include "telvo/charactertree.h"
#include "telvo/dataserialize.h"
#include "telvo/hashmap.h"
#include "telvo/hierarchyobject.h"

namespace kelvara
{

namespace
{

using nlohmann::json;
using namespace telvo;

// Compact JSON text of value, stopping once longer than limit: every level of nesting adds a
// character, so this never recurses deeper than limit (dump() would follow all the nesting).
void AppendShort(const json& value, std::size_t limit, std::string& text)
{
  if (!value.is_array() && !value.is_object())
  {
    text += value.dump();
    return;
  }
  text += value.is_array() ? '[' : '{';
  for (auto it = value.begin(); it != value.end() && text.size() <= limit; ++it)
  {
    if (it != value.begin())
      text += ',';
    if (value.is_object())
      text += json(it.key()).dump() + ':';
    AppendShort(*it, limit, text);
  }
  text += value.is_array() ? ']' : '}';
}

std::string Found(const json& value)
{
  std::string text;
  AppendShort(value, 60, text);
  if (text.size() <= 60)
    return text;
  // Cut between characters, not inside one: messages may end up in JSON, which needs UTF-8.
  std::size_t cut = 57;
  while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80)
    --cut;
  return text.substr(0, cut) + "...";
}

bool Fail(std::string& error, const std::string& path, const std::string& expected, const json& found)
{
  error = (path.empty() ? "/" : path) + ": expected " + expected + ", found " + Found(found);
  return false;
}

bool ObjectToJsonAt(const ObjectInterface& object, json& out, std::string& error);
bool ObjectFromJsonAt(const json& in, const std::string& path, ObjectRef& out, std::string& error);

// One handler per value type: how a member of that C++ type is written and read.
template <typename T>
struct Codec;

template <>
struct Codec<Bool>
{
  static bool Write(const Bool& v, json& out, std::string&) { return out = v, true; }
  static bool Read(const json& in, const std::string& path, Bool& v, std::string& error)
  {
    if (!in.is_boolean())
      return Fail(error, path, "true or false", in);
    v = in.get<bool>();
    return true;
  }
};

template <>
struct Codec<Int>
{
  static bool Write(const Int& v, json& out, std::string&) { return out = v, true; }
  static bool Read(const json& in, const std::string& path, Int& v, std::string& error)
  {
    if (!in.is_number_integer())
      return Fail(error, path, "an integer", in);
    v = in.get<Int>();
    return true;
  }
};

template <>
struct Codec<Float64>
{
  static bool Write(const Float64& v, json& out, std::string&) { return out = v, true; }
  static bool Read(const json& in, const std::string& path, Float64& v, std::string& error)
  {
    if (!in.is_number())
      return Fail(error, path, "a number", in);
    v = in.get<double>();
    return true;
  }
};

template <>
struct Codec<String>
{
  static bool Write(const String& v, json& out, std::string&) { return out = std::string(v.View()), true; }
  static bool Read(const json& in, const std::string& path, String& v, std::string& error)
  {
    if (!in.is_string())
      return Fail(error, path, "a text", in);
    Result<String> text = String::Create(in.get_ref<const std::string&>());
    if (text.IsError())
      return Fail(error, path, "a text that fits in memory", in);
    v = text.GetValue();
    return true;
  }
};

template <>
struct Codec<Uuid>
{
  static bool Write(const Uuid& v, json& out, std::string&)
  {
    out = v.IsNull() ? json(nullptr) : json(std::string(v.ToString().View()));
    return true;
  }
  static bool Read(const json& in, const std::string& path, Uuid& v, std::string& error)
  {
    if (in.is_null())
      return v = Uuid(), true;
    if (!in.is_string())
      return Fail(error, path, "a Uuid text or null", in);
    Result<Uuid> uuid = Uuid::FromString(in.get_ref<const std::string&>());
    if (uuid.IsError())
      return Fail(error, path, "a Uuid text (8-4-4-4-12 hex digits)", in);
    v = uuid.GetValue();
    return true;
  }
};

template <>
struct Codec<InternedId>
{
  static bool Write(const InternedId& v, json& out, std::string&)
  {
    out = v.IsEmpty() ? json(nullptr) : json(std::string(v.View()));
    return true;
  }
  static bool Read(const json& in, const std::string& path, InternedId& v, std::string& error)
  {
    if (in.is_null())
      return v = InternedId(), true;
    if (!in.is_string())
      return Fail(error, path, "an identifier text or null", in);
    Result<InternedId> id = InternedId::Intern(in.get_ref<const std::string&>());
    if (id.IsError())
      return Fail(error, path, "an identifier that fits in memory", in);
    v = id.GetValue();
    return true;
  }
};

// Twelve numbers in stored order: offset, v1, v2, v3.
template <>
struct Codec<Matrix>
{
  static bool Write(const Matrix& m, json& out, std::string&)
  {
    out = json::array();
    for (const Vector* v : {&m.off, &m.v1, &m.v2, &m.v3})
      for (Float64 c : {v->x, v->y, v->z})
        out.push_back(c);
    return true;
  }
  static bool Read(const json& in, const std::string& path, Matrix& m, std::string& error)
  {
    if (!in.is_array() || in.size() != 12)
      return Fail(error, path, "12 numbers (offset, v1, v2, v3)", in);
    Float64 c[12];
    for (std::size_t i = 0; i < 12; ++i)
    {
      if (!in[i].is_number())
        return Fail(error, path + "/" + std::to_string(i), "a number", in[i]);
      c[i] = in[i].get<double>();
    }
    m.off = {c[0], c[1], c[2]};
    m.v1 = {c[3], c[4], c[5]};
    m.v2 = {c[6], c[7], c[8]};
    m.v3 = {c[9], c[10], c[11]};
    return true;
  }
};

// A reference member: the object it reaches, written in full (or null).
template <typename REF>
struct ReferenceCodec
{
  static bool Write(const REF& ref, json& out, std::string& error)
  {
    if (!ref)
    {
      out = nullptr;
      return true;
    }
    const ObjectInterface* object = ref.GetPointer();
    return ObjectToJsonAt(*object, out, error);
  }
  static bool Read(const json& in, const std::string& path, REF& ref, std::string& error)
  {
    if (in.is_null())
      return ref = REF(), true;
    ObjectRef object;
    if (!ObjectFromJsonAt(in, path, object, error))
      return false;
    using I = std::remove_cv_t<std::remove_pointer_t<decltype(ref.GetPointer())>>;
    I* typed = QueryInterface<I>(object.GetPointer());
    if (typed == nullptr)
      return Fail(error, path, std::string("an object implementing ") + I::GetInterfaceInfo().name, in["class"]);
    ref = REF(typed);
    return true;
  }
};

template <typename I>
struct Codec<StrongRef<I>> : ReferenceCodec<StrongRef<I>>
{
};
template <typename I>
struct Codec<CowRef<I>> : ReferenceCodec<CowRef<I>>
{
};

template <typename T>
struct Codec<BaseArray<T>>
{
  static bool Write(const BaseArray<T>& array, json& out, std::string& error)
  {
    out = json::array();
    for (const T& element : array)
    {
      json value;
      if (!Codec<T>::Write(element, value, error))
        return false;
      out.push_back(std::move(value));
    }
    return true;
  }
  static bool Read(const json& in, const std::string& path, BaseArray<T>& array, std::string& error)
  {
    if (!in.is_array())
      return Fail(error, path, "an array", in);
    array.Flush();
    for (std::size_t i = 0; i < in.size(); ++i)
    {
      T element{};
      if (!Codec<T>::Read(in[i], path + "/" + std::to_string(i), element, error))
        return false;
      if (array.Append(std::move(element)).IsError())
        return Fail(error, path, "an array that fits in memory", in);
    }
    return true;
  }
};

// A map as [[key, value], ...] in the map's iteration order.
template <typename K, typename V>
struct Codec<HashMap<K, V>>
{
  static bool Write(const HashMap<K, V>& map, json& out, std::string& error)
  {
    out = json::array();
    for (const auto& entry : map)
    {
      json key, value;
      if (!Codec<K>::Write(entry.GetKey(), key, error) || !Codec<V>::Write(entry.GetValue(), value, error))
        return false;
      out.push_back(json::array({std::move(key), std::move(value)}));
    }
    return true;
  }
  static bool Read(const json& in, const std::string& path, HashMap<K, V>& map, std::string& error)
  {
    if (!in.is_array())
      return Fail(error, path, "an array of [key, value] pairs", in);
    map.Flush();
    // Entries iterate newest first within a bucket: insert in reverse to come back in order.
    for (std::size_t i = in.size(); i > 0; --i)
    {
      const json& pair = in[i - 1];
      const std::string at = path + "/" + std::to_string(i - 1);
      if (!pair.is_array() || pair.size() != 2)
        return Fail(error, at, "a [key, value] pair", pair);
      K key{};
      V value{};
      if (!Codec<K>::Read(pair[0], at + "/0", key, error) || !Codec<V>::Read(pair[1], at + "/1", value, error))
        return false;
      if (map.Insert(key, value).IsError())
        return Fail(error, at, "a map that fits in memory", pair);
    }
    return true;
  }
};

struct MemberCodec
{
  bool (*write)(const void* member, json& out, std::string& error);
  bool (*read)(const json& in, const std::string& path, void* member, std::string& error);
};

template <typename T>
MemberCodec MakeCodec()
{
  return MemberCodec{
    [](const void* member, json& out, std::string& error) {
      return Codec<T>::Write(*static_cast<const T*>(member), out, error);
    },
    [](const json& in, const std::string& path, void* member, std::string& error) {
      return Codec<T>::Read(in, path, *static_cast<T*>(member), error);
    }};
}

// Data type name (with "[]" for arrays, "{key,value}" for maps) to the C++ type of the member.
const std::map<std::string, MemberCodec>& Codecs()
{
  static const std::map<std::string, MemberCodec> codecs{
    {"Bool", MakeCodec<Bool>()},
    {"Int", MakeCodec<Int>()},
    {"Float64", MakeCodec<Float64>()},
    {"String", MakeCodec<String>()},
    {"Uuid", MakeCodec<Uuid>()},
    {"InternedId", MakeCodec<InternedId>()},
    {"Matrix", MakeCodec<Matrix>()},
    {"Uuid[]", MakeCodec<BaseArray<Uuid>>()},
    {"String[]", MakeCodec<BaseArray<String>>()},
    {"{Uuid,Uuid}", MakeCodec<HashMap<Uuid, Uuid>>()},
    {"{InternedId,InternedId}", MakeCodec<HashMap<InternedId, InternedId>>()},
    {"telvo::CharacterTreeRef", MakeCodec<CharacterTreeRef>()},
    {"telvo::CharacterBodyPartRef", MakeCodec<CharacterBodyPartRef>()},
    {"telvo::CharacterNodeInfo", MakeCodec<CharacterNodeInfo>()},
    {"telvo::CharacterNodeTransform", MakeCodec<CharacterNodeTransform>()},
    {"telvo::CharacterNodeTransform[]", MakeCodec<BaseArray<CharacterNodeTransform>>()},
    {"telvo::CharacterPose", MakeCodec<CharacterPose>()},
    {"telvo::CharacterDefinition", MakeCodec<CharacterDefinition>()},
    {"telvo::CharacterAssociation", MakeCodec<CharacterAssociation>()},
    {"telvo::CharacterBodyPartSolverSetting", MakeCodec<CharacterBodyPartSolverSetting>()},
  };
  return codecs;
}

// One serialised member of a component, as its declarations say.
struct Member
{
  std::string key;
  std::string typeName; // the codec key
  MemberAccess access;
};

class MemberCollector : public DataDescriber
{
public:
  Result<void> DeclareMember(const char* key, const DataType& type, UInt flags, MemberAccess access) override
  {
    std::string name = type.name;
    if ((flags & DESCRIBEFLAGS_MAP) != 0)
    {
      // A map comes in two declarations: the key type with the accessor, then the value type.
      if (access != nullptr)
      {
        members.push_back(Member{key, "{" + name, access});
        return OK();
      }
      if (!members.empty() && members.back().key == key && members.back().typeName.back() != '}')
      {
        members.back().typeName += "," + name + "}";
        return OK();
      }
      members.push_back(Member{key, "{?}", nullptr});
      return OK();
    }
    if ((flags & DESCRIBEFLAGS_ARRAY) != 0)
      name += "[]";
    members.push_back(Member{key, name, access});
    return OK();
  }

  std::vector<Member> members;
};

// The members of every component of the object's class, with where each component lies.
bool CollectMembers(const ObjectInterface& object, std::vector<std::pair<void*, Member>>& out, std::string& error)
{
  const ClassInfo* cls = object.GetClass();
  if (cls == nullptr)
  {
    error = "an object without a class cannot be saved";
    return false;
  }
  for (const ComponentInfo& component : cls->components)
  {
    MemberCollector collector;
    if (component.describe(collector).IsError())
    {
      error = std::string("the members of ") + component.implementationName + " cannot be described";
      return false;
    }
    void* data = object.FindComponent(component.implementationName);
    for (Member& member : collector.members)
      out.emplace_back(data, std::move(member));
  }
  return true;
}

bool ObjectToJsonAt(const ObjectInterface& object, json& out, std::string& error)
{
  std::vector<std::pair<void*, Member>> members;
  if (!CollectMembers(object, members, error))
    return false;
  out = json::object();
  out["class"] = object.GetClass()->classId;
  json& values = out["members"] = json::object();
  for (const auto& [component, member] : members)
  {
    auto codec = Codecs().find(member.typeName);
    if (codec == Codecs().end() || member.access == nullptr)
    {
      error = "member " + member.key + " has a data type that cannot be saved: " + member.typeName;
      return false;
    }
    if (!codec->second.write(member.access(component), values[member.key], error))
      return false;
  }
  if (const auto* node = QueryInterface<HierarchyObjectInterface>(&object))
  {
    json& children = out["children"] = json::array();
    for (const ObjectRef& child : node->GetChildren())
    {
      json value;
      if (!ObjectToJsonAt(*child, value, error))
        return false;
      children.push_back(std::move(value));
    }
  }
  return true;
}

// Stands for an absent value in messages. A reference, so that "found ? Missing() : *it" does
// not copy the value found (a copy recurses once per level of its nesting).
const json& Missing()
{
  static const json null;
  return null;
}

// Objects nest (children, references) by recursion: a file nesting them deeper than this is
// refused rather than let exhaust the stack. Far beyond any skeleton a person would rig.
constexpr int kMaxObjectDepth = 1000;
thread_local int t_objectDepth = 0;

struct ObjectDepthScope
{
  ObjectDepthScope() { ++t_objectDepth; }
  ~ObjectDepthScope() { --t_objectDepth; }
  ObjectDepthScope(const ObjectDepthScope&) = delete;
  ObjectDepthScope& operator=(const ObjectDepthScope&) = delete;
};

bool ObjectFromJsonAt(const json& in, const std::string& path, ObjectRef& out, std::string& error)
{
  const ObjectDepthScope depth;
  if (t_objectDepth > kMaxObjectDepth)
  {
    error = path + ": expected objects nested at most " + std::to_string(kMaxObjectDepth) + " deep";
    return false;
  }
  if (!in.is_object())
    return Fail(error, path, "an object", in);
  auto classId = in.find("class");
  if (classId == in.end() || !classId->is_string())
    return Fail(error, path + "/class", "a class id", classId == in.end() ? Missing() : *classId);
  const ClassInfo* cls = Registry::Get().FindClass(classId->get_ref<const std::string&>());
  if (cls == nullptr)
    return Fail(error, path + "/class", "the id of a class the module registers", *classId);
  Result<ObjectRef> created = cls->CreateInstance();
  if (created.IsError())
  {
    error = path + ": " + created.GetError().GetMessage();
    return false;
  }
  ObjectRef object = created.GetValue();

  auto values = in.find("members");
  if (values == in.end() || !values->is_object())
    return Fail(error, path + "/members", "an object of members", values == in.end() ? Missing() : *values);
  std::vector<std::pair<void*, Member>> members;
  if (!CollectMembers(*object, members, error))
    return false;
  for (const auto& [component, member] : members)
  {
    auto value = values->find(member.key);
    const std::string at = path + "/members/" + member.key;
    if (value == values->end())
      return Fail(error, at, "the member " + member.key, nullptr);
    auto codec = Codecs().find(member.typeName);
    if (codec == Codecs().end() || member.access == nullptr)
    {
      error = at + ": a data type that cannot be read: " + member.typeName;
      return false;
    }
    if (!codec->second.read(*value, at, member.access(component), error))
      return false;
  }

  auto* node = QueryInterface<HierarchyObjectInterface>(object.GetPointer());
  auto children = in.find("children");
  if (node != nullptr && children != in.end())
  {
    if (!children->is_array())
      return Fail(error, path + "/children", "an array", *children);
    for (std::size_t i = 0; i < children->size(); ++i)
    {
      ObjectRef child;
      const std::string at = path + "/children/" + std::to_string(i);
      if (!ObjectFromJsonAt((*children)[i], at, child, error))
        return false;
      Result<void> inserted = node->InsertChildLast(child);
      if (inserted.IsError())
      {
        error = at + ": " + inserted.GetError().GetMessage();
        return false;
      }
    }
  }
  out = object;
  return true;
}

} // namespace

bool ObjectToJson(const telvo::ObjectInterface& object, nlohmann::json& out, std::string& error)
{
  return ObjectToJsonAt(object, out, error);
}

bool ObjectFromJson(const nlohmann::json& in, telvo::ObjectRef& out, std::string& error)
{
  return ObjectFromJsonAt(in, "", out, error);
}

} // namespace kelvara
