// Model inputs and outputs as the runtime's interface describes them.
#ifndef QUILMRUN_RUNTIME_HOST_TENSOR_H_
#define QUILMRUN_RUNTIME_HOST_TENSOR_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace quilm_host {

/// Data type codes of the interface.
enum DataType : int32_t {
  kFloat = 0,
  kHalf = 1,
  kInt8 = 2,
  kInt32 = 3,
  kUint8 = 4,
  kInt16 = 6,
  kUint16 = 7,
};

/// Bits of one element; 0 for an unknown code.
size_t DataTypeBits(int32_t dataType);

/// One input or output. In memory the last dimension forms rows, which start `stride` bytes apart.
struct Tensor {
  std::string name;
  int32_t dataType = kFloat;
  std::vector<int64_t> dims;  // outermost first, at least one, all above 0
  size_t stride = 0;          // bytes
  size_t size = 0;            // bytes of one batch, row padding included
};

size_t RowElements(const Tensor& tensor);
size_t RowCount(const Tensor& tensor);

/// Sets stride and size from type and dimensions: rows rounded up to `rowAlignment` bytes. Returns
/// an empty string, or why the tensor cannot be laid out.
std::string LayOut(Tensor& tensor, size_t rowAlignment);

/// A tensor without structure, of `size` bytes in one row.
Tensor PlainBuffer(const std::string& name, size_t size);

}  // namespace quilm_host

#endif  // QUILMRUN_RUNTIME_HOST_TENSOR_H_
