// The C interface of the accelerator's runtime library, libquilm.so, as far as quilmrun calls it.
//
// The library is closed: types, widths and linkage below are fixed by its binary interface, and the
// same executable must run against every library that has it. Nothing here may change because it
// would be convenient for the tool.
//
// Unless a call says otherwise, its result is 0 for success and the runtime's error code otherwise,
// and handles are released only by the call that destroys their kind.
#ifndef QUILMRUN_RUNTIME_QUILM_H_
#define QUILMRUN_RUNTIME_QUILM_H_

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int quilm_error;  // 0 is success, any other value is the runtime's error code

typedef void* quilm_rt_context;  // null is "empty"
typedef void* quilm_rt_stream;   // null is "empty"

typedef struct quilm_mdl_desc quilm_mdl_desc;
typedef struct quilm_mdl_dataset quilm_mdl_dataset;
typedef struct quilm_data_buffer quilm_data_buffer;

#define QUILM_MAX_NAME_LEN 128
#define QUILM_MAX_DIM_COUNT 128

// Name and dimensions of one model input or output; 1160 bytes on a 64-bit target.
typedef struct quilm_mdl_io_dims {
  char name[QUILM_MAX_NAME_LEN];      // NUL-terminated
  size_t dim_count;                   // valid entries of dims
  int64_t dims[QUILM_MAX_DIM_COUNT];  // elements, outermost first
} quilm_mdl_io_dims;

// Bring-up and teardown.
quilm_error quilm_init(const char* config_path);
quilm_error quilm_finalize(void);
quilm_error quilm_rt_set_device(int32_t device_id);
quilm_error quilm_rt_reset_device(int32_t device_id);
quilm_error quilm_rt_set_op_wait_timeout(uint32_t timeout);
quilm_error quilm_rt_create_context(quilm_rt_context* context, int32_t device_id);
quilm_error quilm_rt_destroy_context(quilm_rt_context context);
quilm_error quilm_rt_create_stream(quilm_rt_stream* stream);
quilm_error quilm_rt_destroy_stream(quilm_rt_stream stream);
quilm_error quilm_rt_get_run_mode(uint32_t* run_mode);

// Device memory; the host addresses it directly. Sizes in bytes.
quilm_error quilm_rt_malloc(void** pointer, size_t size, int32_t policy);
quilm_error quilm_rt_free(void* pointer);

// Models and their descriptions. Sizes and strides in bytes, for one batch.
quilm_error quilm_mdl_load_from_mem(const void* model, size_t size, uint32_t* model_id);
quilm_error quilm_mdl_unload(uint32_t model_id);
quilm_mdl_desc* quilm_mdl_create_desc(void);
quilm_error quilm_mdl_destroy_desc(quilm_mdl_desc* desc);
quilm_error quilm_mdl_get_desc(quilm_mdl_desc* desc, uint32_t model_id);
size_t quilm_mdl_get_num_inputs(const quilm_mdl_desc* desc);
size_t quilm_mdl_get_num_outputs(const quilm_mdl_desc* desc);
quilm_error quilm_mdl_get_input_dims(const quilm_mdl_desc* desc, size_t index,
                                     quilm_mdl_io_dims* dims);
quilm_error quilm_mdl_get_output_dims(const quilm_mdl_desc* desc, size_t index,
                                      quilm_mdl_io_dims* dims);
int32_t quilm_mdl_get_input_data_type(const quilm_mdl_desc* desc, size_t index);
int32_t quilm_mdl_get_output_data_type(const quilm_mdl_desc* desc, size_t index);
size_t quilm_mdl_get_input_size_by_index(const quilm_mdl_desc* desc, size_t index);
size_t quilm_mdl_get_output_size_by_index(const quilm_mdl_desc* desc, size_t index);
size_t quilm_mdl_get_input_default_stride(const quilm_mdl_desc* desc, size_t index);
size_t quilm_mdl_get_output_default_stride(const quilm_mdl_desc* desc, size_t index);
int32_t quilm_mdl_get_input_format(const quilm_mdl_desc* desc, size_t index);
int32_t quilm_mdl_get_output_format(const quilm_mdl_desc* desc, size_t index);
// May be null; lives as long as the description.
const char* quilm_mdl_get_output_name_by_index(const quilm_mdl_desc* desc, size_t index);

// Datasets: ordered lists of data buffers. A dataset owns neither its buffers nor their memory.
quilm_mdl_dataset* quilm_mdl_create_dataset(void);
quilm_error quilm_mdl_destroy_dataset(quilm_mdl_dataset* dataset);
quilm_error quilm_mdl_add_dataset_buffer(quilm_mdl_dataset* dataset, quilm_data_buffer* buffer);
size_t quilm_mdl_get_dataset_num_buffers(const quilm_mdl_dataset* dataset);
quilm_data_buffer* quilm_mdl_get_dataset_buffer(const quilm_mdl_dataset* dataset, size_t index);

// Data buffers: device memory with its byte size and row stride. A buffer does not own the memory.
//
quilm_data_buffer* quilm_create_data_buffer(void* pointer, size_t size, size_t stride);
quilm_error quilm_destroy_data_buffer(quilm_data_buffer* buffer);
void* quilm_get_data_buffer_addr(const quilm_data_buffer* buffer);
size_t quilm_get_data_buffer_size(const quilm_data_buffer* buffer);

// Bits of one element; 0 for an unknown type.
size_t quilm_data_type_size(int32_t data_type);

// Execution.
quilm_error quilm_mdl_set_dynamic_batch_size(uint32_t model_id, quilm_mdl_dataset* input,
                                             size_t index, uint64_t batch_size);
quilm_error quilm_ext_get_mdl_net_type(uint32_t model_id, int32_t* net_type);
quilm_error quilm_mdl_set_total_t(uint32_t model_id, quilm_mdl_dataset* input, int64_t total_t);
quilm_error quilm_mdl_execute(uint32_t model_id, const quilm_mdl_dataset* input,
                              quilm_mdl_dataset* output);

#ifdef __cplusplus
}
#endif

#endif  // QUILMRUN_RUNTIME_QUILM_H_
