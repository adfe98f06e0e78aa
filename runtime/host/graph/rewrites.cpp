#include "runtime/host/graph/rewrites.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string>

#include "runtime/host/graph/graph_editor.h"
#include "runtime/host/graph/operators.h"
#include "runtime/host/graph/rewrite_rules.h"

namespace quilm_host {
namespace {

/// An operator with the attributes, written as in the table of operators, and the numbers of inputs
/// and outputs that its rewrite understands. Null where it looks at the attributes itself.
struct RewriteRow {
  const char* name;
  size_t minInputs;
  size_t maxInputs;
  const char* attributes;
  Rewrite* rewrite;
  size_t maxOutputs = 1;
};

constexpr size_t kAny = SIZE_MAX;
constexpr char kReduceAttributes[] = "axes:I keepdims:i noop_with_empty_axes:i";
constexpr char kPoolAttributes[] =
    "kernel_shape:I strides:I pads:I dilations:I auto_pad:s ceil_mode:i count_include_pad:i";

constexpr RewriteRow kTable[] = {
    {"Add", 2, 2, "broadcast:i", RewriteElementwise},
    {"AveragePool", 1, 1, kPoolAttributes, RewritePool},
    {"BatchNormalization", 5, 5, "epsilon:f momentum:f spatial:i is_test:i training_mode:i",
     RewriteBatchNormalization},
    {"Cast", 1, 1, "to:i", RewriteCast},
    {"Ceil", 1, 1, "", RewriteFunction},
    {"Clip", 1, 3, "", RewriteClip},
    {"Concat", 1, kAny, "axis:i", RewriteConcat},
    {"Constant", 0, 0, "value_int:i value_ints:L value_float:f", RewriteConstant},
    {"ConstantOfShape", 1, 1, nullptr, RewriteConstantOfShape},
    {"Div", 2, 2, "broadcast:i", RewriteElementwise},
    {"Expand", 2, 2, "", RewriteExpand},
    {"Flatten", 1, 1, "axis:i", RewriteFlatten},
    {"Floor", 1, 1, "", RewriteFunction},
    {"GRU", 3, 6, "hidden_size:i direction:s linear_before_reset:i layout:i", RewriteRecurrent, 2},
    {"Gather", 2, 2, "axis:i", RewriteGather},
    {"Gemm", 2, 3, "alpha:f beta:f transA:i transB:i broadcast:i", RewriteGemm},
    {"GlobalAveragePool", 1, 1, "", RewriteGlobalPool},
    {"GlobalMaxPool", 1, 1, "", RewriteGlobalPool},
    {"Identity", 1, 1, "", RewriteIdentity},
    {"InstanceNormalization", 3, 3, "epsilon:f", RewriteInstanceNormalization},
    {"LSTM", 3, 7, "hidden_size:i direction:s input_forget:i layout:i", RewriteRecurrent, 3},
    {"LayerNormalization", 2, 3, "axis:i epsilon:f stash_type:i", RewriteLayerNormalization, 3},
    {"LogSoftmax", 1, 1, "axis:i", RewriteSoftmax},
    {"MatMul", 2, 2, "", RewriteMatMul},
    {"Max", 1, kAny, "", RewriteExtremes},
    {"MaxPool", 1, 1, kPoolAttributes, RewritePool},
    {"Mean", 1, kAny, "", RewriteMean},
    {"Min", 1, kAny, "", RewriteExtremes},
    {"Mul", 2, 2, "broadcast:i", RewriteElementwise},
    {"Neg", 1, 1, "", RewriteFunction},
    {"PRelu", 2, 2, "", RewritePRelu},
    {"Reciprocal", 1, 1, "", RewriteFunction},
    {"ReduceL1", 1, 2, kReduceAttributes, RewriteReduction},
    {"ReduceL2", 1, 2, kReduceAttributes, RewriteReduction},
    {"ReduceLogSum", 1, 2, kReduceAttributes, RewriteReduction},
    {"ReduceLogSumExp", 1, 2, kReduceAttributes, RewriteReduceLogSumExp},
    {"ReduceMax", 1, 2, kReduceAttributes, RewriteReduction},
    {"ReduceMean", 1, 2, kReduceAttributes, RewriteReduction},
    {"ReduceMin", 1, 2, kReduceAttributes, RewriteReduction},
    {"ReduceProd", 1, 2, kReduceAttributes, RewriteReduction},
    {"ReduceSum", 1, 2, kReduceAttributes, RewriteReduction},
    {"ReduceSumSquare", 1, 2, kReduceAttributes, RewriteReduction},
    {"Reshape", 1, 2, "shape:I allowzero:i", RewriteReshape},
    {"Shape", 1, 1, "start:i end:i", RewriteShape},
    {"Size", 1, 1, "", RewriteSize},
    {"Slice", 1, 5, "starts:L ends:L axes:L", RewriteSlice},
    {"Softmax", 1, 1, "axis:i", RewriteSoftmax},
    {"Softplus", 1, 1, "", RewriteSoftplus},
    {"Split", 1, 2, "axis:i split:I", RewriteSplit, 64},
    {"Sqrt", 1, 1, "", RewriteFunction},
    {"Squeeze", 1, 2, "axes:I", RewriteSqueeze},
    {"Sub", 2, 2, "broadcast:i", RewriteElementwise},
    {"Sum", 1, kAny, "", RewriteSum},
    {"Transpose", 1, 1, "perm:I", RewriteTranspose},
    {"Unsqueeze", 1, 2, "axes:I", RewriteUnsqueeze},
};

Rewrite* FindInTable(const Onnx__NodeProto& node) {
  const std::string domain = node.domain == nullptr ? "" : node.domain;
  if (node.op_type == nullptr || (!domain.empty() && domain != "ai.onnx")) {
    return nullptr;
  }
  const auto* row =
      std::find_if(std::begin(kTable), std::end(kTable), [&node](const RewriteRow& candidate) {
        return std::strcmp(candidate.name, node.op_type) == 0;
      });
  const bool fits = row != std::end(kTable) && node.n_input >= row->minInputs &&
                    node.n_input <= row->maxInputs && node.n_output >= 1 &&
                    node.n_output <= row->maxOutputs &&
                    (node.output[0][0] != '\0' || row->maxOutputs > 1) &&
                    (row->attributes == nullptr || CheckAttributes(node, row->attributes).empty());
  return fits ? row->rewrite : nullptr;
}

/// Inputs of which only the one number counts, not the dims.
bool IsRankless(const Onnx__NodeProto& node, size_t input) {
  const std::string op = node.op_type == nullptr ? "" : node.op_type;
  return (op == "Clip" && input > 0) || (op == "Gemm" && input == 2);
}

bool IsUsedRanklessly(const Onnx__GraphProto& graph, const std::string& name) {
  for (size_t i = 0; i < graph.n_node; ++i) {
    const Onnx__NodeProto& node = *graph.node[i];
    for (size_t k = 0; k < node.n_input; ++k) {
      if (node.input[k] == name && !IsRankless(node, k)) {
        return false;
      }
    }
  }
  return true;
}

bool IsInitializer(const Onnx__GraphProto& graph, const std::string& name) {
  return std::any_of(graph.initializer, graph.initializer + graph.n_initializer,
                     [&name](const Onnx__TensorProto* tensor) {
                       return tensor->name != nullptr && tensor->name == name;
                     });
}

/// The engine takes no scalars from outside, so these become lists of one number.
void ListScalars(Onnx__GraphProto& graph) {
  for (size_t i = 0; i < graph.n_input; ++i) {
    Onnx__ValueInfoProto& input = *graph.input[i];
    const std::string name = input.name == nullptr ? "" : input.name;
    if (DeclaredDims(input) == Dims{} && !IsInitializer(graph, name) &&
        IsUsedRanklessly(graph, name)) {
      AddDimension(*input.type->tensor_type->shape);
    }
  }
}

}  // namespace

void RewriteForEngine(Onnx__ModelProto& model) {
  ListScalars(*model.graph);
  GraphEditor(model, FindInTable).EditAll();
}

}  // namespace quilm_host
