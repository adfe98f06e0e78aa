#include <cstring>

#include "app/log.h"
#include "app/status.h"
#include "model/model_process.h"
#include "model/tensor_description.h"

namespace quilmrun {
namespace {

// The layout is that of input 1, which is the RPN input in models with one data input.
constexpr size_t kLayoutInput = 1;

constexpr size_t kSingleClassValues = 4;
constexpr size_t kMultiClassRows = 4;

// Where rows of parameters go in a buffer.
struct ParameterRows {
  size_t rows;
  size_t width;  // floats
  size_t pitch;  // bytes
};

ParameterRows LayOutParameters(size_t values, size_t rpnWidth, size_t stride) {
  if (values <= kSingleClassValues) {
    return {1, values, 0};
  }
  const auto signedStride = static_cast<int32_t>(stride);
  const size_t floatsPerStride =
      signedStride > 0 ? static_cast<size_t>(signedStride) / sizeof(float) : 0;
  return {kMultiClassRows, rpnWidth, floatsPerStride * sizeof(float)};
}

// True when `count` values fill the rows, no row reaches into the next and all end within `size`
// bytes; says what does not fit.
bool Fits(const ParameterRows& layout, size_t count, size_t size) {
  const size_t rowBytes = layout.width * sizeof(float);
  if (layout.rows > 1 && rowBytes > layout.pitch) {
    LogError("row of rpn data has %zu bytes, its stride only %zu", rowBytes, layout.pitch);
    return false;
  }
  const size_t needed = (layout.rows - 1) * layout.pitch + rowBytes;
  if (needed > size || layout.rows * layout.width != count) {
    LogError("rpn data of %zu values needs %zu bytes, its buffer holds %zu", count, needed, size);
    return false;
  }
  return true;
}

}  // namespace

int ModelProcess::SetDetParas(const std::vector<float>& detPara) {
  const size_t size = kInputQueries.size(modelDesc.get(), kLayoutInput);
  const size_t stride = kInputQueries.stride(modelDesc.get(), kLayoutInput);
  DeviceMemory memory = AllocateClearedDeviceMemory(size);
  if (memory == nullptr) {
    LogError("malloc device buffer failed");
    return kFailure;
  }
  const ParameterRows layout = LayOutParameters(detPara.size(), rpnWidth, stride);
  if (!Fits(layout, detPara.size(), size)) {
    return kFailure;
  }
  for (size_t r = 0; r < layout.rows && layout.width > 0; ++r) {
    std::memcpy(static_cast<char*>(memory.get()) + r * layout.pitch,
                detPara.data() + r * layout.width, layout.width * sizeof(float));
  }
  if (AppendInput(memory.get(), size, stride) != kSuccess) {
    return kFailure;
  }
  HandOverToDataset(memory);
  return kSuccess;
}

}  // namespace quilmrun
