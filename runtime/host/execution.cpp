// Execution: batches at once where the model can, one at a time otherwise.
#include <algorithm>
#include <cmath>

#include "runtime/host/state.h"

namespace quilm_host {
namespace {

void CheckDataset(const std::string& kind, const quilm_mdl_dataset& dataset,
                  const std::vector<Tensor>& tensors, uint64_t batchSize) {
  Require(dataset.buffers.size() == tensors.size(), "the ", kind, " dataset has ",
          dataset.buffers.size(), " entries, the model ", tensors.size());
  for (size_t i = 0; i < tensors.size(); ++i) {
    const Tensor& tensor = tensors[i];
    About(kind + " " + std::to_string(i) + Quoted(tensor.name), [&] {
      const auto buffer = state.buffers.Find(dataset.buffers[i]);
      state.memory.Find(buffer->pointer);
      Require(batchSize <= buffer->size / tensor.size, "its buffer has ", buffer->size, " bytes, ",
              batchSize, " x ", tensor.size, " are needed");
      Require(buffer->stride == tensor.stride, "its buffer has stride ", buffer->stride,
              ", the model ", tensor.stride);
    });
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
  const auto isUsual = [](float n) { return std::fabs(n) > 1e-12F && std::fabs(n) < 1e12F; };
  const auto isOdd = [&](float n) { return n != 0 && !isUsual(n); };
  if (numbers.size() < 64 || std::count_if(numbers.begin(), numbers.end(), isOdd) <=
                                 std::count_if(numbers.begin(), numbers.end(), isUsual)) {
    return "";
  }
  const bool isQuarter = bytes.find_first_not_of('\0', quarter) == bytes.npos;
  return std::string("holds mostly tiny or huge numbers: 8-bit data?") +
         (isQuarter ? " The file seems to have a quarter of what 1 batch takes" : "");
}

// Says once what may be wrong with an input; it is computed all the same.
void GiveHint(const Tensor& tensor, const Array& array) {
  const std::string found = LooksLike(array, tensor.type->onnx == 1);  // float, as in ONNX files
  const std::string hint = "input" + Quoted(tensor.name) + " " + found;
  if (!found.empty() && state.hints.insert(hint).second) {
    Explain(hint);
  }
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
    // Frames that do not count are zeros, whatever the buffer holds.
    std::vector<unsigned char>& frames = inputs[0].bytes;
    const auto frameBytes = static_cast<int64_t>(frames.size()) / model.inputs[0].dims.front();
    std::fill(frames.begin() + frameBytes * input.totalT, frames.end(), 0);
  }
  const std::vector<Array> results = model.engine(inputs);
  for (size_t i = 0; i < results.size(); ++i) {
    const Tensor& tensor = model.outputs[i];
    CheckShape(tensor, count, results[i]);
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
