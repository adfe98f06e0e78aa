// Model files for the host runtime: whatever is loaded can be described, executed and unloaded
// again.
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

// A dataset with a buffer for each input or output of the described model.
quilm_mdl_dataset* MakeDataset(const quilm_mdl_desc* desc, bool isInput) {
  const auto getCount = isInput ? quilm_mdl_get_num_inputs : quilm_mdl_get_num_outputs;
  const auto getDims = isInput ? quilm_mdl_get_input_dims : quilm_mdl_get_output_dims;
  const auto getSize =
      isInput ? quilm_mdl_get_input_size_by_index : quilm_mdl_get_output_size_by_index;
  const auto getStride =
      isInput ? quilm_mdl_get_input_default_stride : quilm_mdl_get_output_default_stride;
  quilm_mdl_dataset* dataset = quilm_mdl_create_dataset();
  for (size_t i = 0; i < getCount(desc); ++i) {
    quilm_mdl_io_dims dims;
    Require(getDims(desc, i, &dims) == 0 && dims.dim_count <= QUILM_MAX_DIM_COUNT);
    Require(std::memchr(dims.name, 0, sizeof(dims.name)) != nullptr);
    const size_t size = getSize(desc, i);
    const size_t stride = getStride(desc, i);
    Require(stride > 0 && stride <= size);
    void* memory = nullptr;
    Require(quilm_rt_malloc(&memory, size, 2) == 0);
    std::memset(memory, 0, size);
    // Small numbers: 1 and 0 as integers, so that counts of iterations are small too.
    for (size_t at = 0; at < size; at += 4) {
      static_cast<unsigned char*>(memory)[at] = 1;
    }
    quilm_mdl_add_dataset_buffer(dataset, quilm_create_data_buffer(memory, size, stride));
  }
  return dataset;
}

void Destroy(quilm_mdl_dataset* dataset) {
  for (size_t i = 0; i < quilm_mdl_get_dataset_num_buffers(dataset); ++i) {
    quilm_data_buffer* buffer = quilm_mdl_get_dataset_buffer(dataset, i);
    Require(quilm_rt_free(quilm_get_data_buffer_addr(buffer)) == 0);
    Require(quilm_destroy_data_buffer(buffer) == 0);
  }
  Require(quilm_mdl_destroy_dataset(dataset) == 0);
}

size_t TotalSize(const quilm_mdl_desc* desc) {
  size_t size = 0;
  for (size_t i = 0; i < quilm_mdl_get_num_inputs(desc); ++i) {
    size += quilm_mdl_get_input_size_by_index(desc, i);
  }
  for (size_t i = 0; i < quilm_mdl_get_num_outputs(desc); ++i) {
    size += quilm_mdl_get_output_size_by_index(desc, i);
  }
  return size;
}

void Run(uint32_t model) {
  constexpr size_t kMostSize = 64 << 20;  // bytes; filling more would only take time
  quilm_mdl_desc* desc = quilm_mdl_create_desc();
  Require(quilm_mdl_get_desc(desc, model) == 0);
  if (TotalSize(desc) <= kMostSize) {
    quilm_mdl_dataset* input = MakeDataset(desc, true);
    quilm_mdl_dataset* output = MakeDataset(desc, false);
    quilm_mdl_execute(model, input, output);  // computed or refused
    Destroy(input);
    Destroy(output);
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
    Run(model);
    Require(quilm_mdl_unload(model) == 0);
  }
  return 0;
}
