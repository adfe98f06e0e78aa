#include <utility>

#include "base/log.h"
#include "base/status.h"
#include "model/model_process.h"
#include "runtime/tensor_description.h"
#include "runtime/values.h"

namespace quilmrun {
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

int ModelProcess::CreateInput(void* buffer, size_t size, int32_t stride) {
  DataBuffer dataBuffer;
  return AppendInput(dataBuffer, buffer, size, static_cast<size_t>(stride));
}

int ModelProcess::AppendInput(DataBuffer& dataBuffer, void* buffer, size_t size, size_t stride) {
  dataBuffer.reset(quilm_create_data_buffer(buffer, size, stride));
  if (dataBuffer == nullptr) {
    LogError("can't create data buffer, create input failed");
    return kFailure;
  }
  if (quilm_mdl_add_dataset_buffer(input.get(), dataBuffer.get()) != 0) {
    LogError("add input dataset buffer failed");
    return kFailure;
  }
  HandOverToDataset(dataBuffer);
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

int ModelProcess::CreateOutput() {
  output.reset(quilm_mdl_create_dataset());
  if (output == nullptr) {
    LogError("can't create dataset, create output failed");
    return kFailure;
  }
  const size_t outputs = quilm_mdl_get_num_outputs(modelDesc.get());
  for (size_t i = 0; i < outputs; ++i) {
    if (CreateOutputBuffer(i) != kSuccess) {
      return kFailure;
    }
  }
  LogInfo("create model output success");
  return kSuccess;
}

int ModelProcess::CreateOutputBuffer(size_t index) {
  const size_t stride = quilm_mdl_get_output_default_stride(modelDesc.get(), index);
  if (stride == 0) {
    LogError("Error, output default stride is %lu.", stride);
    return kFailure;
  }
  const size_t size =
      BatchedSize(batchSize, quilm_mdl_get_output_size_by_index(modelDesc.get(), index));
  if (size == 0) {
    LogError("Error, output size is %lu.", size);
    return kFailure;
  }
  DataBuffer dataBuffer;  // declared first: on failure the memory goes before its buffer
  DeviceMemory memory = AllocateDeviceMemory(size);
  if (memory == nullptr) {
    LogError("can't malloc buffer, size is %zu, create output failed", size);
    return kFailure;
  }
  dataBuffer.reset(quilm_create_data_buffer(memory.get(), size, stride));
  if (dataBuffer == nullptr) {
    LogError("can't create data buffer, create output failed");
    return kFailure;
  }
  if (quilm_mdl_add_dataset_buffer(output.get(), dataBuffer.get()) != 0) {
    LogError("can't add data buffer, create output failed");
    return kFailure;
  }
  HandOverToDataset(dataBuffer);
  HandOverToDataset(memory);
  outputSizes_.push_back(size);
  return kSuccess;
}

void ModelProcess::DestroyOutput() {
  output.reset();
  outputSizes_.clear();
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
  return AddInput(std::move(memory), size, stride);
}

int ModelProcess::AddInput(DeviceMemory memory, size_t size, size_t stride) {
  if (CreateInput(memory.get(), size, static_cast<int32_t>(stride)) != kSuccess) {
    LogError("execute CreateInput failed");
    return kFailure;
  }
  HandOverToDataset(memory);
  return kSuccess;
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
  for (size_t i = filled; i < quilm_mdl_get_num_inputs(modelDesc.get()); ++i) {
    if (CreateTaskOrWorkBuf(static_cast<int32_t>(i)) != kSuccess) {
      LogError("execute Create taskBuffer and workBuffer failed");
      return kFailure;
    }
  }
  return kSuccess;
}

}  // namespace quilmrun
