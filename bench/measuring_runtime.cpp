// A libquilm.so that passes every call on to another one and keeps the time, so that what a run
// takes outside the runtime can be told from what the runtime takes. The environment says which one
// it is (QUILM_MEASURED) and where the figures go when the runtime is finalised (QUILM_FIGURES):
//
//   groups N              executions
//   loop_ns N             from the first input dataset to the unloading of the model
//   runtime_ns N          of that, within the runtime's calls
//   peak_rss_bytes N      most memory that the process has had
//   peak_device_bytes N   most of it that the runtime had handed out as device memory
#include <dlfcn.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>

#include "runtime/quilm.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Figures {
  long groups = 0;
  Clock::time_point loopStart;
  Clock::duration loop{};
  Clock::duration runtime{};
  std::map<const void*, size_t> blocks;
  size_t deviceBytes = 0;
  size_t peakDeviceBytes = 0;
  int datasets = 0;
} figures;

[[noreturn]] void GiveUp(const char* problem) {
  std::fprintf(stderr, "measuring runtime: %s\n", problem);
  std::abort();
}

void* Find(const char* function) {
  static void* const kLibrary = dlopen(std::getenv("QUILM_MEASURED"), RTLD_NOW | RTLD_LOCAL);
  void* found = kLibrary == nullptr ? nullptr : dlsym(kLibrary, function);
  if (found == nullptr) {
    GiveUp(dlerror());
  }
  return found;
}

// Adds its own lifetime to the runtime's share.
class Stopwatch {
 public:
  Stopwatch() : start_(Clock::now()) {}
  ~Stopwatch() { figures.runtime += Clock::now() - start_; }
  Stopwatch(const Stopwatch&) = delete;
  Stopwatch& operator=(const Stopwatch&) = delete;

 private:
  Clock::time_point start_;
};

// The first dataset is for the outputs, the second one for the inputs of the first group.
void NoteDataset() {
  if (++figures.datasets == 2) {
    figures.runtime = {};
    figures.loopStart = Clock::now();
  }
}

void NoteAllocation(const void* memory, size_t size) {
  figures.blocks[memory] = size;
  figures.deviceBytes += size;
  figures.peakDeviceBytes = std::max(figures.peakDeviceBytes, figures.deviceBytes);
}

void NoteRelease(const void* memory) {
  const auto found = figures.blocks.find(memory);
  if (found != figures.blocks.end()) {
    figures.deviceBytes -= found->second;
    figures.blocks.erase(found);
  }
}

long PeakResidentBytes() {
  constexpr long kKilobyte = 1024;
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    if (word == "VmHWM:") {
      long kilobytes = 0;
      status >> kilobytes;
      return kilobytes * kKilobyte;
    }
  }
  return 0;
}

long InNs(Clock::duration duration) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(duration).count();
}

void WriteFigures() {
  const long peakResident = PeakResidentBytes();
  std::ofstream(std::getenv("QUILM_FIGURES"))
      << "groups " << figures.groups << "\nloop_ns " << InNs(figures.loop) << "\nruntime_ns "
      << InNs(figures.runtime) << "\npeak_rss_bytes " << peakResident << "\npeak_device_bytes "
      << figures.peakDeviceBytes << "\n";
}

}  // namespace

