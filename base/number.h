// Numbers as users, input files and the system write them.
#ifndef QUILMRUN_BASE_NUMBER_H_
#define QUILMRUN_BASE_NUMBER_H_

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace quilmrun {

/// The base-10 integer at the start of `text`. White space is skipped, a sign is accepted, and what
/// follows the digits is ignored ("12abc" is 12). Empty when no digit stands there or the number
/// lies outside the signed 32-bit range.
std::optional<int32_t> ParseInt32(std::string_view text);

/// Appends the decimal floating-point numbers in `text` to `values`, as the nearest 32-bit floats,
/// whatever the locale. A number is an optional sign, digits with an optional fraction, and an
/// optional exponent ("-12", ".5", "3.", "1e-3"). It extends as far as it can, and the next one may
/// follow at once ("1.5.5" is 1.5 and 0.5) or after white space. False when something else stands
/// where a number has to begin, such as "inf", "nan" or "0x1", and when a number is too large for a
/// float; the numbers before it have been appended then. A number that is too small becomes the
/// nearest float.
bool ParseFloats(std::string_view text, std::vector<float>& values);

/// The same for the start of a longer text. Takes what it has read off `text`. Leaves the end of
/// `text` there when the next piece may continue its last number.
bool ParseFloatsSoFar(std::string_view& text, std::vector<float>& values);

}  // namespace quilmrun

#endif  // QUILMRUN_BASE_NUMBER_H_
