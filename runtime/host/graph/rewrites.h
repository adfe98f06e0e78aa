#ifndef QUILMRUN_RUNTIME_HOST_GRAPH_REWRITES_H_
#define QUILMRUN_RUNTIME_HOST_GRAPH_REWRITES_H_

#include "onnx.pb-c.h"

namespace quilm_host {

/// Replaces nodes that the table of operators refuses by equivalent ones that it admits. What has
/// no equivalent stays as it is, so the graph still has to be checked.
void RewriteForEngine(Onnx__ModelProto& model);

}  // namespace quilm_host

#endif  // QUILMRUN_RUNTIME_HOST_GRAPH_REWRITES_H_
