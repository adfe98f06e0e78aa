// A libquilm.so for tests that describes whatever model its script says, however odd, records every
// call, and fails on demand. Execution copies the bytes of input 0 to the start of output 0.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "runtime/quilm.h"
#include "tests/odd_script.h"

struct quilm_mdl_desc {};
struct quilm_mdl_dataset {
  std::vector<quilm_data_buffer*> buffers;
};
struct quilm_data_buffer {
  void* pointer;
  size_t size;
  size_t stride;
};

namespace {

quilm_error FillDims(const OddTensor& tensor, quilm_mdl_io_dims* dims) {
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

void LogDataset(const quilm_mdl_dataset* dataset) {
  for (const quilm_data_buffer* buffer : dataset->buffers) {
    std::fprintf(odd.log, "  %zu/%zu:", buffer->size, buffer->stride);
    const auto* bytes = static_cast<const unsigned char*>(buffer->pointer);
    for (size_t i = 0; i < buffer->size && i < 256; ++i) {
      std::fprintf(odd.log, "%02x", bytes[i]);
    }
    std::fputc('\n', odd.log);
  }
}

}  // namespace

quilm_error quilm_init(const char* config_path) {
  const bool read = ReadScript(config_path);
  RECORD(int, " ");
  return read ? 0 : 1;
}

quilm_error quilm_finalize(void) {
  RECORD(int, " live %zu files %ld", odd.live.size(), CountOpenFiles() - odd.openFiles);
  return 0;
}

// Nothing to do but to note the call.
#define ODD_NOTE(function, Type, format) \
  quilm_error function(Type value) {     \
    RECORD(int, format, value);          \
    return 0;                            \
  }

ODD_NOTE(quilm_rt_set_device, int32_t, " %d")
ODD_NOTE(quilm_rt_reset_device, int32_t, " %d")
ODD_NOTE(quilm_rt_set_op_wait_timeout, uint32_t, " %u")
ODD_NOTE(quilm_mdl_unload, uint32_t, " %u")

quilm_error quilm_rt_create_context(quilm_rt_context* context, int32_t device_id) {
  RECORD(int, " %d", device_id);
  *context = const_cast<char*>(Track("context"));
  return 0;
}

quilm_error quilm_rt_destroy_context(quilm_rt_context context) {
  RECORD(int, " ");
  return Forget(context);
}

quilm_error quilm_rt_create_stream(quilm_rt_stream* stream) {
  RECORD(int, " ");
  *stream = const_cast<char*>(Track("stream"));
  return 0;
}

quilm_error quilm_rt_destroy_stream(quilm_rt_stream stream) {
  RECORD(int, " ");
  return Forget(stream);
}

quilm_error quilm_rt_get_run_mode(uint32_t* run_mode) {
  RECORD(int, " ");
  *run_mode = static_cast<uint32_t>(NumberOr("run_mode", 0));
  return 0;
}

quilm_error quilm_rt_malloc(void** pointer, size_t size, int32_t policy) {
  RECORD(int, " %zu policy %d", size, policy);
  *pointer = size < (size_t{1} << 40) ? std::malloc(size) : nullptr;
  if (*pointer == nullptr) {
    return 2;
  }
  if (odd.log != nullptr) {
    std::memset(*pointer, 0xEE, size);  // shows what the tool forgets to clear
  }
  Track(*pointer);
  return 0;
}

quilm_error quilm_rt_free(void* pointer) {
  RECORD(int, " ");
  const quilm_error result = Forget(pointer);
  std::free(pointer);
  return result;
}

quilm_error quilm_mdl_load_from_mem(const void*, size_t size, uint32_t* model_id) {
  RECORD(int, " %zu", size);
  *model_id = 77;
  return 0;
}

quilm_mdl_desc* quilm_mdl_create_desc(void) {
  RECORD(quilm_mdl_desc*, " ");
  return Track(new quilm_mdl_desc);
}

quilm_error quilm_mdl_destroy_desc(quilm_mdl_desc* desc) {
  RECORD(int, " ");
  const quilm_error result = Forget(desc);
  delete desc;
  return result;
}

quilm_error quilm_mdl_get_desc(quilm_mdl_desc*, uint32_t model_id) {
  RECORD(int, " %u", model_id);
  return 0;
}

size_t quilm_mdl_get_num_inputs(const quilm_mdl_desc*) {
  RECORD(size_t, " ");
  return odd.inputs.size();
}

size_t quilm_mdl_get_num_outputs(const quilm_mdl_desc*) {
  RECORD(size_t, " ");
  return odd.outputs.size();
}

quilm_error quilm_mdl_get_input_dims(const quilm_mdl_desc*, size_t index, quilm_mdl_io_dims* dims) {
  RECORD(int, " %zu", index);
  return FillDims(At(odd.inputs, index), dims);
}

quilm_error quilm_mdl_get_output_dims(const quilm_mdl_desc*, size_t index,
                                      quilm_mdl_io_dims* dims) {
  RECORD(int, " %zu", index);
  return FillDims(At(odd.outputs, index), dims);
}

// The remaining questions about one tensor differ only in the field they return.
#define ODD_FIELD(Result, function, list, field)         \
  Result function(const quilm_mdl_desc*, size_t index) { \
    RECORD(Result, " %zu", index);                       \
    return At(odd.list, index).field;                    \
  }

ODD_FIELD(int32_t, quilm_mdl_get_input_data_type, inputs, type)
ODD_FIELD(int32_t, quilm_mdl_get_output_data_type, outputs, type)
ODD_FIELD(size_t, quilm_mdl_get_input_size_by_index, inputs, size)
ODD_FIELD(size_t, quilm_mdl_get_output_size_by_index, outputs, size)
ODD_FIELD(size_t, quilm_mdl_get_input_default_stride, inputs, stride)
ODD_FIELD(size_t, quilm_mdl_get_output_default_stride, outputs, stride)

int32_t quilm_mdl_get_input_format(const quilm_mdl_desc*, size_t) {
  return -2;
}
int32_t quilm_mdl_get_output_format(const quilm_mdl_desc*, size_t) {
  return 5;
}

const char* quilm_mdl_get_output_name_by_index(const quilm_mdl_desc*, size_t index) {
  RECORD(const char*, " %zu", index);
  const std::string& name = At(odd.outputs, index).name;
  return name == "-" ? nullptr : name == "." ? "" : name.c_str();
}

quilm_mdl_dataset* quilm_mdl_create_dataset(void) {
  RECORD(quilm_mdl_dataset*, " ");
  return Track(new quilm_mdl_dataset);
}

quilm_error quilm_mdl_destroy_dataset(quilm_mdl_dataset* dataset) {
  RECORD(int, " ");
  const quilm_error result = Forget(dataset);
  delete dataset;
  return result;
}

quilm_error quilm_mdl_add_dataset_buffer(quilm_mdl_dataset* dataset, quilm_data_buffer* buffer) {
  RECORD(int, " ");
  dataset->buffers.push_back(buffer);
  return 0;
}

size_t quilm_mdl_get_dataset_num_buffers(const quilm_mdl_dataset* dataset) {
  RECORD(size_t, " ");
  return dataset->buffers.size();
}

quilm_data_buffer* quilm_mdl_get_dataset_buffer(const quilm_mdl_dataset* dataset, size_t index) {
  RECORD(quilm_data_buffer*, " %zu", index);
  return index < dataset->buffers.size() ? dataset->buffers[index] : nullptr;
}

quilm_data_buffer* quilm_create_data_buffer(void* pointer, size_t size, size_t stride) {
  RECORD(quilm_data_buffer*, " %zu stride %zu", size, stride);
  return Track(new quilm_data_buffer{pointer, size, stride});
}

quilm_error quilm_destroy_data_buffer(quilm_data_buffer* buffer) {
  RECORD(int, " ");
  const quilm_error result = Forget(buffer);
  delete buffer;
  return result;
}

void* quilm_get_data_buffer_addr(const quilm_data_buffer* buffer) {
  RECORD(void*, " ");
  return buffer->pointer;
}

size_t quilm_get_data_buffer_size(const quilm_data_buffer* buffer) {
  RECORD(size_t, " ");
  return static_cast<size_t>(NumberOr("reported_size", static_cast<long>(buffer->size)));
}

size_t quilm_data_type_size(int32_t data_type) {
  static const std::map<int32_t, size_t> kBits = {{0, 32}, {1, 16}, {2, 8},  {3, 32}, {4, 8},
                                                  {5, 4},  {6, 16}, {7, 16}, {8, 8},  {-1, 32}};
  const auto found = kBits.find(data_type);
  return found == kBits.end() ? 0 : found->second;
}

quilm_error quilm_mdl_set_dynamic_batch_size(uint32_t model_id, quilm_mdl_dataset*, size_t index,
                                             uint64_t batch_size) {
  RECORD(int, " %u index %zu batch %llu", model_id, index,
         static_cast<unsigned long long>(batch_size));
  return 0;
}

quilm_error quilm_ext_get_mdl_net_type(uint32_t model_id, int32_t* net_type) {
  RECORD(int, " %u", model_id);
  *net_type = static_cast<int32_t>(NumberOr("net_type", 0));
  return 0;
}

quilm_error quilm_mdl_set_total_t(uint32_t model_id, quilm_mdl_dataset*, int64_t total_t) {
  RECORD(int, " %u total_t %lld", model_id, static_cast<long long>(total_t));
  return 0;
}

quilm_error quilm_mdl_execute(uint32_t model_id, const quilm_mdl_dataset* input,
                              quilm_mdl_dataset* output) {
  RECORD(int, " %u", model_id);
  if (odd.log != nullptr) {
    LogDataset(input);
  }
  if (!output->buffers.empty()) {
    const quilm_data_buffer& source = *input->buffers[0];
    const quilm_data_buffer& target = *output->buffers[0];
    std::memcpy(target.pointer, source.pointer, std::min(source.size, target.size));
  }
  return 0;
}
