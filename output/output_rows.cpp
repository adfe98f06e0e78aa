#include "output/output_rows.h"

#include <cstdint>
#include <limits>

namespace quilmrun {

size_t BytesNeeded(const OutputRows& rows, size_t elementSize) {
  if (rows.rows == 0) {
    return 0;
  }
  size_t bytes = 0;
  const bool overflow = __builtin_mul_overflow(rows.rows - 1, rows.rowPitch, &bytes) ||
                        __builtin_add_overflow(bytes, rows.rowElements, &bytes) ||
                        __builtin_mul_overflow(bytes, elementSize, &bytes);
  return overflow ? std::numeric_limits<size_t>::max() : bytes;
}

template <typename T>
void AppendRows(const OutputRows& rows, std::vector<float>& values) {
  size_t count = 0;
  // A count that has wrapped would reserve too little; the list refuses one that it cannot hold.
  const bool countable = !__builtin_mul_overflow(rows.rows, rows.rowElements, &count);
  values.reserve(countable ? count : values.max_size() + 1);
  for (size_t r = 0; r < rows.rows; ++r) {
    const T* row = reinterpret_cast<const T*>(rows.data) + r * rows.rowPitch;
    // Floats are copied as bytes, so that a NaN keeps its bits.
    values.insert(values.end(), row, row + rows.rowElements);
  }
}

template void AppendRows<float>(const OutputRows&, std::vector<float>&);
template void AppendRows<int8_t>(const OutputRows&, std::vector<float>&);
template void AppendRows<uint8_t>(const OutputRows&, std::vector<float>&);
template void AppendRows<int16_t>(const OutputRows&, std::vector<float>&);
template void AppendRows<uint16_t>(const OutputRows&, std::vector<float>&);

}  // namespace quilmrun
