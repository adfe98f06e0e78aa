// The settings, and a loaded model: its description, and the engine that executes it. Only the
// engine knows ONNX Runtime. Tests have an engine of their own for emulation, and for sweeps in
// which a real one would only cost time.
#ifndef QUILMRUN_RUNTIME_HOST_MODEL_H_
#define QUILMRUN_RUNTIME_HOST_MODEL_H_

#include <functional>
#include <memory>
#include <set>
#include <string_view>

#include "runtime/host/tensor.h"

namespace quilm_host {

/// Makes the `call`-th call of `function`, from 1, return `code` without doing anything.
struct Fault {
  std::string function;
  uint64_t call = 0;
  int64_t code = 0;
};

/// The content of the JSON file whose path quilm_init() is given. Its keys are named like the
/// members and may all be absent; docs/host-runtime.md explains them.
struct Settings {
  size_t row_alignment = 32;       // bytes that strides are rounded up to
  size_t task_buffer_size = 1024;  // bytes
  size_t work_buffer_size = 4096;  // bytes
  size_t run_mode = 0;             // quilm_rt_get_run_mode() reports it
  size_t threads = 0;              // the engine's; 0 means as many as the machine has cores
  bool trace = false;              // whether every call is named on standard error
  std::vector<Fault> faults;
  Shapes input_shapes;   // for inputs that the model leaves open
  Shapes output_shapes;  // for outputs that neither the engine nor a trial run tells
};

/// Reads the file at `path`. Refuses one that is no regular file, unreadable or no JSON, an unknown
/// key, a value of the wrong type or out of range, and an unknown function.
Settings ReadSettings(const std::string& path);

/// Computes the outputs from the inputs, both in graph order. The first dimension of inputs may
/// differ from the described one where the model leaves it open. Refuses with one problem a line.
using Engine = std::function<std::vector<Array>(const std::vector<Array>& inputs)>;

struct Model {
  std::vector<Tensor> inputs;           // the graph's, then task buffer and work buffer
  std::vector<Tensor> outputs;          // in graph order
  int32_t netType = 0;                  // the value of the metadata property "quilm.net_type"
  std::set<std::string> scalarOutputs;  // outputs that the file describes as scalars
  bool batchesAsOne = false;            // whether all inputs leave their first dimension open
  Engine engine;
};

/// The net type of recurrent models. Their input 0 holds frames, along its first dimension, and
/// input 1 marks for these, along its last.
constexpr int32_t kRecurrent = 2;

/// The number of inputs that are not the graph's: task buffer and work buffer.
constexpr size_t kBuffersAfterInputs = 2;

/// Loads the model in the ONNX file, whose bytes stay the caller's. Refuses what the engine cannot
/// execute.
Model LoadModel(std::string_view file, const Settings& settings);

/// Creates the engine for the file, which is not needed afterwards. Fills in the outputs' types,
/// and their dimensions as far as the engine knows them.
Engine CreateEngine(std::string_view file, const std::vector<Tensor>& inputs,
                    std::vector<Tensor>& outputs, size_t threads);

/// Returns how many bytes of memory the machine has.
size_t PhysicalMemory();

}  // namespace quilm_host

#endif  // QUILMRUN_RUNTIME_HOST_MODEL_H_
