#include "base/number.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

namespace quilmrun {
namespace {

TEST(ParseInt32, TakesTheLeadingNumber) {
  const std::pair<const char*, int32_t> rows[] = {
      {"0", 0},         {"7x", 7},
      {"12abc", 12},    {" \t\n 5", 5},
      {"+5", 5},        {"-5", -5},
      {"007", 7},       {"1 2", 1},
      {"0x10", 0},      {"3.9", 3},
      {"4-", 4},        {"2147483647", INT32_MAX},
      {"\v\f\r-1", -1}, {"-2147483648", INT32_MIN},
  };
  for (const auto& [text, value] : rows) {
    EXPECT_EQ(ParseInt32(text), value) << text;
  }
}

TEST(ParseInt32, RefusesWhatIsNoNumberInRange) {
  for (const char* text : {"", " ", "x", "x4", "+", "-", "+-5", "-+5", "--5", "+ 5", ".5",
                           "2147483648", "-2147483649", "99999999999", "99999999999999999999999"}) {
    EXPECT_EQ(ParseInt32(text), std::nullopt) << text;
  }
}

struct Accepted {
  const char* text;
  std::vector<float> values;
};

const Accepted kAccepted[] = {
    {"", {}},
    {" \t\r\n\v\f ", {}},
    {"0.5 0.3 0.7 0.1", {0.5F, 0.3F, 0.7F, 0.1F}},
    {"1\n2\r\n3\t4\n", {1, 2, 3, 4}},
    {"+1 -2 .5 3. -.25", {1, -2, 0.5F, 3, -0.25F}},
    {"1e2 1E-2 2.5e+1", {100, 0.01F, 25}},
    {"1.5.5", {1.5F, 0.5F}},
    {"1-2+3", {1, -2, 3}},
    {"1.2.3.4", {1.2F, 0.3F, 0.4F}},
    {"16777217", {16777216}},
    {"3.4028234e38", {std::numeric_limits<float>::max()}},
    {"1e-45 1e-60 -1e-999", {std::numeric_limits<float>::denorm_min(), 0, -0.0F}},
};

// Does what ParseFloats() does, with a text that comes character by character.
bool ParseInPieces(std::string_view text, std::vector<float>& values) {
  std::string pending;
  for (const char c : text) {
    pending += c;
    std::string_view rest = pending;
    if (!ParseFloatsSoFar(rest, values)) {
      return false;
    }
    pending = std::string(rest);
  }
  return ParseFloats(pending, values);
}

TEST(ParseFloats, AcceptsDecimalNumbers) {
  for (const Accepted& row : kAccepted) {
    std::vector<float> values;
    std::vector<float> pieces;
    EXPECT_TRUE(ParseFloats(row.text, values)) << row.text;
    EXPECT_EQ(values, row.values) << row.text;
    EXPECT_TRUE(ParseInPieces(row.text, pieces)) << row.text;
    EXPECT_EQ(pieces, values) << row.text;
    for (size_t i = 0; i < values.size(); ++i) {
      EXPECT_EQ(std::signbit(values[i]), std::signbit(row.values[i])) << row.text;
    }
  }
}

TEST(ParseFloats, RefusesEverythingElse) {
  const char* const rows[] = {
      ",",     "1,2",  "1, 2", "a",    "1 a",      ".",     "1 .",  "-",     "+ 1",    "--1",
      "+-1",   "e5",   "1e",   "1e+",  "1e 5",     "inf",   "-inf", "nan",   "NaN",    "infinity",
      "0x1p3", "0x10", "1f",   "1.0f", "1_000",    "1'000", "1e39", "-1e39", "3.5e38", "1e999",
      "\"1\"", "#1",   "1;2",  "½",    "1\u00a02", ".e1",   "1..",
  };
  for (const char* text : rows) {
    std::vector<float> values;
    EXPECT_FALSE(ParseFloats(text, values)) << text;
    EXPECT_FALSE(ParseInPieces(text, values)) << text;
  }
  std::vector<float> values;
  EXPECT_FALSE(ParseFloats(std::string_view("1\0002", 3), values)) << "a NUL byte";
}

}  // namespace
}  // namespace quilmrun
