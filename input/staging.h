// Staging puts one input file into one device buffer, in the layout that the model's input takes.
//
// The file is raw, packed data in the input's element type: rows follow each other without padding,
// batches likewise. On the device every row starts at the input's stride and every batch at the
// input's size (runtime/tensor_description.h). Padding and whatever the file does not cover are 0.
#ifndef QUILMRUN_INPUT_STAGING_H_
#define QUILMRUN_INPUT_STAGING_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "input/input_file.h"
#include "runtime/handles.h"
#include "runtime/quilm.h"

namespace quilmrun {

/// The places of packed rows in device memory. All but the counts are in bytes.
struct RowLayout {
  size_t rowBytes = 0;  ///< REQUIRES: not more than stride, unless rows is 0
  size_t stride = 0;
  size_t rows = 0;       ///< per batch
  size_t batchSize = 0;  ///< bytes from one batch to the next
  size_t batches = 0;
};

/// Reads rows from the file's current position straight into `memory`, in file order; stops where
/// the file ends. REQUIRES: memory to the end of the last batch's rows, padding included, with all
/// bytes 0.
void CopyRows(const InputFile& file, const RowLayout& layout, void* memory);

/// Fails, after a report, when the element size is 0: such rows have no length.
int CheckElementSize(size_t elementSize);

/// Stages the file `path` for input `index`, whose dimensions are `dims`. Returns the device
/// memory, which has `batchSize` (as passed in) times the input's size; returns nothing after a
/// failure, which is reported.
///
/// The file may hold another number of batches than `batchSize`, which then becomes that number.
/// The first input of a recurrent model carries frames: it sets `nlpTotalT` to their number and
/// `batchSize` to 1. Failures are a file that is larger than the memory or than its batches,
/// padding included, and more frames than the model takes.
DeviceMemory GetPicDeviceBuffer(const std::string& path, const quilm_mdl_io_dims& dims,
                                const quilm_mdl_desc* modelDesc, size_t index, uint32_t& batchSize,
                                uint32_t modelId, int32_t& nlpTotalT);

}  // namespace quilmrun

#endif  // QUILMRUN_INPUT_STAGING_H_
