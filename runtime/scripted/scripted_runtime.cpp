// A libquilm.so for tests and benchmarks. It passes calls on to the host runtime. Where its script
// describes a model, it answers for that model itself; memory, datasets and buffers stay with the
// host runtime, which checks handles and tells what is left at the end. An execution of such a
// model copies the bytes of input 0 to the start of output 0.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "runtime/interposer/interposer.h"
#include "runtime/scripted/script.h"

using namespace quilm_interposer;  // NOLINT: what all of this is about

namespace {

__attribute__((constructor)) void Open() {
  if (const char* problem = OpenRealLibrary(QUILMRUN_REAL_RUNTIME)) {
    std::fprintf(stderr, "scripted runtime: %s\n", problem);
    std::abort();
  }
  callsInProgress = 0;
}

struct CallInProgress {
  CallInProgress() { ++callsInProgress; }
  ~CallInProgress() { --callsInProgress; }
  CallInProgress(const CallInProgress&) = delete;
  CallInProgress& operator=(const CallInProgress&) = delete;
};

const ScriptedTensor& At(const std::vector<ScriptedTensor>& tensors, size_t index) {
  static const ScriptedTensor kNone;
  return index < tensors.size() ? tensors[index] : kNone;
}

quilm_error FillDims(const ScriptedTensor& tensor, quilm_mdl_io_dims* dims) {
  if (tensor.name == "*") {
    std::memset(dims->name, 'n', sizeof(dims->name));
  } else {
    std::snprintf(dims->name, sizeof(dims->name), "%s", tensor.name.c_str());
  }
  dims->dim_count =
      static_cast<size_t>(NumberOr("dim_count", static_cast<long>(tensor.dims.size())));
  std::copy(tensor.dims.begin(), tensor.dims.end(), dims->dims);
  return 0;
}

struct Block {
  unsigned char* bytes;
  size_t size;
};

Block EntryOf(const quilm_mdl_dataset* dataset, size_t index) {
  const quilm_data_buffer* buffer = Pass(Call<Id::quilm_mdl_get_dataset_buffer>(), dataset, index);
  void* bytes = Pass(Call<Id::quilm_get_data_buffer_addr>(), buffer);
  return {static_cast<unsigned char*>(bytes), Pass(Call<Id::quilm_get_data_buffer_size>(), buffer)};
}

void LogDataset(const quilm_mdl_dataset* dataset) {
  const size_t count = Pass(Call<Id::quilm_mdl_get_dataset_num_buffers>(), dataset);
  for (size_t entry = 0; script.log != nullptr && entry < count; ++entry) {
    const Block block = EntryOf(dataset, entry);
    std::fprintf(script.log, "  %zu/%zu:", block.size, script.strides[block.bytes]);
    for (size_t i = 0; i < std::min<size_t>(block.size, 256); ++i) {
      std::fprintf(script.log, "%02x", block.bytes[i]);
    }
    std::fputc('\n', script.log);
  }
}

// ---- What a described model answers -------------------------------------------------------------

template <Id kId>
using Tag = Call<kId>;

quilm_error Describe(Tag<Id::quilm_mdl_load_from_mem>, const void*, size_t, uint32_t* model) {
  *model = 4000000077;  // beyond what a signed number holds
  return 0;
}

size_t Describe(Tag<Id::quilm_mdl_get_num_inputs>, const quilm_mdl_desc*) {
  return script.inputs.size();
}

size_t Describe(Tag<Id::quilm_mdl_get_num_outputs>, const quilm_mdl_desc*) {
  return script.outputs.size();
}

quilm_error Describe(Tag<Id::quilm_mdl_get_input_dims>, const quilm_mdl_desc*, size_t index,
                     quilm_mdl_io_dims* dims) {
  return FillDims(At(script.inputs, index), dims);
}

quilm_error Describe(Tag<Id::quilm_mdl_get_output_dims>, const quilm_mdl_desc*, size_t index,
                     quilm_mdl_io_dims* dims) {
  return FillDims(At(script.outputs, index), dims);
}

#define SCRIPTED_FIELD(question, list, field)                                               \
  ResultOf<Id::question> Describe(Tag<Id::question>, const quilm_mdl_desc*, size_t index) { \
    return At(script.list, index).field;                                                    \
  }
SCRIPTED_FIELD(quilm_mdl_get_input_data_type, inputs, type)
SCRIPTED_FIELD(quilm_mdl_get_output_data_type, outputs, type)
SCRIPTED_FIELD(quilm_mdl_get_input_size_by_index, inputs, size)
SCRIPTED_FIELD(quilm_mdl_get_output_size_by_index, outputs, size)
SCRIPTED_FIELD(quilm_mdl_get_input_default_stride, inputs, stride)
SCRIPTED_FIELD(quilm_mdl_get_output_default_stride, outputs, stride)

int32_t Describe(Tag<Id::quilm_mdl_get_input_format>, const quilm_mdl_desc*, size_t) {
  return -2;
}

int32_t Describe(Tag<Id::quilm_mdl_get_output_format>, const quilm_mdl_desc*, size_t) {
  return 70005;
}

const char* Describe(Tag<Id::quilm_mdl_get_output_name_by_index>, const quilm_mdl_desc*,
                     size_t index) {
  const std::string& name = At(script.outputs, index).name;
  return name == "-" ? nullptr : name == "." ? "" : name.c_str();
}

size_t Describe(Tag<Id::quilm_data_type_size>, int32_t type) {
  static const std::map<int32_t, size_t> kBits = {{0, 32}, {1, 16}, {2, 8},  {3, 32}, {4, 8},
                                                  {5, 4},  {6, 16}, {7, 16}, {8, 8},  {-1, 32}};
  const auto found = kBits.find(type);
  return found == kBits.end() ? 0 : found->second;
}

quilm_error Describe(Tag<Id::quilm_ext_get_mdl_net_type>, uint32_t, int32_t* type) {
  *type = static_cast<int32_t>(NumberOr("net_type", 0));
  return 0;
}

quilm_error Describe(Tag<Id::quilm_mdl_execute>, uint32_t, const quilm_mdl_dataset* input,
                     quilm_mdl_dataset* output) {
  LogDataset(input);
  if (!script.outputs.empty()) {
    const Block source = EntryOf(input, 0);
    const Block target = EntryOf(output, 0);
    std::memcpy(target.bytes, source.bytes, std::min(source.size, target.size));
  }
  return 0;
}

// Hands out memory as an accelerator does: there is little of it, and it is not cleared.
quilm_error Describe(Tag<Id::quilm_rt_malloc> call, void** pointer, size_t size, int32_t policy) {
  if (size == 0 || size >= size_t{1} << 40) {
    *pointer = nullptr;
    return 2;
  }
  const quilm_error result = Pass(call, pointer, size, policy);
  if (result == 0 && script.log != nullptr) {
    std::memset(*pointer, 0xEE, size);
  }
  return result;
}

quilm_data_buffer* Describe(Tag<Id::quilm_create_data_buffer> call, void* pointer, size_t size,
                            size_t stride) {
  if (script.log != nullptr) {  // nobody else reads the map, which would grow with every call
    script.strides[pointer] = stride;
  }
  return Pass(call, pointer, size, stride);
}

size_t Describe(Tag<Id::quilm_get_data_buffer_size> call, const quilm_data_buffer* buffer) {
  return static_cast<size_t>(NumberOr("reported_size", static_cast<long>(Pass(call, buffer))));
}

// The host runtime would refuse these calls: it has not loaded the model.
constexpr bool IsAboutTheModel(Id call) {
  return call == Id::quilm_mdl_unload || call == Id::quilm_mdl_get_desc ||
         call == Id::quilm_mdl_set_dynamic_batch_size || call == Id::quilm_mdl_set_total_t;
}

template <Id kId, typename... Arguments>
ResultOf<kId> Describe(Tag<kId> call, Arguments... arguments) {
  if constexpr (IsAboutTheModel(kId)) {
    return 0;
  } else {
    return Pass(call, arguments...);
  }
}

// ---- Every call ---------------------------------------------------------------------------------

template <Id kId, typename... Arguments>
ResultOf<kId> Answer(Tag<kId> call, Arguments... arguments) {
  const bool described = !script.inputs.empty() || !script.outputs.empty();
  return described ? Describe(call, arguments...) : Pass(call, arguments...);
}

quilm_error Answer(Tag<Id::quilm_init> call, const char*) {
  return Pass(call, script.settings.c_str());
}

quilm_error Answer(Tag<Id::quilm_rt_get_run_mode> call, uint32_t* mode) {
  const quilm_error result = Pass(call, mode);
  *mode = static_cast<uint32_t>(NumberOr("run_mode", *mode));
  return result;
}

template <typename Argument>
void LogArgument(Argument argument) {
  if constexpr (std::is_signed_v<Argument>) {
    std::fprintf(script.log, " %lld", static_cast<long long>(argument));
  } else if constexpr (std::is_unsigned_v<Argument>) {
    std::fprintf(script.log, " %llu", static_cast<unsigned long long>(argument));
  }
}

template <typename... Arguments>
void LogCall(const char* function, Arguments... arguments) {
  if (script.log != nullptr) {
    std::fputs(function, script.log);
    (LogArgument(arguments), ...);
    std::fputc('\n', script.log);
    std::fflush(script.log);
  }
}

template <typename Result>
Result CodeAs(const std::string& code) {
  if constexpr (std::is_pointer_v<Result>) {
    return nullptr;
  } else {
    return static_cast<Result>(std::stol(code));
  }
}

template <Id kId, typename... Arguments>
ResultOf<kId> Handle(Tag<kId> call, Arguments... arguments) {
  const CallInProgress inProgress;
  if constexpr (kId == Id::quilm_init) {
    if (!ReadScript(arguments...)) {
      return 1;
    }
  }
  LogCall(call.kName, arguments...);
  const Event& event = NextEvent(call.kName);
  Perform(event);
  if (const auto failure = event.find("fail"); failure != event.end()) {
    return CodeAs<ResultOf<kId>>(failure->second);
  }
  if (const auto claim = event.find("claim"); claim != event.end()) {
    Answer(call, arguments...);
    return CodeAs<ResultOf<kId>>(claim->second);
  }
  return Answer(call, arguments...);
}

}  // namespace

QUILM_CALLS(QUILM_INTERPOSE)
