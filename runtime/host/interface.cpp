// The functions of runtime/quilm.h. Each looks up its handles and calls what does the work.
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <utility>

#include "runtime/host/state.h"
#include "runtime/interposer/interposer.h"

namespace quilm_host {

State state;
const char* currentCall = "";

namespace {

using RunMode = uint32_t;  // 0: the host addresses device memory

// Counts the current call, names it on standard error when the settings say so, and throws the
// fault that they have for it. Nothing else needs the count.
void CountCall() {
  if (!state.settings.trace && state.settings.faults.empty()) {
    return;
  }
  const uint64_t count = ++state.callCounts[currentCall];
  if (state.settings.trace) {
    Explain(std::string("call: ") + currentCall + " " + std::to_string(count));
  }
  for (const Fault& fault : state.settings.faults) {
    if (fault.function == currentCall && fault.call == count) {
      throw fault;
    }
  }
}

// Calls the body of an interface function. A body that returns nothing has succeeded when it ends.
// This is the one place where refusals become messages and results.
template <typename Result, typename Body>
Result Guard(const char* call, const Body& body) {
  Result failure{};  // null, or a size of 0
  currentCall = call;
  try {
    if constexpr (std::is_void_v<decltype(body())>) {
      body();
      return Result();
    } else {
      return body();
    }
  } catch (const Fault& fault) {
    if constexpr (!std::is_pointer_v<Result>) {
      return static_cast<Result>(fault.code);
    }
  } catch (const Refusal& refusal) {
    Explain(refusal.what());
  } catch (const std::exception& problem) {
    Explain(std::string(call) + ": " + problem.what());
  }
  if constexpr (std::is_same_v<Result, int32_t>) {
    failure = -1;
  }
  return failure;
}

template <typename Result, typename Body>
Result Perform(const char* call, const Body& body) {
  return Guard<Result>(call, [&] {
    // The caller has read why the start failed. The calls of its teardown need no message.
    Require(!state.initFailed, "");
    Require(state.initialized, call, " before quilm_init");
    CountCall();
    return body();
  });
}

void UseDevice(int32_t deviceId, bool open) {
  const bool wasOpen = std::exchange(state.deviceOpen, false);
  RequireOfCaller(deviceId == 0, "there is no device ", deviceId);
  RequireOfCaller(wasOpen || open, "no device is open");
  state.deviceOpen = open;
}

void CreateExecutionHandle(ObjectTable<char>& table, void** handle, int32_t deviceId) {
  RequireOfCaller(handle != nullptr && state.deviceOpen, "no device is open");
  RequireOfCaller(deviceId == 0, "there is no such device");
  *handle = table.Create();
}

long CountOpenFiles() {
  std::error_code none;
  const std::filesystem::directory_iterator files("/proc/self/fd", none);
  return std::distance(begin(files), end(files));
}

void Initialize(const char* configPath) {
  RequireOfCaller(!state.initialized, "already initialized");
  state = State();
  state.initFailed = true;
  const std::string path = configPath == nullptr ? "" : configPath;
  WithContext([&] { return "settings file " + path; },
              [&] { state.settings = ReadSettings(path); });
  CountCall();
  state.openFiles = CountOpenFiles();
  state.initialized = true;
  state.initFailed = false;
}

void Finalize() {
  state.contexts.ReportRest();
  state.streams.ReportRest();
  state.datasets.ReportRest();
  state.buffers.ReportRest();
  state.descriptions.ReportRest();
  state.models.ReportRest();
  state.memory.ReportRest();
  const long filesBefore = std::exchange(state, State()).openFiles;
  if (const long files = CountOpenFiles() - filesBefore; files > 0) {
    Explain("still there at quilm_finalize: " + std::to_string(files) + " x open file");
  }
}

template <typename Value>
void Put(Value value, Value* where) {
  RequireOfCaller(where != nullptr, "nowhere to put it");
  *where = value;
}

void Allocate(void** pointer, size_t size) {
  constexpr size_t kAlignment = 64;  // bytes, a cache line
  RequireOfCaller(pointer != nullptr && size > 0, size, " bytes cannot be allocated");
  // A system that overcommits memory would grant more than it has, and later end a process.
  const size_t rounded = (size + kAlignment - 1) / kAlignment * kAlignment;
  void* memory = size <= PhysicalMemory() ? std::aligned_alloc(kAlignment, rounded) : nullptr;
  RequireOfCaller(memory != nullptr, "no memory for ", size, " bytes");
  const std::shared_ptr<void> owner(memory, std::free);
  state.memory.Add(memory, std::make_shared<MemoryBlock>(MemoryBlock{owner, size}));
  *pointer = memory;
}

void Load(const void* data, size_t size, uint32_t* modelId) {
  RequireOfCaller(data != nullptr && size > 0 && modelId != nullptr, "there is no model");
  WithContext([] { return "the model cannot be loaded"; },
              [&] {
                Model model = LoadModel({static_cast<const char*>(data), size}, state.settings);
                state.models.Add(++state.lastModelId, std::make_shared<Model>(std::move(model)));
              });
  *modelId = state.lastModelId;
}

const Model& ModelOf(const quilm_mdl_desc* desc) {
  const auto& model = state.descriptions.Find(desc)->model;
  RequireOfCaller(model != nullptr, "the description has not been filled");
  return *model;
}

template <typename Element>
const Element& At(const std::vector<Element>& elements, size_t index) {
  RequireOfCaller(index < elements.size(), "index ", index, ", but there are ", elements.size());
  return elements[index];
}

void GetDims(const Tensor& tensor, quilm_mdl_io_dims* dims) {
  Put({}, dims);
  std::memcpy(dims->name, tensor.name.c_str(), tensor.name.size());
  dims->dims[0] = 1;  // a scalar is described as one element
  dims->dim_count = std::max<size_t>(tensor.dims.size(), 1);
  std::copy(tensor.dims.begin(), tensor.dims.end(), dims->dims);
}

quilm_data_buffer* CreateBuffer(void* pointer, size_t size, size_t stride) {
  const size_t there = state.memory.Find(pointer)->size;
  RequireOfCaller(size > 0 && size <= there, size,
                  " bytes asked for, the block of device memory has ", there);
  return state.buffers.Create({pointer, size, stride});
}

void SetBatchSize(const Model&, quilm_mdl_dataset& input, size_t index, uint64_t batchSize) {
  RequireOfCaller(batchSize > 0 && index == 0, "batch size ", batchSize, " at index ", index,
                  ": it is 1 or more, at index 0");
  input.batchSize = batchSize;
}

void SetTotalT(const Model& model, quilm_mdl_dataset& input, int64_t totalT) {
  const int64_t frames = model.netType == kRecurrent ? model.inputs[0].dims.front() : 0;
  RequireOfCaller(totalT >= 1 && totalT <= frames, "total_t ", totalT, ", the model takes up to ",
                  frames, " frames");
  input.totalT = totalT;
}

}  // namespace
}  // namespace quilm_host

