// Takes the values of an output out of its padded rows and converts them to floats.
#include <cstdint>

#include "output/dump.h"

namespace quilmrun {

template <typename T>
void AppendRows(const OutputRows& rows, std::vector<float>& values) {
  size_t count = 0;
  const bool countable = !__builtin_mul_overflow(rows.rows, rows.rowElements, &count);
  values.reserve(countable ? count : values.max_size() + 1);
  for (size_t r = 0; r < rows.rows; ++r) {
    const T* row = reinterpret_cast<const T*>(rows.data) + r * rows.rowPitch;
    // Of floats this copies the bytes: a NaN keeps its bits.
    values.insert(values.end(), row, row + rows.rowElements);
  }
}

template void AppendRows<float>(const OutputRows&, std::vector<float>&);
template void AppendRows<int8_t>(const OutputRows&, std::vector<float>&);
template void AppendRows<uint8_t>(const OutputRows&, std::vector<float>&);
template void AppendRows<int16_t>(const OutputRows&, std::vector<float>&);
template void AppendRows<uint16_t>(const OutputRows&, std::vector<float>&);

}  // namespace quilmrun
