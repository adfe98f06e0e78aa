// Execution: batches at once where the model can, one at a time otherwise.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "runtime/host/state.h"

namespace quilm_host {
namespace {

void CheckEntry(const Tensor& tensor, uint64_t batchSize, const quilm_data_buffer* entry) {
  const auto buffer = state.buffers.Find(entry);
  state.memory.Find(buffer->pointer);
  Require(batchSize <= buffer->size / tensor.size, "its buffer has ", buffer->size, " bytes, ",
          batchSize, " x ", tensor.size, " are needed");
  Require(buffer->stride == tensor.stride, "its buffer has stride ", buffer->stride, ", the model ",
          tensor.stride);
}

void CheckDataset(const std::string& kind, const quilm_mdl_dataset& dataset,
                  const std::vector<Tensor>& tensors, uint64_t batchSize) {
  Require(dataset.buffers.size() == tensors.size(), "the ", kind, " dataset has ",
          dataset.buffers.size(), " entries, the model ", tensors.size());
  for (size_t i = 0; i < tensors.size(); ++i) {
    About(kind + " " + std::to_string(i) + Quoted(tensors[i].name),
          [&] { CheckEntry(tensors[i], batchSize, dataset.buffers[i]); });
  }
}

// What input data look like that are no numbers of the input's type; empty when nothing is odd.
std::string LooksLike(const Array& array, bool isFloat) {
  constexpr std::pair<const char*, const char*> kMagicNumbers[] = {
      {"\x89PNG", "a PNG picture"},
      {"\xFF\xD8\xFF", "a JPEG picture"},
      {"\x93NUMPY", "an .npy file"}};
  const std::string_view bytes(reinterpret_cast<const char*>(array.bytes.data()),
                               array.bytes.size());
  for (const auto& [magicNumber, kind] : kMagicNumbers) {
    if (bytes.rfind(magicNumber, 0) == 0) {
      return std::string("begins like ") + kind + ", but a file of bare numbers is expected";
    }
  }
  const size_t quarter = bytes.size() / sizeof(float);
  std::vector<float> numbers(isFloat ? std::min<size_t>(quarter, 4096) : 0);
  std::copy_n(bytes.begin(), numbers.size() * sizeof(float),
              reinterpret_cast<char*>(numbers.data()));
  const auto zeros = std::count(numbers.begin(), numbers.end(), 0.0F);
  const auto usual = std::count_if(numbers.begin(), numbers.end(), [](float number) {
    return std::fabs(number) > 1e-12F && std::fabs(number) < 1e12F;
  });
  const auto others = static_cast<std::ptrdiff_t>(numbers.size()) - zeros;
  if (numbers.size() < 64 || usual * 2 >= others) {
    return "";
  }
  const bool isQuarter = bytes.find_first_not_of('\0', quarter) == bytes.npos;
  return std::string("holds mostly tiny or huge numbers: 8-bit data?") +
         (isQuarter ? " The file seems to have a quarter of what 1 batch takes" : "");
}

// Says once what may be wrong with an input; it is computed all the same.
void GiveHint(const Tensor& tensor, const Array& array) {
  constexpr int32_t kFloat = 1;  // as in ONNX files
  const std::string found = LooksLike(array, tensor.type->onnx == kFloat);
  const std::string hint = "input" + Quoted(tensor.name) + " " + found;
  if (!found.empty() && state.hints.insert(hint).second) {
    Explain(hint);
  }
}

// Frames that do not count are zeros, whatever the buffer holds.
void ClearFrames(const Tensor& frames, int64_t totalT, Array& array) {
  const auto frameBytes = static_cast<int64_t>(array.bytes.size()) / frames.dims.front();
  std::fill(array.bytes.begin() + frameBytes * totalT, array.bytes.end(), 0);
}

void CheckShape(const Tensor& output, uint64_t batches, const Array& result) {
  std::vector<int64_t> dims = output.dims;
  if (!dims.empty()) {
    dims.front() *= static_cast<int64_t>(batches);
  }
  Require(result.dims == dims && (!dims.empty() || batches == 1), "output", Quoted(output.name),
          " came out with shape ", ShapeText(result.dims), ", described is ", ShapeText(dims),
          "; sizes that depend on the data are not supported");
}

// Batches `first` to `first + count`.
void RunBatches(const Model& model, const quilm_mdl_dataset& input, const quilm_mdl_dataset& output,
                uint64_t first, uint64_t count) {
  const auto startOf = [first](const quilm_data_buffer& buffer, const Tensor& tensor) {
    return static_cast<unsigned char*>(buffer.pointer) + first * tensor.size;
  };
  std::vector<Array> inputs;
  for (size_t i = 0; i + kBuffersAfterInputs < model.inputs.size(); ++i) {
    const Tensor& tensor = model.inputs[i];
    inputs.push_back(TakeFromDevice(tensor, startOf(*input.buffers[i], tensor), count));
    GiveHint(tensor, inputs.back());
  }
  if (input.totalT > 0) {
    ClearFrames(model.inputs[0], input.totalT, inputs[0]);
  }
  const std::vector<Array> results = model.engine(inputs);
  for (size_t i = 0; i < results.size(); ++i) {
    CheckShape(model.outputs[i], count, results[i]);
  }
  for (size_t i = 0; i < results.size(); ++i) {
    const Tensor& tensor = model.outputs[i];
    Require(PutToDevice(results[i], tensor, startOf(*output.buffers[i], tensor)), "output",
            Quoted(tensor.name), " holds a number that does not fit 32 bits");
  }
}

}  // namespace

void Execute(const Model& model, const quilm_mdl_dataset& input, const quilm_mdl_dataset& output) {
  CheckDataset("input", input, model.inputs, input.batchSize);
  CheckDataset("output", output, model.outputs, input.batchSize);
  if (input.batchSize > 1 && model.batchesAsOne) {
    try {
      RunBatches(model, input, output, 0, input.batchSize);
      return;
    } catch (const Refusal&) {
      // Models that fix the batch size further inside may do it one by one.
    }
  }
  About("execution failed", [&] {
    for (uint64_t batch = 0; batch < input.batchSize; ++batch) {
      RunBatches(model, input, output, batch, 1);
    }
  });
}

}  // namespace quilm_host
