// Numbers as users, input files and the system write them.
#ifndef QUILMRUN_INPUT_NUMBER_H_
#define QUILMRUN_INPUT_NUMBER_H_

#include <cstdint>
#include <optional>
#include <string_view>

namespace quilmrun {

/// The base-10 integer at the start of `text`: white space is skipped, a sign is accepted, the
/// leading run of digits counts and whatever follows it is ignored ("12abc" is 12). Empty when no
/// digit stands there or the number lies outside the signed 32-bit range.
std::optional<int32_t> ParseInt32(std::string_view text);

}  // namespace quilmrun

#endif  // QUILMRUN_INPUT_NUMBER_H_
