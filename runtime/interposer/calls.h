// The functions of the interface, each with the number of its parameters. What they take and return
// is told by runtime/quilm.h alone.
#ifndef QUILMRUN_RUNTIME_INTERPOSER_CALLS_H_
#define QUILMRUN_RUNTIME_INTERPOSER_CALLS_H_

// Expands CALL(parameters, function) for every function, in the order of runtime/quilm.h.
#define QUILM_CALLS(CALL)                      \
  CALL(1, quilm_init)                          \
  CALL(0, quilm_finalize)                      \
  CALL(1, quilm_rt_set_device)                 \
  CALL(1, quilm_rt_reset_device)               \
  CALL(1, quilm_rt_set_op_wait_timeout)        \
  CALL(2, quilm_rt_create_context)             \
  CALL(1, quilm_rt_destroy_context)            \
  CALL(1, quilm_rt_create_stream)              \
  CALL(1, quilm_rt_destroy_stream)             \
  CALL(1, quilm_rt_get_run_mode)               \
  CALL(3, quilm_rt_malloc)                     \
  CALL(1, quilm_rt_free)                       \
  CALL(3, quilm_mdl_load_from_mem)             \
  CALL(1, quilm_mdl_unload)                    \
  CALL(0, quilm_mdl_create_desc)               \
  CALL(1, quilm_mdl_destroy_desc)              \
  CALL(2, quilm_mdl_get_desc)                  \
  CALL(1, quilm_mdl_get_num_inputs)            \
  CALL(1, quilm_mdl_get_num_outputs)           \
  CALL(3, quilm_mdl_get_input_dims)            \
  CALL(3, quilm_mdl_get_output_dims)           \
  CALL(2, quilm_mdl_get_input_data_type)       \
  CALL(2, quilm_mdl_get_output_data_type)      \
  CALL(2, quilm_mdl_get_input_size_by_index)   \
  CALL(2, quilm_mdl_get_output_size_by_index)  \
  CALL(2, quilm_mdl_get_input_default_stride)  \
  CALL(2, quilm_mdl_get_output_default_stride) \
  CALL(2, quilm_mdl_get_input_format)          \
  CALL(2, quilm_mdl_get_output_format)         \
  CALL(2, quilm_mdl_get_output_name_by_index)  \
  CALL(0, quilm_mdl_create_dataset)            \
  CALL(1, quilm_mdl_destroy_dataset)           \
  CALL(2, quilm_mdl_add_dataset_buffer)        \
  CALL(1, quilm_mdl_get_dataset_num_buffers)   \
  CALL(2, quilm_mdl_get_dataset_buffer)        \
  CALL(3, quilm_create_data_buffer)            \
  CALL(1, quilm_destroy_data_buffer)           \
  CALL(1, quilm_get_data_buffer_addr)          \
  CALL(1, quilm_get_data_buffer_size)          \
  CALL(1, quilm_data_type_size)                \
  CALL(4, quilm_mdl_set_dynamic_batch_size)    \
  CALL(2, quilm_ext_get_mdl_net_type)          \
  CALL(3, quilm_mdl_set_total_t)               \
  CALL(3, quilm_mdl_execute)

#endif  // QUILMRUN_RUNTIME_INTERPOSER_CALLS_H_
