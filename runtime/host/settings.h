// The settings file, the JSON file whose path quilm_init() is given:
//
//   {
//     "row_alignment": 32,          bytes that strides are rounded up to, at least 1
//     "task_buffer_size": 1024,     bytes
//     "work_buffer_size": 4096,     bytes
//     "run_mode": 0,                what quilm_rt_get_run_mode() reports
//     "trace": false,               every call is named on standard error, as faults name it
//     "faults": [                   calls that go wrong on purpose
//       {"function": "quilm_mdl_execute", "call": 3, "code": 507}
//     ]
//   }
//
// All keys may be absent and then have the values above, and no faults. A fault makes the `call`-th
// call of `function`, counting from 1, return `code` without doing anything; `code` may be left out
// or null for functions that return a pointer, which then is null.
#ifndef QUILMRUN_RUNTIME_HOST_SETTINGS_H_
#define QUILMRUN_RUNTIME_HOST_SETTINGS_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace quilm_host {

struct Fault {
  std::string function;
  uint64_t call = 0;  // counts from 1
  int64_t code = 0;
};

struct Settings {
  size_t rowAlignment = 32;      // bytes
  size_t taskBufferSize = 1024;  // bytes
  size_t workBufferSize = 4096;  // bytes
  uint32_t runMode = 0;
  bool trace = false;
  std::vector<Fault> faults;
};

/// Fills `settings` from the file at `path`. Returns an empty string, or what is wrong with it:
/// unreadable, no JSON, an unknown key, a value of the wrong type, an unknown function.
std::string ReadSettings(const std::string& path, Settings& settings);

}  // namespace quilm_host

#endif  // QUILMRUN_RUNTIME_HOST_SETTINGS_H_
