// The functions of runtime/quilm.h: each looks up its handles and passes on to what does the work.
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <optional>
#include <utility>

#include "runtime/host/state.h"

namespace quilm_host {

State state;
const char* currentCall = "";

namespace {

// The code of the fault that is due for the current call, which is counted and, if wanted, traced.
std::optional<int64_t> TakeFault() {
  const uint64_t count = ++state.callCounts[currentCall];
  if (state.settings.trace) {
    Explain(std::string("call: ") + currentCall + " " + std::to_string(count));
  }
  for (const Fault& fault : state.settings.faults) {
    if (fault.function == currentCall && fault.call == count) {
      return fault.code;
    }
  }
  return std::nullopt;
}

// The one place where refusals become explanations and results.
template <typename Result, typename Body, typename Failure>
Result Guard(const char* call, const Body& body, const Failure& failure) {
  currentCall = call;
  try {
    return body();
  } catch (const Refusal& refusal) {
    Explain(refusal.what());
    return failure(refusal.code);
  } catch (const std::exception& problem) {
    Explain(std::string(call) + ": " + problem.what());
    return failure(kOutOfMemory);
  }
}

// Runs the body of an interface function: not when a fault is due, and not before quilm_init().
template <typename Result, typename Body, typename Failure>
Result Perform(const char* call, const Body& body, const Failure& failure) {
  return Guard<Result>(
      call,
      [&]() -> Result {
        // After a failed start the reason has been told; teardown calls are only to be expected.
        if (state.initFailed) {
          return failure(kNotInitialized);
        }
        if (!state.initialized) {
          Refuse(kNotInitialized, call, " before quilm_init");
        }
        const std::optional<int64_t> code = TakeFault();
        if constexpr (std::is_pointer_v<Result>) {
          return code ? nullptr : body();
        } else {
          return code ? static_cast<Result>(*code) : body();
        }
      },
      failure);
}

template <typename... Texts>
void Require(bool right, const Texts&... texts) {
  if (!right) {
    Refuse(kBadArgument, currentCall, ": ", texts...);
  }
}

quilm_error UseDevice(int32_t deviceId, bool open) {
  const bool wasOpen = std::exchange(state.deviceOpen, false);
  Require(deviceId == 0, "there is no device ", std::to_string(deviceId));
  Require(wasOpen || open, "no device is open");
  state.deviceOpen = open;
  return kOk;
}

quilm_error CreateExecutionHandle(ObjectTable<char>& table, void** handle) {
  Require(handle != nullptr && state.deviceOpen, "no device is open");
  *handle = table.Create();
  return kOk;
}

long CountOpenFiles() {
  std::error_code none;
  const std::filesystem::directory_iterator files("/proc/self/fd", none);
  return std::distance(begin(files), end(files));
}

quilm_error Initialize(const char* configPath) {
  Require(!state.initialized, "already initialized");
  state = State();
  state.initFailed = true;
  const std::string path = configPath == nullptr ? "" : configPath;
  About("settings file " + path, [&] { state.settings = ReadSettings(path); });
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
    Explain("still there at quilm_finalize: " + std::to_string(files) + " x open file");
  }
  state.initialized = false;
  return kOk;
}

quilm_error Allocate(void** pointer, size_t size) {
  constexpr size_t kAlignment = 64;  // bytes, a cache line
  Require(pointer != nullptr && size > 0, std::to_string(size), " bytes cannot be allocated");
  // Beyond that a system that overcommits would say yes and then kill somebody.
  const bool isThere = size <= PhysicalMemory();
  const size_t rounded = (size + kAlignment - 1) / kAlignment * kAlignment;
  auto block = std::make_shared<MemoryBlock>();
  block->memory.reset(isThere ? std::aligned_alloc(kAlignment, rounded) : nullptr, std::free);
  block->size = size;
  if (block->memory == nullptr) {
    Refuse(kOutOfMemory, currentCall, ": no memory for ", std::to_string(size), " bytes");
  }
  *pointer = block->memory.get();
  state.memory.Add(*pointer, std::move(block));
  return kOk;
}

quilm_error Load(const void* data, size_t size, uint32_t* modelId) {
  Require(data != nullptr && size > 0 && modelId != nullptr, "there is no model");
  About("the model cannot be loaded", [&] {
    auto model = std::make_shared<Model>(LoadModel(data, size, state.settings));
    state.models.Add(++state.lastModelId, std::move(model));
  });
  *modelId = state.lastModelId;
  return kOk;
}

using TensorList = std::vector<Tensor> Model::*;

const std::vector<Tensor>& TensorsOf(const quilm_mdl_desc* desc, TensorList list) {
  const auto& model = state.descriptions.Find(desc)->model;
  Require(model != nullptr, "the description has not been filled");
  return (*model).*list;
}

const Tensor& TensorOf(const quilm_mdl_desc* desc, TensorList list, size_t index) {
  const std::vector<Tensor>& tensors = TensorsOf(desc, list);
  Require(index < tensors.size(), "index ", std::to_string(index), ", but there are ",
          std::to_string(tensors.size()));
  return tensors[index];
}

quilm_error GetDims(const Tensor& tensor, quilm_mdl_io_dims* dims) {
  Require(dims != nullptr, "nowhere to put the dimensions");
  *dims = {};
  std::memcpy(dims->name, tensor.name.c_str(), tensor.name.size());
  dims->dims[0] = 1;  // what a scalar is described as
  dims->dim_count = std::max<size_t>(tensor.dims.size(), 1);
  std::copy(tensor.dims.begin(), tensor.dims.end(), dims->dims);
  return kOk;
}

quilm_data_buffer* CreateBuffer(void* pointer, size_t size, size_t stride) {
  const size_t there = state.memory.Find(pointer)->size;
  Require(size > 0 && size <= there, std::to_string(size),
          " bytes asked for, the block of device memory has ", std::to_string(there));
  return state.buffers.Create({pointer, size, stride});
}

quilm_data_buffer* FindEntry(const quilm_mdl_dataset& dataset, size_t index) {
  Require(index < dataset.buffers.size(), "entry ", std::to_string(index), ", but there are ",
          std::to_string(dataset.buffers.size()));
  return dataset.buffers[index];
}

quilm_error SetBatchSize(const Model&, quilm_mdl_dataset& input, size_t index, uint64_t batchSize) {
  Require(batchSize > 0 && index == 0, "batch size ", std::to_string(batchSize), " at index ",
          std::to_string(index), ": it is 1 or more, at index 0");
  input.batchSize = batchSize;
  return kOk;
}

quilm_error SetTotalT(const Model& model, quilm_mdl_dataset& input, int64_t totalT) {
  const int64_t frames = model.netType == kRecurrent ? model.inputs[0].dims.front() : 0;
  Require(totalT >= 1 && totalT <= frames, "total_t ", std::to_string(totalT),
          ", the model takes up to ", std::to_string(frames), " frames");
  input.totalT = totalT;
  return kOk;
}

}  // namespace
}  // namespace quilm_host

