#include <atomic>
#include <cstdint>
#include <cstring>

#include "impl/characternodeinfo_impl.h"
#include "telvo/characterpose.h"
#include "telvo/uuid.h"

namespace telvo::kelvara
{

namespace
{

constexpr const char* kUnitName = "source/impl/characterpose_impl";
constexpr const char* kClassId = "net.telvo.animation.class.characterpose";
constexpr const char* kImplementation = "CharacterPoseImpl";

// Poses this small are scanned: an index would cost more than it saves, and lookups in them
// allocate nothing.
constexpr Int kScannedCount = 8;

// What a null slot reads as: the empty id.
const Uuid& IdOf(const CharacterNodeTransform& element)
{
  static const Uuid empty;
  return element ? element->GetUuid() : empty;
}

// Where an id starts its search in the table: its two halves mixed, a few instructions where the
// id's own hash goes over every byte (a lookup is made for every node of every frame).
UInt SlotHash(const Uuid& id)
{
  std::uint64_t half[2];
  std::memcpy(half, id.GetBytes().data(), sizeof half);
  const std::uint64_t mixed = (half[0] ^ (half[1] * 0x9e3779b97f4a7c15u)) * 0xbf58476d1ce4e5b9u;
  return static_cast<UInt>(mixed ^ (mixed >> 31));
}

// A pose's node transforms by id: an open-addressing table of slot numbers holding, for each
// distinct id, its first slot (the one a scan finds). It belongs to one array, as the array was
// when it was built; a change of an indexed object's id since then makes it stale.
struct PoseIdIndex
{
  UInt idChanges;
  const CharacterNodeTransform* elements;
  Int count;
  UInt mask;
  Int* slots; // mask + 1 of them after the header, -1 for an empty one

  static PoseIdIndex* Build(const BaseArray<CharacterNodeTransform>& array)
  {
    UInt capacity = 16;
    while (capacity < static_cast<UInt>(array.GetCount()) * 2)
      capacity *= 2;
    void* memory = Allocator::Alloc(sizeof(PoseIdIndex) + capacity * sizeof(Int));
    if (memory == nullptr)
      return nullptr;
    auto* index = new (memory) PoseIdIndex;
    index->slots = reinterpret_cast<Int*>(index + 1);
    // Read before the ids: a change that races with the build leaves the index stale, not wrong.
    index->idChanges = IndexedIdChanges().load(std::memory_order_acquire);
    index->elements = array.begin();
    index->count = array.GetCount();
    index->mask = capacity - 1;
    for (UInt i = 0; i < capacity; ++i)
      index->slots[i] = -1;
    for (Int i = 0; i < array.GetCount(); ++i)
    {
      const CharacterNodeTransform& element = array[i];
      if (element)
      {
        const CharacterNodeInfoPart* info = FindNodeInfoPart(element.GetPointer());
        // An object of another implementation cannot tell us when its id changes.
        if (info == nullptr)
        {
          Allocator::Free(memory);
          return nullptr;
        }
        info->_indexedById.store(true, std::memory_order_release);
      }
      const Uuid& id = IdOf(element);
      UInt at = SlotHash(id) & index->mask;
      while (index->slots[at] != -1 && !(IdOf(array[index->slots[at]]) == id))
        at = (at + 1) & index->mask;
      if (index->slots[at] == -1) // else an earlier slot has the id: the first one wins
        index->slots[at] = i;
    }
    return index;
  }

  Bool Fits(const BaseArray<CharacterNodeTransform>& array) const
  {
    return elements == array.begin() && count == array.GetCount() &&
           idChanges == IndexedIdChanges().load(std::memory_order_acquire);
  }

  // The slot of the first element with id, or -1.
  Int Find(const Uuid& id) const
  {
    for (UInt at = SlotHash(id) & mask; slots[at] != -1; at = (at + 1) & mask)
      if (IdOf(elements[slots[at]]) == id)
        return slots[at];
    return -1;
  }
};

class CharacterPoseImpl final : public ObjectImpl<CharacterPoseImpl, CharacterPoseInterface>
{
public:
  CharacterPoseImpl() = default;
  ~CharacterPoseImpl() { DropIndex(); }
  CharacterPoseImpl(const CharacterPoseImpl&) = delete;
  CharacterPoseImpl& operator=(const CharacterPoseImpl&) = delete;

  // The array's own errors (OutOfMemoryError, the array unchanged) pass through as they are.
  Result<void> SetNodeTransformArray(const BaseArray<CharacterNodeTransform>& nodeTransforms) override
  {
    if (&nodeTransforms == &_nodeTransforms)
      return OK();
    DropIndex();
    return _nodeTransforms.CopyFrom(nodeTransforms);
  }

