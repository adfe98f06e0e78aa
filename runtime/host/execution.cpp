// Execution, one batch at a time.
#include "runtime/host/state.h"

namespace quilm_host {
namespace {

bool CheckEntry(const char* kind, size_t index, const Tensor& tensor, uint64_t batchSize,
                const quilm_data_buffer* entry) {
  const auto* buffer = state.buffers.Find(entry);
  if (buffer == nullptr || state.memory.Find((*buffer)->pointer) == nullptr) {
    return false;
  }
  size_t needed = 0;
  if (__builtin_mul_overflow(batchSize, tensor.size, &needed) || (*buffer)->size < needed) {
    Explain("%s %zu \"%s\": its buffer has %zu bytes, %llu x %zu are needed", kind, index,
            tensor.name.c_str(), (*buffer)->size, static_cast<unsigned long long>(batchSize),
            tensor.size);
    return false;
  }
  if ((*buffer)->stride != tensor.stride) {
    Explain("%s %zu \"%s\": its buffer has stride %zu, the model %zu", kind, index,
            tensor.name.c_str(), (*buffer)->stride, tensor.stride);
    return false;
  }
  return true;
}

bool CheckDataset(const char* kind, const quilm_mdl_dataset& dataset,
                  const std::vector<Tensor>& tensors, uint64_t batchSize) {
  if (dataset.buffers.size() != tensors.size()) {
    Explain("the %s dataset has %zu entries, the model %zu", kind, dataset.buffers.size(),
            tensors.size());
    return false;
  }
  for (size_t i = 0; i < tensors.size(); ++i) {
    if (!CheckEntry(kind, i, tensors[i], batchSize, dataset.buffers[i])) {
      return false;
    }
  }
  return true;
}

// The first `count` entries, at batch `batch`.
std::vector<TensorData> BatchOf(const quilm_mdl_dataset& dataset,
                                const std::vector<Tensor>& tensors, size_t count, uint64_t batch) {
  std::vector<TensorData> data;
  for (size_t i = 0; i < count; ++i) {
    auto* start = static_cast<unsigned char*>(dataset.buffers[i]->pointer);
    data.push_back({&tensors[i], start + batch * tensors[i].size, SIZE_MAX});
  }
  return data;
}

// Elements of input 0 up to the end of the last frame that counts.
size_t ElementsOfFrames(const Tensor& frames, int64_t totalT) {
  const size_t elements = RowCount(frames) * RowElements(frames);
  return elements / static_cast<size_t>(frames.dims.front()) * static_cast<size_t>(totalT);
}

quilm_error SetTotalT(const OnnxModel& onnx, int64_t totalT, quilm_mdl_dataset& input) {
  if (onnx.netType != kRecurrent) {
    Explain("total_t %lld: the model is not recurrent", static_cast<long long>(totalT));
    return kBadArgument;
  }
  const int64_t frames = onnx.inputs[0].dims.front();
  if (totalT < 1 || totalT > frames) {
    Explain("total_t %lld: the model takes 1 to %lld frames", static_cast<long long>(totalT),
            static_cast<long long>(frames));
    return kBadArgument;
  }
  input.totalT = totalT;
  return kOk;
}

quilm_error Execute(uint32_t modelId, const quilm_mdl_dataset* input,
                    const quilm_mdl_dataset* output) {
  const auto* model = state.models.Find(modelId);
  if (model == nullptr || state.datasets.Find(input) == nullptr ||
      state.datasets.Find(output) == nullptr) {
    return kUnknownHandle;
  }
  const OnnxModel& onnx = (*model)->onnx;
  if (!CheckDataset("input", *input, onnx.inputs, input->batchSize) ||
      !CheckDataset("output", *output, onnx.outputs, input->batchSize)) {
    return kBadDataset;
  }
  const size_t dataInputs = onnx.inputs.size() - kBuffersBehindInputs;
  for (uint64_t batch = 0; batch < input->batchSize; ++batch) {
    std::vector<TensorData> inputs = BatchOf(*input, onnx.inputs, dataInputs, batch);
    if (input->totalT > 0) {
      inputs[0].validElements = ElementsOfFrames(onnx.inputs[0], input->totalT);
    }
    const std::string problem =
        (*model)->engine->Run(inputs, BatchOf(*output, onnx.outputs, onnx.outputs.size(), batch));
    if (!problem.empty()) {
      Explain("execution failed: %s", problem.c_str());
      return kEngineFailed;
    }
  }
  return kOk;
}

}  // namespace
}  // namespace quilm_host

using namespace quilm_host;  // NOLINT: what follows is this namespace's interface to C

quilm_error quilm_mdl_set_dynamic_batch_size(uint32_t model_id, quilm_mdl_dataset* input,
                                             size_t index, uint64_t batch_size) {
  return Perform<quilm_error>(__func__, kNotInitialized, [=] {
    if (state.models.Find(model_id) == nullptr || state.datasets.Find(input) == nullptr) {
      return kUnknownHandle;
    }
    if (batch_size == 0 || index != 0) {
      Explain("batch size %llu at index %zu: it is 1 or more, at index 0",
              static_cast<unsigned long long>(batch_size), index);
      return kBadArgument;
    }
    input->batchSize = batch_size;
    return kOk;
  });
}

quilm_error quilm_ext_get_mdl_net_type(uint32_t model_id, int32_t* net_type) {
  return Perform<quilm_error>(__func__, kNotInitialized, [=] {
    const auto* model = state.models.Find(model_id);
    if (model == nullptr || net_type == nullptr) {
      return kUnknownHandle;
    }
    *net_type = (*model)->onnx.netType;
    return kOk;
  });
}

quilm_error quilm_mdl_set_total_t(uint32_t model_id, quilm_mdl_dataset* input, int64_t total_t) {
  return Perform<quilm_error>(__func__, kNotInitialized, [=]() -> quilm_error {
    const auto* model = state.models.Find(model_id);
    if (model == nullptr || state.datasets.Find(input) == nullptr) {
      return kUnknownHandle;
    }
    return SetTotalT((*model)->onnx, total_t, *input);
  });
}

quilm_error quilm_mdl_execute(uint32_t model_id, const quilm_mdl_dataset* input,
                              quilm_mdl_dataset* output) {
  return Perform<quilm_error>(__func__, kNotInitialized,
                              [=] { return Execute(model_id, input, output); });
}
