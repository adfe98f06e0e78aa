#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "runtime/host/graph/rewrite_rules.h"

namespace quilm_host {
namespace {

/// Numbers less the greatest among those along the axes, so that no exponential overflows, and the
/// logarithm of the sum of their exponentials.
struct Centred {
  std::string greatest, differences, logarithm;
};

Centred Centre(GraphEditor& editor, const std::string& x, const Dims& axes) {
  const Attributes along = {{"axes", axes}, {"keepdims", int64_t{1}}};
  const std::string greatest = editor.Emit("ReduceMax", {x}, along);
  const std::string differences = editor.Emit("Sub", {x, greatest});
  const std::string sum = editor.Emit("ReduceSum", {editor.Emit("Exp", {differences})}, along);
  return {greatest, differences, editor.Emit("Log", {sum})};
}

Dims AllAxes(int64_t rank) {
  Dims axes;
  for (int64_t axis = 0; axis < rank; ++axis) {
    axes.push_back(axis);
  }
  return axes;
}

/// Lists become a row, as the engine reduces none.
struct Reduced {
  std::string x;
  Dims axes, dims;
};

Reduced ReadReduction(GraphEditor& editor, const Onnx__NodeProto& node) {
  const Dims& from = editor.DimsOf(node.input[0]);
  const auto rank = static_cast<int64_t>(from.size());
  const std::string list = InputOf(node, 1);
  const Dims given = list.empty() ? IntsAttribute(node, "axes", {}) : editor.Ints(list);
  if (given.empty() && IntAttribute(node, "noop_with_empty_axes", 0) != 0) {
    return {node.input[0], {}, from};
  }
  Reduced reduced = {node.input[0], CountedAxes(given.empty() ? AllAxes(rank) : given, rank), {}};
  const bool keeps = IntAttribute(node, "keepdims", 1) != 0;
  for (int64_t axis = 0; axis < rank; ++axis) {
    if (std::count(reduced.axes.begin(), reduced.axes.end(), axis) == 0) {
      reduced.dims.push_back(from[static_cast<size_t>(axis)]);
    } else if (keeps) {
      reduced.dims.push_back(1);
    }
  }
  if (rank == 1) {
    reduced.x = Shape(editor, node.input[0], {1, from[0]});
    reduced.axes = {0, 1};
  }
  return reduced;
}

}  // namespace

void RewriteReduction(GraphEditor& editor, const Onnx__NodeProto& node) {
  const Reduced reduced = ReadReduction(editor, node);
  if (reduced.axes.empty()) {
    editor.Emit("Identity", {node.input[0]}, {}, node.output[0]);
    return;
  }
  const int64_t keep = reduced.dims.size() == editor.DimsOf(reduced.x).size() ? 1 : 0;
  const Attributes attributes = {{"axes", reduced.axes}, {"keepdims", keep}};
  if (keep != 0 || reduced.x == node.input[0] || reduced.dims.empty()) {
    editor.Emit(node.op_type, {reduced.x}, attributes, node.output[0]);
  } else {
    Return(editor, editor.Emit(node.op_type, {reduced.x}, {{"axes", Dims{1}}}), reduced.dims,
           node.output[0]);
  }
}

void RewriteReduceLogSumExp(GraphEditor& editor, const Onnx__NodeProto& node) {
  const Reduced reduced = ReadReduction(editor, node);
  const Centred centred = Centre(editor, reduced.x, reduced.axes);
  Return(editor, editor.Emit("Add", {centred.logarithm, centred.greatest}), reduced.dims,
         node.output[0]);
}

/// Before opset 13 everything from the axis on is one row.
void RewriteSoftmax(GraphEditor& editor, const Onnx__NodeProto& node) {
  const Dims& dims = editor.DimsOf(node.input[0]);
  const auto rank = static_cast<int64_t>(dims.size());
  const bool isOld = editor.Opset() < 13;
  int64_t axis = CountedAxis(IntAttribute(node, "axis", isOld ? 1 : -1), rank);
  const bool isFlat = isOld || rank == 1;
  std::string x = node.input[0];
  if (isFlat) {
    x = Shape(editor, x, {CountBetween(dims, 0, axis), CountBetween(dims, axis, rank)});
    axis = 1;
  }
  std::string result;
  if (node.op_type == std::string("Softmax")) {
    result = editor.Emit("Softmax", {x}, {{"axis", axis}});
  } else {
    const Centred centred = Centre(editor, x, {axis});
    result = editor.Emit("Sub", {centred.differences, centred.logarithm});
  }
  Return(editor, result, dims, node.output[0]);
}

}  // namespace quilm_host