using namespace quilm_host;  // NOLINT: what follows is this namespace's interface to C

// One row a call: result and what stands for it after a failure, name and parameters, what it does.
// Errors tell failures by their code.
// NOLINTBEGIN(bugprone-macro-parentheses): types and parameter lists stand in none.
#define QUERY(Result, failed, name, parameters, ...)    \
  Result name parameters {                              \
    return Perform<Result>(                             \
        #name, [&]() -> Result { return __VA_ARGS__; }, \
        [](ErrorCode) -> Result { return failed; });    \
  }
#define ACTION(name, parameters, ...)                        \
  quilm_error name parameters {                              \
    return Perform<quilm_error>(                             \
        #name, [&]() -> quilm_error { return __VA_ARGS__; }, \
        [](ErrorCode code) -> quilm_error { return code; }); \
  }

quilm_error quilm_init(const char* config_path) {
  return Guard<quilm_error>(
      __func__, [&] { return Initialize(config_path); }, [](ErrorCode code) { return code; });
}
ACTION(quilm_finalize, (void), Finalize())
ACTION(quilm_rt_set_device, (int32_t device_id), UseDevice(device_id, true))
ACTION(quilm_rt_reset_device, (int32_t device_id), UseDevice(device_id, false))
ACTION(quilm_rt_set_op_wait_timeout, (uint32_t),
       (Require(state.deviceOpen, "no device is open"), kOk))
ACTION(quilm_rt_create_context, (quilm_rt_context * context, int32_t device_id),
       (Require(device_id == 0, "there is no such device"),
        CreateExecutionHandle(state.contexts, context)))
ACTION(quilm_rt_destroy_context, (quilm_rt_context context), state.contexts.Remove(context))
ACTION(quilm_rt_create_stream, (quilm_rt_stream * stream),
       CreateExecutionHandle(state.streams, stream))
ACTION(quilm_rt_destroy_stream, (quilm_rt_stream stream), state.streams.Remove(stream))
ACTION(quilm_rt_get_run_mode, (uint32_t * run_mode),
       (Require(run_mode != nullptr, "nowhere to put it"), *run_mode = state.settings.runMode, kOk))

ACTION(quilm_rt_malloc, (void** pointer, size_t size, int32_t), Allocate(pointer, size))
ACTION(quilm_rt_free, (void* pointer), state.memory.Remove(pointer))

ACTION(quilm_mdl_load_from_mem, (const void* model, size_t size, uint32_t* model_id),
       Load(model, size, model_id))
ACTION(quilm_mdl_unload, (uint32_t model_id), state.models.Remove(model_id))
QUERY(quilm_mdl_desc*, nullptr, quilm_mdl_create_desc, (void), state.descriptions.Create())
ACTION(quilm_mdl_destroy_desc, (quilm_mdl_desc * desc), state.descriptions.Remove(desc))
ACTION(quilm_mdl_get_desc, (quilm_mdl_desc * desc, uint32_t model_id),
       (state.descriptions.Find(desc)->model = state.models.Find(model_id), kOk))
QUERY(size_t, 0, quilm_mdl_get_num_inputs, (const quilm_mdl_desc* desc),
      TensorsOf(desc, &Model::inputs).size())
