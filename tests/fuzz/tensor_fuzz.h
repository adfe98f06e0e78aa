// Descriptions of tensors as a runtime may give them, sensible or not.
#ifndef QUILMRUN_TESTS_FUZZ_TENSOR_FUZZ_H_
#define QUILMRUN_TESTS_FUZZ_TENSOR_FUZZ_H_

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <string>
#include <vector>

#include "runtime/quilm.h"
#include "runtime/tensor_description.h"
#include "tests/fuzz/fuzz.h"
#include "tests/odd_script.h"

namespace quilmrun_fuzz {

/// A number that is small more often than not, so that things fit together at times.
inline uint64_t TakeNumber(FuzzedDataProvider& data) {
  switch (data.ConsumeIntegralInRange<int>(0, 7)) {
    case 0:
      return data.ConsumeIntegral<uint64_t>();
    case 1:
      return data.ConsumeIntegral<uint32_t>();
    case 2:
      return data.ConsumeIntegral<uint16_t>();
    default:
      return data.ConsumeIntegralInRange<uint64_t>(0, 40);
  }
}

inline OddTensor TakeTensor(FuzzedDataProvider& data) {
  OddTensor tensor;
  tensor.name = "t";
  tensor.type = data.ConsumeIntegralInRange<int32_t>(-1, 9);
  tensor.size = TakeNumber(data);
  tensor.stride = TakeNumber(data);
  const auto count = data.ConsumeIntegralInRange<size_t>(0, 5);
  for (size_t i = 0; i < count; ++i) {
    tensor.dims.push_back(static_cast<int64_t>(TakeNumber(data)));
  }
  return tensor;
}

/// False for a block that a test cannot allocate but a runtime might.
inline bool IsTestable(uint32_t batches, uint64_t size) {
  constexpr uint64_t kMost = uint64_t{1} << 12;
  constexpr uint64_t kRefused = uint64_t{1} << 40;  // by the odd runtime
  uint64_t bytes = 0;
  const bool wraps = __builtin_mul_overflow(batches, size, &bytes);
  return !wraps && (bytes <= kMost || bytes >= kRefused);
}

/// Makes the odd runtime describe a model with just these inputs and outputs.
inline void SetModel(std::vector<OddTensor> inputs, std::vector<OddTensor> outputs,
                     int32_t netType) {
  static const quilm_error started = quilm_init("/dev/null");
  Require(started == 0);
  odd.inputs = std::move(inputs);
  odd.outputs = std::move(outputs);
  odd.numbers = {{"net_type", netType}};
}

}  // namespace quilmrun_fuzz

#endif  // QUILMRUN_TESTS_FUZZ_TENSOR_FUZZ_H_
