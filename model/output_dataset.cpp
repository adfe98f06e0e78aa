// Makes the output dataset, with one zeroed buffer per model output. Every inference uses it.
#include "base/log.h"
#include "base/status.h"
#include "model/model_process.h"
#include "runtime/tensor_description.h"

namespace quilmrun {

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
  DataBuffer dataBuffer;  // declared first, so that on failure the memory goes before its buffer
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

// The size is that of one batch: the dump multiplies the number of rows instead, which it derives
// from this size.
int ModelProcess::GetOutputStrideParam(int32_t index, size_t& size, size_t& stride,
                                       quilm_mdl_io_dims& dims) {
  constexpr uint32_t kOneBatch = 1;
  return QueryLayout(kOutputQueries, modelDesc.get(), static_cast<size_t>(index), kOneBatch, size,
                     stride, dims);
}

size_t ModelProcess::GetOutputDataSize(int32_t index) const {
  return ElementSize(kOutputQueries, modelDesc.get(), static_cast<size_t>(index));
}

void ModelProcess::DestroyOutput() {
  output.reset();
  outputSizes_.clear();
}

}  // namespace quilmrun
