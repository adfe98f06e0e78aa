// A model file: an ONNX graph, decoded and described.
#ifndef QUILMRUN_RUNTIME_HOST_ONNX_MODEL_H_
#define QUILMRUN_RUNTIME_HOST_ONNX_MODEL_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "runtime/host/settings.h"
#include "runtime/host/tensor.h"

namespace quilm_host {

struct OnnxModel {
  std::vector<Tensor> inputs;    // the graph's, then task buffer and work buffer
  std::vector<Tensor> outputs;   // in graph order
  int32_t netType = 0;           // what the metadata property "quilm.net_type" says
  std::vector<uint8_t> encoded;  // the ONNX file, with every batch dimension a number
};

/// The net type of recurrent models: input 0 carries frames, along its first dimension, and input 1
/// marks for them, along its last.
constexpr int32_t kRecurrent = 2;

/// Inputs that are no graph inputs: task buffer and work buffer.
constexpr size_t kBuffersBehindInputs = 2;

/// Decodes the ONNX file of `size` bytes at `data` into `model`: graph inputs that are not
/// initializers, and outputs, in graph order. A symbolic or absent first dimension counts as 1.
/// Returns an empty string, or why the file cannot serve as a model.
std::string ReadOnnxModel(const void* data, size_t size, const Settings& settings,
                          OnnxModel& model);

}  // namespace quilm_host

#endif  // QUILMRUN_RUNTIME_HOST_ONNX_MODEL_H_
