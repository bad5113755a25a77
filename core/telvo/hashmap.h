// HashMap<K, V, HASH>: a map from keys to values with separate chaining.
//
// Layout: every entry is one allocator block holding its next link, the key's hash, the key and
// the value, so an entry never moves once made and pointers from Find stay valid until Flush.
// A new entry goes to the head of its bucket's chain. A bucket that becomes non-empty is appended
// to a list of non-empty buckets.
//
// Iteration order (callers and stored texts rely on it): the non-empty buckets in the order in
// which they first filled, each chain from head to tail, so within one bucket the newest entry
// comes first.
//
// Storage: a new map allocates nothing. The first insertion allocates 16 buckets. When a new
// entry would make the count exceed bucketCount * loadFactor (0.65 unless SetLoadFactor says
// otherwise), the map first doubles its buckets: the entries are re-linked in their current
// iteration order, each at the head of its new chain, and the new buckets join the non-empty list
// as they first fill. Hence entries that share a chain before and after growth come out reversed.
// Bucket index = hash % bucketCount.
//
// A failed allocation reports OutOfMemoryError and leaves the map exactly as it was: everything
// an operation needs is allocated before anything is changed.
#pragma once

#include <concepts>
#include <cstddef>
#include <type_traits>
#include <utility>

#include "telvo/errorbase.h"
#include "telvo/internedid.h"
#include "telvo/string.h"
#include "telvo/uuid.h"

namespace telvo
{

namespace hashmap_detail
{
constexpr const char* kUnitName = "telvo/hashmap.h";
}

// Hash and equality of a key type: static UInt Hash(const K&) and Bool Equal(const K&, const K&).
// Deliberately undefined for types without a specialisation, so a missing one fails to compile.
template <typename K>
struct DefaultHash;

// Integral keys: the value run through the splitmix64 finaliser (its mixing step, without the
// golden-ratio increment). Sequential keys would otherwise fill neighbouring buckets and any
// regularity in the low bits (e.g. multiples of 16) would pile keys into one bucket.
template <std::integral K>
struct DefaultHash<K>
{
  static UInt Hash(const K& key)
  {
    UInt z = static_cast<UInt>(key);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
  }
  static Bool Equal(const K& a, const K& b) { return a == b; }
};

template <>
struct DefaultHash<String>
{
  static UInt Hash(const String& s) { return s.GetHash(); }
  static Bool Equal(const String& a, const String& b) { return a == b; }
};

// By value; the identity test first spares the byte comparison for shared handles.
template <>
struct DefaultHash<Uuid>
{
  static UInt Hash(const Uuid& u) { return u.GetHash(); }
  static Bool Equal(const Uuid& a, const Uuid& b) { return a.IsSameObject(b) || a == b; }
};

// By identity: interned ids of equal text from one table are one object.
template <>
struct DefaultHash<InternedId>
{
  static UInt Hash(const InternedId& id) { return id.GetHash(); }
  static Bool Equal(const InternedId& a, const InternedId& b) { return a == b; }
};

template <typename K, typename V, typename HASH = DefaultHash<K>>
class HashMap
{
  struct Bucket;

public:
  class Entry
  {
  public:
    const K& GetKey() const { return _key; }
    const V& GetValue() const { return _value; }
    V& GetValue() { return _value; }

  private:
    friend class HashMap;
    Entry(UInt hash, const K& key, const V& value) : _hash(hash), _key(key), _value(value) {}

    Entry* _next = nullptr;
    UInt _hash;
    K _key;
    V _value;
  };

  template <Bool CONST>
  class IteratorBase
  {
  public:
    using EntryRef = std::conditional_t<CONST, const Entry&, Entry&>;

    IteratorBase() = default;
    EntryRef operator*() const { return *_entry; }
    auto* operator->() const { return &*_entry; }
    IteratorBase& operator++()
    {
      _entry = _entry->_next;
      if (_entry == nullptr)
      {
        _bucket = _bucket->nextFilled;
        _entry = _bucket != nullptr ? _bucket->head : nullptr;
      }
      return *this;
    }
    friend Bool operator==(const IteratorBase& a, const IteratorBase& b) { return a._entry == b._entry; }

  private:
    friend class HashMap;
    IteratorBase(Bucket* bucket) : _bucket(bucket), _entry(bucket != nullptr ? bucket->head : nullptr) {}

