#include "telvo/datatypelib.h"

namespace telvo
{

const DataType g_boolType{"Bool", DataTypeKind::Bool, nullptr};
const DataType g_intType{"Int", DataTypeKind::Int, nullptr};
const DataType g_float64Type{"Float64", DataTypeKind::Float64, nullptr};
const DataType g_stringType{"String", DataTypeKind::String, nullptr};
const DataType g_uuidType{"Uuid", DataTypeKind::Uuid, nullptr};
const DataType g_internedIdType{"InternedId", DataTypeKind::InternedId, nullptr};
const DataType g_matrixType{"Matrix", DataTypeKind::Matrix, nullptr};

} // namespace telvo
