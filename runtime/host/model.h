// A loaded model: what it is like, and the engine that executes it.
#ifndef QUILMRUN_RUNTIME_HOST_MODEL_H_
#define QUILMRUN_RUNTIME_HOST_MODEL_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "runtime/host/engine.h"
#include "runtime/host/settings.h"
#include "runtime/host/tensor.h"

namespace quilm_host {

struct Model {
  std::vector<Tensor> inputs;   // the graph's, then task buffer and work buffer
  std::vector<Tensor> outputs;  // in graph order
  int32_t netType = 0;          // what the metadata property "quilm.net_type" says
  bool batchesAsOne = false;    // all inputs leave their first dimension open
  std::unique_ptr<Engine> engine;
};

/// The net type of recurrent models: input 0 carries frames, along its first dimension, and input 1
/// marks for them, along its last.
constexpr int32_t kRecurrent = 2;

/// Inputs that are no graph inputs: task buffer and work buffer.
constexpr size_t kBuffersAfterInputs = 2;

/// Decodes the ONNX file of `size` bytes at `data`: fills in the inputs that are no initializers,
/// the outputs' names and types, and the net type. Dimensions of inputs that the file leaves open
/// come from `settings`; a first one counts as 1 otherwise. `encoded` is the file with these
/// numbers in it. Returns an empty string, or why the file cannot serve as a model.
std::string ReadOnnxFile(const void* data, size_t size, const Settings& settings, Model& model,
                         std::vector<uint8_t>& encoded);

/// Makes `model` from the ONNX file. Returns an empty string, or what is in the way, one problem a
/// line.
std::string LoadModel(const void* data, size_t size, const Settings& settings, Model& model);

}  // namespace quilm_host

#endif  // QUILMRUN_RUNTIME_HOST_MODEL_H_
