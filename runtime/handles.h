// Owners of what the runtime hands out: device memory, data buffers, descriptions and datasets.
//
// Every handle has exactly one owner of a type below, which releases it when destroyed. Error paths
// therefore need no release calls. Such calls stand elsewhere only where a message tells their
// result, or where their place among other calls is fixed.
#ifndef QUILMRUN_RUNTIME_HANDLES_H_
#define QUILMRUN_RUNTIME_HANDLES_H_

#include <cstddef>
#include <memory>

#include "runtime/quilm.h"
#include "runtime/release.h"

namespace quilmrun {

struct DeviceMemoryDeleter {
  void operator()(void* memory) const {
    Release([=] { return quilm_rt_free(memory); });
  }
};

/// A block of device memory, directly addressable by the host.
using DeviceMemory = std::unique_ptr<void, DeviceMemoryDeleter>;

/// Takes `size` bytes of device memory, every byte 0. Empty when the runtime refuses.
DeviceMemory AllocateDeviceMemory(size_t size);

/// The same; a refusal is reported with the size.
DeviceMemory AllocateOrReport(size_t size);

struct DataBufferDeleter {
  void operator()(quilm_data_buffer* buffer) const {
    Release([=] { return quilm_destroy_data_buffer(buffer); });
  }
};

/// A data buffer that is in no dataset yet; does not own the device memory it describes.
using DataBuffer = std::unique_ptr<quilm_data_buffer, DataBufferDeleter>;

struct DescriptionDeleter {
  void operator()(quilm_mdl_desc* desc) const {
    Release([=] { return quilm_mdl_destroy_desc(desc); });
  }
};

/// A model description; not tied to the life of the model.
using Description = std::unique_ptr<quilm_mdl_desc, DescriptionDeleter>;

struct DatasetDeleter {
  void operator()(quilm_mdl_dataset* dataset) const;
};

/// A dataset with everything in it: destruction frees the device memory of every entry, destroys
/// its data buffer, and destroys the dataset last.
using Dataset = std::unique_ptr<quilm_mdl_dataset, DatasetDeleter>;

/// Ends the ownership of a handle that now belongs to a dataset.
template <typename Owner>
void HandOverToDataset(Owner& owner) {
  static_cast<void>(owner.release());
}

}  // namespace quilmrun

#endif  // QUILMRUN_RUNTIME_HANDLES_H_
