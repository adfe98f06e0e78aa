#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <limits>

#include "output/dump.h"

namespace quilmrun {
namespace {

constexpr int kFractionDigits = 16;

// Returns the bytes written.
size_t FormatFixed(double value, char* begin, char* end) {
#if defined(__cpp_lib_to_chars) && __cpp_lib_to_chars >= 201611L
  const auto result = std::to_chars(begin, end, value, std::chars_format::fixed, kFractionDigits);
  return static_cast<size_t>(result.ptr - begin);
#else
  const auto room = static_cast<size_t>(end - begin);
  const int size = std::snprintf(begin, room, "%.*f", kFractionDigits, value);
  std::replace(begin, begin + size, ',', '.');  // the decimal point of the locale in force
  return static_cast<size_t>(size);
#endif
}

}  // namespace

size_t FormatValueLine(float value, ValueLine& line) {
  const size_t size = FormatFixed(value, line.data(), line.data() + line.size() - 1);
  line[size] = '\n';
  return size + 1;
}

std::string OutputFileName(const char* runtimeName) {
  if (runtimeName == nullptr || *runtimeName == '\0') {
    return "output";
  }
  std::string name = runtimeName;
  const auto isUnsafe = [](char c) { return c == '\\' || c == '.' || c == '/'; };
  std::replace_if(name.begin(), name.end(), isUnsafe, '_');
  return name;
}

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

}  // namespace quilmrun
