#include "input/staging.h"

#include <algorithm>

#include "base/log.h"
#include "base/status.h"
#include "input/utils.h"
#include "runtime/tensor_description.h"
#include "runtime/values.h"

namespace quilmrun {
namespace {

// What is known of one input file and of the model input that it is for; sizes in bytes.
struct Staging {
  const quilm_mdl_io_dims& dims;
  size_t index;
  size_t singleBatchSize = 0;
  size_t stride = 0;
  size_t elementSize = 0;
  size_t fileSize = 0;
  size_t allocationSize = 0;
};

Staging QueryStaging(const quilm_mdl_io_dims& dims, const quilm_mdl_desc* desc, size_t index) {
  Staging staging{dims, index};
  staging.singleBatchSize = kInputQueries.size(desc, index);
  LogInfo("The amount of data required for inference in a single batch is [%zu]",
          staging.singleBatchSize);
  staging.stride = kInputQueries.stride(desc, index);
  LogInfo("The stride of model is [%zu]", staging.stride);
  staging.elementSize = ElementSize(kInputQueries, desc, index);
  LogInfo("The data size of data type is [%zu]", staging.elementSize);
  return staging;
}

// Element size times the dimensions from `first` on, as a product that wraps.
size_t BytesOfDimensions(const Staging& staging, size_t first) {
  size_t bytes = staging.elementSize;
  for (size_t i = first; i < staging.dims.dim_count; ++i) {
    bytes *= static_cast<size_t>(staging.dims.dims[i]);
  }
  return bytes;
}

// How often `part` goes into `size`. A runtime may claim a size or a stride of 0.
size_t WholeParts(size_t size, size_t part) {
  return part == 0 ? 0 : size / part;
}

std::string JoinDimensions(const quilm_mdl_io_dims& dims) {
  std::string text;
  for (size_t i = 0; i < dims.dim_count; ++i) {
    text += (i == 0 ? "" : ",") + std::to_string(dims.dims[i]);
  }
  return text;
}

int CheckFrames(int32_t frames, int64_t maxFrames) {
  if (maxFrames < frames) {
    LogError("Current number of frames[%u] must be smaller than the recurrent_max_total_t[%zu]",
             static_cast<uint32_t>(frames), static_cast<size_t>(maxFrames));
    return kFailure;
  }
  return kSuccess;
}

// The file tells the number of frames: a shorter sequence makes a shorter file.
int ReconcileFrames(const Staging& staging, uint32_t& batchSize, int32_t& nlpTotalT) {
  nlpTotalT = static_cast<int32_t>(WholeParts(staging.fileSize, BytesOfDimensions(staging, 1)));
  batchSize = 1;
  return CheckFrames(nlpTotalT, FirstDimension(staging.dims));
}

// A file is packed, while the size of a batch counts its padding. Where there is padding, a file of
// several batches therefore counts as fewer of them, and is then too large.
int ReconcileBatches(const Staging& staging, uint32_t& batchSize) {
  LogInfo("The shape of the model is [%s]", JoinDimensions(staging.dims).c_str());
  if (WholeParts(staging.fileSize, BytesOfDimensions(staging, 0)) != batchSize) {
    LogWarn("The input data shape not match model's input shape [N,C,H,W]");
    const size_t fileBatches = WholeParts(staging.fileSize, staging.singleBatchSize);
    if (fileBatches > 0) {
      batchSize = static_cast<uint32_t>(fileBatches);
      LogWarn("Reset the batchSize to [%zu]", fileBatches);
    }
  }
  const size_t limit =
      std::min(staging.allocationSize, BatchedSize(batchSize, staging.singleBatchSize));
  if (staging.fileSize > limit) {
    LogError("Input data size[%zu] must be smaller than malloc size[%zu]", staging.fileSize, limit);
    return kFailure;
  }
  return kSuccess;
}

int Reconcile(const Staging& staging, int32_t netType, uint32_t& batchSize, int32_t& nlpTotalT) {
  if (netType == kRecurrentNetType && staging.index == 0) {
    return ReconcileFrames(staging, batchSize, nlpTotalT);
  }
  if (netType == kRecurrentNetType && staging.index == 1) {
    return CheckFrames(nlpTotalT, LastDimension(staging.dims));
  }
  return ReconcileBatches(staging, batchSize);
}

int CopyFile(const Staging& staging, const InputFile& file, uint32_t batchSize, void* memory) {
  RowLayout layout;
  layout.rowBytes = RowBytes(staging.elementSize, LastDimension(staging.dims));
  layout.stride = staging.stride;
  // When the allocation size overflowed, the memory is smaller than a batch: only the rows that fit
  // are copied.
  layout.rows =
      WholeParts(std::min(staging.singleBatchSize, staging.allocationSize), staging.stride);
  layout.batchSize = staging.singleBatchSize;
  const size_t allocated = WholeParts(staging.allocationSize, staging.singleBatchSize);
  layout.batches = std::min<size_t>(batchSize, std::max<size_t>(allocated, 1));
  // Such rows would overwrite each other, and the last one what lies behind the memory.
  if (layout.rows > 0 && layout.rowBytes > layout.stride) {
    LogError("row of input %zu has %zu bytes, its stride only %zu", staging.index, layout.rowBytes,
             layout.stride);
    return kFailure;
  }
  CopyRows(file, layout, memory);
  return kSuccess;
}

// The size of the open file at `path`. A file without a usable size is reported and gives 0.
size_t UsableSize(const InputFile& file, const std::string& path) {
  const std::optional<uint32_t> size = SupportedSize(file, path);
  if (size == 0U) {
    LogError("Empty file: %s", path.c_str());
  }
  return size.value_or(0);
}

}  // namespace

int CheckElementSize(size_t elementSize) {
  if (elementSize == 0) {
    LogError("GetInputDataSize == 0 error");
    return kFailure;
  }
  return kSuccess;
}

DeviceMemory GetPicDeviceBuffer(const std::string& path, const quilm_mdl_io_dims& dims,
                                const quilm_mdl_desc* modelDesc, size_t index, uint32_t& batchSize,
                                uint32_t modelId, int32_t& nlpTotalT) {
  if (CheckFile(path) != kSuccess) {
    return nullptr;
  }
  Staging staging = QueryStaging(dims, modelDesc, index);
  if (CheckElementSize(staging.elementSize) != kSuccess) {
    return nullptr;
  }
  const InputFile file(path);
  LogInfo("Reading bin file [%s]", path.c_str());
  if (!file.IsOpen()) {
    ReportOpenFailure(path);
    return nullptr;
  }
  staging.fileSize = UsableSize(file, path);
  if (staging.fileSize == 0) {
    return nullptr;
  }
  // The size is that of the batches so far. The file may lower their number, and not raise it.
  staging.allocationSize = BatchedSize(batchSize, staging.singleBatchSize);
  DeviceMemory memory = AllocateOrReport(staging.allocationSize);
  int32_t netType = 0;
  if (memory == nullptr || QueryNetType(modelId, netType) != kSuccess ||
      Reconcile(staging, netType, batchSize, nlpTotalT) != kSuccess ||
      CopyFile(staging, file, batchSize, memory.get()) != kSuccess) {
    return nullptr;
  }
  return memory;
}

}  // namespace quilmrun
