// A loaded model: what it is like, and the engine that executes it. What knows ONNX Runtime stands
// behind the engine's interface; tests have an engine of their own for emulation, and for sweeps in
// which a real one would only cost time.
#ifndef QUILMRUN_RUNTIME_HOST_MODEL_H_
#define QUILMRUN_RUNTIME_HOST_MODEL_H_

#include <functional>
#include <memory>

#include "runtime/host/settings.h"
#include "runtime/host/tensor.h"

namespace quilm_host {

/// Computes the outputs from the inputs, both in graph order; the first dimension of inputs may
/// differ from the described one where the model leaves it open. Refuses with one problem a line.
using Engine = std::function<std::vector<Array>(const std::vector<Array>& inputs)>;

struct Model {
  std::vector<Tensor> inputs;   // the graph's, then task buffer and work buffer
  std::vector<Tensor> outputs;  // in graph order
  int32_t netType = 0;          // what the metadata property "quilm.net_type" says
  bool batchesAsOne = false;    // all inputs leave their first dimension open
  Engine engine;
};

/// The net type of recurrent models: input 0 carries frames, along its first dimension, and input 1
/// marks for them, along its last.
constexpr int32_t kRecurrent = 2;

/// Inputs that are no graph inputs: task buffer and work buffer.
constexpr size_t kBuffersAfterInputs = 2;

/// Of a file in memory, which stays the caller's.
struct Bytes {
  const uint8_t* data;
  size_t size;
};

/// The model in the ONNX file. Refuses what the engine cannot execute.
Model LoadModel(Bytes file, const Settings& settings);

/// The engine of the file, which is not needed afterwards. The outputs' types are filled in, and
/// their dimensions as far as the engine knows them.
Engine CreateEngine(Bytes file, const std::vector<Tensor>& inputs, std::vector<Tensor>& outputs,
                    size_t threads);

/// Bytes of memory that the machine has.
size_t PhysicalMemory();

}  // namespace quilm_host

#endif  // QUILMRUN_RUNTIME_HOST_MODEL_H_
