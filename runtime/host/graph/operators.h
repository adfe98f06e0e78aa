#ifndef QUILMRUN_RUNTIME_HOST_GRAPH_OPERATORS_H_
#define QUILMRUN_RUNTIME_HOST_GRAPH_OPERATORS_H_

#include <string>

#include "onnx.pb-c.h"
#include "runtime/host/graph/graph_facts.h"

namespace quilm_host {

/// Checks every node of `model`'s graph against the table of operators that the engine computes
/// correctly. Returns the empty string when all are on it, else one line (no newline) naming the
/// first offending node and the reason, e.g. `node "pool" (MaxPool): dilations other than 1`.
///
/// The table holds for an engine that does not merge layers (cv::dnn::Net::enableFusion(false)):
/// merged ones are wrong in ways that depend on the whole graph.
std::string FindUnsupportedNode(const Onnx__ModelProto& model);

/// Defines the outputs of one node in `facts` and returns the empty string when the table has it,
/// else returns the reason why not.
std::string AdmitNode(const Onnx__NodeProto& node, GraphFacts& facts);

/// The empty string when every attribute is one of `known`, written as in a row of the table.
std::string CheckAttributes(const Onnx__NodeProto& node, const char* known);

}  // namespace quilm_host

#endif  // QUILMRUN_RUNTIME_HOST_GRAPH_OPERATORS_H_
