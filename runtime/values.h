// Values that the tool passes to the runtime or expects of it. Their meaning is the runtime's own.
#ifndef QUILMRUN_RUNTIME_VALUES_H_
#define QUILMRUN_RUNTIME_VALUES_H_

#include <cstddef>
#include <cstdint>

namespace quilmrun {

constexpr int32_t kMemoryPolicy = 2;       ///< of every device allocation
constexpr uint32_t kOpWaitTimeout = 0;     ///< operator wait time-out
constexpr uint32_t kExpectedRunMode = 0;   ///< the only run mode the tool works in
constexpr size_t kBatchSizeIndex = 0;      ///< index argument of the dynamic batch size
constexpr int32_t kRecurrentNetType = 2;   ///< net type of recurrent models
constexpr size_t kTaskAndWorkBuffers = 2;  ///< a model's last inputs, which carry no data

/// Data type codes whose elements the tool converts; elements of every other code pass as 32-bit
/// floats, bit by bit.
enum ElementType : int32_t {
  kHalfBits = 1,  ///< half floats, of which the tool passes on the 16 bits as a number
  kSigned8 = 2,
  kUnsigned8 = 4,
  kSigned16 = 6,
  kUnsigned16 = 7,
};

}  // namespace quilmrun

#endif  // QUILMRUN_RUNTIME_VALUES_H_
