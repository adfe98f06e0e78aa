// Executes a model on datasets: all batches at once where the model can, otherwise one at a time.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "onnx.pb-c.h"
#include "runtime/host/state.h"

namespace quilm_host {
namespace {

void CheckDataset(const char* kind, const quilm_mdl_dataset& dataset,
                  const std::vector<Tensor>& tensors, uint64_t batchSize) {
  Require(dataset.buffers.size() == tensors.size(), "the ", kind, " dataset has ",
          dataset.buffers.size(), " entries, the model ", tensors.size());
  for (size_t i = 0; i < tensors.size(); ++i) {
    const Tensor& tensor = tensors[i];
    const auto describe = [&] { return kind + (" " + std::to_string(i)) + Quoted(tensor.name); };
    WithContext(describe, [&] {
      const auto& buffer = state.buffers.Find(dataset.buffers[i]);
      state.memory.Find(buffer->pointer);
      Require(batchSize <= buffer->size / tensor.size, "its buffer has ", buffer->size, " bytes, ",
              batchSize, " x ", tensor.size, " are needed");
      Require(buffer->stride == tensor.stride, "its buffer has stride ", buffer->stride,
              ", the model ", tensor.stride);
    });
  }
}

// Returns whether most of the first 4,096 floats that are not zero are too small or too large for
// numbers that people measure, as 8-bit data are when they are read as floats.
bool HoldsStrangeFloats(const std::vector<unsigned char>& bytes) {
  const size_t count = std::min<size_t>(bytes.size() / sizeof(float), 4096);
  size_t usual = 0;
  size_t strange = 0;
  for (size_t i = 0; i < count; ++i) {
    float number = 0;
    std::memcpy(&number, bytes.data() + i * sizeof(float), sizeof(float));
    const bool isUsual = std::fabs(number) > 1e-12F && std::fabs(number) < 1e12F;
    usual += isUsual ? 1 : 0;
    strange += !isUsual && number != 0 ? 1 : 0;
  }
  return count >= 64 && strange > usual;
}

// Returns what the data seem to be when they are probably no numbers of the input's type, otherwise
// an empty text.
std::string FindMistake(const Array& array, bool isFloat) {
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
  return isFloat && HoldsStrangeFloats(array.bytes)
             ? std::string("holds mostly tiny or huge numbers: 8-bit data?") +
                   (bytes.find_first_not_of('\0', quarter) == bytes.npos
                        ? " The file seems to have a quarter of what 1 batch takes"
                        : "")
             : "";
}

// Says once what may be wrong with an input. The input is computed all the same.
void GiveHint(const Tensor& tensor, const Array& array) {
  const std::string mistake =
      FindMistake(array, tensor.type->onnx == ONNX__TENSOR_PROTO__DATA_TYPE__FLOAT);
  if (!mistake.empty() && state.hints.insert(tensor.name + mistake).second) {
    Explain("input" + Quoted(tensor.name) + " " + mistake);
  }
}

void CheckShape(const Tensor& output, uint64_t batches, const Array& result) {
  const bool isScalar = output.dims.empty();
  std::vector<int64_t> dims = output.dims;
  if (!isScalar) {
    dims.front() *= static_cast<int64_t>(batches);
  }
  if (result.dims != dims || (isScalar && batches > 1)) {
    Refuse("output", Quoted(output.name), " came out with shape ", ShapeText(result.dims),
           ", described is ", ShapeText(dims), "; sizes that depend on the data are not supported");
  }
}

// Sets the frames of a recurrent model's input to zeros that do not count, whatever the buffer
// holds there.
void ClearFrames(Array& frames, int64_t counting) {
  const auto frameBytes = static_cast<int64_t>(frames.bytes.size()) / frames.dims.front();
  std::fill(frames.bytes.begin() + frameBytes * counting, frames.bytes.end(), 0);
}

// Executes the batches from `first` to `first + count - 1`.
void RunBatches(const Model& model, const quilm_mdl_dataset& input, const quilm_mdl_dataset& output,
                uint64_t first, uint64_t count) {
  const auto startOf = [first](const quilm_data_buffer& buffer, const Tensor& tensor) {
    return static_cast<unsigned char*>(buffer.pointer) + first * tensor.size;
  };
  std::vector<Array> inputs;
  inputs.reserve(model.inputs.size());
  for (size_t i = 0; i + kBuffersAfterInputs < model.inputs.size(); ++i) {
    const Tensor& tensor = model.inputs[i];
    inputs.push_back(ReadFromDevice(tensor, startOf(*input.buffers[i], tensor), count));
    GiveHint(tensor, inputs.back());
  }
  if (input.totalT > 0) {
    ClearFrames(inputs[0], input.totalT);
  }
  const std::vector<Array> results = model.engine(inputs);
  for (size_t i = 0; i < results.size(); ++i) {
    const Tensor& tensor = model.outputs[i];
    CheckShape(tensor, count, results[i]);
    if (!WriteToDevice(results[i], tensor, startOf(*output.buffers[i], tensor))) {
      Refuse("output", Quoted(tensor.name), " holds a number that does not fit 32 bits");
    }
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
    } catch (const Refusal&) {  // NOLINT(bugprone-empty-catch): what comes next is the answer
      // A model that fixes the batch size further inside may still compute the batches one by one.
    }
  }
  WithContext([] { return "execution failed"; },
              [&] {
                for (uint64_t batch = 0; batch < input.batchSize; ++batch) {
                  RunBatches(model, input, output, batch, 1);
                }
              });
}

}  // namespace quilm_host
