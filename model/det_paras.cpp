#include <cstdint>
#include <cstring>

#include "app/log.h"
#include "app/status.h"
#include "input/rpn_data.h"
#include "model/model_process.h"
#include "model/tensor_description.h"

namespace quilmrun {
namespace {

// The layout is that of input 1, which is the RPN input in models with one data input.
constexpr size_t kLayoutInput = 1;

// Where rows of parameters go in a buffer. Rows may overlap; the later one counts then.
struct ParameterRows {
  size_t rows;
  size_t width;   // floats
  int32_t pitch;  // bytes
};

ParameterRows LayOutParameters(size_t values, size_t rpnWidth, size_t stride) {
  if (values <= kSingleClassValues) {
    return {1, values, 0};
  }
  // The stride in whole floats.
  constexpr int32_t kFloatSize = sizeof(float);
  return {kMultiClassRows, rpnWidth, static_cast<int32_t>(stride) / kFloatSize * kFloatSize};
}

// True when `count` values are what the rows take and all rows lie within `size` bytes; says what
// does not fit.
bool Fits(const ParameterRows& layout, size_t count, size_t size) {
  const size_t pitch =
      layout.pitch < 0 ? SIZE_MAX / kMultiClassRows : static_cast<size_t>(layout.pitch);
  const size_t needed = (layout.rows - 1) * pitch + layout.width * sizeof(float);
  if (needed > size || layout.rows * layout.width != count) {
    LogError("rpn data of %zu values needs %zu bytes, its buffer holds %zu", count, needed, size);
    return false;
  }
  return true;
}

}  // namespace

int ModelProcess::SetDetParas(const std::vector<float>& detPara) {
  const size_t size = kInputQueries.size(modelDesc.get(), kLayoutInput);
  DataBuffer dataBuffer;  // declared first: on failure the memory goes before its buffer
  DeviceMemory memory = AllocateDeviceMemory(size);
  if (memory == nullptr) {
    LogError("malloc device buffer failed");
    return kFailure;
  }
  const size_t stride = kInputQueries.stride(modelDesc.get(), kLayoutInput);
  const ParameterRows layout = LayOutParameters(detPara.size(), rpnWidth, stride);
  if (!Fits(layout, detPara.size(), size)) {
    return kFailure;
  }
  for (size_t r = 0; r < layout.rows && layout.width > 0; ++r) {
    std::memcpy(static_cast<char*>(memory.get()) + r * static_cast<size_t>(layout.pitch),
                detPara.data() + r * layout.width, layout.width * sizeof(float));
  }
  if (AppendInput(dataBuffer, memory.get(), size, stride) != kSuccess) {
    return kFailure;
  }
  HandOverToDataset(memory);
  return kSuccess;
}

}  // namespace quilmrun
