#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
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
