// BaseArray<T>: a growable array that owns its elements by value.
//
// For handle elements (String, Uuid, object references) the array owns the handles and the
// objects are shared: copying an array copies every handle and raises its count. Copying can fail
// for lack of memory, so there is no copy constructor: use CopyFrom.
//
// Growth: when appended elements no longer fit, the new capacity is
// (old capacity + number appended) * 3 / 2, or just the number appended when the array had no
// storage yet, rounded up to the next multiple of 16 (an exact non-zero multiple of 16 stays, 0
// becomes 16). One element in an empty array reserves 16; a full 16 plus one grows to 32.
// A failed allocation reports OutOfMemoryError and leaves the array as it was.
#pragma once

#include <type_traits>
#include <utility>

#include "telvo/errorbase.h"

namespace telvo
{

namespace array_detail
{
constexpr const char* kUnitName = "telvo/array.h";
}

inline Int ComputeArrayGrowth(Int oldCapacity, Int appended)
{
  Int wanted = oldCapacity == 0 ? appended : (oldCapacity + appended) * 3 / 2;
  if (wanted <= 0)
    return 16;
  return (wanted + 15) / 16 * 16;
}

template <typename T>
class BaseArray
{
public:
  using ValueType = T;

  BaseArray() = default;
  ~BaseArray() { Flush(); }
  BaseArray(const BaseArray&) = delete;
  BaseArray& operator=(const BaseArray&) = delete;
  BaseArray(BaseArray&& other) noexcept
      : _data(std::exchange(other._data, nullptr)), _count(std::exchange(other._count, 0)),
        _capacity(std::exchange(other._capacity, 0))
  {
  }
  BaseArray& operator=(BaseArray&& other) noexcept
  {
    if (this != &other)
    {
      Flush();
      _data = std::exchange(other._data, nullptr);
      _count = std::exchange(other._count, 0);
      _capacity = std::exchange(other._capacity, 0);
    }
    return *this;
  }

  Int GetCount() const { return _count; }
  Int GetCapacity() const { return _capacity; }
  Bool IsEmpty() const { return _count == 0; }

  T& operator[](Int index) { return _data[index]; }
  const T& operator[](Int index) const { return _data[index]; }

  T* begin() { return _data; }
  T* end() { return _data + _count; }
  const T* begin() const { return _data; }
  const T* end() const { return _data + _count; }

  Result<void> Append(const T& value)
  {
    if (_count == _capacity)
    {
      // value may live inside this array: copy it before the storage moves.
      T copy(value);
      Result<void> grown = Grow(1);
      if (grown.IsError())
        return grown;
      new (_data + _count) T(std::move(copy));
    }
    else
    {
      new (_data + _count) T(value);
    }
    ++_count;
    return OK();
  }

  Result<void> Append(T&& value)
  {
    if (_count == _capacity)
    {
      T moved(std::move(value));
      Result<void> grown = Grow(1);
      if (grown.IsError())
      {
        value = std::move(moved);
        return grown;
      }
      new (_data + _count) T(std::move(moved));
    }
    else
    {
      new (_data + _count) T(std::move(value));
    }
    ++_count;
    return OK();
  }

  // Inserts value at index (0 <= index <= count), moving later elements up.
  Result<void> Insert(Int index, const T& value)
  {
    T copy(value);
    if (_count == _capacity)
    {
      Result<void> grown = Grow(1);
      if (grown.IsError())
        return grown;
    }
    new (_data + _count) T();
    for (Int i = _count; i > index; --i)
      _data[i] = std::move(_data[i - 1]);
    _data[index] = std::move(copy);
    ++_count;
    return OK();
  }

  // Removes the element at index, moving later elements down.
  void Erase(Int index)
  {
    for (Int i = index; i + 1 < _count; ++i)
      _data[i] = std::move(_data[i + 1]);
    --_count;
    _data[_count].~T();
  }

  // Changes the count; new elements are default-constructed.
  Result<void> Resize(Int newCount)
  {
    if (newCount > _capacity)
    {
      Result<void> grown = Grow(newCount - _count);
      if (grown.IsError())
        return grown;
    }
    for (Int i = _count; i < newCount; ++i)
      new (_data + i) T();
    for (Int i = newCount; i < _count; ++i)
      _data[i].~T();
    _count = newCount;
    return OK();
  }

  // Makes room for n elements without changing the count.
  Result<void> EnsureCapacity(Int n)
  {
    if (n <= _capacity)
      return OK();
    return Reallocate(ComputeArrayGrowth(_capacity, n - _count));
  }

  // Replaces the contents by copies of src's elements. Copying an array onto itself does nothing.
  Result<void> CopyFrom(const BaseArray& src)
  {
    if (&src == this)
      return OK();
    if (src._count > _capacity)
    {
      Int capacity = ComputeArrayGrowth(_capacity, src._count);
      T* data = static_cast<T*>(Allocator::Alloc(sizeof(T) * capacity));
      if (data == nullptr)
        return MakeOutOfMemory();
      for (Int i = 0; i < src._count; ++i)
        new (data + i) T(src._data[i]);
      Flush();
      _data = data;
      _capacity = capacity;
      _count = src._count;
      return OK();
    }
    Int i = 0;
    for (; i < src._count && i < _count; ++i)
      _data[i] = src._data[i];
    for (; i < src._count; ++i)
      new (_data + i) T(src._data[i]);
    for (Int j = src._count; j < _count; ++j)
      _data[j].~T();
    _count = src._count;
    return OK();
  }

  // Destroys all elements and frees the storage: count and capacity become 0.
  void Flush()
  {
    for (Int i = _count; i > 0; --i)
      _data[i - 1].~T();
    Allocator::Free(_data);
    _data = nullptr;
    _count = 0;
    _capacity = 0;
  }

  // Destroys all elements, keeping the storage.
  void Clear()
  {
    for (Int i = _count; i > 0; --i)
      _data[i - 1].~T();
    _count = 0;
  }

  // Index of the first element equal to value, or -1.
  template <typename U>
  Int FindIndex(const U& value) const
  {
    for (Int i = 0; i < _count; ++i)
      if (_data[i] == value)
        return i;
    return -1;
  }

private:
  static Error MakeOutOfMemory()
  {
    using array_detail::kUnitName;
    return TELVO_OUT_OF_MEMORY();
  }

  Result<void> Grow(Int appended) { return Reallocate(ComputeArrayGrowth(_capacity, appended)); }

  Result<void> Reallocate(Int capacity)
  {
    T* data = static_cast<T*>(Allocator::Alloc(sizeof(T) * capacity));
    if (data == nullptr)
      return MakeOutOfMemory();
    for (Int i = 0; i < _count; ++i)
    {
      new (data + i) T(std::move(_data[i]));
      _data[i].~T();
    }
    Allocator::Free(_data);
    _data = data;
    _capacity = capacity;
    return OK();
  }

  T* _data = nullptr;
  Int _count = 0;
  Int _capacity = 0;
};

} // namespace telvo
