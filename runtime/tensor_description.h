// The runtime's description of one model input or output.
//
// A tensor lies in device memory as rows: the innermost dimension is one row, and the rows of a
// batch start `stride` bytes apart. `size` counts one batch, padding included. An input of 2 rows
// of 3 one-byte elements, stride 8:
//
//   offset  0: e00 e01 e02 and 5 bytes of padding
//   offset  8: e10 e11 e12 and 5 bytes of padding        size = 16; batch b starts at b * 16
#ifndef QUILMRUN_RUNTIME_TENSOR_DESCRIPTION_H_
#define QUILMRUN_RUNTIME_TENSOR_DESCRIPTION_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "runtime/quilm.h"

namespace quilmrun {

/// The description calls for inputs, or those for outputs: the code that asks is the same for both.
struct TensorQueries {
  const char* kind;   ///< "input" or "output", as messages say it
  const char* title;  ///< "Input" or "Output"
  quilm_error (*dims)(const quilm_mdl_desc*, size_t, quilm_mdl_io_dims*);
  int32_t (*dataType)(const quilm_mdl_desc*, size_t);
  size_t (*size)(const quilm_mdl_desc*, size_t);
  size_t (*stride)(const quilm_mdl_desc*, size_t);
  int32_t (*format)(const quilm_mdl_desc*, size_t);
};

extern const TensorQueries kInputQueries;
extern const TensorQueries kOutputQueries;

/// Fills `dims` and returns 0, or returns non-zero when the runtime refuses or claims more
/// dimensions than the record holds. After 0 all of dims.dims[0 .. dim_count) may be read.
quilm_error QueryDims(const TensorQueries& queries, const quilm_mdl_desc* desc, size_t index,
                      quilm_mdl_io_dims& dims);

/// The name in the record; all 128 characters when it is not terminated.
std::string TensorName(const quilm_mdl_io_dims& dims);

/// First and last dimension; 1 for a scalar, which has none.
int64_t FirstDimension(const quilm_mdl_io_dims& dims);
int64_t LastDimension(const quilm_mdl_io_dims& dims);

/// Whole bytes of one element, rounded down; 0 for an unknown type or one narrower than a byte.
size_t ElementSize(const TensorQueries& queries, const quilm_mdl_desc* desc, size_t index);

/// Bytes of one row, and SIZE_MAX when the last dimension is negative or the product too large.
size_t RowBytes(size_t elementSize, int64_t lastDimension);

/// Bytes of `batchSize` batches, as a 64-bit product that wraps. After an overflow the memory is
/// smaller than the batches: whoever fills or reads it has to look at what was allocated.
size_t BatchedSize(uint32_t batchSize, size_t size);

/// The layout of one tensor: `size` of `batchSize` batches in bytes, `stride` in bytes, and dims.
/// Fails, after a report, when the runtime refuses one of them or gives it as 0.
int QueryLayout(const TensorQueries& queries, const quilm_mdl_desc* desc, size_t index,
                uint32_t batchSize, size_t& size, size_t& stride, quilm_mdl_io_dims& dims);

/// Asks for the model's net type; a refusal is reported.
int QueryNetType(uint32_t modelId, int32_t& netType);

/// The dimensions as "[1, 3, 224, 224, ]"; "[]" for a scalar.
std::string FormatShape(const quilm_mdl_io_dims& dims);

}  // namespace quilmrun

#endif  // QUILMRUN_RUNTIME_TENSOR_DESCRIPTION_H_
