// Where the values of an output lie on the device, and how they become floats.
//
// A row starts every (stride / element size) elements, and only its first elements, as many as the
// last dimension says, are data. Two rows of three 16-bit elements, stride 8:
//
//   device   01 00 02 00 03 00 -- --   04 00 05 00 06 00 -- --
//   values   1 2 3 4 5 6
#ifndef QUILMRUN_OUTPUT_OUTPUT_ROWS_H_
#define QUILMRUN_OUTPUT_OUTPUT_ROWS_H_

#include <cstddef>
#include <vector>

namespace quilmrun {

/// The rows of one output in its device buffer.
struct OutputRows {
  const unsigned char* data = nullptr;
  size_t size = 0;         ///< bytes in the buffer
  size_t rows = 0;         ///< of all batches
  size_t rowElements = 0;  ///< valid elements at the start of a row
  size_t rowPitch = 0;     ///< elements from one row to the next
};

/// Bytes from the start of the buffer to the end of the last element, for elements of
/// `elementSize` bytes; SIZE_MAX when 64 bits cannot count them.
size_t BytesNeeded(const OutputRows& rows, size_t elementSize);

/// Fills `values`, empty before, with the valid elements of all rows, stored as T. Rows longer than
/// their pitch overlap; what they share is appended for each. Throws std::bad_alloc or
/// std::length_error, with `values` as it was, when there are too many. REQUIRES: BytesNeeded(rows,
/// sizeof(T)) <= rows.size. T is float, int8_t, uint8_t, int16_t or uint16_t.
template <typename T>
void AppendRows(const OutputRows& rows, std::vector<float>& values);

}  // namespace quilmrun

#endif  // QUILMRUN_OUTPUT_OUTPUT_ROWS_H_
