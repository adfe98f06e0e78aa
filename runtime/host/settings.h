// The settings file, the JSON file whose path quilm_init() is given; docs/host-runtime.md says what
// its keys mean. All may be absent.
#ifndef QUILMRUN_RUNTIME_HOST_SETTINGS_H_
#define QUILMRUN_RUNTIME_HOST_SETTINGS_H_

#include "runtime/host/tensor.h"

namespace quilm_host {

/// Makes the `call`-th call of `function`, from 1, return `code` without doing anything.
struct Fault {
  std::string function;
  uint64_t call = 0;
  int64_t code = 0;
};

/// The members are called like the keys.
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

}  // namespace quilm_host

#endif  // QUILMRUN_RUNTIME_HOST_SETTINGS_H_
