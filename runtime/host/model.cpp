#include "runtime/host/model.h"

#include <unistd.h>

#include <algorithm>
#include <thread>

namespace quilm_host {
namespace {

std::string LayOutAll(const char* kind, std::vector<Tensor>& tensors, size_t rowAlignment) {
  for (Tensor& tensor : tensors) {
    const std::string problem = LayOut(tensor, rowAlignment);
    if (!problem.empty()) {
      return std::string(kind) + " \"" + tensor.name + "\": " + problem;
    }
  }
  return {};
}

// Device memory and the engine's hold each once.
std::string CheckMemory(const std::vector<Tensor>& inputs, const std::vector<Tensor>& outputs) {
  const size_t pages = static_cast<size_t>(sysconf(_SC_PHYS_PAGES));
  const size_t memory = pages * static_cast<size_t>(sysconf(_SC_PAGESIZE));
  size_t needed = 0;
  for (const auto* tensors : {&inputs, &outputs}) {
    for (const Tensor& tensor : *tensors) {
      needed += 2 * tensor.size;
    }
  }
  return needed <= memory ? ""
                          : "its inputs and outputs take " + std::to_string(needed) +
                                " bytes, the machine has " + std::to_string(memory);
}

std::string TakeGivenShapes(const Settings& settings, std::vector<Tensor>& outputs) {
  for (const auto& [name, given] : settings.outputShapes) {
    const auto output =
        std::find_if(outputs.begin(), outputs.end(),
                     [&name = name](const Tensor& tensor) { return tensor.name == name; });
    if (output == outputs.end()) {
      return "\"output_shapes\" names output \"" + name + "\", which the model does not have";
    }
    output->dims = given;
  }
  return {};
}

bool IsKnown(const Tensor& tensor) {
  return std::find(tensor.dims.begin(), tensor.dims.end(), -1) == tensor.dims.end();
}

// What the engine cannot tell from the model it shows by a run on zeros.
std::string LearnShapes(Model& model) {
  if (std::all_of(model.outputs.begin(), model.outputs.end(), IsKnown)) {
    return {};
  }
  std::vector<Array> zeros;
  for (const Tensor& input : model.inputs) {
    const size_t elements = RowCount(input) * RowElements(input);
    zeros.push_back({input.dims, std::vector<unsigned char>(elements * input.type->modelBytes)});
  }
  std::vector<Array> results;
  const std::string problem = model.engine->Run(zeros, results);
  if (!problem.empty()) {
    return "a run on zeros, to learn the shapes of its outputs, failed; \"output_shapes\" in the "
           "settings file can give them\n" +
           problem;
  }
  for (size_t i = 0; i < results.size(); ++i) {
    if (!IsKnown(model.outputs[i])) {
      model.outputs[i].dims = results[i].dims;
    }
  }
  return {};
}

std::string DescribeOutputs(const Settings& settings, Model& model) {
  std::string problem = TakeGivenShapes(settings, model.outputs);
  if (problem.empty()) {
    problem = LearnShapes(model);
  }
  if (problem.empty()) {
    problem = LayOutAll("output", model.outputs, settings.rowAlignment);
  }
  return problem.empty() ? CheckMemory(model.inputs, model.outputs) : problem;
}

}  // namespace

std::string LoadModel(const void* data, size_t size, const Settings& settings, Model& model) {
  std::vector<uint8_t> encoded;
  std::string problem = ReadOnnxFile(data, size, settings, model, encoded);
  if (problem.empty()) {
    problem = LayOutAll("input", model.inputs, settings.rowAlignment);
  }
  if (problem.empty()) {
    problem = CheckMemory(model.inputs, {});
  }
  if (problem.empty()) {
    model.engine = CreateEngine(
        encoded, model.inputs, model.outputs,
        settings.threads > 0 ? settings.threads : std::thread::hardware_concurrency(), problem);
  }
  if (problem.empty()) {
    problem = DescribeOutputs(settings, model);
  }
  model.inputs.push_back(PlainBuffer("task_buffer", settings.taskBufferSize));
  model.inputs.push_back(PlainBuffer("work_buffer", settings.workBufferSize));
  return problem;
}

}  // namespace quilm_host
