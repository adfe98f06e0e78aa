// Model inputs and outputs as the runtime's interface describes them, and the conversion of their
// elements between device memory and an engine's arrays.
#ifndef QUILMRUN_RUNTIME_HOST_TENSOR_H_
#define QUILMRUN_RUNTIME_HOST_TENSOR_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "runtime/host/diagnostics.h"

namespace quilm_host {

/// An element type of ONNX models. 64-bit integers, doubles and truth values have no code in the
/// interface; they appear as 32-bit integers, floats and bytes. The table of these types is not the
/// tool's, which knows neither ONNX nor conversions.
struct ElementType {
  /// Converts `count` elements; false when one has no value in the other type.
  using Converter = bool (*)(const unsigned char* from, size_t count, unsigned char* to);

  int32_t onnx;        // TensorProto.DataType, which the engine uses too
  int32_t code;        // data type code of the interface
  size_t deviceBytes;  // of one element in device memory
  size_t modelBytes;   // of one element in the model
  uint64_t one;        // the number 1 in the model, in its low bytes
  Converter toModel;
  Converter toDevice;
};

/// Null for a type that the interface cannot carry.
const ElementType* FindElementType(int32_t onnxType);

/// Bits of one element in device memory; 0 for an unknown code.
size_t DataTypeBits(int32_t code);

/// One input or output. In device memory the last dimension forms rows, which start `stride` bytes
/// apart. A scalar has no dimensions and is described as one element.
struct Tensor {
  std::string name;
  const ElementType* type = nullptr;
  std::vector<int64_t> dims;  // outermost first; negative ones are not known yet
  size_t stride = 0;          // bytes
  size_t size = 0;            // bytes of one batch, row padding included
  int32_t format = 0;         // the interface's code for the order of the dimensions: as given

  bool IsOpen() const { return !dims.empty() && *std::min_element(dims.begin(), dims.end()) < 0; }
  size_t RowElements() const { return dims.empty() ? 1 : static_cast<size_t>(dims.back()); }
  size_t Elements() const { return size / stride * RowElements(); }
};

/// A tensor as engines take and return it: packed, in the model's element type.
struct Array {
  std::vector<int64_t> dims;
  std::vector<unsigned char> bytes;
};

/// Shapes of inputs or outputs, by name.
using Shapes = std::map<std::string, std::vector<int64_t>>;

inline std::string ShapeText(const std::vector<int64_t>& dims) {
  return "[" + Joined(dims) + "]";
}

/// Sets stride and size from type and dimensions: rows rounded up to `rowAlignment` bytes. Refuses
/// what cannot be laid out.
void LayOut(Tensor& tensor, size_t rowAlignment);

/// Copies the batches that follow each other at `device` into one array, whose first dimension is
/// the tensor's times `batches`.
Array ReadFromDevice(const Tensor& tensor, const unsigned char* device, size_t batches);

/// Copies the array to `device`, where it leaves row padding unchanged. Returns false when an
/// element has no value in the type that device memory holds.
bool WriteToDevice(const Array& array, const Tensor& tensor, unsigned char* device);

}  // namespace quilm_host

#endif  // QUILMRUN_RUNTIME_HOST_TENSOR_H_
