// Datasets and data buffers.
#include "runtime/host/state.h"

namespace quilm_host {
namespace {

quilm_data_buffer* CreateBuffer(void* pointer, size_t size, size_t stride) {
  const auto block = state.memory.Find(pointer);
  if (block == nullptr) {
    return nullptr;
  }
  if (size == 0 || size > block->size) {
    Explain("%s: %zu bytes asked for, the block of device memory has %zu", currentCall, size,
            block->size);
    return nullptr;
  }
  quilm_data_buffer* buffer = state.buffers.Create();
  *buffer = {pointer, size, stride};
  return buffer;
}

quilm_data_buffer* FindEntry(const quilm_mdl_dataset* handle, size_t index) {
  const auto dataset = state.datasets.Find(handle);
  if (dataset == nullptr) {
    return nullptr;
  }
  if (index >= dataset->buffers.size()) {
    Explain("%s: entry %zu, but there are %zu", currentCall, index, dataset->buffers.size());
    return nullptr;
  }
  return dataset->buffers[index];
}

quilm_error AddBuffer(quilm_mdl_dataset* handle, quilm_data_buffer* buffer) {
  const auto dataset = state.datasets.Find(handle);
  if (dataset == nullptr || state.buffers.Find(buffer) == nullptr) {
    return kUnknownHandle;
  }
  dataset->buffers.push_back(buffer);
  return kOk;
}

}  // namespace
}  // namespace quilm_host

using namespace quilm_host;  // NOLINT: what follows is this namespace's interface to C

quilm_mdl_dataset* quilm_mdl_create_dataset(void) {
  return Perform([] { return state.datasets.Create(); });
}

quilm_error quilm_mdl_destroy_dataset(quilm_mdl_dataset* dataset) {
  return Perform([=] { return state.datasets.Remove(dataset); });
}

quilm_error quilm_mdl_add_dataset_buffer(quilm_mdl_dataset* dataset, quilm_data_buffer* buffer) {
  return Perform([=] { return AddBuffer(dataset, buffer); });
}

size_t quilm_mdl_get_dataset_num_buffers(const quilm_mdl_dataset* dataset) {
  return Perform([=] {
    const auto found = state.datasets.Find(dataset);
    return found == nullptr ? 0 : found->buffers.size();
  });
}

quilm_data_buffer* quilm_mdl_get_dataset_buffer(const quilm_mdl_dataset* dataset, size_t index) {
  return Perform([=] { return FindEntry(dataset, index); });
}

quilm_data_buffer* quilm_create_data_buffer(void* pointer, size_t size, size_t stride) {
  return Perform([=] { return CreateBuffer(pointer, size, stride); });
}

quilm_error quilm_destroy_data_buffer(quilm_data_buffer* buffer) {
  return Perform([=] { return state.buffers.Remove(buffer); });
}

void* quilm_get_data_buffer_addr(const quilm_data_buffer* buffer) {
  return Perform([=] {
    const auto found = state.buffers.Find(buffer);
    return found == nullptr ? nullptr : found->pointer;
  });
}

size_t quilm_get_data_buffer_size(const quilm_data_buffer* buffer) {
  return Perform([=] {
    const auto found = state.buffers.Find(buffer);
    return found == nullptr ? 0 : found->size;
  });
}
