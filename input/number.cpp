#include "input/number.h"

#include <algorithm>
#include <charconv>

namespace quilmrun {
namespace {

// The white space of the C locale; std::isspace would follow the locale in force.
constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";

}  // namespace

std::optional<int32_t> ParseInt32(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(kWhiteSpace), text.size()));
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

}  // namespace quilmrun
