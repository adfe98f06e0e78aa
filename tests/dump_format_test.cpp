#include "output/dump_format.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

namespace quilmrun {
namespace {

float FromBits(uint32_t bits) {
  float value = 0;
  std::memcpy(&value, &bits, sizeof(value));
  return value;
}

void ExpectAsPrintf(uint32_t bits) {
  ValueLine line;
  const std::string text(line.data(), FormatValueLine(FromBits(bits), line));
  char expected[80];
  std::snprintf(expected, sizeof(expected), "%.16f\n", static_cast<double>(FromBits(bits)));
  ASSERT_EQ(text, expected) << "bits " << bits;
}

// Combines mantissas at both ends and in the middle with every exponent. Zeros, denormals, halves
// that are rounded to even, infinities and NaN of both signs are among them.
TEST(FormatValueLine, WritesWhatPrintfWritesForEveryExponent) {
  for (const uint32_t mantissa :
       {0U, 1U, 2U, 3U, 0x2AAAAAU, 0x400000U, 0x400001U, 0x600000U, 0x7FFFFEU, 0x7FFFFFU}) {
    for (uint32_t signAndExponent = 0; signAndExponent < 512; ++signAndExponent) {
      ExpectAsPrintf(signAndExponent << 23 | mantissa);
    }
  }
}

TEST(FormatValueLine, WritesWhatPrintfWritesForAnyBits) {
  uint32_t random = 1;
  for (int i = 0; i < 300000; ++i) {
    random = random * 1664525 + 1013904223;
    ExpectAsPrintf(random);
  }
}

}  // namespace
}  // namespace quilmrun
