// A glTF document as tinygltf holds it, with the node of each skeleton joint, and the few
// builders that add data to one (the writer, the assimp conversion and the demo's character use
// them). Only the glTF and assimp code include this header.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <tiny_gltf.h>

#include "anim/quaternion.h"
#include "anim/skeleton.h"
#include "telvo/matrix.h"

namespace kelvara
{

struct GltfDocument
{
  tinygltf::Model model;
  std::vector<int> nodeOfJoint; // per joint of the skeleton read from it
  // The raw bytes of images read from a uri (external file or data uri), by image index, so
  // that writing can embed them unchanged instead of decoding and encoding them again.
  std::vector<std::vector<unsigned char>> imageBytes;
};

// A document of the skeleton alone: a node per joint (rest transforms as stored), under a node
// that carries the scene transform when it is not the identity.
GltfDocument SkeletonDocument(const Skeleton& skeleton);

// Appends data to buffer 0 (made when missing) as a new buffer view, 4-byte aligned; returns the
// view's index. target: 0, or a GL buffer target (34962 vertices, 34963 indices).
int AddBufferView(tinygltf::Model& model, const void* data, std::size_t bytes, int target = 0);

// Accessors of 32-bit floats (type TINYGLTF_TYPE_SCALAR, VEC2, VEC3, VEC4 or MAT4; values holds
// count * components numbers); withBounds adds min and max, which positions and animation inputs
// need.
int AddFloatAccessor(tinygltf::Model& model, const std::vector<float>& values, int type, bool withBounds,
                     int target = 0);
// Unsigned integer accessors (indices, joint numbers): componentType
// TINYGLTF_COMPONENT_TYPE_UNSIGNED_SHORT or _INT.
int AddIndexAccessor(tinygltf::Model& model, const std::vector<std::uint32_t>& values, int type, int componentType,
                     int target = 0);

// A channel of animation driving node's path ("rotation", "translation") with keys at input's
// times and output's values, through a linear sampler of its own.
void AddAnimationChannel(tinygltf::Animation& animation, int node, const char* path, int input, int output);

// A node's local transform as the document stores it (a matrix, or translation, rotation and
// scale), as T, R and S.
void NodeTransform(const tinygltf::Node& node, telvo::Vector& translation, Quaternion& rotation, telvo::Vector& scale);
// Sets a node's local transform as translation, rotation and scale (no matrix); identity parts
// are left out, as the format prefers.
void SetNodeTransform(tinygltf::Node& node, const telvo::Vector& translation, const Quaternion& rotation,
                      const telvo::Vector& scale);

// Column-major 4x4 (glTF's order) from a telvo matrix, and back.
std::vector<double> ColumnMajor(const telvo::Matrix& m);
telvo::Matrix FromColumnMajor(const double* m);

} // namespace kelvara
