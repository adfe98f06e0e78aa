#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "runtime/host/graph/rewrite_rules.h"

namespace quilm_host {
namespace {

constexpr float kEpsilon = 1e-5F;

struct NormalizedRows {
  std::string rows, mean, deviation;
};

/// The root of variance and epsilon.
std::string Deviation(GraphEditor& editor, const std::string& variance, float epsilon) {
  const std::string term = editor.Constant({}, std::vector{epsilon});
  return editor.Emit("Sqrt", {editor.Emit("Add", {variance, term})});
}

/// Brings each row of a matrix to the mean 0 and the variance 1.
NormalizedRows NormalizeRows(GraphEditor& editor, const std::string& rows, float epsilon) {
  const Attributes each = {{"axes", Dims{1}}, {"keepdims", int64_t{1}}};
  const std::string mean = editor.Emit("ReduceMean", {rows}, each);
  const std::string centred = editor.Emit("Sub", {rows, mean});
  const std::string squares = editor.Emit("Mul", {centred, centred});
  const std::string deviation =
      Deviation(editor, editor.Emit("ReduceMean", {squares}, each), epsilon);
  return {editor.Emit("Div", {centred, deviation}), mean, deviation};
}

std::string Affine(GraphEditor& editor, const std::string& x, const std::string& scale,
                   const std::string& bias) {
  const std::string scaled = editor.Emit("Mul", {x, scale});
  return bias.empty() ? scaled : editor.Emit("Add", {scaled, bias});
}

}  // namespace

void RewriteLayerNormalization(GraphEditor& editor, const Onnx__NodeProto& node) {
  const Dims dims = editor.DimsOf(node.input[0]);
  const auto rank = static_cast<int64_t>(dims.size());
  const int64_t axis = CountedAxis(IntAttribute(node, "axis", -1), rank);
  const int64_t width = CountBetween(dims, axis, rank);
  const std::string matrix = Shape(editor, node.input[0], {CountBetween(dims, 0, axis), width});
  const NormalizedRows normalized =
      NormalizeRows(editor, matrix, FloatAttribute(node, "epsilon", kEpsilon));
  Names parameters;
  for (size_t k = 1; k < 3; ++k) {
    const std::string name = InputOf(node, k);
    const Dims row = {1, width};
    const Dims wanted(dims.begin() + axis, dims.end());
    parameters.push_back(name.empty() ? name : Shape(editor, Repeat(editor, name, wanted), row));
  }
  Return(editor, Affine(editor, normalized.rows, parameters[0], parameters[1]), dims,
         node.output[0]);
  Dims statistics(dims.begin(), dims.begin() + axis);
  statistics.resize(dims.size(), 1);
  if (node.n_output > 1 && node.output[1][0] != '\0') {
    Return(editor, normalized.mean, statistics, node.output[1]);
  }
  if (node.n_output > 2 && node.output[2][0] != '\0') {
    Return(editor, editor.Emit("Reciprocal", {normalized.deviation}), statistics, node.output[2]);
  }
}

void RewriteInstanceNormalization(GraphEditor& editor, const Onnx__NodeProto& node) {
  const Dims dims = editor.DimsOf(node.input[0]);
  const auto rank = static_cast<int64_t>(dims.size());
  if (rank < 3) {
    throw NoEquivalent();
  }
  const int64_t pixels = CountBetween(dims, 2, rank);
  const NormalizedRows normalized =
      NormalizeRows(editor, Shape(editor, node.input[0], {dims[0] * dims[1], pixels}),
                    FloatAttribute(node, "epsilon", kEpsilon));
  const std::string channels = Shape(editor, normalized.rows, {dims[0], dims[1], pixels});
  const Dims column = {1, dims[1], 1};
  const std::string result = Affine(editor, channels, Shape(editor, node.input[1], column),
                                    Shape(editor, node.input[2], column));
  Return(editor, result, dims, node.output[0]);
}

/// With computed parameters; the engine takes constant ones itself.
void RewriteBatchNormalization(GraphEditor& editor, const Onnx__NodeProto& node) {
  const Dims dims = editor.DimsOf(node.input[0]);
  const bool trains = (editor.Opset() < 7 && IntAttribute(node, "is_test", 0) == 0) ||
                      IntAttribute(node, "training_mode", 0) != 0 ||
                      IntAttribute(node, "spatial", 1) != 1;
  if (trains || dims.size() < 2) {
    throw NoEquivalent();
  }
  Dims column(dims.size(), 1);
  column[1] = dims[1];
  Names parameters;
  for (size_t k = 1; k < 5; ++k) {
    parameters.push_back(Shape(editor, node.input[k], column));
  }
  const std::string deviation =
      Deviation(editor, parameters[3], FloatAttribute(node, "epsilon", kEpsilon));
  const std::string inverse = editor.Emit("Reciprocal", {deviation});
  const std::string factor = editor.Emit("Mul", {parameters[0], inverse});
  const std::string centred = editor.Emit("Sub", {node.input[0], parameters[2]});
  editor.Emit("Add", {editor.Emit("Mul", {centred, factor}), parameters[1]}, {}, node.output[0]);
}

}  // namespace quilm_host
