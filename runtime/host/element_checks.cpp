#include "runtime/host/element_checks.h"

#include <cmath>
#include <cstring>

namespace quilm_host {
namespace {

constexpr int32_t kFirstInexactInteger = 1 << 24;

bool IsExact(int32_t value) {
  return value > -kFirstInexactInteger && value < kFirstInexactInteger;
}

bool IsFiniteHalf(uint16_t bits) {
  constexpr uint16_t kExponent = 0x7C00;
  return (bits & kExponent) != kExponent;
}

bool IsFinite(float value) {
  return std::isfinite(value);
}

template <typename T>
bool AllOf(const TensorData& input, bool (*predicate)(T)) {
  const Tensor& tensor = *input.tensor;
  const unsigned char* row = input.data;
  for (size_t r = 0; r < RowCount(tensor); ++r, row += tensor.stride) {
    for (size_t i = 0; i < RowElements(tensor); ++i) {
      T element;
      std::memcpy(&element, row + i * sizeof(T), sizeof(T));
      if (!predicate(element)) {
        return false;
      }
    }
  }
  return true;
}

}  // namespace

bool IsExactInteger(float value) {
  return std::fabs(value) < static_cast<float>(kFirstInexactInteger);
}

std::string InexactInteger(const Tensor& tensor) {
  return "\"" + tensor.name + "\" holds a number that is not below 2^24 in magnitude, which the " +
         "engine cannot carry exactly as an integer";
}

std::string CheckElements(const TensorData& input) {
  const Tensor& tensor = *input.tensor;
  if (tensor.dataType == kInt32 && !AllOf<int32_t>(input, IsExact)) {
    return InexactInteger(tensor);
  }
  // Some layers turn infinities into NaN and NaN into numbers.
  if ((tensor.dataType == kFloat && !AllOf<float>(input, IsFinite)) ||
      (tensor.dataType == kHalf && !AllOf<uint16_t>(input, IsFiniteHalf))) {
    return "\"" + tensor.name + "\" holds infinity or NaN, which the engine does not carry through";
  }
  return {};
}

}  // namespace quilm_host
