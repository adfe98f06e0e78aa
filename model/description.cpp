// Fetches, prints and records what the runtime says of the model's inputs and outputs.
#include "base/log.h"
#include "base/status.h"
#include "model/model_process.h"
#include "runtime/tensor_description.h"
#include "runtime/values.h"

namespace quilmrun {
namespace {

// Prints one input or output; false when the runtime refuses its dimensions.
bool PrintTensor(const TensorQueries& queries, const quilm_mdl_desc* desc, size_t index,
                 uint32_t batchSize, quilm_mdl_io_dims& dims) {
  if (QueryDims(queries, desc, index, dims) != 0) {
    LogError("get %s dims failed", queries.kind);
    return false;
  }
  LogInfo("%s index: %zu, name: %s", queries.title, index, TensorName(dims).c_str());
  LogInfo("Shape: %s", FormatShape(dims).c_str());
  const int32_t dataType = queries.dataType(desc, index);
  const size_t size = batchSize * queries.size(desc, index);
  const size_t stride = queries.stride(desc, index);
  const int32_t format = queries.format(desc, index);
  LogInfo("DataType: %d, stride: %zu, format: %d, dataSizeWithStride: %zu", dataType, stride,
          format, size);
  return true;
}

void PrintHeader(const TensorQueries& queries) {
  LogInfo("------------------ %s Info ------------------", queries.title);
}

uint32_t SizeOf(const TensorQueries& queries, const quilm_mdl_desc* desc, int32_t index) {
  return static_cast<uint32_t>(queries.size(desc, static_cast<size_t>(index)));
}

}  // namespace

// A printout that ends early is no failure: the sizes are recorded, and the model may still run.
int ModelProcess::CreateDesc(std::vector<std::string>& inputNames) {
  modelDesc.reset(quilm_mdl_create_desc());
  if (modelDesc == nullptr) {
    LogError("create model description failed");
    return kFailure;
  }
  if (quilm_mdl_get_desc(modelDesc.get(), modelId) != 0) {
    LogError("get model description failed");
    return kFailure;
  }
  LogInfo("create model description success");
  PrintModelInfo(inputNames);
  RecordModelIoSize(profileRecord, modelDesc.get());
  return kSuccess;
}

void ModelProcess::DestroyDesc() {
  modelDesc.reset();
}

size_t ModelProcess::GetInputNum() const {
  return quilm_mdl_get_num_inputs(modelDesc.get()) - kTaskAndWorkBuffers;
}

void ModelProcess::PrintModelInfo(std::vector<std::string>& inputNames) {
  quilm_mdl_io_dims dims;
  PrintHeader(kInputQueries);
  const size_t inputs = quilm_mdl_get_num_inputs(modelDesc.get());
  for (size_t i = 0; i < inputs; ++i) {
    if (!PrintTensor(kInputQueries, modelDesc.get(), i, batchSize, dims)) {
      return;
    }
    // The last two names are no files' names: the tool itself makes these buffers.
    if (i < inputs - kTaskAndWorkBuffers) {
      inputNames.push_back(TensorName(dims));
    }
  }
  PrintHeader(kOutputQueries);
  const size_t outputs = quilm_mdl_get_num_outputs(modelDesc.get());
  for (size_t i = 0; i < outputs; ++i) {
    if (!PrintTensor(kOutputQueries, modelDesc.get(), i, batchSize, dims)) {
      return;
    }
  }
}

void RecordModelIoSize(ProfileRecord& record, const quilm_mdl_desc* modelDesc) {
  const auto inputs = static_cast<int32_t>(quilm_mdl_get_num_inputs(modelDesc));
  const auto outputs = static_cast<int32_t>(quilm_mdl_get_num_outputs(modelDesc));
  // The numbers are signed, so that a model without task and work buffer has no data inputs. As
  // unsigned numbers the difference would be close to 2^64.
  for (int32_t i = 0; i + 2 < inputs; ++i) {
    record.inputSize += SizeOf(kInputQueries, modelDesc, i);
  }
  if (inputs >= 2) {
    record.taskBufSize = SizeOf(kInputQueries, modelDesc, inputs - 2);
  }
  if (inputs >= 1) {
    record.workBufSize = SizeOf(kInputQueries, modelDesc, inputs - 1);
  }
  for (int32_t i = 0; i < outputs; ++i) {
    record.outputSize += SizeOf(kOutputQueries, modelDesc, i);
  }
}

}  // namespace quilmrun
