#include "runtime/host/tensor.h"

#include <algorithm>
#include <cstring>

#include "onnx.pb-c.h"
#include "runtime/quilm.h"

namespace quilm_host {
namespace {

template <typename From, typename To>
bool Convert(const unsigned char* from, size_t count, unsigned char* to) {
  if constexpr (std::is_same_v<From, To>) {
    std::memcpy(to, from, count * sizeof(To));
    return true;
  }
  for (size_t i = 0; i < count; ++i) {
    From element;
    std::memcpy(&element, from + i * sizeof(From), sizeof(From));
    const To converted = static_cast<To>(element);
    if constexpr (std::is_same_v<From, int64_t>) {
      if (converted != element) {
        return false;
      }
    }
    std::memcpy(to + i * sizeof(To), &converted, sizeof(To));
  }
  return true;
}

// A truth value of a model, which is 0 or 1. In device memory any other number means true too.
struct Truth {
  explicit Truth(uint8_t number = 0) : byte(number != 0) {}
  explicit operator uint8_t() const { return byte != 0; }
  uint8_t byte;
};

template <typename Device, typename Model = Device>
constexpr ElementType Row(int32_t onnx, int32_t code, uint64_t one = 1) {
  return {onnx,
          code,
          sizeof(Device),
          sizeof(Model),
          one,
          Convert<Device, Model>,
          Convert<Model, Device>};
}

constexpr ElementType kElementTypes[] = {
    Row<float>(ONNX__TENSOR_PROTO__DATA_TYPE__FLOAT, 0, 0x3F80'0000),
    Row<uint16_t>(ONNX__TENSOR_PROTO__DATA_TYPE__FLOAT16, 1, 0x3C00),
    Row<int8_t>(ONNX__TENSOR_PROTO__DATA_TYPE__INT8, 2),
    Row<int32_t>(ONNX__TENSOR_PROTO__DATA_TYPE__INT32, 3),
    Row<uint8_t>(ONNX__TENSOR_PROTO__DATA_TYPE__UINT8, 4),
    Row<int16_t>(ONNX__TENSOR_PROTO__DATA_TYPE__INT16, 6),
    Row<uint16_t>(ONNX__TENSOR_PROTO__DATA_TYPE__UINT16, 7),
    Row<int32_t, int64_t>(ONNX__TENSOR_PROTO__DATA_TYPE__INT64, 3),
    Row<float, double>(ONNX__TENSOR_PROTO__DATA_TYPE__DOUBLE, 0, 0x3FF0'0000'0000'0000),
    Row<uint8_t, Truth>(ONNX__TENSOR_PROTO__DATA_TYPE__BOOL, 4),
};

template <auto kField>
const ElementType* FindBy(int32_t value) {
  const auto* found = std::find_if(std::begin(kElementTypes), std::end(kElementTypes),
                                   [=](const ElementType& type) { return type.*kField == value; });
  return found == std::end(kElementTypes) ? nullptr : found;
}

}  // namespace

const ElementType* FindElementType(int32_t onnxType) {
  return FindBy<&ElementType::onnx>(onnxType);
}

size_t DataTypeBits(int32_t code) {
  const ElementType* type = FindBy<&ElementType::code>(code);
  return type == nullptr ? 0 : type->deviceBytes * 8;
}

void LayOut(Tensor& tensor, size_t rowAlignment) {
  constexpr int64_t kMaxSize = INT32_MAX;
  Require(tensor.name.size() < QUILM_MAX_NAME_LEN && tensor.dims.size() <= QUILM_MAX_DIM_COUNT,
          "its name is longer than 127 bytes, or it has more than 128 dimensions");
  size_t elements = 1;
  for (const int64_t dim : tensor.dims) {
    elements *= static_cast<size_t>(std::clamp<int64_t>(dim, 0, kMaxSize));
    Require(elements > 0 && elements <= kMaxSize, "with shape ", ShapeText(tensor.dims),
            " it is empty or too large");
  }
  const size_t rowBytes = tensor.RowElements() * tensor.type->deviceBytes;
  tensor.stride = (rowBytes + rowAlignment - 1) / rowAlignment * rowAlignment;
  tensor.size = elements / tensor.RowElements() * tensor.stride;
  Require(tensor.stride % tensor.type->deviceBytes == 0,
          "its elements do not fit a row_alignment of ", rowAlignment);
  Require(tensor.size <= kMaxSize, "it takes more than 2147483647 bytes");
}

Array ReadFromDevice(const Tensor& tensor, const unsigned char* device, size_t batches) {
  Array array{tensor.dims, {}};
  if (!array.dims.empty()) {
    array.dims.front() *= static_cast<int64_t>(batches);
  }
  const size_t rowBytes = tensor.RowElements() * tensor.type->modelBytes;
  array.bytes.resize(batches * tensor.Elements() * tensor.type->modelBytes);
  for (size_t at = 0; at < array.bytes.size(); at += rowBytes, device += tensor.stride) {
    tensor.type->toModel(device, tensor.RowElements(), array.bytes.data() + at);
  }
  return array;
}

bool WriteToDevice(const Array& array, const Tensor& tensor, unsigned char* device) {
  const size_t rowBytes = tensor.RowElements() * tensor.type->modelBytes;
  bool fits = true;
  for (size_t at = 0; at < array.bytes.size() && fits; at += rowBytes, device += tensor.stride) {
    fits = tensor.type->toDevice(array.bytes.data() + at, tensor.RowElements(), device);
  }
  return fits;
}

}  // namespace quilm_host
