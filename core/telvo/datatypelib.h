// The framework's own data types, registered when the framework starts.
#pragma once

#include "telvo/datatype.h"
#include "telvo/objectbase.h"

namespace telvo
{

TELVO_API extern const DataType g_boolType;       // "Bool"
TELVO_API extern const DataType g_intType;        // "Int"
TELVO_API extern const DataType g_float64Type;    // "Float64"
TELVO_API extern const DataType g_stringType;     // "String"
TELVO_API extern const DataType g_uuidType;       // "Uuid"
TELVO_API extern const DataType g_internedIdType; // "InternedId"
TELVO_API extern const DataType g_matrixType;     // "Matrix"

} // namespace telvo
