#include "runtime/host/tensor.h"

#include "runtime/quilm.h"

namespace quilm_host {

size_t DataTypeBits(int32_t dataType) {
  switch (dataType) {
    case kFloat:
    case kInt32:
      return 32;
    case kHalf:
    case kInt16:
    case kUint16:
      return 16;
    case kInt8:
    case kUint8:
      return 8;
    default:
      return 0;
  }
}

size_t RowElements(const Tensor& tensor) {
  return static_cast<size_t>(tensor.dims.back());
}

size_t RowCount(const Tensor& tensor) {
  return tensor.size / tensor.stride;
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
      return "dimension " + std::to_string(dim) + " is not above 0";
    }
    if (__builtin_mul_overflow(elements, static_cast<size_t>(dim), &elements) ||
        elements > kMaxSize) {
      return "it has more than 2147483647 elements";
    }
  }
  const size_t elementSize = DataTypeBits(tensor.dataType) / 8;
  if (elementSize == 0) {
    return "its data type is unknown";
  }
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
  return {name, kUint8, {static_cast<int64_t>(size)}, size, size};
}

}  // namespace quilm_host
