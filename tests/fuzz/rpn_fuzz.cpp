// RPN data files.
#include <cmath>
#include <cstdio>
#include <vector>

#include "base/number.h"
#include "base/status.h"
#include "input/rpn_data.h"
#include "tests/fuzz/fuzz.h"

using namespace quilmrun;       // NOLINT: what is tested
using namespace quilmrun_fuzz;  // NOLINT

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static MemoryFile file;
  std::vector<float> values;
  if (ReadRpnFile(file.Hold({reinterpret_cast<const char*>(data), size}), values) != kSuccess) {
    return 0;
  }
  // What has been read can be written and read again.
  std::string text;
  for (const float value : values) {
    Require(std::isfinite(value));
    char number[64];
    std::snprintf(number, sizeof(number), "%.9g ", static_cast<double>(value));
    text += number;
  }
  std::vector<float> again;
  Require(ParseFloats(text, again) && again == values);
  return 0;
}
