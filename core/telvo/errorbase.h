// Errors and results.
//
// An error object has a class, a message and the source unit and line where it was made. The
// errors of the framework and of modules carry literal messages, so each is a static object made
// once per site (TELVO_ERROR): reporting an error never allocates and can never fail, which keeps
// every out-of-memory path deterministic.
//
// Unit names: every unit that makes errors defines `constexpr const char* kUnitName` (for
// instance "source/impl/characternodeinfo_impl") before using the macros below.
#pragma once

#include <cstring>
#include <utility>

#include "telvo/system.h"

namespace telvo
{

struct ErrorClass
{
  const char* name;
};

TELVO_API extern const ErrorClass IllegalArgumentError;
TELVO_API extern const ErrorClass NullptrError;
TELVO_API extern const ErrorClass OutOfMemoryError;
TELVO_API extern const ErrorClass UnexpectedError;
// Class of the standard errors returned for a null result (see NullReturnError()).
TELVO_API extern const ErrorClass NullReturnErrorClass;

struct ErrorObject
{
  const ErrorClass* errorClass;
  const char* message;
  const char* unit;
  Int line;
};

// A shared, immutable handle to an error object. A default-constructed Error is no error.
class Error
{
public:
  Error() = default;
  explicit Error(const ErrorObject* object) : _object(object) {}

  Bool IsSet() const { return _object != nullptr; }
  const ErrorClass& GetClass() const { return *_object->errorClass; }
  Bool IsClass(const ErrorClass& c) const { return _object != nullptr && _object->errorClass == &c; }
  const char* GetMessage() const { return _object->message; }
  const char* GetUnit() const { return _object->unit; }
  Int GetLine() const { return _object->line; }
  const ErrorObject* GetObject() const { return _object; }

  // The very same error object.
  friend Bool operator==(const Error& a, const Error& b) { return a._object == b._object; }

private:
  const ErrorObject* _object = nullptr;
};

// The framework's standard error for a null return: reason 0 (a class could not be resolved) and
// reason 1 (no writable reference could be obtained) give one and the same object.
TELVO_API Error NullReturnError(Int reason);

// Result<T> holds either a value or an error. Result<void> holds only success or an error.
template <typename T>
class [[nodiscard]] Result
{
public:
  Result() = default;
  Result(const T& value) : _value(value) {}
  Result(T&& value) : _value(std::move(value)) {}
  Result(const Error& error) : _error(error) {}

  Bool IsError() const { return _error.IsSet(); }
  Bool IsOk() const { return !_error.IsSet(); }
  const Error& GetError() const { return _error; }
  T& GetValue() & { return _value; }
  const T& GetValue() const& { return _value; }
  T&& GetValue() && { return std::move(_value); }

private:
  T _value{};
  Error _error;
};

template <>
class [[nodiscard]] Result<void>
{
public:
  Result() = default;
  Result(const Error& error) : _error(error) {}

  Bool IsError() const { return _error.IsSet(); }
  Bool IsOk() const { return !_error.IsSet(); }
  const Error& GetError() const { return _error; }

private:
  Error _error;
};

inline Result<void> OK() { return Result<void>(); }

} // namespace telvo

#define TELVO_CONCAT_INNER(a, b) a##b
#define TELVO_CONCAT(a, b) TELVO_CONCAT_INNER(a, b)

// An error of the given class with a literal message, made at this unit and line.
#define TELVO_ERROR(CLASS, MESSAGE)                                                       \
  ::telvo::Error([]() -> const ::telvo::ErrorObject* {                                    \
    static const ::telvo::ErrorObject telvo_error_object{&(CLASS), (MESSAGE), kUnitName, \
                                                         __LINE__};                      \
    return &telvo_error_object;                                                           \
  }())

#define TELVO_OUT_OF_MEMORY() TELVO_ERROR(::telvo::OutOfMemoryError, "Out of memory")
#define TELVO_NULLPTR_ERROR() TELVO_ERROR(::telvo::NullptrError, "Unexpected null object")

// Returns the error of a Result-valued expression from the enclosing function.
#define TELVO_TRY(EXPR)                        \
  do                                           \
  {                                            \
    auto&& telvo_try_result = (EXPR);          \
    if (telvo_try_result.IsError())            \
      return telvo_try_result.GetError();      \
  } while (0)

// Declares or assigns LHS from the value of a Result-valued expression, or returns its error.
#define TELVO_TRY_ASSIGN(LHS, EXPR) \
  TELVO_TRY_ASSIGN_IMPL(TELVO_CONCAT(telvo_try_result_, __LINE__), LHS, EXPR)
#define TELVO_TRY_ASSIGN_IMPL(TMP, LHS, EXPR) \
  auto TMP = (EXPR);                          \
  if (TMP.IsError())                          \
    return TMP.GetError();                    \
  LHS = std::move(TMP).GetValue()
