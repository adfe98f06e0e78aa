#include "output/dump.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <new>

#include "app/log.h"
#include "app/status.h"
#include "model/model_process.h"
#include "model/tensor_description.h"
#include "output/output_file.h"
#include "profile/clock.h"

namespace quilmrun {
namespace {

constexpr mode_t kRunDirectoryMode = 0775;

// A runtime that claims outputs which were never created is asked for no more than these, or it
// could keep the dump busy for ever.
constexpr size_t kMostUnknownOutputs = 4096;

// False when there is no memory for the values: outputs can be larger than what a board has left,
// and the other outputs are still wanted then.
template <typename T>
bool TryAppendRows(const OutputRows& rows, std::vector<float>& values) {
  try {
    AppendRows<T>(rows, values);
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

}  // namespace

void ModelProcess::DumpModelOutput(const std::string& outputPath) {
  const size_t count = std::min(quilm_mdl_get_dataset_num_buffers(output.get()),
                                std::max(outputSizes_.size(), kMostUnknownOutputs));
  std::vector<std::string> usedNames;
  const std::string runDirectory = outputPath + "/" + std::to_string(executeCount - 1);
  // A directory that cannot be made shows up as files that cannot be created.
  mkdir(runDirectory.c_str(), kRunDirectoryMode);
  for (size_t i = 0; i < count; ++i) {
    const std::string name = OutputFileName(quilm_mdl_get_output_name_by_index(modelDesc.get(), i));
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
  struct Writers {
    int32_t code;
    void (ModelProcess::*text)(const std::string&, size_t);
    void (ModelProcess::*binary)(const std::string&, size_t);
  };
  static constexpr Writers kFloatWriters = {0, &ModelProcess::WriteOutputText<float>,
                                            &ModelProcess::WriteOutputBinary<float>};
  static constexpr Writers kIntegerWriters[] = {
      {1, &ModelProcess::WriteOutputText<uint16_t>, &ModelProcess::WriteOutputBinary<uint16_t>},
      {2, &ModelProcess::WriteOutputText<int8_t>, &ModelProcess::WriteOutputBinary<int8_t>},
      {4, &ModelProcess::WriteOutputText<uint8_t>, &ModelProcess::WriteOutputBinary<uint8_t>},
      {6, &ModelProcess::WriteOutputText<int16_t>, &ModelProcess::WriteOutputBinary<int16_t>},
      {7, &ModelProcess::WriteOutputText<uint16_t>, &ModelProcess::WriteOutputBinary<uint16_t>},
  };
  const int32_t code = quilm_mdl_get_output_data_type(modelDesc.get(), index);
  LogInfo("The value of quilm_data_type is [%zu]", size_t{static_cast<uint32_t>(code)});
  const auto* found = std::find_if(std::begin(kIntegerWriters), std::end(kIntegerWriters),
                                   [code](const Writers& writers) { return writers.code == code; });
  const Writers& writers = found == std::end(kIntegerWriters) ? kFloatWriters : *found;
  (this->*writers.text)(fileBase + ".float", index);
  (this->*writers.binary)(fileBase + ".bin", index);
}

template <typename T>
void ModelProcess::WriteOutputText(const std::string& path, size_t index) {
  WriteOutput<T>(path, index, WriteAsText);
}

template <typename T>
void ModelProcess::WriteOutputBinary(const std::string& path, size_t index) {
  WriteOutput<T>(path, index, WriteAsBinary);
}

template <typename T>
void ModelProcess::WriteOutput(const std::string& path, size_t index,
                               void (*writeValues)(const std::vector<float>&, const OutputFile&)) {
  std::vector<float> values;
  if (GetOutputWithOutStride<T>(values, index) != kSuccess) {
    LogError("GetOutputWithOutStride fail");
    return;
  }
  const OutputFile file(path);
  if (file.IsOpen()) {
    writeValues(values, file);
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
  // No more than was allocated, whatever the runtime says.
  rows.size = index < outputSizes_.size() ? std::min(size, outputSizes_[index]) : 0;
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
  return LayOutRows(index, bufSize, bufStride, dims, rows);
}

int ModelProcess::LayOutRows(size_t index, size_t bufSize, size_t bufStride,
                             const quilm_mdl_io_dims& dims, OutputRows& rows) {
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
  const size_t rowBytes = RowBytes(elemSize, lastDim);
  if (rows.rows > 0 && rowBytes > bufStride) {
    LogError("row of output[%zu] has %zu bytes, its stride only %zu", index, rowBytes, bufStride);
    return kFailure;
  }
  return kSuccess;
}

}  // namespace quilmrun
