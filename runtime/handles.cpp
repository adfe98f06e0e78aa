#include "runtime/handles.h"

#include <cstring>

#include "base/log.h"
#include "runtime/values.h"

namespace quilmrun {

DeviceMemory AllocateDeviceMemory(size_t size) {
  void* memory = nullptr;
  if (quilm_rt_malloc(&memory, size, kMemoryPolicy) != 0) {
    return nullptr;  // a pointer that comes with a failure is nobody's
  }
  if (memory != nullptr) {
    std::memset(memory, 0, size);
  }
  return DeviceMemory(memory);
}

DeviceMemory AllocateOrReport(size_t size) {
  DeviceMemory memory = AllocateDeviceMemory(size);
  if (memory == nullptr) {
    LogError("malloc device buffer failed. size is %zu", size);
  }
  return memory;
}

void DatasetDeleter::operator()(quilm_mdl_dataset* dataset) const {
  Release([=] {
    // The count is asked for anew: the runtime may lose entries when their buffers go.
    for (size_t i = 0; i < quilm_mdl_get_dataset_num_buffers(dataset); ++i) {
      const DataBuffer buffer(quilm_mdl_get_dataset_buffer(dataset, i));
      if (buffer != nullptr) {
        DeviceMemory(quilm_get_data_buffer_addr(buffer.get())).reset();
      }
    }
    return 0;
  });
  Release([=] { return quilm_mdl_destroy_dataset(dataset); });
}

}  // namespace quilmrun
