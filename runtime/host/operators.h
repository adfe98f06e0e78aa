#ifndef QUILMRUN_RUNTIME_HOST_OPERATORS_H_
#define QUILMRUN_RUNTIME_HOST_OPERATORS_H_

#include <string>

#include "onnx.pb-c.h"

namespace quilm_host {

/// Checks every node of `model`'s graph against the table of operators that the engine computes
/// correctly. Returns the empty string when all are on it, else one line (no newline) naming the
/// first offending node and the reason, e.g. `node "pool" (MaxPool): dilations other than 1`.
///
/// The table holds for an engine that does not merge layers (cv::dnn::Net::enableFusion(false)):
/// merged ones are wrong in ways that depend on the whole graph. Numbers of LogSoftmax,
/// ReduceLogSumExp and Softplus at the outputs can be infinite where they should not be.
std::string FindUnsupportedNode(const Onnx__ModelProto& model);

}  // namespace quilm_host

#endif  // QUILMRUN_RUNTIME_HOST_OPERATORS_H_
