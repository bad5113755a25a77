// Data types: named descriptions of the values that members hold, looked up by name in the
// registry. The framework registers its own value types (datatypelib.h); modules declare theirs.
#pragma once

#include "telvo/system.h"

namespace telvo
{

enum class DataTypeKind
{
  Bool,
  Int,
  Float64,
  String,
  Uuid,
  InternedId,
  Matrix,
  Reference,    // a shared object reference (StrongRef)
  CowReference, // a copy-on-write object reference (CowRef)
};

struct DataType
{
  const char* name;
  DataTypeKind kind;
  const char* classId; // for object references: the class whose instances the type holds
};

} // namespace telvo