    Bucket* _bucket = nullptr;
    Entry* _entry = nullptr;
  };
  using Iterator = IteratorBase<false>;
  using ConstIterator = IteratorBase<true>;

  static constexpr Int kInitialBucketCount = 16;
  static constexpr Float64 kDefaultLoadFactor = 0.65;

  HashMap() = default;
  ~HashMap() { Flush(); }
  HashMap(const HashMap&) = delete;
  HashMap& operator=(const HashMap&) = delete;
  HashMap(HashMap&& other) noexcept { Steal(other); }
  HashMap& operator=(HashMap&& other) noexcept
  {
    if (this != &other)
    {
      Flush();
      Steal(other);
    }
    return *this;
  }

  Int GetCount() const { return _count; }
  Int GetBucketCount() const { return _bucketCount; }
  Float64 GetLoadFactor() const { return _loadFactor; }
  // Takes effect at the next insertion; the current buckets are left alone.
  void SetLoadFactor(Float64 loadFactor) { _loadFactor = loadFactor; }

  V* Find(const K& key) { return FindValue(key); }
  const V* Find(const K& key) const { return FindValue(key); }

  // Inserts key with value, or replaces the value of an existing key in place (its position in
  // the iteration order stays).
  Result<void> Insert(const K& key, const V& value)
  {
    const UInt hash = HASH::Hash(key);
    if (Entry* existing = FindEntry(key, hash))
    {
      // value may be this very entry's value.
      if (&existing->_value != &value)
        existing->_value = value;
      return OK();
    }
    Int newBucketCount = 0;
    if (_bucketCount == 0)
      newBucketCount = kInitialBucketCount;
    else if (static_cast<Float64>(_count + 1) > static_cast<Float64>(_bucketCount) * _loadFactor)
      newBucketCount = _bucketCount * 2;
    Bucket* newBuckets = nullptr;
    if (newBucketCount != 0)
    {
      newBuckets = AllocateBuckets(newBucketCount);
      if (newBuckets == nullptr)
        return MakeOutOfMemory();
    }
    void* mem = Allocator::Alloc(sizeof(Entry));
    if (mem == nullptr)
    {
      Allocator::Free(newBuckets);
      return MakeOutOfMemory();
    }
    Entry* entry = new (mem) Entry(hash, key, value);
    if (newBuckets != nullptr)
      Rehash(newBuckets, newBucketCount);
    Link(entry, _buckets, _bucketCount, _firstFilled, _lastFilled);
    ++_count;
    return OK();
  }

  // Makes this map an exact replica of src: bucket count, order of the non-empty buckets, chain
  // order and load factor, so the copy iterates and grows identically.
  Result<void> CopyFrom(const HashMap& src)
  {
    if (&src == this)
      return OK();
    if (src._bucketCount == 0)
    {
      Flush();
      _loadFactor = src._loadFactor;
      return OK();
    }
    Bucket* buckets = AllocateBuckets(src._bucketCount);
    if (buckets == nullptr)
      return MakeOutOfMemory();
    Bucket* first = nullptr;
    Bucket* last = nullptr;
    for (const Bucket* srcBucket = src._firstFilled; srcBucket != nullptr; srcBucket = srcBucket->nextFilled)
    {
      Bucket* bucket = buckets + (srcBucket - src._buckets);
      // Listed before its entries are made, so a failure below finds and frees a partial chain.
      AppendFilled(bucket, first, last);
      Entry** tail = &bucket->head;
      for (const Entry* srcEntry = srcBucket->head; srcEntry != nullptr; srcEntry = srcEntry->_next)
      {
        void* mem = Allocator::Alloc(sizeof(Entry));
        if (mem == nullptr)
        {
          ReleaseEntries(first);
          Allocator::Free(buckets);
          return MakeOutOfMemory();
        }
        Entry* entry = new (mem) Entry(srcEntry->_hash, srcEntry->_key, srcEntry->_value);
        *tail = entry;
        tail = &entry->_next;
      }
    }
    Flush();
    _buckets = buckets;
    _bucketCount = src._bucketCount;
    _firstFilled = first;
    _lastFilled = last;
    _count = src._count;
    _loadFactor = src._loadFactor;
    return OK();
  }

