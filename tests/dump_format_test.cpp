#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string>

#include "output/dump.h"

namespace quilmrun {
namespace {

TEST(FormatValueLine, PrintsSixteenDigitsAfterThePoint) {
  const std::pair<float, const char*> rows[] = {
      {0.1F, "0.1000000014901161\n"},
      {-3.0F, "-3.0000000000000000\n"},
      {255.0F, "255.0000000000000000\n"},
      {-0.0F, "-0.0000000000000000\n"},
      {1e-20F, "0.0000000000000000\n"},
      {std::numeric_limits<float>::infinity(), "inf\n"},
      {-std::numeric_limits<float>::infinity(), "-inf\n"},
      {std::numeric_limits<float>::quiet_NaN(), "nan\n"},
      {-std::numeric_limits<float>::max(),
       "-340282346638528859811704183484516925440.0000000000000000\n"},
  };
  for (const auto& [value, text] : rows) {
    ValueLine line;
    EXPECT_EQ(std::string(line.data(), FormatValueLine(value, line)), text);
  }
}

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

// Mantissas at both ends and in the middle with every exponent: zeros, denormals, halves that are
// rounded to even, infinities and NaN of both signs among them.
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

TEST(OutputFileName, IsSafeAsAFileName) {
  EXPECT_EQ(OutputFileName(nullptr), "output");
  EXPECT_EQ(OutputFileName(""), "output");
  EXPECT_EQ(OutputFileName("prob.1"), "prob_1");
  EXPECT_EQ(OutputFileName("x/y\\z"), "x_y_z");
  EXPECT_EQ(OutputFileName("../a b"), "___a b");
}

TEST(BytesNeeded, CountsUpToTheLastElement) {
  constexpr size_t kMax = std::numeric_limits<size_t>::max();
  struct Row {
    size_t rows, rowElements, rowPitch, elementSize, needed;
  };
  const Row rows[] = {
      {0, 8, 32, 4, 0},       {1, 8, 32, 4, 32},         {3, 8, 32, 4, 288},
      {kMax, 8, 32, 4, kMax}, {2, 8, kMax / 2, 4, kMax}, {1, kMax / 4 + 1, 0, 4, kMax},
      {2, kMax, 1, 1, kMax},
  };
  for (const Row& row : rows) {
    OutputRows layout;
    layout.rows = row.rows;
    layout.rowElements = row.rowElements;
    layout.rowPitch = row.rowPitch;
    EXPECT_EQ(BytesNeeded(layout, row.elementSize), row.needed);
  }
}

}  // namespace
}  // namespace quilmrun
