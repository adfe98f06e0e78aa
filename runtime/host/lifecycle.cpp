// Start and end of the runtime, device, execution handles and device memory.
#include <unistd.h>

#include <filesystem>
#include <new>

#include "runtime/host/state.h"

namespace quilm_host {
namespace {

constexpr int32_t kOnlyDevice = 0;
constexpr size_t kMemoryAlignment = 64;  // bytes, a cache line

quilm_error CheckDevice(int32_t deviceId) {
  if (deviceId != kOnlyDevice) {
    Explain("%s: there is no device %d", currentCall, deviceId);
    return kBadArgument;
  }
  return kOk;
}

quilm_error CheckDeviceOpen() {
  if (!state.deviceOpen) {
    Explain("%s: no device is open", currentCall);
    return kBadArgument;
  }
  return kOk;
}

quilm_error CreateExecutionHandle(ObjectTable<ExecutionHandle>& table, void** handle) {
  if (handle == nullptr || CheckDeviceOpen() != kOk) {
    return kBadArgument;
  }
  *handle = table.Create();
  return kOk;
}

long CountOpenFiles() {
  std::error_code none;
  const std::filesystem::directory_iterator files("/proc/self/fd", none);
  return std::distance(begin(files), end(files));
}

quilm_error Initialize(const char* configPath) {
  if (state.initialized) {
    Explain("quilm_init: already initialized");
    return kBadArgument;
  }
  state = State();
  state.initFailed = true;
  const std::string path = configPath == nullptr ? "" : configPath;
  const std::string problem = ReadSettings(path, state.settings);
  if (!problem.empty()) {
    Explain("settings file %s: %s", path.c_str(), problem.c_str());
    return kBadSettings;
  }
  if (const std::optional<int64_t> code = TakeFault()) {
    return static_cast<quilm_error>(*code);
  }
  state.openFiles = CountOpenFiles();
  state.initialized = true;
  state.initFailed = false;
  return kOk;
}

quilm_error Finalize() {
  state.contexts.ReportAndClear();
  state.streams.ReportAndClear();
  state.datasets.ReportAndClear();
  state.buffers.ReportAndClear();
  state.descriptions.ReportAndClear();
  state.models.ReportAndClear();
  state.memory.ReportAndClear();
  if (const long files = CountOpenFiles() - state.openFiles; files > 0) {
    Explain("still there at quilm_finalize: %ld x open file", files);
  }
  state.initialized = false;
  return kOk;
}

size_t PhysicalMemory() {
  return static_cast<size_t>(sysconf(_SC_PHYS_PAGES)) * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

quilm_error Allocate(void** pointer, size_t size) {
  if (pointer == nullptr || size == 0) {
    Explain("%s: %zu bytes cannot be allocated", currentCall, size);
    return kBadArgument;
  }
  // Beyond that a system that overcommits would say yes and then kill somebody.
  if (size > PhysicalMemory()) {
    Explain("%s: no memory for %zu bytes", currentCall, size);
    return kOutOfMemory;
  }
  const size_t rounded = (size + kMemoryAlignment - 1) / kMemoryAlignment * kMemoryAlignment;
  auto block = std::make_shared<MemoryBlock>();
  block->memory.reset(std::aligned_alloc(kMemoryAlignment, rounded));
  block->size = size;
  if (block->memory == nullptr) {
    throw std::bad_alloc();
  }
  *pointer = block->memory.get();
  state.memory.Add(*pointer, std::move(block));
  return kOk;
}

}  // namespace
}  // namespace quilm_host

using namespace quilm_host;  // NOLINT: what follows is this namespace's interface to C

quilm_error quilm_init(const char* config_path) {
  currentCall = __func__;
  return Initialize(config_path);
}

quilm_error quilm_finalize(void) {
  return Perform([] { return Finalize(); });
}

quilm_error quilm_rt_set_device(int32_t device_id) {
  return Perform([=] {
    state.deviceOpen = CheckDevice(device_id) == kOk;
    return state.deviceOpen ? kOk : kBadArgument;
  });
}

quilm_error quilm_rt_reset_device(int32_t device_id) {
  return Perform([=] {
    const bool reset = CheckDevice(device_id) == kOk && CheckDeviceOpen() == kOk;
    state.deviceOpen = false;
    return reset ? kOk : kBadArgument;
  });
}

quilm_error quilm_rt_set_op_wait_timeout(uint32_t) {
  return Perform([] { return CheckDeviceOpen(); });
}

quilm_error quilm_rt_create_context(quilm_rt_context* context, int32_t device_id) {
  return Perform([=] {
    return CheckDevice(device_id) == kOk ? CreateExecutionHandle(state.contexts, context)
                                         : kBadArgument;
  });
}

quilm_error quilm_rt_destroy_context(quilm_rt_context context) {
  return Perform([=] { return state.contexts.Remove(context); });
}

quilm_error quilm_rt_create_stream(quilm_rt_stream* stream) {
  return Perform([=] { return CreateExecutionHandle(state.streams, stream); });
}

quilm_error quilm_rt_destroy_stream(quilm_rt_stream stream) {
  return Perform([=] { return state.streams.Remove(stream); });
}

quilm_error quilm_rt_get_run_mode(uint32_t* run_mode) {
  return Perform([=] {
    *run_mode = static_cast<uint32_t>(state.settings.runMode);
    return kOk;
  });
}

quilm_error quilm_rt_malloc(void** pointer, size_t size, int32_t) {
  return Perform([=] { return Allocate(pointer, size); });
}

quilm_error quilm_rt_free(void* pointer) {
  return Perform([=] { return state.memory.Remove(pointer); });
}
