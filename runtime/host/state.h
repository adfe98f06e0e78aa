// What the host runtime remembers between calls: its settings, and all objects of its callers.
#ifndef QUILMRUN_RUNTIME_HOST_STATE_H_
#define QUILMRUN_RUNTIME_HOST_STATE_H_

#include <set>
#include <unordered_map>

#include "runtime/host/model.h"
#include "runtime/quilm.h"

struct quilm_mdl_desc {
  std::shared_ptr<const quilm_host::Model> model;  // null until quilm_mdl_get_desc()
};

struct quilm_data_buffer {
  void* pointer = nullptr;
  size_t size = 0;    // bytes
  size_t stride = 0;  // bytes
};

struct quilm_mdl_dataset {
  std::vector<quilm_data_buffer*> buffers;
  uint64_t batchSize = 1;
  int64_t totalT = 0;  // how many frames of a recurrent model's input 0 count; 0 means all
};

namespace quilm_host {

/// The name of the interface function that is being executed, for messages.
extern const char* currentCall;

/// Refuses the current call, with its name, unless `right`.
template <typename... Parts>
void RequireOfCaller(bool right, const Parts&... parts) {
  Require(right, currentCall, ": ", parts...);
}

/// Objects that callers know by a handle. Each use checks the handle, so that a stale one is an
/// error and not a crash.
template <typename Handle, typename Object>
class HandleTable {
 public:
  explicit HandleTable(const char* kind) : kind_(kind) {}

  void Add(Handle handle, std::shared_ptr<Object> object) {
    objects_.insert_or_assign(handle, std::move(object));
  }

  /// Adds a new object, whose address is its handle.
  Object* Create(Object content = {}) {
    auto object = std::make_shared<Object>(std::move(content));
    Add(object.get(), object);
    return object.get();
  }

  const std::shared_ptr<Object>& Find(Handle handle) const {
    const auto found = objects_.find(handle);
    RequireOfCaller(found != objects_.end(), kind_, " does not exist (any more)");
    return found->second;
  }

  void Remove(Handle handle) {
    Find(handle);
    objects_.erase(handle);
  }

  /// Says how many objects have not been removed.
  void ReportRest() const {
    if (!objects_.empty()) {
      Explain("still there at quilm_finalize: " + std::to_string(objects_.size()) + " x " + kind_);
    }
  }

 private:
  const char* kind_;
  std::unordered_map<Handle, std::shared_ptr<Object>> objects_;
};

struct MemoryBlock {
  std::shared_ptr<void> memory;
  size_t size = 0;  // bytes
};

template <typename Object>
using ObjectTable = HandleTable<const void*, Object>;

struct State {
  bool initialized = false;
  bool initFailed = false;
  bool deviceOpen = false;
  Settings settings;
  std::map<std::string, uint64_t> callCounts;
  std::set<std::string> hints;  // those that have been given
  long openFiles = 0;           // files of the process, at the end of quilm_init()
  uint32_t lastModelId = 0;
  ObjectTable<char> contexts{"context"};  // contexts and streams mean nothing on a PC
  ObjectTable<char> streams{"stream"};
  ObjectTable<MemoryBlock> memory{"block of device memory"};
  HandleTable<uint32_t, Model> models{"model"};
  ObjectTable<quilm_mdl_desc> descriptions{"model description"};
  ObjectTable<quilm_mdl_dataset> datasets{"dataset"};
  ObjectTable<quilm_data_buffer> buffers{"data buffer"};
};

extern State state;

/// Executes the model on the datasets: all batches at once where it can, otherwise one at a time.
void Execute(const Model& model, const quilm_mdl_dataset& input, const quilm_mdl_dataset& output);

}  // namespace quilm_host

#endif  // QUILMRUN_RUNTIME_HOST_STATE_H_