QUERY(size_t, 0, quilm_mdl_get_num_outputs, (const quilm_mdl_desc* desc),
      TensorsOf(desc, &Model::outputs).size())
ACTION(quilm_mdl_get_input_dims,
       (const quilm_mdl_desc* desc, size_t index, quilm_mdl_io_dims* dims),
       GetDims(TensorOf(desc, &Model::inputs, index), dims))
ACTION(quilm_mdl_get_output_dims,
       (const quilm_mdl_desc* desc, size_t index, quilm_mdl_io_dims* dims),
       GetDims(TensorOf(desc, &Model::outputs, index), dims))
QUERY(int32_t, -1, quilm_mdl_get_input_data_type, (const quilm_mdl_desc* desc, size_t index),
      TensorOf(desc, &Model::inputs, index).type->code)
QUERY(int32_t, -1, quilm_mdl_get_output_data_type, (const quilm_mdl_desc* desc, size_t index),
      TensorOf(desc, &Model::outputs, index).type->code)
QUERY(size_t, 0, quilm_mdl_get_input_size_by_index, (const quilm_mdl_desc* desc, size_t index),
      TensorOf(desc, &Model::inputs, index).size)
QUERY(size_t, 0, quilm_mdl_get_output_size_by_index, (const quilm_mdl_desc* desc, size_t index),
      TensorOf(desc, &Model::outputs, index).size)
QUERY(size_t, 0, quilm_mdl_get_input_default_stride, (const quilm_mdl_desc* desc, size_t index),
      TensorOf(desc, &Model::inputs, index).stride)
QUERY(size_t, 0, quilm_mdl_get_output_default_stride, (const quilm_mdl_desc* desc, size_t index),
      TensorOf(desc, &Model::outputs, index).stride)
QUERY(int32_t, 0, quilm_mdl_get_input_format, (const quilm_mdl_desc* desc, size_t index),
      (TensorOf(desc, &Model::inputs, index), 0))
QUERY(int32_t, 0, quilm_mdl_get_output_format, (const quilm_mdl_desc* desc, size_t index),
      (TensorOf(desc, &Model::outputs, index), 0))
QUERY(const char*, nullptr, quilm_mdl_get_output_name_by_index,
      (const quilm_mdl_desc* desc, size_t index),
      TensorOf(desc, &Model::outputs, index).name.c_str())

QUERY(quilm_mdl_dataset*, nullptr, quilm_mdl_create_dataset, (void), state.datasets.Create())
ACTION(quilm_mdl_destroy_dataset, (quilm_mdl_dataset * dataset), state.datasets.Remove(dataset))
ACTION(quilm_mdl_add_dataset_buffer, (quilm_mdl_dataset * dataset, quilm_data_buffer* buffer),
       (state.datasets.Find(dataset)->buffers.push_back(state.buffers.Find(buffer).get()), kOk))
QUERY(size_t, 0, quilm_mdl_get_dataset_num_buffers, (const quilm_mdl_dataset* dataset),
      state.datasets.Find(dataset)->buffers.size())
QUERY(quilm_data_buffer*, nullptr, quilm_mdl_get_dataset_buffer,
      (const quilm_mdl_dataset* dataset, size_t index),
      FindEntry(*state.datasets.Find(dataset), index))
QUERY(quilm_data_buffer*, nullptr, quilm_create_data_buffer,
      (void* pointer, size_t size, size_t stride), CreateBuffer(pointer, size, stride))
ACTION(quilm_destroy_data_buffer, (quilm_data_buffer * buffer), state.buffers.Remove(buffer))
QUERY(void*, nullptr, quilm_get_data_buffer_addr, (const quilm_data_buffer* buffer),
      state.buffers.Find(buffer)->pointer)
QUERY(size_t, 0, quilm_get_data_buffer_size, (const quilm_data_buffer* buffer),
      state.buffers.Find(buffer)->size)
QUERY(size_t, 0, quilm_data_type_size, (int32_t data_type), DataTypeBits(data_type))

ACTION(quilm_mdl_set_dynamic_batch_size,
       (uint32_t model_id, quilm_mdl_dataset* input, size_t index, uint64_t batch_size),
       SetBatchSize(*state.models.Find(model_id), *state.datasets.Find(input), index, batch_size))
ACTION(quilm_ext_get_mdl_net_type, (uint32_t model_id, int32_t* net_type),
       (Require(net_type != nullptr, "nowhere to put it"),
        *net_type = state.models.Find(model_id)->netType, kOk))
ACTION(quilm_mdl_set_total_t, (uint32_t model_id, quilm_mdl_dataset* input, int64_t total_t),
       SetTotalT(*state.models.Find(model_id), *state.datasets.Find(input), total_t))
ACTION(quilm_mdl_execute,
       (uint32_t model_id, const quilm_mdl_dataset* input, quilm_mdl_dataset* output),
       (Execute(*state.models.Find(model_id), *state.datasets.Find(input),
                *state.datasets.Find(output)),
        kOk))
// NOLINTEND(bugprone-macro-parentheses)