  const BaseArray<CharacterNodeTransform>& GetNodeTransformArray() const override { return _nodeTransforms; }

  Int GetNodeTransformCount() const override { return _nodeTransforms.GetCount(); }

  // Runs per node and per frame while retargeting. A null slot reads as the empty Uuid, so a
  // lookup of the empty (or null) Uuid can answer with it. A larger pose is indexed on its first
  // lookup (shared read-only poses too: the first index published wins); without memory for the
  // index, or once it is stale, the scan gives the same answers.
  Result<CharacterNodeTransform> GetNodeTransformByID(const Uuid& uuid) const override
  {
    if (const PoseIdIndex* index = Index())
    {
      const Int slot = index->Find(uuid);
      return slot >= 0 ? _nodeTransforms[slot] : CharacterNodeTransform();
    }
    for (const CharacterNodeTransform& element : _nodeTransforms)
    {
      // Uuid equality takes the very same handle as equal without reading bytes, and reads a null
      // handle as the all-zero Uuid: a null slot therefore matches exactly the ids that are not valid.
      if (element ? element->GetUuid() == uuid : !uuid.IsValid())
        return element;
    }
    return CharacterNodeTransform();
  }

  // "Node Transform :\n{" + the elements' texts joined by "," + "}", with no line feed at the end.
  String ToString(const FormatStatement* formatStatement = nullptr) const override
  {
    String result;
    AppendPiece(result, std::string_view("Node Transform :\n"));
    AppendPiece(result, ArrayToString(_nodeTransforms, [formatStatement](const CharacterNodeTransform& element) {
                  if (!element)
                  {
                    Result<String> null = String::Create("nullptr");
                    return null.IsOk() ? null.GetValue() : String();
                  }
                  return element->ToString(formatStatement);
                }));
    return result;
  }

  // Copies share the node-transform objects; assigning a pose to itself does nothing.
  Result<void> CopyFrom(const CharacterPoseImpl& src)
  {
    if (&src == this)
      return OK();
    return SetNodeTransformArray(src._nodeTransforms);
  }

  static Result<void> DescribeIO(DataDescriber& describer)
  {
    static constinit DataTypeReference nodeTransformType{"telvo::CharacterNodeTransform"};
    return DeclareMember(describer, "NodeTransform", nodeTransformType, DESCRIBEFLAGS_ARRAY,
                         [](void* self) -> void* { return &static_cast<CharacterPoseImpl*>(self)->_nodeTransforms; });
  }

private:
  const PoseIdIndex* Index() const
  {
    if (_nodeTransforms.GetCount() <= kScannedCount)
      return nullptr;
    PoseIdIndex* index = _index.load(std::memory_order_acquire);
    if (index == nullptr)
    {
      index = PoseIdIndex::Build(_nodeTransforms);
      if (index == nullptr)
        return nullptr;
      PoseIdIndex* published = nullptr;
      if (!_index.compare_exchange_strong(published, index, std::memory_order_acq_rel))
      {
        Allocator::Free(index);
        index = published;
      }
    }
    return index->Fits(_nodeTransforms) ? index : nullptr;
  }

  // Changes happen on a private pose only (copy on write): no lookup runs meanwhile.
  void DropIndex()
  {
    if (PoseIdIndex* index = _index.exchange(nullptr, std::memory_order_acq_rel))
      Allocator::Free(index);
  }

  BaseArray<CharacterNodeTransform> _nodeTransforms;
  mutable std::atomic<PoseIdIndex*> _index{nullptr};
};

// The pose has no Create... factory: callers create it by its class id.
constinit DataTypeReference g_dataType{"telvo::CharacterPose"};
constexpr ComponentInfo kComponents[] = {OwnComponent<CharacterPoseImpl>(kImplementation)};
constexpr InterfaceInfoFn kInterfaces[] = {&CharacterPoseInterface::GetInterfaceInfo};
constexpr ClassInfo g_class =
  MakeClassInfo<CharacterPoseImpl>(kClassId, &g_dataType, kImplementation, nullptr, kComponents, kInterfaces);
const ImplementationInfo g_implementation{kImplementation, &g_class, nullptr, &CharacterPoseImpl::DescribeIO};
const UnitAnnouncer g_announcer{g_telvo,
                                kUnitName,
                                {KELVARA_COMMON_HEADERS, "telvo/uuid.h", "telvo/characternodetransform.h",
                                 "telvo/characterpose.h", KELVARA_TRAILING_HEADERS},
                                &g_class,
                                &g_implementation};

} // namespace

} // namespace telvo::kelvara
