#include "telvo/internedid.h"

#include <cstring>
#include <mutex>

namespace telvo
{

namespace
{
constexpr const char* kUnitName = "telvo/internedid";

constexpr Int kInitialBucketCount = 64;
} // namespace

struct InternedId::Entry
{
  Entry(UInt h, String&& t, Bool d) : refs(1), hash(h), text(std::move(t)), detached(d) {}

  std::atomic<Int> refs;
  UInt hash;
  String text;
  Entry* next = nullptr;
  // Not in the table: released by a plain decrement.
  Bool detached;
};

namespace
{

using Entry = InternedId::Entry;

// Chained hash table with a power-of-two bucket count. Guarded by mutex throughout.
struct Table
{
  std::mutex mutex;
  Entry** buckets = nullptr;
  Int bucketCount = 0;
  Int count = 0;
};

// Never destroyed: ids held in other statics may still be released during process exit.
alignas(Table) unsigned char g_tableStorage[sizeof(Table)];

Table& GetTable()
{
  static Table* table = new (g_tableStorage) Table();
  return *table;
}

Entry** AllocateBuckets(Int count)
{
  auto buckets = static_cast<Entry**>(Allocator::Alloc(sizeof(Entry*) * static_cast<std::size_t>(count)));
  if (buckets != nullptr)
    for (Int i = 0; i < count; ++i)
      buckets[i] = nullptr;
  return buckets;
}

Entry*& BucketOf(Table& t, UInt hash)
{
  return t.buckets[hash & static_cast<UInt>(t.bucketCount - 1)];
}

// Doubles the buckets. A failed allocation keeps the old ones: the chains just get longer.
void GrowTable(Table& t)
{
  Int newCount = t.bucketCount * 2;
  Entry** buckets = AllocateBuckets(newCount);
  if (buckets == nullptr)
    return;
  for (Int i = 0; i < t.bucketCount; ++i)
  {
    Entry* e = t.buckets[i];
    while (e != nullptr)
    {
      Entry* next = e->next;
      Entry*& head = buckets[e->hash & static_cast<UInt>(newCount - 1)];
      e->next = head;
      head = e;
      e = next;
    }
  }
  Allocator::Free(t.buckets);
  t.buckets = buckets;
  t.bucketCount = newCount;
}

void Unlink(Table& t, Entry* entry)
{
  Entry** link = &BucketOf(t, entry->hash);
  while (*link != entry)
    link = &(*link)->next;
  *link = entry->next;
  --t.count;
}

} // namespace

InternedId::InternedId(const InternedId& other) noexcept : _entry(other._entry)
{
  if (_entry != nullptr)
    _entry->refs.fetch_add(1, std::memory_order_relaxed);
}

InternedId& InternedId::operator=(const InternedId& other) noexcept
{
  if (other._entry != nullptr)
    other._entry->refs.fetch_add(1, std::memory_order_relaxed);
  Release(_entry);
  _entry = other._entry;
  return *this;
}

InternedId& InternedId::operator=(InternedId&& other) noexcept
{
  if (this != &other)
  {
    Release(_entry);
    _entry = other._entry;
    other._entry = nullptr;
  }
  return *this;
}

InternedId::~InternedId()
{
  Release(_entry);
}

void InternedId::Release(Entry* entry)
{
  if (entry == nullptr)
    return;
  if (entry->detached)
  {
    if (entry->refs.fetch_sub(1, std::memory_order_acq_rel) == 1)
      DeleteObj(entry);
    return;
  }
  // Above 1 other handles keep the entry alive, so no lock is needed. The last handle must
  // decrement under the lock: Intern may revive the entry until then.
  Int count = entry->refs.load(std::memory_order_relaxed);
  while (count > 1)
  {
    if (entry->refs.compare_exchange_weak(count, count - 1, std::memory_order_acq_rel,
                                          std::memory_order_relaxed))
      return;
  }
  Table& t = GetTable();
  std::lock_guard<std::mutex> lock(t.mutex);
  if (entry->refs.fetch_sub(1, std::memory_order_acq_rel) == 1)
  {
    Unlink(t, entry);
    DeleteObj(entry);
  }
}

Result<InternedId> InternedId::Intern(std::string_view text)
{
  if (text.empty())
    return InternedId();
  UInt hash = String::HashText(text);
  Table& t = GetTable();
  std::lock_guard<std::mutex> lock(t.mutex);
  if (t.buckets != nullptr)
  {
    for (Entry* e = BucketOf(t, hash); e != nullptr; e = e->next)
    {
      if (e->hash == hash && e->text.View() == text)
      {
        e->refs.fetch_add(1, std::memory_order_relaxed);
        return InternedId(e);
      }
    }
  }
  else
  {
    t.buckets = AllocateBuckets(kInitialBucketCount);
    if (t.buckets == nullptr)
      return TELVO_OUT_OF_MEMORY();
    t.bucketCount = kInitialBucketCount;
  }
  TELVO_TRY_ASSIGN(String copy, String::Create(text));
  Entry* entry = NewObj<Entry>(hash, std::move(copy), false);
  if (entry == nullptr)
    return TELVO_OUT_OF_MEMORY();
  Entry*& head = BucketOf(t, hash);
  entry->next = head;
  head = entry;
  ++t.count;
  if (t.count > t.bucketCount)
    GrowTable(t);
  return InternedId(entry);
}

Result<InternedId> InternedId::CreateDetached(std::string_view text)
{
  if (text.empty())
    return InternedId();
  TELVO_TRY_ASSIGN(String copy, String::Create(text));
  Entry* entry = NewObj<Entry>(String::HashText(text), std::move(copy), true);
  if (entry == nullptr)
    return TELVO_OUT_OF_MEMORY();
  return InternedId(entry);
}

UInt InternedId::GetHash() const
{
  return _entry == nullptr ? 0 : _entry->hash;
}

const String& InternedId::GetString() const
{
  static const String empty;
  return _entry == nullptr ? empty : _entry->text;
}

Int InternedId::GetReferenceCount() const
{
  return _entry == nullptr ? 0 : _entry->refs.load(std::memory_order_acquire);
}

Bool InternedId::IsSameText(const InternedId& other) const
{
  if (_entry == other._entry)
    return true;
  if (_entry == nullptr || other._entry == nullptr)
    return false;
  return _entry->text == other._entry->text;
}

String InternedId::ToString(const FormatStatement* /*fs*/) const
{
  // The text is immutable and shared: handing out its buffer costs no allocation.
  return GetString();
}

Int InternedId::GetTableCount()
{
  Table& t = GetTable();
  std::lock_guard<std::mutex> lock(t.mutex);
  return t.count;
}

} // namespace telvo