// The call itself, within the runtime's time.
#define MEASURE(function, arguments)                                                        \
  [&] {                                                                                     \
    static const auto kFunction = reinterpret_cast<decltype(&(function))>(Find(#function)); \
    const Stopwatch stopwatch;                                                              \
    return kFunction arguments;                                                             \
  }()

// A function of which nothing else is to be noted: its result, name, parameters and arguments.
#define PASS_ON(Result, function, parameters, arguments) \
  Result function parameters {                           \
    return MEASURE(function, arguments);                 \
  }

PASS_ON(quilm_error, quilm_init, (const char* path), (path))
PASS_ON(quilm_error, quilm_rt_set_device, (int32_t id), (id))
PASS_ON(quilm_error, quilm_rt_reset_device, (int32_t id), (id))
PASS_ON(quilm_error, quilm_rt_set_op_wait_timeout, (uint32_t timeout), (timeout))
PASS_ON(quilm_error, quilm_rt_create_context, (quilm_rt_context * context, int32_t id),
        (context, id))
PASS_ON(quilm_error, quilm_rt_destroy_context, (quilm_rt_context context), (context))
PASS_ON(quilm_error, quilm_rt_create_stream, (quilm_rt_stream * stream), (stream))
PASS_ON(quilm_error, quilm_rt_destroy_stream, (quilm_rt_stream stream), (stream))
PASS_ON(quilm_error, quilm_rt_get_run_mode, (uint32_t * mode), (mode))
PASS_ON(quilm_error, quilm_mdl_load_from_mem, (const void* model, size_t size, uint32_t* id),
        (model, size, id))
PASS_ON(quilm_mdl_desc*, quilm_mdl_create_desc, (void), ())
PASS_ON(quilm_error, quilm_mdl_destroy_desc, (quilm_mdl_desc * desc), (desc))
PASS_ON(quilm_error, quilm_mdl_get_desc, (quilm_mdl_desc * desc, uint32_t id), (desc, id))

// Questions about a description, and about one tensor of it.
#define PASS_ON_COUNT(function) PASS_ON(size_t, function, (const quilm_mdl_desc* desc), (desc))
#define PASS_ON_DIMS(function)                                                 \
  PASS_ON(quilm_error, function,                                               \
          (const quilm_mdl_desc* desc, size_t index, quilm_mdl_io_dims* dims), \
          (desc, index, dims))
#define PASS_ON_FIELD(Result, function) \
  PASS_ON(Result, function, (const quilm_mdl_desc* desc, size_t index), (desc, index))

PASS_ON_COUNT(quilm_mdl_get_num_inputs)
PASS_ON_COUNT(quilm_mdl_get_num_outputs)
PASS_ON_DIMS(quilm_mdl_get_input_dims)
PASS_ON_DIMS(quilm_mdl_get_output_dims)
PASS_ON_FIELD(int32_t, quilm_mdl_get_input_data_type)
PASS_ON_FIELD(int32_t, quilm_mdl_get_output_data_type)
PASS_ON_FIELD(size_t, quilm_mdl_get_input_size_by_index)
PASS_ON_FIELD(size_t, quilm_mdl_get_output_size_by_index)
PASS_ON_FIELD(size_t, quilm_mdl_get_input_default_stride)
PASS_ON_FIELD(size_t, quilm_mdl_get_output_default_stride)
PASS_ON_FIELD(int32_t, quilm_mdl_get_input_format)
PASS_ON_FIELD(int32_t, quilm_mdl_get_output_format)
PASS_ON_FIELD(const char*, quilm_mdl_get_output_name_by_index)

PASS_ON(quilm_error, quilm_mdl_destroy_dataset, (quilm_mdl_dataset * dataset), (dataset))
PASS_ON(quilm_error, quilm_mdl_add_dataset_buffer,
        (quilm_mdl_dataset * dataset, quilm_data_buffer* buffer), (dataset, buffer))
PASS_ON(size_t, quilm_mdl_get_dataset_num_buffers, (const quilm_mdl_dataset* dataset), (dataset))
PASS_ON(quilm_data_buffer*, quilm_mdl_get_dataset_buffer,
        (const quilm_mdl_dataset* dataset, size_t index), (dataset, index))
PASS_ON(quilm_data_buffer*, quilm_create_data_buffer, (void* memory, size_t size, size_t stride),
        (memory, size, stride))
PASS_ON(quilm_error, quilm_destroy_data_buffer, (quilm_data_buffer * buffer), (buffer))
PASS_ON(void*, quilm_get_data_buffer_addr, (const quilm_data_buffer* buffer), (buffer))
PASS_ON(size_t, quilm_get_data_buffer_size, (const quilm_data_buffer* buffer), (buffer))
PASS_ON(size_t, quilm_data_type_size, (int32_t type), (type))
PASS_ON(quilm_error, quilm_mdl_set_dynamic_batch_size,
        (uint32_t id, quilm_mdl_dataset* input, size_t index, uint64_t size),
        (id, input, index, size))
PASS_ON(quilm_error, quilm_ext_get_mdl_net_type, (uint32_t id, int32_t* type), (id, type))
PASS_ON(quilm_error, quilm_mdl_set_total_t,
        (uint32_t id, quilm_mdl_dataset* input, int64_t total_t), (id, input, total_t))

quilm_mdl_dataset* quilm_mdl_create_dataset(void) {
  NoteDataset();
  return MEASURE(quilm_mdl_create_dataset, ());
}

quilm_error quilm_rt_malloc(void** pointer, size_t size, int32_t policy) {
  const quilm_error result = MEASURE(quilm_rt_malloc, (pointer, size, policy));
  if (result == 0) {
    NoteAllocation(*pointer, size);
  }
  return result;
}

quilm_error quilm_rt_free(void* pointer) {
  NoteRelease(pointer);
  return MEASURE(quilm_rt_free, (pointer));
}

quilm_error quilm_mdl_execute(uint32_t id, const quilm_mdl_dataset* input,
                              quilm_mdl_dataset* output) {
  ++figures.groups;
  return MEASURE(quilm_mdl_execute, (id, input, output));
}

quilm_error quilm_mdl_unload(uint32_t id) {
  figures.loop = Clock::now() - figures.loopStart;
  return MEASURE(quilm_mdl_unload, (id));
}

quilm_error quilm_finalize(void) {
  WriteFigures();
  return MEASURE(quilm_finalize, ());
}
