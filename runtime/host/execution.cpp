// Execution: batches at once where the model can, one at a time otherwise.
#include <algorithm>

#include "runtime/host/state.h"

namespace quilm_host {
namespace {

bool CheckEntry(const char* kind, size_t index, const Tensor& tensor, uint64_t batchSize,
                const quilm_data_buffer* entry) {
  const auto buffer = state.buffers.Find(entry);
  if (buffer == nullptr || state.memory.Find(buffer->pointer) == nullptr) {
    return false;
  }
  size_t needed = 0;
  if (__builtin_mul_overflow(batchSize, tensor.size, &needed) || buffer->size < needed) {
    Explain("%s %zu \"%s\": its buffer has %zu bytes, %llu x %zu are needed", kind, index,
            tensor.name.c_str(), buffer->size, static_cast<unsigned long long>(batchSize),
            tensor.size);
    return false;
  }
  if (buffer->stride != tensor.stride) {
    Explain("%s %zu \"%s\": its buffer has stride %zu, the model %zu", kind, index,
            tensor.name.c_str(), buffer->stride, tensor.stride);
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

struct Batches {
  uint64_t first;
  uint64_t count;
};

unsigned char* DataOf(const quilm_mdl_dataset& dataset, size_t index, const Tensor& tensor,
                      const Batches& batches) {
  return static_cast<unsigned char*>(dataset.buffers[index]->pointer) + batches.first * tensor.size;
}

// Frames that do not count are zeros, whatever the buffer holds.
void ClearFrames(const Tensor& frames, int64_t totalT, Array& array) {
  const size_t frameBytes = array.bytes.size() / static_cast<size_t>(frames.dims.front());
  const size_t counted = frameBytes * static_cast<size_t>(totalT);
  std::fill(array.bytes.begin() + static_cast<std::ptrdiff_t>(counted), array.bytes.end(), 0);
}

// Gives a result the described size: fewer elements are followed by zeros where only the first
// dimension that is not 1 is smaller. Returns an empty string, or how the result differs.
std::string FitShape(const Tensor& output, const Batches& batches, Array& result) {
  std::vector<int64_t> dims = output.dims;
  if (!dims.empty()) {
    dims.front() *= static_cast<int64_t>(batches.count);
  } else if (batches.count > 1) {
    return "a scalar cannot hold several batches";
  }
  const auto isOne = [](int64_t dim) { return dim == 1; };
  const size_t first =
      static_cast<size_t>(std::find_if_not(dims.begin(), dims.end(), isOne) - dims.begin());
  std::vector<int64_t> largest = result.dims;
  if (largest.size() == dims.size() && first < dims.size() && batches.count == 1 &&
      largest[first] < dims[first]) {
    largest[first] = dims[first];
  }
  if (largest != dims) {
    return "output \"" + output.name + "\" came out with shape " + ShapeText(result.dims) +
           ", described is " + ShapeText(dims) +
           "; \"output_shapes\" in the settings file can give the largest one";
  }
  result.bytes.resize(batches.count * RowCount(output) * RowElements(output) *
                      output.type->modelBytes);
  return {};
}

std::string RunBatches(const Model& model, const quilm_mdl_dataset& input,
                       const quilm_mdl_dataset& output, const Batches& batches) {
  std::vector<Array> inputs;
  for (size_t i = 0; i + kBuffersAfterInputs < model.inputs.size(); ++i) {
    const Tensor& tensor = model.inputs[i];
    inputs.push_back(TakeFromDevice(tensor, DataOf(input, i, tensor, batches), batches.count));
  }
  if (input.totalT > 0) {
    ClearFrames(model.inputs[0], input.totalT, inputs[0]);
  }
  std::vector<Array> results;
  std::string problem = model.engine->Run(inputs, results);
  for (size_t i = 0; i < results.size() && problem.empty(); ++i) {
    problem = FitShape(model.outputs[i], batches, results[i]);
  }
  for (size_t i = 0; i < results.size() && problem.empty(); ++i) {
    const Tensor& tensor = model.outputs[i];
    if (!PutToDevice(results[i], tensor, DataOf(output, i, tensor, batches))) {
      problem = "output \"" + tensor.name + "\" holds a number that does not fit 32 bits";
    }
  }
  return problem;
}

std::string RunModel(const Model& model, const quilm_mdl_dataset& input,
                     const quilm_mdl_dataset& output) {
  // What fails as one, as in models that fix the batch size further inside, may do one by one.
  if (model.batchesAsOne && input.batchSize > 1 &&
      RunBatches(model, input, output, {0, input.batchSize}).empty()) {
    return {};
  }
  for (uint64_t batch = 0; batch < input.batchSize; ++batch) {
    std::string problem = RunBatches(model, input, output, {batch, 1});
    if (!problem.empty()) {
      return problem;
    }
  }
  return {};
}

quilm_error Execute(uint32_t modelId, const quilm_mdl_dataset* input,
                    const quilm_mdl_dataset* output) {
  const auto model = state.models.Find(modelId);
  if (model == nullptr || state.datasets.Find(input) == nullptr ||
      state.datasets.Find(output) == nullptr) {
    return kUnknownHandle;
  }
  if (!CheckDataset("input", *input, model->inputs, input->batchSize) ||
      !CheckDataset("output", *output, model->outputs, input->batchSize)) {
    return kBadDataset;
  }
  const std::string problem = RunModel(*model, *input, *output);
  if (!problem.empty()) {
    Explain("execution failed: %s", problem.c_str());
    return kEngineFailed;
  }
  return kOk;
}

quilm_error SetBatchSize(uint32_t modelId, quilm_mdl_dataset* input, size_t index,
                         uint64_t batchSize) {
  if (state.models.Find(modelId) == nullptr || state.datasets.Find(input) == nullptr) {
    return kUnknownHandle;
  }
  if (batchSize == 0 || index != 0) {
    Explain("batch size %llu at index %zu: it is 1 or more, at index 0",
            static_cast<unsigned long long>(batchSize), index);
    return kBadArgument;
  }
  input->batchSize = batchSize;
  return kOk;
}

quilm_error SetTotalT(uint32_t modelId, quilm_mdl_dataset* input, int64_t totalT) {
  const auto model = state.models.Find(modelId);
  if (model == nullptr || state.datasets.Find(input) == nullptr) {
    return kUnknownHandle;
  }
  if (model->netType != kRecurrent) {
    Explain("total_t %lld: the model is not recurrent", static_cast<long long>(totalT));
    return kBadArgument;
  }
  const int64_t frames = model->inputs[0].dims.front();
  if (totalT < 1 || totalT > frames) {
    Explain("total_t %lld: the model takes 1 to %lld frames", static_cast<long long>(totalT),
            static_cast<long long>(frames));
    return kBadArgument;
  }
  input->totalT = totalT;
  return kOk;
}

}  // namespace
}  // namespace quilm_host

using namespace quilm_host;  // NOLINT: what follows is this namespace's interface to C

quilm_error quilm_mdl_set_dynamic_batch_size(uint32_t model_id, quilm_mdl_dataset* input,
                                             size_t index, uint64_t batch_size) {
  return Perform([=] { return SetBatchSize(model_id, input, index, batch_size); });
}

quilm_error quilm_ext_get_mdl_net_type(uint32_t model_id, int32_t* net_type) {
  return Perform([=] {
    const auto model = state.models.Find(model_id);
    if (model == nullptr || net_type == nullptr) {
      return kUnknownHandle;
    }
    *net_type = model->netType;
    return kOk;
  });
}

quilm_error quilm_mdl_set_total_t(uint32_t model_id, quilm_mdl_dataset* input, int64_t total_t) {
  return Perform([=] { return SetTotalT(model_id, input, total_t); });
}

quilm_error quilm_mdl_execute(uint32_t model_id, const quilm_mdl_dataset* input,
                              quilm_mdl_dataset* output) {
  return Perform([=] { return Execute(model_id, input, output); });
}
