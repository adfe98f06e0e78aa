// Model files for the host runtime: whatever is loaded can be described and unloaded again. Outputs
// of unknown shape are executed too, to be described.
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "runtime/quilm.h"
#include "tests/fuzz/fuzz.h"

// The sanitizer ends the process where memory does not suffice; the engine is to see that as it
// does without the sanitizer. Alignment is at least that of a cache line.
void* operator new(size_t size, std::align_val_t) {
  constexpr size_t kMost = 1 << 30;  // bytes
  void* memory = size > kMost ? nullptr : std::aligned_alloc(64, (size + 64) / 64 * 64);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}
void* operator new(size_t size) {
  return operator new(size, std::align_val_t(64));
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, size_t) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::align_val_t) noexcept {
  std::free(memory);
}
void operator delete(void* memory, size_t, std::align_val_t) noexcept {
  std::free(memory);
}

extern "C" const char* __asan_default_options();  // NOLINT: the sanitizer's name
const char* __asan_default_options() {            // NOLINT
  return "alloc_dealloc_mismatch=0";  // other forms of new are still the sanitizer's own
}

using namespace quilmrun_fuzz;  // NOLINT: what the targets share

namespace {

void CheckDims(const quilm_mdl_io_dims& dims, size_t size, size_t stride) {
  Require(dims.dim_count <= QUILM_MAX_DIM_COUNT && stride > 0 && stride <= size);
  Require(std::memchr(dims.name, 0, sizeof(dims.name)) != nullptr);
}

// What the tool asks of a model that has been loaded.
void Describe(uint32_t model) {
  quilm_mdl_desc* desc = quilm_mdl_create_desc();
  Require(quilm_mdl_get_desc(desc, model) == 0);
  quilm_mdl_io_dims dims;
  for (size_t i = 0; i < quilm_mdl_get_num_inputs(desc); ++i) {
    Require(quilm_mdl_get_input_dims(desc, i, &dims) == 0);
    CheckDims(dims, quilm_mdl_get_input_size_by_index(desc, i),
              quilm_mdl_get_input_default_stride(desc, i));
  }
  for (size_t i = 0; i < quilm_mdl_get_num_outputs(desc); ++i) {
    Require(quilm_mdl_get_output_dims(desc, i, &dims) == 0);
    CheckDims(dims, quilm_mdl_get_output_size_by_index(desc, i),
              quilm_mdl_get_output_default_stride(desc, i));
  }
  Require(quilm_mdl_destroy_desc(desc) == 0);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static MemoryFile settings;
  static const quilm_error started = quilm_init(settings.Hold("{\"threads\": 1}").c_str());
  Require(started == 0);
  // As the tool hands it over: in memory of its very size, so that reading on is noticed.
  const std::vector<uint8_t> file(data, data + size);
  uint32_t model = 0;
  if (quilm_mdl_load_from_mem(file.data(), file.size(), &model) == 0) {
    Describe(model);
    Require(quilm_mdl_unload(model) == 0);
  }
  return 0;
}