  // Releases every entry and the buckets: back to the state of a new map, load factor kept.
  void Flush()
  {
    ReleaseEntries(_firstFilled);
    Allocator::Free(_buckets);
    _buckets = nullptr;
    _bucketCount = 0;
    _firstFilled = nullptr;
    _lastFilled = nullptr;
    _count = 0;
  }

  Iterator begin() { return Iterator(_firstFilled); }
  Iterator end() { return Iterator(); }
  ConstIterator begin() const { return ConstIterator(_firstFilled); }
  ConstIterator end() const { return ConstIterator(); }

private:
  struct Bucket
  {
    Entry* head;
    // Next bucket in the order of first filling.
    Bucket* nextFilled;
  };

  static_assert(alignof(Entry) <= alignof(std::max_align_t), "the allocator aligns to max_align_t");

  static Error MakeOutOfMemory()
  {
    using hashmap_detail::kUnitName;
    return TELVO_OUT_OF_MEMORY();
  }

  static Bucket* AllocateBuckets(Int count)
  {
    Bucket* buckets = static_cast<Bucket*>(Allocator::Alloc(sizeof(Bucket) * static_cast<std::size_t>(count)));
    if (buckets != nullptr)
      for (Int i = 0; i < count; ++i)
        new (buckets + i) Bucket{nullptr, nullptr};
    return buckets;
  }

  static void AppendFilled(Bucket* bucket, Bucket*& first, Bucket*& last)
  {
    if (last != nullptr)
      last->nextFilled = bucket;
    else
      first = bucket;
    last = bucket;
  }

  static void Link(Entry* entry, Bucket* buckets, Int bucketCount, Bucket*& first, Bucket*& last)
  {
    Bucket* bucket = buckets + entry->_hash % static_cast<UInt>(bucketCount);
    if (bucket->head == nullptr)
      AppendFilled(bucket, first, last);
    entry->_next = bucket->head;
    bucket->head = entry;
  }

  static void ReleaseEntries(Bucket* first)
  {
    for (Bucket* bucket = first; bucket != nullptr; bucket = bucket->nextFilled)
    {
      Entry* entry = bucket->head;
      while (entry != nullptr)
      {
        Entry* next = entry->_next;
        entry->~Entry();
        Allocator::Free(entry);
        entry = next;
      }
    }
  }

  // Moves every entry into newBuckets (already allocated, so this cannot fail) in iteration order.
  void Rehash(Bucket* newBuckets, Int newBucketCount)
  {
    Bucket* first = nullptr;
    Bucket* last = nullptr;
    // The old buckets' filled list is untouched by linking into the new array.
    for (Bucket* bucket = _firstFilled; bucket != nullptr; bucket = bucket->nextFilled)
    {
      Entry* entry = bucket->head;
      while (entry != nullptr)
      {
        Entry* next = entry->_next;
        Link(entry, newBuckets, newBucketCount, first, last);
        entry = next;
      }
    }
    Allocator::Free(_buckets);
    _buckets = newBuckets;
    _bucketCount = newBucketCount;
    _firstFilled = first;
    _lastFilled = last;
  }

  Entry* FindEntry(const K& key, UInt hash) const
  {
    if (_bucketCount == 0)
      return nullptr;
    for (Entry* entry = _buckets[hash % static_cast<UInt>(_bucketCount)].head; entry != nullptr;
         entry = entry->_next)
      if (entry->_hash == hash && HASH::Equal(entry->_key, key))
        return entry;
    return nullptr;
  }

  V* FindValue(const K& key) const
  {
    Entry* entry = FindEntry(key, HASH::Hash(key));
    return entry != nullptr ? &entry->_value : nullptr;
  }

  void Steal(HashMap& other)
  {
    _buckets = std::exchange(other._buckets, nullptr);
    _bucketCount = std::exchange(other._bucketCount, 0);
    _firstFilled = std::exchange(other._firstFilled, nullptr);
    _lastFilled = std::exchange(other._lastFilled, nullptr);
    _count = std::exchange(other._count, 0);
    _loadFactor = other._loadFactor;
  }

  Bucket* _buckets = nullptr;
  Int _bucketCount = 0;
  Bucket* _firstFilled = nullptr;
  Bucket* _lastFilled = nullptr;
  Int _count = 0;
  Float64 _loadFactor = kDefaultLoadFactor;
};

} // namespace telvo
