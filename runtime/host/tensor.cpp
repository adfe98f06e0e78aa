#include "runtime/host/tensor.h"

#include <algorithm>
#include <cstring>

#include "onnx.pb-c.h"
#include "runtime/quilm.h"

namespace quilm_host {
namespace {

template <typename From, typename To>
bool Convert(const unsigned char* from, size_t count, unsigned char* to) {
  for (size_t i = 0; i < count; ++i) {
    From element;
    std::memcpy(&element, from + i * sizeof(From), sizeof(From));
    const To converted = static_cast<To>(element);
    if constexpr (sizeof(To) < sizeof(From) && std::is_integral_v<To>) {
      if (converted != element) {
        return false;
      }
    }
    std::memcpy(to + i * sizeof(To), &converted, sizeof(To));
  }
  return true;
}

template <size_t kBytes>
bool Copy(const unsigned char* from, size_t count, unsigned char* to) {
  std::memcpy(to, from, count * kBytes);
  return true;
}

// A byte of a truth value may hold any number.
bool Normalize(const unsigned char* from, size_t count, unsigned char* to) {
  std::transform(from, from + count, to, [](unsigned char byte) { return byte != 0; });
  return true;
}

constexpr ElementType kElementTypes[] = {
    {ONNX__TENSOR_PROTO__DATA_TYPE__FLOAT, 0, 4, 4, Copy<4>, Copy<4>},
    {ONNX__TENSOR_PROTO__DATA_TYPE__FLOAT16, 1, 2, 2, Copy<2>, Copy<2>},
    {ONNX__TENSOR_PROTO__DATA_TYPE__INT8, 2, 1, 1, Copy<1>, Copy<1>},
    {ONNX__TENSOR_PROTO__DATA_TYPE__INT32, 3, 4, 4, Copy<4>, Copy<4>},
    {ONNX__TENSOR_PROTO__DATA_TYPE__UINT8, 4, 1, 1, Copy<1>, Copy<1>},
    {ONNX__TENSOR_PROTO__DATA_TYPE__INT16, 6, 2, 2, Copy<2>, Copy<2>},
    {ONNX__TENSOR_PROTO__DATA_TYPE__UINT16, 7, 2, 2, Copy<2>, Copy<2>},
    {ONNX__TENSOR_PROTO__DATA_TYPE__INT64, 3, 4, 8, Convert<int32_t, int64_t>,
     Convert<int64_t, int32_t>},
    {ONNX__TENSOR_PROTO__DATA_TYPE__DOUBLE, 0, 4, 8, Convert<float, double>,
     Convert<double, float>},
    {ONNX__TENSOR_PROTO__DATA_TYPE__BOOL, 4, 1, 1, Normalize, Normalize},
};

}  // namespace

const ElementType* FindElementType(int32_t onnxType) {
  const auto* found = std::find_if(std::begin(kElementTypes), std::end(kElementTypes),
                                   [=](const ElementType& type) { return type.onnx == onnxType; });
  return found == std::end(kElementTypes) ? nullptr : found;
}

size_t DataTypeBits(int32_t code) {
  const auto* found = std::find_if(std::begin(kElementTypes), std::end(kElementTypes),
                                   [=](const ElementType& type) { return type.code == code; });
  return found == std::end(kElementTypes) ? 0 : found->deviceBytes * 8;
}

size_t RowElements(const Tensor& tensor) {
  return tensor.dims.empty() ? 1 : static_cast<size_t>(tensor.dims.back());
}

size_t RowCount(const Tensor& tensor) {
  return tensor.size / tensor.stride;
}

std::string ShapeText(const std::vector<int64_t>& dims) {
  std::string text;
  for (const int64_t dim : dims) {
    text += (text.empty() ? "" : ", ") + std::to_string(dim);
  }
  return "[" + text + "]";
}

std::string LayOut(Tensor& tensor, size_t rowAlignment) {
  constexpr size_t kMaxSize = INT32_MAX;
  if (tensor.name.size() >= QUILM_MAX_NAME_LEN) {
    return "its name is longer than 127 bytes";
  }
  if (tensor.dims.size() > QUILM_MAX_DIM_COUNT) {
    return "it has more than 128 dimensions";
  }
  size_t elements = 1;
  for (const int64_t dim : tensor.dims) {
    if (dim <= 0) {
      return "its shape " + ShapeText(tensor.dims) + " has a dimension that is not above 0";
    }
    if (__builtin_mul_overflow(elements, static_cast<size_t>(dim), &elements) ||
        elements > kMaxSize) {
      return "it has more than 2147483647 elements";
    }
  }
  const size_t elementSize = tensor.type->deviceBytes;
  const size_t rowBytes = RowElements(tensor) * elementSize;
  tensor.stride = (rowBytes + rowAlignment - 1) / rowAlignment * rowAlignment;
  if (tensor.stride % elementSize != 0) {
    return "its elements do not fit a row_alignment of " + std::to_string(rowAlignment);
  }
  const size_t rows = elements / RowElements(tensor);
  if (__builtin_mul_overflow(tensor.stride, rows, &tensor.size) || tensor.size > kMaxSize) {
    return "it takes more than 2147483647 bytes";
  }
  return {};
}

Tensor PlainBuffer(const std::string& name, size_t size) {
  return {name,
          FindElementType(ONNX__TENSOR_PROTO__DATA_TYPE__UINT8),
          {static_cast<int64_t>(size)},
          size,
          size};
}

Array TakeFromDevice(const Tensor& tensor, const unsigned char* device, size_t batches) {
  Array array;
  array.dims = tensor.dims;
  if (!array.dims.empty()) {
    array.dims.front() *= static_cast<int64_t>(batches);
  }
  const size_t rows = batches * RowCount(tensor);
  const size_t rowBytes = RowElements(tensor) * tensor.type->modelBytes;
  array.bytes.resize(rows * rowBytes);
  for (size_t r = 0; r < rows; ++r) {
    tensor.type->toModel(device + r * tensor.stride, RowElements(tensor),
                         array.bytes.data() + r * rowBytes);
  }
  return array;
}

bool PutToDevice(const Array& array, const Tensor& tensor, unsigned char* device) {
  const size_t rowBytes = RowElements(tensor) * tensor.type->modelBytes;
  const size_t rows = array.bytes.size() / rowBytes;
  for (size_t r = 0; r < rows; ++r) {
    if (!tensor.type->toDevice(array.bytes.data() + r * rowBytes, RowElements(tensor),
                               device + r * tensor.stride)) {
      return false;
    }
  }
  return true;
}

}  // namespace quilm_host
