#include "base/number.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <string>

#include "base/c_locale.h"

namespace quilmrun {
namespace {

// The white space of the C locale; std::isspace would follow the locale in force.
constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";

void SkipWhiteSpace(std::string_view& text) {
  text.remove_prefix(std::min(text.find_first_not_of(kWhiteSpace), text.size()));
}

size_t SignLength(std::string_view text) {
  return !text.empty() && (text[0] == '+' || text[0] == '-') ? 1 : 0;
}

size_t DigitsLength(std::string_view text) {
  return std::min(text.find_first_not_of("0123456789"), text.size());
}

// Characters of the exponent at the start of `text`. An "e" is none unless digits follow it.
size_t ExponentLength(std::string_view text) {
  if (text.empty() || (text[0] != 'e' && text[0] != 'E')) {
    return 0;
  }
  const size_t beforeDigits = 1 + SignLength(text.substr(1));
  const size_t digits = DigitsLength(text.substr(beforeDigits));
  return digits == 0 ? 0 : beforeDigits + digits;
}

// Characters of the number at the start of `text`; 0 when none begins there.
size_t NumberLength(std::string_view text) {
  const size_t sign = SignLength(text);
  const size_t integer = DigitsLength(text.substr(sign));
  size_t end = sign + integer;
  size_t fraction = 0;
  if (end < text.size() && text[end] == '.') {
    fraction = DigitsLength(text.substr(end + 1));
    end += 1 + fraction;
  }
  return integer + fraction == 0 ? 0 : end + ExponentLength(text.substr(end));
}

// Converts `number`, which is the whole of a number, or empty. The result is empty when `number`
// is, and when its magnitude is too large for a float.
std::optional<float> ToFloat(std::string_view number) {
  if (number.empty()) {
    return std::nullopt;
  }
  // from_chars() for floats is missing in older C++ libraries, as boards have them.
  const CLocale locale;
  const float value = std::strtof(std::string(number).c_str(), nullptr);
  return std::isinf(value) ? std::nullopt : std::optional<float>(value);
}

// A number is complete once three characters follow it: "1", "1e" and "1e+" may all continue to
// "1e+5". In the same way three characters show that no number begins there, unlike in "-.5".
constexpr size_t kLookAhead = 3;

// Takes numbers off the front of `text` as long as `lookAhead` characters follow them. False at the
// first text that is no number, or a number that is too large.
bool TakeFloats(std::string_view& text, size_t lookAhead, std::vector<float>& values) {
  for (SkipWhiteSpace(text); !text.empty(); SkipWhiteSpace(text)) {
    const size_t length = NumberLength(text);
    if (text.size() < length + lookAhead) {
      return true;
    }
    const std::optional<float> value = ToFloat(text.substr(0, length));
    if (!value.has_value()) {
      return false;
    }
    values.push_back(*value);
    text.remove_prefix(length);
  }
  return true;
}

}  // namespace

std::optional<int32_t> ParseInt32(std::string_view text) {
  SkipWhiteSpace(text);
  // from_chars() accepts a minus, but no plus.
  if (text.size() > 1 && text[0] == '+' && text[1] != '-') {
    text.remove_prefix(1);
  }
  int32_t value = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
  if (result.ec != std::errc()) {
    return std::nullopt;
  }
  return value;
}

bool ParseFloats(std::string_view text, std::vector<float>& values) {
  return TakeFloats(text, 0, values);
}

bool ParseFloatsSoFar(std::string_view& text, std::vector<float>& values) {
  return TakeFloats(text, kLookAhead, values);
}

}  // namespace quilmrun