using namespace quilm_host;  // NOLINT: what follows is this namespace's interface to C

// Defines a function by its name, its parameters and what it does; runtime/quilm.h has the result's
// type.
// NOLINTBEGIN(bugprone-macro-parentheses): types and parameter lists take none.
#define CALL(name, parameters, ...)                                         \
  quilm_interposer::ResultOf<quilm_interposer::Id::name> name parameters {  \
    return Perform<quilm_interposer::ResultOf<quilm_interposer::Id::name>>( \
        #name, [&] { return __VA_ARGS__; });                                \
  }

quilm_error quilm_init(const char* config_path) {
  return Guard<quilm_error>(__func__, [&] { return Initialize(config_path); });
}
CALL(quilm_finalize, (void), Finalize())
CALL(quilm_rt_set_device, (int32_t device_id), UseDevice(device_id, true))
CALL(quilm_rt_reset_device, (int32_t device_id), UseDevice(device_id, false))
CALL(quilm_rt_set_op_wait_timeout, (uint32_t),
     RequireOfCaller(state.deviceOpen, "no device is open"))
CALL(quilm_rt_create_context, (quilm_rt_context * context, int32_t device_id),
     CreateExecutionHandle(state.contexts, context, device_id))
CALL(quilm_rt_destroy_context, (quilm_rt_context context), state.contexts.Remove(context))
CALL(quilm_rt_create_stream, (quilm_rt_stream * stream),
     CreateExecutionHandle(state.streams, stream, 0))
CALL(quilm_rt_destroy_stream, (quilm_rt_stream stream), state.streams.Remove(stream))
CALL(quilm_rt_get_run_mode, (RunMode * mode),
     Put(static_cast<RunMode>(state.settings.run_mode), mode))
CALL(quilm_rt_malloc, (void** pointer, size_t size, int32_t), Allocate(pointer, size))
CALL(quilm_rt_free, (void* pointer), state.memory.Remove(pointer))

CALL(quilm_mdl_load_from_mem, (const void* model, size_t size, uint32_t* model_id),
     Load(model, size, model_id))
CALL(quilm_mdl_unload, (uint32_t model_id), state.models.Remove(model_id))
CALL(quilm_mdl_create_desc, (void), state.descriptions.Create())
CALL(quilm_mdl_destroy_desc, (quilm_mdl_desc * desc), state.descriptions.Remove(desc))
CALL(quilm_mdl_get_desc, (quilm_mdl_desc * desc, uint32_t model_id),
     (void)(state.descriptions.Find(desc)->model = state.models.Find(model_id)))

#define OF_ONE(name, list, ...) \
  CALL(name, (const quilm_mdl_desc* desc, size_t index), At(ModelOf(desc).list, index).__VA_ARGS__)
#define OF_INPUTS_OR_OUTPUTS(kind)                                                              \
  CALL(quilm_mdl_get_num_##kind##s, (const quilm_mdl_desc* desc), ModelOf(desc).kind##s.size()) \
  CALL(quilm_mdl_get_##kind##_dims,                                                             \
       (const quilm_mdl_desc* desc, size_t index, quilm_mdl_io_dims* dims),                     \
       GetDims(At(ModelOf(desc).kind##s, index), dims))                                         \
  OF_ONE(quilm_mdl_get_##kind##_data_type, kind##s, type->code)                                 \
  OF_ONE(quilm_mdl_get_##kind##_size_by_index, kind##s, size)                                   \
  OF_ONE(quilm_mdl_get_##kind##_default_stride, kind##s, stride)                                \
  OF_ONE(quilm_mdl_get_##kind##_format, kind##s, format)
OF_INPUTS_OR_OUTPUTS(input)
OF_INPUTS_OR_OUTPUTS(output)
OF_ONE(quilm_mdl_get_output_name_by_index, outputs, name.c_str())

CALL(quilm_mdl_create_dataset, (void), state.datasets.Create())
CALL(quilm_mdl_destroy_dataset, (quilm_mdl_dataset * dataset), state.datasets.Remove(dataset))
CALL(quilm_mdl_add_dataset_buffer, (quilm_mdl_dataset * dataset, quilm_data_buffer* buffer),
     state.datasets.Find(dataset)->buffers.push_back(state.buffers.Find(buffer).get()))
CALL(quilm_mdl_get_dataset_num_buffers, (const quilm_mdl_dataset* dataset),
     state.datasets.Find(dataset)->buffers.size())
CALL(quilm_mdl_get_dataset_buffer, (const quilm_mdl_dataset* dataset, size_t index),
     At(state.datasets.Find(dataset)->buffers, index))
CALL(quilm_create_data_buffer, (void* pointer, size_t size, size_t stride),
     CreateBuffer(pointer, size, stride))
CALL(quilm_destroy_data_buffer, (quilm_data_buffer * buffer), state.buffers.Remove(buffer))
CALL(quilm_get_data_buffer_addr, (const quilm_data_buffer* buffer),
     state.buffers.Find(buffer)->pointer)
CALL(quilm_get_data_buffer_size, (const quilm_data_buffer* buffer),
     state.buffers.Find(buffer)->size)
CALL(quilm_data_type_size, (int32_t data_type), DataTypeBits(data_type))

CALL(quilm_mdl_set_dynamic_batch_size,
     (uint32_t model_id, quilm_mdl_dataset* input, size_t index, uint64_t batch_size),
     SetBatchSize(*state.models.Find(model_id), *state.datasets.Find(input), index, batch_size))
CALL(quilm_ext_get_mdl_net_type, (uint32_t model_id, int32_t* net_type),
     Put(state.models.Find(model_id)->netType, net_type))
CALL(quilm_mdl_set_total_t, (uint32_t model_id, quilm_mdl_dataset* input, int64_t total_t),
     SetTotalT(*state.models.Find(model_id), *state.datasets.Find(input), total_t))
CALL(quilm_mdl_execute,
     (uint32_t model_id, const quilm_mdl_dataset* input, quilm_mdl_dataset* output),
     Execute(*state.models.Find(model_id), *state.datasets.Find(input),
             *state.datasets.Find(output)))
// NOLINTEND(bugprone-macro-parentheses)
