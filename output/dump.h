// The output dump: every model output as two files, in a directory of its own for each inference.
//
//   <output path>/<run index>/<output name>.<duplicate index>.<time stamp>.float
//   <output path>/<run index>/<output name>.<duplicate index>.<time stamp>.bin
//
// Run index: successful inferences before this one. Output name: the runtime's, with "\", "." and
// "/" replaced by "_", and "output" when it gives none. Duplicate index: earlier outputs of the
// same name in this dump. Time stamp: microseconds since the epoch, one per output.
//
// ".float" holds one value a line, fixed-point with 16 digits after the point; ".bin" holds the
// same values as consecutive 32-bit floats in native byte order. Both without row padding.
//
// On the device a row starts every (stride / element size) elements, and only its first elements,
// as many as the last dimension says, are data. Two rows of three 16-bit elements, stride 8:
//
//   device   01 00 02 00 03 00 -- --   04 00 05 00 06 00 -- --
//   values   1 2 3 4 5 6               so ".bin" has 6 * 4 = 24 bytes
//
// Elements are read by data type code: 1 and 7 as unsigned 16-bit, 2 as signed 8-bit, 4 as unsigned
// 8-bit, 6 as signed 16-bit integers, every other code as 32-bit floats, unchanged.
#ifndef QUILMRUN_OUTPUT_DUMP_H_
#define QUILMRUN_OUTPUT_DUMP_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "runtime/quilm.h"

namespace quilmrun {

class OutputFile;

/// What is dumped. Owns nothing: all of it has to outlive the dump.
struct Outputs {
  const quilm_mdl_desc* modelDesc;
  const quilm_mdl_dataset* dataset;
  const std::vector<size_t>& sizes;  ///< bytes allocated for each output
  uint32_t batchSize;                ///< batches in every output buffer
};

/// Writes every output to outputPath/runIndex/. Reports what cannot be written and goes on with the
/// next output.
void DumpModelOutput(const Outputs& outputs, const std::string& outputPath, uint32_t runIndex);

/// A line of the text file: the longest is "-", 39 digits, ".", 16 digits and "\n".
using ValueLine = std::array<char, 64>;

/// Writes `value` and a newline to `line`, whatever the locale; returns the bytes used.
size_t FormatValueLine(float value, ValueLine& line);

/// The name in a form that is safe as part of a file name.
std::string OutputFileName(const char* runtimeName);

/// Where the data of one output lies in its device buffer.
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
/// sizeof(T)) <= rows.size.
template <typename T>
void AppendRows(const OutputRows& rows, std::vector<float>& values);

/// Fills an open file with `values`; stops when it takes no more. As text, every line has reached
/// the file before the next value is formatted.
void WriteAsText(const std::vector<float>& values, const OutputFile& file);
void WriteAsBinary(const std::vector<float>& values, const OutputFile& file);

}  // namespace quilmrun

#endif  // QUILMRUN_OUTPUT_DUMP_H_
