// What the host runtime remembers between calls: settings, and everything it has handed out.
#ifndef QUILMRUN_RUNTIME_HOST_STATE_H_
#define QUILMRUN_RUNTIME_HOST_STATE_H_

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "runtime/host/diagnostics.h"
#include "runtime/host/model.h"
#include "runtime/host/settings.h"
#include "runtime/quilm.h"

namespace quilm_host {

struct MemoryBlock {
  struct Deleter {
    void operator()(void* memory) const { std::free(memory); }
  };
  std::unique_ptr<void, Deleter> memory;
  size_t size = 0;  // bytes
};

struct ExecutionHandle {};  // contexts and streams mean nothing on a PC

}  // namespace quilm_host

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
  int64_t totalT = 0;  // frames that count, of input 0 of a recurrent model; 0 means all
};

namespace quilm_host {

enum ErrorCode : quilm_error {
  kOk = 0,
  kNotInitialized = 100,
  kBadArgument = 101,
  kUnknownHandle = 102,
  kOutOfMemory = 103,
  kBadSettings = 104,
  kBadModel = 105,
  kBadDataset = 106,
  kEngineFailed = 107,
};

/// The interface function being executed, for explanations.
extern const char* currentCall;

/// Objects that callers know by a handle. Handles are checked, so that a stale one is an error and
/// not a crash.
template <typename Handle, typename Object>
class HandleTable {
 public:
  explicit HandleTable(const char* kind) : kind_(kind) {}

  void Add(Handle handle, std::shared_ptr<Object> object) {
    objects_.insert_or_assign(handle, std::move(object));
  }

  /// A new object whose address is its handle.
  Object* Create() {
    auto object = std::make_shared<Object>();
    Add(object.get(), object);
    return object.get();
  }

  /// Null, with an explanation, when there is no such object.
  std::shared_ptr<Object> Find(Handle handle) {
    const auto found = objects_.find(handle);
    if (found == objects_.end()) {
      Explain("%s: %s does not exist (any more)", currentCall, kind_);
      return nullptr;
    }
    return found->second;
  }

  quilm_error Remove(Handle handle) {
    if (Find(handle) == nullptr) {
      return kUnknownHandle;
    }
    objects_.erase(handle);
    return kOk;
  }

  void ReportAndClear() {
    if (!objects_.empty()) {
      Explain("still there at quilm_finalize: %zu x %s", objects_.size(), kind_);
      objects_.clear();
    }
  }

 private:
  const char* kind_;
  std::unordered_map<Handle, std::shared_ptr<Object>> objects_;
};

template <typename Object>
using ObjectTable = HandleTable<const void*, Object>;

struct State {
  bool initialized = false;
  bool initFailed = false;
  bool deviceOpen = false;
  Settings settings;
  std::map<std::string, uint64_t> callCounts;
  long openFiles = 0;  // of the process, at the end of quilm_init()
  uint32_t lastModelId = 0;
  ObjectTable<ExecutionHandle> contexts{"context"};
  ObjectTable<ExecutionHandle> streams{"stream"};
  ObjectTable<MemoryBlock> memory{"block of device memory"};
  HandleTable<uint32_t, Model> models{"model"};
  ObjectTable<quilm_mdl_desc> descriptions{"model description"};
  ObjectTable<quilm_mdl_dataset> datasets{"dataset"};
  ObjectTable<quilm_data_buffer> buffers{"data buffer"};
};

extern State state;

/// The code of the fault that is due for the current call, which is counted and, if wanted, traced;
/// usually none.
std::optional<int64_t> TakeFault();

/// True when calls other than quilm_init() are in order; explains when not.
bool CheckInitialized();

/// What an interface function returns that was not executed.
template <typename Result>
constexpr Result Failure() {
  if constexpr (std::is_pointer_v<Result>) {
    return nullptr;
  } else {
    return static_cast<Result>(std::is_same_v<Result, size_t> ? 0 : kNotInitialized);
  }
}

/// Runs the body of the interface function that calls this: not when a fault is due, not before
/// quilm_init(), and with exceptions turned into a failure. The result of a failure is `failure`.
template <typename Body, typename Result = decltype(std::declval<Body>()())>
Result Perform(const Body& body, Result failure = Failure<Result>(),
               const char* call = __builtin_FUNCTION()) {
  currentCall = call;
  try {
    if (!CheckInitialized()) {
      return failure;
    }
    if (const std::optional<int64_t> code = TakeFault()) {
      if constexpr (std::is_pointer_v<Result>) {
        return nullptr;
      } else {
        return static_cast<Result>(*code);
      }
    }
    return body();
  } catch (const std::exception& problem) {
    Explain("%s: %s", call, problem.what());
    return failure;
  }
}

}  // namespace quilm_host

#endif  // QUILMRUN_RUNTIME_HOST_STATE_H_
