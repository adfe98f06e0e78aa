// The settings, and a loaded model: what it is like, and the engine that executes it. Only the
// engine knows ONNX Runtime; tests have one of their own for emulation, and for sweeps in which a
// real one would only cost time.
#ifndef QUILMRUN_RUNTIME_HOST_MODEL_H_
#define QUILMRUN_RUNTIME_HOST_MODEL_H_

#include <functional>
#include <memory>
#include <string_view>

#include "runtime/host/tensor.h"

namespace quilm_host {

/// Makes the `call`-th call of `function`, from 1, return `code` without doing anything.
struct Fault {
  std::string function;
  uint64_t call = 0;
  int64_t code = 0;
};

/// What the JSON file says whose path quilm_init() is given; docs/host-runtime.md explains its
/// keys, which are called like the members and may all be absent.
struct Settings {
  size_t row_alignment = 32;       // bytes that strides are rounded up to
  size_t task_buffer_size = 1024;  // bytes
  size_t work_buffer_size = 4096;  // bytes
  size_t run_mode = 0;             // what quilm_rt_get_run_mode() reports
  size_t threads = 0;              // of the engine; 0: as many as the machine has cores
  bool trace = false;              // every call is named on standard error
  std::vector<Fault> faults;
  Shapes input_shapes;   // of inputs that the model leaves open
  Shapes output_shapes;  // of outputs that neither the engine nor a run on zeros tells
};

/// Reads the file at `path`. Refuses one that is unreadable or no JSON, an unknown key, a value of
/// the wrong type, an unknown function.
Settings ReadSettings(const std::string& path);

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

/// The model in the ONNX file, the bytes of which stay the caller's. Refuses what the engine cannot
/// execute.
Model LoadModel(std::string_view file, const Settings& settings);

/// The engine of the file, which is not needed afterwards. The outputs' types are filled in, and
/// their dimensions as far as the engine knows them.
Engine CreateEngine(std::string_view file, const std::vector<Tensor>& inputs,
                    std::vector<Tensor>& outputs, size_t threads);

/// Bytes of memory that the machine has.
size_t PhysicalMemory();

}  // namespace quilm_host

#endif  // QUILMRUN_RUNTIME_HOST_MODEL_H_
