#include "io/gltf/gltf_document.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace kelvara
{

namespace
{

int Components(int type)
{
  switch (type)
  {
  case TINYGLTF_TYPE_SCALAR:
    return 1;
  case TINYGLTF_TYPE_VEC2:
    return 2;
  case TINYGLTF_TYPE_VEC3:
    return 3;
  case TINYGLTF_TYPE_VEC4:
    return 4;
  case TINYGLTF_TYPE_MAT4:
    return 16;
  default:
    return 1;
  }
}

} // namespace

int AddBufferView(tinygltf::Model& model, const void* data, std::size_t bytes, int target)
{
  if (model.buffers.empty())
    model.buffers.emplace_back();
  std::vector<unsigned char>& buffer = model.buffers[0].data;
  buffer.resize((buffer.size() + 3) / 4 * 4, 0);
  tinygltf::BufferView view;
  view.buffer = 0;
  view.byteOffset = buffer.size();
  view.byteLength = bytes;
  view.target = target;
  buffer.insert(buffer.end(), static_cast<const unsigned char*>(data), static_cast<const unsigned char*>(data) + bytes);
  model.bufferViews.push_back(view);
  return static_cast<int>(model.bufferViews.size()) - 1;
}

int AddFloatAccessor(tinygltf::Model& model, const std::vector<float>& values, int type, bool withBounds, int target)
{
  const int components = Components(type);
  tinygltf::Accessor accessor;
  accessor.bufferView = AddBufferView(model, values.data(), values.size() * sizeof(float), target);
  accessor.componentType = TINYGLTF_COMPONENT_TYPE_FLOAT;
  accessor.type = type;
  accessor.count = values.size() / static_cast<std::size_t>(components);
  if (withBounds && accessor.count > 0)
  {
    accessor.minValues.assign(static_cast<std::size_t>(components), std::numeric_limits<double>::infinity());
    accessor.maxValues.assign(static_cast<std::size_t>(components), -std::numeric_limits<double>::infinity());
    for (std::size_t i = 0; i < values.size(); ++i)
    {
      const std::size_t c = i % static_cast<std::size_t>(components);
      accessor.minValues[c] = std::min(accessor.minValues[c], static_cast<double>(values[i]));
      accessor.maxValues[c] = std::max(accessor.maxValues[c], static_cast<double>(values[i]));
    }
  }
  model.accessors.push_back(accessor);
  return static_cast<int>(model.accessors.size()) - 1;
}

int AddIndexAccessor(tinygltf::Model& model, const std::vector<std::uint32_t>& values, int type, int componentType,
                     int target)
{
  tinygltf::Accessor accessor;
  if (componentType == TINYGLTF_COMPONENT_TYPE_UNSIGNED_SHORT)
  {
    std::vector<std::uint16_t> narrow(values.begin(), values.end());
    accessor.bufferView = AddBufferView(model, narrow.data(), narrow.size() * sizeof(std::uint16_t), target);
  }
  else
    accessor.bufferView = AddBufferView(model, values.data(), values.size() * sizeof(std::uint32_t), target);
  accessor.componentType = componentType;
  accessor.type = type;
  accessor.count = values.size() / static_cast<std::size_t>(Components(type));
  model.accessors.push_back(accessor);
  return static_cast<int>(model.accessors.size()) - 1;
}

void AddAnimationChannel(tinygltf::Animation& animation, int node, const char* path, int input, int output)
{
  tinygltf::AnimationSampler sampler;
  sampler.input = input;
  sampler.output = output;
  sampler.interpolation = "LINEAR";
  animation.samplers.push_back(sampler);
  tinygltf::AnimationChannel channel;
  channel.sampler = static_cast<int>(animation.samplers.size()) - 1;
  channel.target_node = node;
  channel.target_path = path;
  animation.channels.push_back(channel);
}

std::vector<double> ColumnMajor(const telvo::Matrix& m)
{
  return {m.v1.x, m.v1.y, m.v1.z, 0.0, m.v2.x, m.v2.y, m.v2.z, 0.0,
          m.v3.x, m.v3.y, m.v3.z, 0.0, m.off.x, m.off.y, m.off.z, 1.0};
}

telvo::Matrix FromColumnMajor(const double* m)
{
  telvo::Matrix r;
  r.v1 = {m[0], m[1], m[2]};
  r.v2 = {m[4], m[5], m[6]};
  r.v3 = {m[8], m[9], m[10]};
  r.off = {m[12], m[13], m[14]};
  return r;
}

void NodeTransform(const tinygltf::Node& node, telvo::Vector& translation, Quaternion& rotation, telvo::Vector& scale)
{
  translation = {};
  rotation = {};
  scale = {1.0, 1.0, 1.0};
  if (node.matrix.size() == 16)
  {
    const telvo::Matrix m = FromColumnMajor(node.matrix.data());
    translation = m.off;
    scale = {telvo::Length(m.v1), telvo::Length(m.v2), telvo::Length(m.v3)};
    // A mirroring matrix keeps its reflection in the scale, so that the rotation stays proper.
    if (telvo::Determinant3(m) < 0.0)
      scale.x = -scale.x;
    telvo::Matrix r = m;
    r.v1 = scale.x != 0.0 ? r.v1 * (1.0 / scale.x) : telvo::Vector{1.0, 0.0, 0.0};
    r.v2 = scale.y != 0.0 ? r.v2 * (1.0 / scale.y) : telvo::Vector{0.0, 1.0, 0.0};
    r.v3 = scale.z != 0.0 ? r.v3 * (1.0 / scale.z) : telvo::Vector{0.0, 0.0, 1.0};
    rotation = FromMatrix(r);
    return;
  }
  if (node.translation.size() == 3)
    translation = {node.translation[0], node.translation[1], node.translation[2]};
  if (node.rotation.size() == 4)
    rotation = Normalized(Quaternion{node.rotation[3], node.rotation[0], node.rotation[1], node.rotation[2]});
  if (node.scale.size() == 3)
    scale = {node.scale[0], node.scale[1], node.scale[2]};
}

void SetNodeTransform(tinygltf::Node& node, const telvo::Vector& translation, const Quaternion& rotation,
                      const telvo::Vector& scale)
{
  node.matrix.clear();
  node.translation.clear();
  node.rotation.clear();
  node.scale.clear();
  if (!(translation == telvo::Vector{}))
    node.translation = {translation.x, translation.y, translation.z};
  if (!(rotation == Quaternion{}))
    node.rotation = {rotation.x, rotation.y, rotation.z, rotation.w};
  if (!(scale == telvo::Vector{1.0, 1.0, 1.0}))
    node.scale = {scale.x, scale.y, scale.z};
}

} // namespace kelvara
