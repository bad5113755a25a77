// Values for tests, made from literals; a step that fails fails the calling test.
#pragma once

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

#include "telvo/internedid.h"
#include "telvo/string.h"
#include "telvo/uuid.h"

namespace kelvara_test
{

template <typename T>
T Value(telvo::Result<T>&& result)
{
  EXPECT_TRUE(result.IsOk()) << (result.IsError() ? result.GetError().GetMessage() : "");
  return std::move(result).GetValue();
}

inline telvo::Uuid MakeUuid(std::string_view text)
{
  return Value(telvo::Uuid::FromString(text));
}

// A uuid whose bytes are all zero but the first (tag) and the last two (n).
inline telvo::Uuid TaggedUuid(int n, telvo::Byte tag)
{
  telvo::Uuid::Bytes bytes{};
  bytes[0] = tag;
  bytes[14] = static_cast<telvo::Byte>(n >> 8);
  bytes[15] = static_cast<telvo::Byte>(n);
  return Value(telvo::Uuid::Create(bytes));
}

inline telvo::String MakeString(std::string_view text)
{
  return Value(telvo::String::Create(text));
}

inline telvo::InternedId Id(std::string_view text)
{
  return Value(telvo::InternedId::Intern(text));
}

inline std::string Text(const telvo::String& s)
{
  return std::string(s.View());
}

template <typename T>
telvo::BaseArray<T> ArrayOf(std::initializer_list<T> elements)
{
  telvo::BaseArray<T> array;
  for (const T& e : elements)
    EXPECT_TRUE(array.Append(e).IsOk());
  return array;
}

inline telvo::BaseArray<telvo::String> Strings(std::initializer_list<const char*> texts)
{
  telvo::BaseArray<telvo::String> strings;
  for (const char* text : texts)
    EXPECT_TRUE(strings.Append(MakeString(text)).IsOk());
  return strings;
}

} // namespace kelvara_test

namespace kelvara_test
{

// result failed with an error of errorClass, and with message when one is given.
template <typename T>
void ExpectError(const telvo::Result<T>& result, const telvo::ErrorClass& errorClass, const char* message = nullptr)
{
  ASSERT_TRUE(result.IsError());
  EXPECT_TRUE(result.GetError().IsClass(errorClass)) << result.GetError().GetClass().name;
  if (message != nullptr)
  {
    EXPECT_STREQ(result.GetError().GetMessage(), message);
  }
}

// The text of an object's ToString, for any reference to an object that has one.
template <typename REF, typename... ARGS>
std::string TextOf(const REF& object, const ARGS&... args)
{
  return std::string(object->ToString(args...).View());
}

} // namespace kelvara_test
