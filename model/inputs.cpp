#include <cstdint>
#include <cstring>

#include "base/log.h"
#include "base/status.h"
#include "input/rpn_data.h"
#include "input/staging.h"
#include "model/model_process.h"
#include "runtime/tensor_description.h"

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

int ModelProcess::CreateInputBuf(const std::vector<std::string>& group) {
  for (size_t i = 0; i < group.size(); ++i) {
    LogInfo("start to process file:%s", group[i].c_str());
    const auto index = static_cast<int32_t>(i);
    size_t size = 0;
    size_t stride = 0;
    quilm_mdl_io_dims dims;
    if (GetInputStrideParam(index, size, stride, dims) != kSuccess) {
      LogError("GetStrideParam error");
      return kFailure;
    }
    if (CheckElementSize(GetInputDataSize(index)) != kSuccess) {
      return kFailure;
    }
    DeviceMemory memory =
        GetPicDeviceBuffer(group[i], dims, modelDesc.get(), i, batchSize, modelId, nlpTotalT);
    if (memory == nullptr) {
      LogError("get pic device buffer failed");
      return kFailure;
    }
    if (AddInput(std::move(memory), size, stride) != kSuccess) {
      return kFailure;
    }
  }
  return kSuccess;
}

int ModelProcess::SetRpnData() {
  const size_t rpnInput = GetInputNum() - 1;
  std::vector<std::vector<float>> detParas;
  quilm_mdl_io_dims dims;
  for (const std::string& rpnFile : rpnFiles) {
    std::vector<float> values;
    if (ReadRpnFile(rpnFile, values) != kSuccess) {
      LogError("read rpn para error");
      return kFailure;
    }
    if (QueryDims(kInputQueries, modelDesc.get(), rpnInput, dims) != 0 || dims.dim_count != 2) {
      LogError("quilm_mdl_get_input_dims rpn_data error!");
      return kFailure;
    }
    if (CheckRpnShape(dims, values.size(), rpnHeight, rpnWidth) != kSuccess) {
      return kFailure;
    }
    detParas.push_back(std::move(values));
  }
  for (const std::vector<float>& detPara : detParas) {
    if (SetDetParas(detPara) != kSuccess) {
      LogError("SetDetParas error");
      return kFailure;
    }
  }
  return kSuccess;
}

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
