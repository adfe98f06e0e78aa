// Staging: one input file into one device buffer, in the layout the model's input wants.
//
// The file is raw, packed data in the input's element type: rows follow each other without padding,
// batches likewise. On the device every row starts at the input's stride and every batch at the
// input's size (runtime/tensor_description.h). Padding, and what the file does not cover, is 0.
#ifndef QUILMRUN_INPUT_STAGING_H_
#define QUILMRUN_INPUT_STAGING_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "input/input_file.h"
#include "runtime/handles.h"
#include "runtime/quilm.h"

namespace quilmrun {

/// Where packed rows go in device memory. All but the counts in bytes.
struct RowLayout {
  size_t rowBytes = 0;  ///< REQUIRES: not more than stride, unless rows is 0
  size_t stride = 0;
  size_t rows = 0;       ///< per batch
  size_t batchSize = 0;  ///< bytes from one batch to the next
  size_t batches = 0;
};

/// Copies rows from the file's current position to `memory`, in file order, each byte read once and
/// straight into the memory; stops where the file ends. REQUIRES: memory to the end of the last
/// batch's rows, padding included, all bytes 0.
void CopyRows(const InputFile& file, const RowLayout& layout, void* memory);

/// Reports an element size of 0, which nothing can be staged with.
int CheckElementSize(size_t elementSize);

/// Stages the file `path` for input `index`, whose dimensions are `dims`, and returns the device
/// memory, `batchSize` (as passed in) times the input's size; nothing on failure, which is
/// reported. Reconciles file and model: `batchSize` becomes what the file holds when the two
/// differ; for a recurrent model, the frames input sets `nlpTotalT` to the frames in the file and
/// `batchSize` to 1. A file larger than the memory or than its batches, padding included, and more
/// frames than the model takes are failures.
DeviceMemory GetPicDeviceBuffer(const std::string& path, const quilm_mdl_io_dims& dims,
                                const quilm_mdl_desc* modelDesc, size_t index, uint32_t& batchSize,
                                uint32_t modelId, int32_t& nlpTotalT);

}  // namespace quilmrun

#endif  // QUILMRUN_INPUT_STAGING_H_
