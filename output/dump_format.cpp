// The text and the binary form of the values of an output.
//
// Formatting takes most of the time of a dump. Usual numbers are therefore formatted here, which
// takes less than half of the library's time, and digit by digit the same.
#include "output/dump_format.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "base/c_locale.h"
#include "output/output_file.h"

namespace quilmrun {
namespace {

constexpr int kFractionDigits = 16;
constexpr uint64_t kFractionScale = 10000000000000000;  // 10^16
constexpr uint64_t kFivePart = 152587890625;            // 5^16, so that 10^16 is this times 2^16
constexpr int kTwoPart = 16;

// Returns the end of the text.
char* FormatAny(double value, char* begin, char* end) {
#if defined(__cpp_lib_to_chars) && __cpp_lib_to_chars >= 201611L
  return std::to_chars(begin, end, value, std::chars_format::fixed, kFractionDigits).ptr;
#else
  const CLocale locale;
  return begin +
         std::snprintf(begin, static_cast<size_t>(end - begin), "%.*f", kFractionDigits, value);
#endif
}

// number / 2^bits. Halves are rounded to even, as printf() does.
uint64_t DivideByPowerOfTwo(uint64_t number, int bits) {
  if (bits <= 0) {
    return number << -bits;
  }
  if (bits >= 64) {
    return 0;  // `number` has 62 bits at most, and is less than a half therefore
  }
  const uint64_t quotient = number >> bits;
  const uint64_t rest = number - (quotient << bits);
  const uint64_t half = uint64_t{1} << (bits - 1);
  return quotient + (rest > half || (rest == half && quotient % 2 == 1) ? 1 : 0);
}

// Formats mantissa / 2^bits, for a mantissa of 24 bits and `bits` from 1 on.
//
// The digits after the point are the fraction times 10^16 / 2^bits. That product does not fit 64
// bits; the fraction times 5^16 does, and divided by 2^(bits - 16) it is the same. Rounding never
// carries into the whole part: a fraction of 24 bits is too far from 1.
char* FormatFraction(uint64_t mantissa, int bits, char* begin, char* end) {
  const int wholeBits = std::min(bits, 63);
  const uint64_t whole = mantissa >> wholeBits;
  const uint64_t fraction = mantissa - (whole << wholeBits);
  char* point = std::to_chars(begin, end, whole).ptr;
  const uint64_t digits = DivideByPowerOfTwo(fraction * kFivePart, bits - kTwoPart);
  char* last = std::to_chars(point, end, kFractionScale + digits).ptr;
  *point = '.';  // in place of the 1 that stands for the leading zeros
  return last;
}

// The same as FormatAny(), in less than half the time where there is a fraction: below 2^23. A line
// then takes little more than its write call.
char* FormatFloat(float value, char* begin, char* end) {
  constexpr uint32_t kMantissaBits = 23;
  constexpr uint32_t kExponentOfWholes = 150;  // from here on there is no fraction
  uint32_t bits = 0;
  std::memcpy(&bits, &value, sizeof(bits));
  const uint32_t exponent = bits >> kMantissaBits & 0xFF;
  if (exponent >= kExponentOfWholes) {
    return FormatAny(static_cast<double>(value), begin, end);
  }
  uint64_t mantissa = bits & ((1U << kMantissaBits) - 1);
  mantissa |= exponent == 0 ? 0 : 1U << kMantissaBits;
  if (std::signbit(value)) {
    *begin++ = '-';
  }
  return FormatFraction(mantissa, static_cast<int>(kExponentOfWholes - std::max(exponent, 1U)),
                        begin, end);
}

}  // namespace

size_t FormatValueLine(float value, ValueLine& line) {
  char* end = FormatFloat(value, line.data(), line.data() + line.size() - 1);
  *end++ = '\n';
  return static_cast<size_t>(end - line.data());
}

void WriteAsText(const std::vector<float>& values, const OutputFile& file) {
  ValueLine line;
  for (const float value : values) {
    if (!file.Write(line.data(), FormatValueLine(value, line))) {
      return;
    }
  }
}

void WriteAsBinary(const std::vector<float>& values, const OutputFile& file) {
  file.Write(values.data(), values.size() * sizeof(float));
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

}  // namespace quilmrun
