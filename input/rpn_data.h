// RPN data files hold the detection parameters of models that take them as an input of their own.
//
// Text with decimal numbers between white space, however spread over lines. A model whose RPN input
// has the shape 1 x 4 (single class) takes four numbers; one of shape 4 x W (multi class) takes
// 4 * W numbers, row by row:
//
//   0.5 0.6 0.7      a 4 x 3 input: three classes,
//   8   8   8        one column each
//   64  64  64
//   0.3 0.3 0.3
#ifndef QUILMRUN_INPUT_RPN_DATA_H_
#define QUILMRUN_INPUT_RPN_DATA_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "runtime/quilm.h"

namespace quilmrun {

/// Appends the numbers in the file `path` to `values`. Fails, after a report, when the file cannot
/// be read or holds more numbers than any model takes. Fails without a report, which is left to the
/// caller, when it holds anything but numbers that fit a 32-bit float.
int ReadRpnFile(const std::string& path, std::vector<float>& values);

/// Stores the two dimensions of the RPN input, and fails, after a report, unless `count` values are
/// what they ask for. REQUIRES: dims.dim_count == 2.
int CheckRpnShape(const quilm_mdl_io_dims& dims, size_t count, uint32_t& rpnHeight,
                  uint32_t& rpnWidth);

/// Copies `values` into zeroed memory of `size` bytes. Up to 4 values (single class) go to its
/// start; 4 * rpnWidth values (multi class) go into 4 rows, which are `stride` bytes apart, rounded
/// down to whole floats. Where rows overlap, the later one counts. Fails, after a report, when a
/// row does not lie within the memory.
int LayOutParameters(const std::vector<float>& values, size_t rpnWidth, size_t stride, void* memory,
                     size_t size);

}  // namespace quilmrun

#endif  // QUILMRUN_INPUT_RPN_DATA_H_
