// Writes every output of an inference to its two files.
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <new>
#include <stdexcept>

#include "base/clock.h"
#include "base/log.h"
#include "base/status.h"
#include "model/model_process.h"
#include "output/dump_format.h"
#include "output/output_file.h"
#include "output/output_rows.h"
#include "runtime/tensor_description.h"
#include "runtime/values.h"

namespace quilmrun {
namespace {

constexpr mode_t kRunDirectoryMode = 0775;

// A runtime may claim outputs that were never created. It is asked for no more than these beyond
// the others, so that the dump comes to an end.
constexpr size_t kMaxUnknownOutputs = 4096;

// An output can be larger than the memory that a board has left, or than a list can hold. The other
// outputs are still wanted then, so that this is no reason to end the run. False in that case.
template <typename T>
bool TryAppendRows(const OutputRows& rows, std::vector<float>& values) {
  try {
    AppendRows<T>(rows, values);
  } catch (const std::bad_alloc&) {
    return false;
  } catch (const std::length_error&) {
    return false;
  }
  return true;
}

}  // namespace

void ModelProcess::DumpModelOutput(const std::string& outputPath) {
  const size_t count = std::min(quilm_mdl_get_dataset_num_buffers(output.get()),
                                outputSizes_.size() + kMaxUnknownOutputs);
  std::vector<std::string> usedNames;
  const std::string runDirectory = outputPath + "/" + std::to_string(executeCount - 1);
  // A directory that cannot be made shows up as files that cannot be created.
  mkdir(runDirectory.c_str(), kRunDirectoryMode);
  for (size_t i = 0; i < count; ++i) {
    const std::string name = OutputFileName(quilm_mdl_get_output_name_by_index(modelDesc.get(), i));
    // Names may be equal, or become so when their dots and slashes are replaced.
    const auto duplicates = std::count(usedNames.begin(), usedNames.end(), name);
    usedNames.push_back(name);
    std::string fileBase = runDirectory;
    fileBase.append("/").append(name).append(".").append(std::to_string(duplicates));
    fileBase.append(".").append(std::to_string(GetTimeStampUs()));
    DumpOutputByType(fileBase, i);
  }
  LogInfo("dump data success");
}

void ModelProcess::DumpOutputByType(const std::string& fileBase, size_t index) {
  const int32_t code = quilm_mdl_get_output_data_type(modelDesc.get(), index);
  LogInfo("The value of quilm_data_type is [%zu]", size_t{static_cast<uint32_t>(code)});
  switch (code) {
    case kHalfBits:
    case kUnsigned16:
      return WriteOutputFiles<uint16_t>(fileBase, index);
    case kSigned8:
      return WriteOutputFiles<int8_t>(fileBase, index);
    case kUnsigned8:
      return WriteOutputFiles<uint8_t>(fileBase, index);
    case kSigned16:
      return WriteOutputFiles<int16_t>(fileBase, index);
    default:
      return WriteOutputFiles<float>(fileBase, index);
  }
}

template <typename T>
void ModelProcess::WriteOutputFiles(const std::string& fileBase, size_t index) {
  WriteOutputText<T>(fileBase + ".float", index);
  WriteOutputBinary<T>(fileBase + ".bin", index);
}

template <typename T>
void ModelProcess::WriteOutputText(const std::string& path, size_t index) {
  WriteOutput<T>(path, index, WriteAsText);
}

template <typename T>
void ModelProcess::WriteOutputBinary(const std::string& path, size_t index) {
  WriteOutput<T>(path, index, WriteAsBinary);
}

// Each of the two files extracts its values anew. Keeping them would hold the largest output in
// memory for longer, and a failure is reported once for each file.
template <typename T>
void ModelProcess::WriteOutput(const std::string& path, size_t index,
                               void (*write)(const std::vector<float>&, const OutputFile&)) {
  std::vector<float> values;
  if (GetOutputWithOutStride<T>(values, index) != kSuccess) {
    LogError("GetOutputWithOutStride fail");
    return;
  }
  const OutputFile file(path);
  if (file.IsOpen()) {
    write(values, file);
  }
}

template <typename T>
int ModelProcess::GetOutputWithOutStride(std::vector<float>& values, size_t index) {
  OutputRows rows;
  if (LocateOutput(index, rows) != kSuccess) {
    return kFailure;
  }
  const size_t needed = BytesNeeded(rows, sizeof(T));
  if (needed > rows.size) {
    LogError("output[%zu] needs %zu bytes, its buffer holds %zu", index, needed, rows.size);
    return kFailure;
  }
  if (!TryAppendRows<T>(rows, values)) {
    LogError("output[%zu]: no memory for %zu values", index, rows.rows * rows.rowElements);
    return kFailure;
  }
  return kSuccess;
}

int ModelProcess::LocateOutput(size_t index, OutputRows& rows) {
  const quilm_data_buffer* buffer = quilm_mdl_get_dataset_buffer(output.get(), index);
  if (buffer == nullptr) {
    LogError("output[%zu] dataBuffer nullptr invalid", index);
    return kFailure;
  }
  rows.data = static_cast<const unsigned char*>(quilm_get_data_buffer_addr(buffer));
  const size_t size = quilm_get_data_buffer_size(buffer);
  if (rows.data == nullptr || size == 0) {
    LogError("output[%zu] data or size(%zu) invalid", index, size);
    return kFailure;
  }
  // The runtime may claim more than was allocated, and what lies behind that belongs to others.
  rows.size = index < outputSizes_.size() ? std::min(size, outputSizes_[index]) : 0;
  return LayOutRows(index, rows);
}

int ModelProcess::LayOutRows(size_t index, OutputRows& rows) {
  size_t bufSize = 0;
  size_t bufStride = 0;
  quilm_mdl_io_dims dims;
  if (GetOutputStrideParam(static_cast<int32_t>(index), bufSize, bufStride, dims) != kSuccess) {
    LogError("Error, GetOutputStrideParam failed");
    return kFailure;
  }
  if (bufSize == 0 || bufStride == 0) {
    LogError("Error, bufSize(%zu) bufStride(%zu) invalid", bufSize, bufStride);
    return kFailure;
  }
  const int64_t lastDim = LastDimension(dims);
  if (dims.dim_count == 0 || lastDim <= 0) {
    LogError("Error, dims para invalid");
    return kFailure;
  }
  const size_t elemSize = GetOutputDataSize(static_cast<int32_t>(index));
  if (elemSize == 0) {
    LogError("Error, dataSize == 0 invalid");
    return kFailure;
  }
  rows.rows = bufSize / bufStride * batchSize;
  rows.rowElements = static_cast<size_t>(lastDim);
  rows.rowPitch = bufStride / elemSize;
  return kSuccess;
}

}  // namespace quilmrun
