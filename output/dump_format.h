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
// same values as consecutive 32-bit floats in native byte order. Both without row padding: two rows
// of three elements make a ".bin" of 6 * 4 = 24 bytes, whatever their stride.
//
// Elements are read by data type code: 1 and 7 as unsigned 16-bit, 2 as signed 8-bit, 4 as unsigned
// 8-bit, 6 as signed 16-bit integers, every other code as 32-bit floats, unchanged.
#ifndef QUILMRUN_OUTPUT_DUMP_FORMAT_H_
#define QUILMRUN_OUTPUT_DUMP_FORMAT_H_

#include <array>
#include <cstddef>
#include <string>
#include <vector>

namespace quilmrun {

class OutputFile;

/// The name in a form that is safe as part of a file name.
std::string OutputFileName(const char* runtimeName);

/// A line of the text file: the longest is "-", 39 digits, ".", 16 digits and "\n".
using ValueLine = std::array<char, 64>;

/// Writes `value` and a newline to `line`, whatever the locale; returns the bytes used.
size_t FormatValueLine(float value, ValueLine& line);

/// Fills an open file with `values`; stops when it takes no more. As text, every line has reached
/// the file before the next value is formatted.
void WriteAsText(const std::vector<float>& values, const OutputFile& file);
void WriteAsBinary(const std::vector<float>& values, const OutputFile& file);

}  // namespace quilmrun

#endif  // QUILMRUN_OUTPUT_DUMP_FORMAT_H_
