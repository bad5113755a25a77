#include "telvo/errorbase.h"

namespace telvo
{

namespace
{
constexpr const char* kUnitName = "telvo/errorbase";
}

const ErrorClass IllegalArgumentError{"IllegalArgumentError"};
const ErrorClass NullptrError{"NullptrError"};
const ErrorClass OutOfMemoryError{"OutOfMemoryError"};
const ErrorClass UnexpectedError{"UnexpectedError"};
const ErrorClass NullReturnErrorClass{"NullReturnError"};

Error NullReturnError(Int /*reason*/)
{
  // Every reason maps to the one standard object: callers compare it by identity.
  return TELVO_ERROR(NullReturnErrorClass, "Null return value");
}

} // namespace telvo
