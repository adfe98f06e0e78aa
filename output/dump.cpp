#include "output/dump.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <new>
#include <stdexcept>

#include "base/clock.h"
#include "base/log.h"
#include "base/status.h"
#include "output/output_file.h"
#include "runtime/tensor_description.h"

namespace quilmrun {
namespace {

constexpr mode_t kRunDirectoryMode = 0775;

// A runtime that claims outputs which were never created is asked for no more than these, so that
// the dump comes to an end.
constexpr size_t kMostUnknownOutputs = 4096;

// False when there is no memory for the values, or there are more than a list can hold: outputs can
// be larger than what a board has left, and the other outputs are still wanted then.
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

// For one batch: bytes of the output, and of a row.
int GetOutputStrideParam(const Outputs& outputs, size_t index, size_t& size, size_t& stride,
                         quilm_mdl_io_dims& dims) {
  return QueryLayout(kOutputQueries, outputs.modelDesc, index, 1, size, stride, dims);
}

int LayOutRows(const Outputs& outputs, size_t index, size_t bufSize, size_t bufStride,
               const quilm_mdl_io_dims& dims, OutputRows& rows) {
  const int64_t lastDim = LastDimension(dims);
  if (dims.dim_count == 0 || lastDim <= 0) {
    LogError("Error, dims para invalid");
    return kFailure;
  }
  const size_t elemSize = ElementSize(kOutputQueries, outputs.modelDesc, index);
  if (elemSize == 0) {
    LogError("Error, dataSize == 0 invalid");
    return kFailure;
  }
  rows.rows = bufSize / bufStride * outputs.batchSize;
  rows.rowElements = static_cast<size_t>(lastDim);
  rows.rowPitch = bufStride / elemSize;
  return kSuccess;
}

int LocateOutput(const Outputs& outputs, size_t index, OutputRows& rows) {
  const quilm_data_buffer* buffer = quilm_mdl_get_dataset_buffer(outputs.dataset, index);
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
  // No more than was allocated, whatever the runtime says.
  rows.size = index < outputs.sizes.size() ? std::min(size, outputs.sizes[index]) : 0;
  size_t bufSize = 0;
  size_t bufStride = 0;
  quilm_mdl_io_dims dims;
  if (GetOutputStrideParam(outputs, index, bufSize, bufStride, dims) != kSuccess) {
    LogError("Error, GetOutputStrideParam failed");
    return kFailure;
  }
  if (bufSize == 0 || bufStride == 0) {
    LogError("Error, bufSize(%zu) bufStride(%zu) invalid", bufSize, bufStride);
    return kFailure;
  }
  return LayOutRows(outputs, index, bufSize, bufStride, dims, rows);
}

template <typename T>
int GetOutputWithOutStride(const Outputs& outputs, std::vector<float>& values, size_t index) {
  OutputRows rows;
  if (LocateOutput(outputs, index, rows) != kSuccess) {
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

template <typename T>
void WriteOutput(const Outputs& outputs, const std::string& path, size_t index,
                 void (*writeValues)(const std::vector<float>&, const OutputFile&)) {
  std::vector<float> values;
  if (GetOutputWithOutStride<T>(outputs, values, index) != kSuccess) {
    LogError("GetOutputWithOutStride fail");
    return;
  }
  const OutputFile file(path);
  if (file.IsOpen()) {
    writeValues(values, file);
  }
}

template <typename T>
void WriteOutputText(const Outputs& outputs, const std::string& path, size_t index) {
  WriteOutput<T>(outputs, path, index, WriteAsText);
}

template <typename T>
void WriteOutputBinary(const Outputs& outputs, const std::string& path, size_t index) {
  WriteOutput<T>(outputs, path, index, WriteAsBinary);
}

void DumpOutputByType(const Outputs& outputs, const std::string& fileBase, size_t index) {
  using Writer = void(const Outputs&, const std::string&, size_t);
  struct Writers {
    int32_t code;
    Writer* text;
    Writer* binary;
  };
  static constexpr Writers kFloatWriters = {0, WriteOutputText<float>, WriteOutputBinary<float>};
  static constexpr Writers kIntegerWriters[] = {
      {1, WriteOutputText<uint16_t>, WriteOutputBinary<uint16_t>},
      {2, WriteOutputText<int8_t>, WriteOutputBinary<int8_t>},
      {4, WriteOutputText<uint8_t>, WriteOutputBinary<uint8_t>},
      {6, WriteOutputText<int16_t>, WriteOutputBinary<int16_t>},
      {7, WriteOutputText<uint16_t>, WriteOutputBinary<uint16_t>},
  };
  const int32_t code = quilm_mdl_get_output_data_type(outputs.modelDesc, index);
  LogInfo("The value of quilm_data_type is [%zu]", size_t{static_cast<uint32_t>(code)});
  const auto* found = std::find_if(std::begin(kIntegerWriters), std::end(kIntegerWriters),
                                   [code](const Writers& writers) { return writers.code == code; });
  const Writers& writers = found == std::end(kIntegerWriters) ? kFloatWriters : *found;
  writers.text(outputs, fileBase + ".float", index);
  writers.binary(outputs, fileBase + ".bin", index);
}

}  // namespace

void DumpModelOutput(const Outputs& outputs, const std::string& outputPath, uint32_t runIndex) {
  const size_t count = std::min(quilm_mdl_get_dataset_num_buffers(outputs.dataset),
                                std::max(outputs.sizes.size(), kMostUnknownOutputs));
  std::vector<std::string> usedNames;
  const std::string runDirectory = outputPath + "/" + std::to_string(runIndex);
  // A directory that cannot be made shows up as files that cannot be created.
  mkdir(runDirectory.c_str(), kRunDirectoryMode);
  for (size_t i = 0; i < count; ++i) {
    const std::string name =
        OutputFileName(quilm_mdl_get_output_name_by_index(outputs.modelDesc, i));
    const auto duplicates = std::count(usedNames.begin(), usedNames.end(), name);
    usedNames.push_back(name);
    std::string fileBase = runDirectory;
    fileBase.append("/").append(name).append(".").append(std::to_string(duplicates));
    fileBase.append(".").append(std::to_string(GetTimeStampUs()));
    DumpOutputByType(outputs, fileBase, i);
  }
  LogInfo("dump data success");
}

}  // namespace quilmrun
