#include "impl/characternodeinfo_impl.h"
#include "telvo/characternodetransform.h"
#include "telvo/matrix.h"

namespace telvo::kelvara
{

namespace
{

constexpr const char* kUnitName = "source/impl/characternodetransform_impl";
constexpr const char* kClassId = "net.telvo.animation.class.characternodetransform";
constexpr const char* kImplementation = "CharacterNodeTransformImpl";

// label + the matrix's text + "\n" as one ToString piece. The matrix text is empty only when it
// found no memory; the whole piece is then dropped rather than printing a label without its matrix.
Result<String> MatrixLine(std::string_view label, const Matrix& m, const FormatStatement* formatStatement)
{
  String text = MatrixToString(m, formatStatement);
  if (text.IsEmpty())
    return TELVO_OUT_OF_MEMORY();
  return MakeLine(label, std::move(text));
}

class CharacterNodeTransformImpl final
  : public ObjectImpl<CharacterNodeTransformImpl, CharacterNodeInfoComponent<CharacterNodeTransformInterface>>
{
public:
  void SetGlobalMatrix(const Matrix& m) override { _globalMat = m; }
  const Matrix& GetGlobalMatrix() const override { return _globalMat; }
  void SetParentGlobalMatrix(const Matrix& m) override { _parentGlobalMat = m; }
  const Matrix& GetParentGlobalMatrix() const override { return _parentGlobalMat; }
  void SetPreMultiplyMatrix(const Matrix& m) override { _preMultiplyMat = m; }
  const Matrix& GetPreMultiplyMatrix() const override { return _preMultiplyMat; }

  // Replaces node info's text: the node-info lines, then each matrix under its own label line.
  String ToString(const FormatStatement* formatStatement = nullptr) const override
  {
    String result;
    if (const CharacterNodeInfoPart* nodeInfo = FindNodeInfoPart(this))
      AppendPiece(result, nodeInfo->ToString(formatStatement));
    AppendPiece(result, MatrixLine("Global Matrix :\n", _globalMat, formatStatement));
    AppendPiece(result, MatrixLine("Parent Global Matrix :\n", _parentGlobalMat, formatStatement));
    AppendPiece(result, MatrixLine("Pre-Multiply Matrix :\n", _preMultiplyMat, formatStatement));
    return result;
  }

  // Neither the name nor the pre-multiply matrix is set here: callers set them where they need them.
  static Result<CharacterNodeTransform> CreateNodeTransform(const Uuid& uuid, const Matrix& globalMatrix,
                                                            const Matrix& parentGlobalMatrix)
  {
    TELVO_TRY_ASSIGN(CharacterNodeTransform transform, NewInstance<CharacterNodeTransform>(kClassId));
    TELVO_TRY_ASSIGN(CharacterNodeTransformInterface* writable, WritableForFactory(transform));
    TELVO_TRY(writable->SetUuid(uuid));
    TELVO_TRY_ASSIGN(writable, WritableForFactory(transform));
    writable->SetGlobalMatrix(globalMatrix);
    TELVO_TRY_ASSIGN(writable, WritableForFactory(transform));
    writable->SetParentGlobalMatrix(parentGlobalMatrix);
    return transform;
  }

  Result<void> CopyFrom(const CharacterNodeTransformImpl& src)
  {
    TELVO_TRY(CharacterNodeInfoPart::CopyFrom(src));
    _globalMat = src._globalMat;
    _parentGlobalMat = src._parentGlobalMat;
    _preMultiplyMat = src._preMultiplyMat;
    return OK();
  }

  // Only this component's own members: the node-info part describes its own.
  static Result<void> DescribeIO(DataDescriber& describer)
  {
    static constinit DataTypeReference matrixType{"Matrix"};
    TELVO_TRY(DeclareMember(describer, "_globalMat", matrixType, DESCRIBEFLAGS_NONE, [](void* self) -> void* {
      return &static_cast<CharacterNodeTransformImpl*>(self)->_globalMat;
    }));
    TELVO_TRY(DeclareMember(describer, "_parentGlobalMat", matrixType, DESCRIBEFLAGS_NONE, [](void* self) -> void* {
      return &static_cast<CharacterNodeTransformImpl*>(self)->_parentGlobalMat;
    }));
    return DeclareMember(describer, "_preMultiplyMat", matrixType, DESCRIBEFLAGS_NONE, [](void* self) -> void* {
      return &static_cast<CharacterNodeTransformImpl*>(self)->_preMultiplyMat;
    });
  }

private:
  Matrix _globalMat;
  Matrix _parentGlobalMat;
  Matrix _preMultiplyMat;
};

constinit DataTypeReference g_dataType{"telvo::CharacterNodeTransform"};
constexpr ComponentInfo kComponents[] = {NodeInfoComponent<CharacterNodeTransformImpl>(),
                                         OwnComponent<CharacterNodeTransformImpl>(kImplementation)};
constexpr InterfaceInfoFn kInterfaces[] = {&CharacterNodeTransformInterface::GetInterfaceInfo};
constexpr ClassInfo g_class = MakeClassInfo<CharacterNodeTransformImpl>(kClassId, &g_dataType, kImplementation,
                                                                        kNodeInfoClassId, kComponents, kInterfaces);
const ImplementationInfo g_implementation{kImplementation, &g_class,
                                          reinterpret_cast<void (*)()>(&CharacterNodeTransformImpl::CreateNodeTransform),
                                          &CharacterNodeTransformImpl::DescribeIO};
const UnitAnnouncer g_announcer{g_telvo,
                                kUnitName,
                                {KELVARA_COMMON_HEADERS, "telvo/uuid.h", "telvo/matrix.h", "telvo/characternodeinfo.h",
                                 "telvo/characternodetransform.h", KELVARA_TRAILING_HEADERS},
                                &g_class,
                                &g_implementation};

} // namespace

} // namespace telvo::kelvara
