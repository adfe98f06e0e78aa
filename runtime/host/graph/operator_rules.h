#ifndef QUILMRUN_RUNTIME_HOST_GRAPH_OPERATOR_RULES_H_
#define QUILMRUN_RUNTIME_HOST_GRAPH_OPERATOR_RULES_H_

#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

#include "runtime/host/graph/graph_facts.h"

namespace quilm_host {

/// One node with what is known about its inputs; its rule fills in the outputs.
struct Call {
  const Onnx__NodeProto& node;
  const GraphFacts& facts;
  std::vector<const Value*> in;  ///< Null for inputs left out.
  int32_t outType = 0;
  std::vector<Dims> out;

  const Dims& X() const { return in[0]->dims; }
  int64_t Rank() const { return static_cast<int64_t>(X().size()); }
  bool Has(size_t index) const { return index < in.size() && in[index] != nullptr; }
  bool IsConstant(size_t index) const { return Has(index) && in[index]->tensor != nullptr; }
  bool IsOp(const char* name) const { return std::strcmp(node.op_type, name) == 0; }
  int64_t Int(const char* name, int64_t fallback) const {
    return IntAttribute(node, name, fallback);
  }
  Dims Ints(const char* name, const Dims& fallback) const {
    return IntsAttribute(node, name, fallback);
  }
};

/// Returns the reason for a refusal, or null with the dims of the outputs in `call.out`. The
/// limits are those within which the engine was seen to agree with the ONNX operators.
using Rule = const char*(Call& call);

inline const char* Give(Call& call, const Dims& dims) {
  call.out.assign(1, dims);
  return nullptr;
}

/// Counts a negative axis from the end; -1 for one that is out of range. The engine holds a list as
/// a column, whose last dimension is another one.
inline int64_t Axis(int64_t axis, int64_t rank) {
  const int64_t counted = axis < 0 ? axis + rank : axis;
  const bool isLost = rank == 1 && axis < 0;
  return isLost || counted < 0 || counted >= rank ? -1 : counted;
}

Rule Same, Arithmetic, EqualShapes, ScalarPower, ClipRange, ExactCast, Dropping, Normalizing,
    ChannelSlope, LocalNormalizing, MatrixProduct, FullyConnected;

Rule Convolution, TransposedConvolution, Pooling, GlobalPooling, Resizing;

Rule Reduction, ArgReduction, SoftmaxAxis, Flattening, Reshaping, Transposition, Squeezing,
    Unsqueezing, Concatenation, Splitting, Slicing, Gathering, Padding, DepthSpace;

Rule Lstm, Gru;

}  // namespace quilm_host

#endif  // QUILMRUN_RUNTIME_HOST_GRAPH_OPERATOR_RULES_H_
