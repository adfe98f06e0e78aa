// Fills the input dataset of one inference, in the order of the model's inputs.
#include <utility>

#include "base/log.h"
#include "base/status.h"
#include "input/rpn_data.h"
#include "model/model_process.h"
#include "runtime/tensor_description.h"
#include "runtime/values.h"

namespace quilmrun {
namespace {

// RPN parameters take the size and stride of input 1. Detection models have one data input, so that
// their RPN input is this one.
constexpr size_t kParameterInput = 1;

// Appends `dataBuffer`, which is empty when it could not be created. On success the dataset owns
// it.
int Append(quilm_mdl_dataset* dataset, DataBuffer& dataBuffer) {
  if (dataBuffer == nullptr) {
    LogError("can't create data buffer, create input failed");
    return kFailure;
  }
  if (quilm_mdl_add_dataset_buffer(dataset, dataBuffer.get()) != 0) {
    LogError("add input dataset buffer failed");
    return kFailure;
  }
  HandOverToDataset(dataBuffer);
  return kSuccess;
}

}  // namespace

int ModelProcess::InitInput() {
  input.reset(quilm_mdl_create_dataset());
  if (input == nullptr) {
    LogError("can't create dataset, create input failed");
    return kFailure;
  }
  return kSuccess;
}

void ModelProcess::DestroyInput() {
  input.reset();
}

int ModelProcess::CreateInput(DeviceMemory memory, size_t size, int32_t stride) {
  // The order of messages and releases is fixed: on failure the data buffer goes before the last
  // message, and the memory after it.
  const auto append = [&] {
    DataBuffer dataBuffer(
        quilm_create_data_buffer(memory.get(), size, static_cast<size_t>(stride)));
    return Append(input.get(), dataBuffer);
  };
  if (append() != kSuccess) {
    LogError("execute CreateInput failed");
    return kFailure;
  }
  HandOverToDataset(memory);
  return kSuccess;
}

int ModelProcess::GetInputStrideParam(int32_t index, size_t& size, size_t& stride,
                                      quilm_mdl_io_dims& dims) {
  return QueryLayout(kInputQueries, modelDesc.get(), static_cast<size_t>(index), batchSize, size,
                     stride, dims);
}

size_t ModelProcess::GetInputDataSize(int32_t index) const {
  return ElementSize(kInputQueries, modelDesc.get(), static_cast<size_t>(index));
}

int ModelProcess::CreateTaskOrWorkBuf(int32_t index) {
  size_t size = 0;
  size_t stride = 0;
  quilm_mdl_io_dims dims;
  if (GetInputStrideParam(index, size, stride, dims) != kSuccess) {
    LogError("Error, GetInputStrideParam failed");
    return kFailure;
  }
  DeviceMemory memory = AllocateOrReport(size);
  if (memory == nullptr) {
    return kFailure;
  }
  return CreateInput(std::move(memory), size, static_cast<int32_t>(stride));
}

int ModelProcess::CreateTaskBufAndWorkBuf() {
  if (quilm_mdl_get_num_inputs(modelDesc.get()) <= kTaskAndWorkBuffers) {
    LogError("input dataset Num is error.");
    return kFailure;
  }
  const size_t filled = quilm_mdl_get_dataset_num_buffers(input.get());
  if (filled == 0) {
    LogError("input dataset Num is 0.");
    return kFailure;
  }
  // Whatever is still missing gets a zeroed buffer, normally these two alone.
  for (size_t i = filled; i < quilm_mdl_get_num_inputs(modelDesc.get()); ++i) {
    if (CreateTaskOrWorkBuf(static_cast<int32_t>(i)) != kSuccess) {
      LogError("execute Create taskBuffer and workBuffer failed");
      return kFailure;
    }
  }
  return kSuccess;
}

int ModelProcess::SetDetParas(const std::vector<float>& detPara) {
  const size_t size = kInputQueries.size(modelDesc.get(), kParameterInput);
  DataBuffer dataBuffer;  // declared first, so that on failure the memory goes before its buffer
  DeviceMemory memory = AllocateDeviceMemory(size);
  if (memory == nullptr) {
    LogError("malloc device buffer failed");
    return kFailure;
  }
  const size_t stride = kInputQueries.stride(modelDesc.get(), kParameterInput);
  if (LayOutParameters(detPara, rpnWidth, stride, memory.get(), size) != kSuccess) {
    return kFailure;
  }
  dataBuffer.reset(quilm_create_data_buffer(memory.get(), size, stride));
  if (dataBuffer == nullptr) {
    memory.reset();  // before the message of Append()
  }
  if (Append(input.get(), dataBuffer) != kSuccess) {
    return kFailure;
  }
  HandOverToDataset(memory);
  return kSuccess;
}

}  // namespace quilmrun
