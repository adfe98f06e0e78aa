#include "runtime/tensor_description.h"

#include <cstring>
#include <limits>

#include "base/log.h"
#include "base/status.h"

namespace quilmrun {

const TensorQueries kInputQueries = {"input",
                                     "Input",
                                     quilm_mdl_get_input_dims,
                                     quilm_mdl_get_input_data_type,
                                     quilm_mdl_get_input_size_by_index,
                                     quilm_mdl_get_input_default_stride,
                                     quilm_mdl_get_input_format};

const TensorQueries kOutputQueries = {"output",
                                      "Output",
                                      quilm_mdl_get_output_dims,
                                      quilm_mdl_get_output_data_type,
                                      quilm_mdl_get_output_size_by_index,
                                      quilm_mdl_get_output_default_stride,
                                      quilm_mdl_get_output_format};

quilm_error QueryDims(const TensorQueries& queries, const quilm_mdl_desc* desc, size_t index,
                      quilm_mdl_io_dims& dims) {
  // The count comes from the library, and every loop over the dimensions trusts it.
  constexpr quilm_error kTooManyDimensions = -1;
  dims = {};  // a runtime that fills nothing must not show the tensor before
  const quilm_error result = queries.dims(desc, index, &dims);
  return result == 0 && dims.dim_count > QUILM_MAX_DIM_COUNT ? kTooManyDimensions : result;
}

std::string TensorName(const quilm_mdl_io_dims& dims) {
  return std::string(dims.name, strnlen(dims.name, sizeof(dims.name)));
}

int64_t FirstDimension(const quilm_mdl_io_dims& dims) {
  return dims.dim_count == 0 ? 1 : dims.dims[0];
}

int64_t LastDimension(const quilm_mdl_io_dims& dims) {
  return dims.dim_count == 0 ? 1 : dims.dims[dims.dim_count - 1];
}

size_t ElementSize(const TensorQueries& queries, const quilm_mdl_desc* desc, size_t index) {
  constexpr int kBitsPerByteShift = 3;
  return quilm_data_type_size(queries.dataType(desc, index)) >> kBitsPerByteShift;
}

size_t RowBytes(size_t elementSize, int64_t lastDimension) {
  // A row of impossible length is longer than any stride, which is how callers find out.
  size_t bytes = 0;
  if (lastDimension < 0 ||
      __builtin_mul_overflow(elementSize, static_cast<size_t>(lastDimension), &bytes)) {
    return std::numeric_limits<size_t>::max();
  }
  return bytes;
}

size_t BatchedSize(uint32_t batchSize, size_t size) {
  return batchSize * size;
}

int QueryLayout(const TensorQueries& queries, const quilm_mdl_desc* desc, size_t index,
                uint32_t batchSize, size_t& size, size_t& stride, quilm_mdl_io_dims& dims) {
  if (QueryDims(queries, desc, index, dims) != 0) {
    LogError("quilm_mdl_get_%s_dims error!", queries.kind);
    return kFailure;
  }
  stride = queries.stride(desc, index);
  if (stride == 0) {
    LogError("quilm_mdl_get_%s_default_stride error!", queries.kind);
    return kFailure;
  }
  size = BatchedSize(batchSize, queries.size(desc, index));
  if (size == 0) {
    LogError("quilm_mdl_get_%s_size_by_index error!", queries.kind);
    return kFailure;
  }
  return kSuccess;
}

int QueryNetType(uint32_t modelId, int32_t& netType) {
  const quilm_error result = quilm_ext_get_mdl_net_type(modelId, &netType);
  if (result != 0) {
    LogError("quilm_ext_get_mdl_net_type fail! ret = %d", result);
    return kFailure;
  }
  return kSuccess;
}

std::string FormatShape(const quilm_mdl_io_dims& dims) {
  std::string shape = "[";
  for (size_t i = 0; i < dims.dim_count; ++i) {
    shape += std::to_string(dims.dims[i]) + ", ";
  }
  return shape + "]";
}

}  // namespace quilmrun
