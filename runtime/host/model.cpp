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
  Require(needed <= PhysicalMemory(), "its ", kind, "s take ", needed, " bytes, the machine has ",
          PhysicalMemory());
}

// The engine tells a shape of any number of dimensions like that of a scalar.
bool IsKnown(const Tensor& output) {
  return !output.dims.empty() && !output.IsOpen();
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
    Tensor& output = model.outputs[i];
    output.dims = IsKnown(output) ? output.dims : results[i].dims;
    Require(std::count(output.dims.begin(), output.dims.end(), 0) == 0, "output",
            Quoted(output.name), " came out with shape ", ShapeText(output.dims));
  }
}

void DescribeOutputs(Model& model, const Settings& settings) {
  TakeShapes("output", settings.outputShapes, model.outputs);
  std::vector<std::string> unknown;
  for (const Tensor& output : model.outputs) {
    if (!IsKnown(output)) {
      unknown.push_back("\"" + output.name + "\": " + ShapeText(output.dims));
    }
  }
  if (!unknown.empty()) {
    About("a run on zeros does not show the shapes of outputs: write \"output_shapes\": {" +
              Joined(unknown) + "}, with whole shapes for these, into the settings file",
          [&] { LearnShapes(model); });
  }
}

// With given shapes written into the file, the engine may find fault with a branch that they rule
// out. The file as it is then may still do, with tensors of these shapes.
void CreateEngineOfEither(const std::vector<Bytes>& files, const Settings& settings, Model& model) {
  const size_t threads =
      settings.threads > 0 ? settings.threads : std::thread::hardware_concurrency();
  std::vector<std::string> problems;
  for (const Bytes& file : files) {
    try {
      model.engine = CreateEngine(file, model.inputs, model.outputs, threads);
      DescribeOutputs(model, settings);
      return;
    } catch (const Refusal& refusal) {
      problems.emplace_back(refusal.what());
    }
  }
  // Mostly they are the same.
  problems.erase(std::unique(problems.begin(), problems.end()), problems.end());
  Refuse(Joined(problems, "\n"));
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

Model LoadModel(Bytes file, const Settings& settings) {
  Model model;
  const std::vector<uint8_t> changed = ReadOnnxFile(file, settings, model);
  LayOutAll("input", model.inputs, settings.rowAlignment);
  std::vector<Bytes> files = {file};
  if (!changed.empty()) {
    files.insert(files.begin(), {changed.data(), changed.size()});
  }
  CreateEngineOfEither(files, settings, model);
  LayOutAll("output", model.outputs, settings.rowAlignment);
  model.inputs.push_back(PlainBuffer("task_buffer", settings.taskBufferSize));
  model.inputs.push_back(PlainBuffer("work_buffer", settings.workBufferSize));
  return model;
}

}  // namespace quilm_host
