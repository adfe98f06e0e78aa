// What an engine that counts in 32-bit floats does not carry through, and therefore does not take.
#ifndef QUILMRUN_RUNTIME_HOST_ELEMENT_CHECKS_H_
#define QUILMRUN_RUNTIME_HOST_ELEMENT_CHECKS_H_

#include <string>

#include "runtime/host/engine.h"

namespace quilm_host {

/// True below the magnitude from which on neighbouring integers share one 32-bit float; false for
/// NaN and infinity.
bool IsExactInteger(float value);

/// What is said of a tensor with integers for which that does not hold.
std::string InexactInteger(const Tensor& tensor);

/// An empty string when every element of `input` can be carried: integers that are exact as floats,
/// floats that are finite; else what is wrong.
std::string CheckElements(const TensorData& input);

}  // namespace quilm_host

#endif  // QUILMRUN_RUNTIME_HOST_ELEMENT_CHECKS_H_
