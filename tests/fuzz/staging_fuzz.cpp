// Staging: any description of an input, and the file that is to go there.
#include <algorithm>
#include <cstring>

#include "input/staging.h"
#include "runtime/tensor_description.h"
#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/tensor_fuzz.h"

using namespace quilmrun;       // NOLINT: what is tested
using namespace quilmrun_fuzz;  // NOLINT

namespace {

// What the device memory has to hold: the file's rows one after the other, at their places, and
// zeros elsewhere.
std::vector<char> Expected(const OddTensor& tensor, size_t rowBytes, size_t batches,
                           size_t allocated, std::string_view file) {
  std::vector<char> memory(allocated);
  for (size_t b = 0; b < batches; ++b) {
    for (size_t r = 0; r < tensor.size / tensor.stride; ++r) {
      const std::string_view row = file.substr(0, rowBytes);
      std::copy(row.begin(), row.end(), &memory[b * tensor.size + r * tensor.stride]);
      file.remove_prefix(row.size());
      if (file.empty()) {
        return memory;
      }
    }
  }
  return memory;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  static MemoryFile file;
  FuzzedDataProvider data(bytes, size);
  const OddTensor tensor = TakeTensor(data);
  auto batchSize = static_cast<uint32_t>(TakeNumber(data));
  auto totalT = static_cast<int32_t>(TakeNumber(data));
  const auto netType = data.ConsumeIntegralInRange<int32_t>(0, 3);
  const auto index = data.ConsumeIntegralInRange<size_t>(0, 2);
  if (!IsTestable(batchSize, tensor.size)) {
    return 0;
  }
  SetModel({tensor, tensor, tensor}, {}, netType);
  const Description desc(quilm_mdl_create_desc());
  quilm_mdl_io_dims dims;
  Require(QueryDims(kInputQueries, desc.get(), index, dims) == 0);
  const std::string content = data.ConsumeRemainingBytesAsString();

  const size_t allocated = BatchedSize(batchSize, tensor.size);
  const DeviceMemory memory =
      GetPicDeviceBuffer(file.Hold(content), dims, desc.get(), index, batchSize, 0, totalT);
  if (memory != nullptr && allocated > 0) {
    const size_t rowBytes =
        RowBytes(ElementSize(kInputQueries, desc.get(), index), LastDimension(dims));
    const size_t batches = std::min<size_t>(batchSize, allocated / tensor.size);
    const std::vector<char> expected =
        tensor.stride == 0 || tensor.size < tensor.stride
            ? std::vector<char>(allocated)
            : Expected(tensor, rowBytes, batches, allocated, content);
    Require(std::memcmp(memory.get(), expected.data(), allocated) == 0);
  }
  return 0;
}
