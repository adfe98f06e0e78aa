#include "runtime/host/model.h"

#include <unistd.h>

#include <algorithm>
#include <thread>

#include "runtime/host/diagnostics.h"

namespace quilm_host {
namespace {

// Device memory and the engine's hold each tensor once.
void LayOutAll(const char* kind, std::vector<Tensor>& tensors, size_t rowAlignment) {
  size_t needed = 0;
  for (Tensor& tensor : tensors) {
    About(kind + Quoted(tensor.name), [&] { LayOut(tensor, rowAlignment); });
    needed += tensor.size + tensor.Elements() * tensor.type->modelBytes;
  }
  if (needed > PhysicalMemory()) {
    Refuse(kBadModel, "its ", kind, "s take ", std::to_string(needed), " bytes, the machine has ",
           std::to_string(PhysicalMemory()));
  }
}

// The engine tells a shape of any number of dimensions like that of a scalar.
bool IsKnown(const Tensor& tensor) {
  return !tensor.dims.empty() &&
         std::find(tensor.dims.begin(), tensor.dims.end(), -1) == tensor.dims.end();
}

// What the engine cannot tell from the model it shows by a run on zeros.
void LearnShapes(Model& model) {
  std::vector<Array> zeros;
  for (const Tensor& input : model.inputs) {
    zeros.push_back(
        {input.dims, std::vector<unsigned char>(input.Elements() * input.type->modelBytes)});
  }
  const std::vector<Array> results = model.engine->Run(zeros);
  for (size_t i = 0; i < results.size(); ++i) {
    model.outputs[i].dims = IsKnown(model.outputs[i]) ? model.outputs[i].dims : results[i].dims;
  }
}

// A tensor without structure: one row of bytes.
Tensor PlainBuffer(const char* name, size_t size) {
  constexpr int32_t kUint8 = 2;  // as in ONNX files
  return {name, FindElementType(kUint8), {static_cast<int64_t>(size)}, size, size};
}

}  // namespace

size_t PhysicalMemory() {
  return static_cast<size_t>(sysconf(_SC_PHYS_PAGES)) * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

Model LoadModel(const void* data, size_t size, const Settings& settings) {
  Model model;
  const std::vector<uint8_t> encoded = ReadOnnxFile(data, size, settings, model);
  LayOutAll("input", model.inputs, settings.rowAlignment);
  model.engine =
      CreateEngine(encoded, model.inputs, model.outputs,
                   settings.threads > 0 ? settings.threads : std::thread::hardware_concurrency());
  if (!std::all_of(model.outputs.begin(), model.outputs.end(), IsKnown)) {
    About("a run on zeros, to learn the shapes of its outputs, failed",
          [&] { LearnShapes(model); });
  }
  LayOutAll("output", model.outputs, settings.rowAlignment);
  model.inputs.push_back(PlainBuffer("task_buffer", settings.taskBufferSize));
  model.inputs.push_back(PlainBuffer("work_buffer", settings.workBufferSize));
  return model;
}

}  // namespace quilm_host
