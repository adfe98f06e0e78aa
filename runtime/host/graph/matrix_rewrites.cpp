#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "runtime/host/graph/rewrite_rules.h"

namespace quilm_host {
namespace {

std::vector<float> Scaled(std::vector<float> values, float factor) {
  for (float& value : values) {
    value *= factor;
  }
  return values;
}

/// Of a matrix of `rows` by `columns`.
std::vector<float> Transposed(const std::vector<float>& values, size_t rows, size_t columns) {
  std::vector<float> transposed(values.size());
  for (size_t k = 0; k < values.size(); ++k) {
    transposed[k % columns * rows + k / columns] = values[k];
  }
  return transposed;
}

/// The matrix, constant or computed, with its last two dims swapped.
std::string Transpose(GraphEditor& editor, const std::string& name,
                      const std::string& output = "") {
  const Dims& dims = editor.DimsOf(name);
  const bool isConstant = editor.IsConstant(name);
  if (dims.size() < 2 || (isConstant && dims.size() > 2)) {
    throw NoEquivalent();
  }
  if (isConstant) {
    const auto rows = static_cast<size_t>(dims[0]);
    const auto columns = static_cast<size_t>(dims[1]);
    return editor.Constant({dims[1], dims[0]}, Transposed(editor.Floats(name), rows, columns),
                           output);
  }
  Dims order(dims.size());
  std::iota(order.begin(), order.end(), 0);
  std::swap(order.back(), *(order.end() - 2));
  return editor.Emit("Transpose", {name}, {{"perm", order}}, output);
}

std::string Times(GraphEditor& editor, const std::string& name, float factor) {
  if (factor == 1) {
    return name;
  }
  return editor.IsConstant(name)
             ? editor.Constant(editor.DimsOf(name), Scaled(editor.Floats(name), factor))
             : editor.Emit("Mul", {name, editor.Constant({}, std::vector{factor})});
}

/// The engine takes the weights as transposed.
std::string Product(GraphEditor& editor, const std::string& a, const std::string& b, bool transB,
                    float alpha) {
  if (!editor.IsConstant(b) || editor.IsConstant(a)) {
    const std::string right = transB ? Transpose(editor, b) : b;
    return Times(editor, editor.Emit("MatMul", {a, right}), alpha);
  }
  const std::string weights = transB ? b : Transpose(editor, b);
  return editor.Emit("Gemm", {a, Times(editor, weights, alpha)}, {{"transB", int64_t{1}}});
}

struct Operand {
  std::string name;
  Dims batch;
  int64_t rows, columns;

  bool IsOneMatrix() const { return Count(batch) == 1; }
};

/// Lists count as a matrix of one row when they come first, of one column when second.
Operand ReadOperand(const GraphEditor& editor, const std::string& name, bool isFirst) {
  Dims dims = editor.DimsOf(name);
  if (dims.empty()) {
    throw NoEquivalent();
  }
  if (dims.size() == 1) {
    dims.insert(isFirst ? dims.begin() : dims.end(), 1);
  }
  return {name, Dims(dims.begin(), dims.end() - 2), *(dims.end() - 2), dims.back()};
}

/// The operand as a stack of matrices.
std::string Stack(GraphEditor& editor, const Operand& operand, const Dims& batch) {
  Dims own = operand.batch;
  own.insert(own.end(), {operand.rows, operand.columns});
  Dims dims = batch;
  dims.insert(dims.end(), {operand.rows, operand.columns});
  const std::string repeated = Repeat(editor, Shape(editor, operand.name, own), dims);
  return Shape(editor, repeated, {Count(batch), operand.rows, operand.columns});
}

}  // namespace

void RewriteGemm(GraphEditor& editor, const Onnx__NodeProto& node) {
  const bool transA = IntAttribute(node, "transA", 0) != 0;
  const bool transB = IntAttribute(node, "transB", 0) != 0;
  const std::string a = transA ? Transpose(editor, node.input[0]) : node.input[0];
  const std::string product =
      Product(editor, a, node.input[1], transB, FloatAttribute(node, "alpha", 1));
  const std::string c = InputOf(node, 2);
  if (c.empty()) {
    editor.Emit("Identity", {product}, {}, node.output[0]);
    return;
  }
  const Dims dims = editor.DimsOf(product);
  if (CommonDims(editor, {product, c}) != dims) {
    throw NoEquivalent();
  }
  const std::string addend = Times(editor, c, FloatAttribute(node, "beta", 1));
  editor.Emit("Add", {product, addend}, {}, node.output[0]);
}

void RewriteMatMul(GraphEditor& editor, const Onnx__NodeProto& node) {
  const Operand a = ReadOperand(editor, node.input[0], true);
  const Operand b = ReadOperand(editor, node.input[1], false);
  const Dims batch = CommonDims(a.batch, b.batch);
  Dims dims = batch;
  if (editor.DimsOf(a.name).size() > 1) {
    dims.push_back(a.rows);
  }
  if (editor.DimsOf(b.name).size() > 1) {
    dims.push_back(b.columns);
  }
  std::string product;
  if (editor.IsConstant(a.name) && a.IsOneMatrix()) {
    // The engine wants the constant second: the transposed product of the transposed matrices.
    const std::string left = Transpose(editor, Stack(editor, b, b.batch));
    const std::string right = Transpose(editor, Shape(editor, a.name, {a.rows, a.columns}));
    product = Transpose(editor, editor.Emit("MatMul", {left, right}));
  } else if (editor.IsConstant(b.name) && b.IsOneMatrix()) {
    const std::string left = Shape(editor, a.name, {Count(a.batch) * a.rows, a.columns});
    product = editor.Emit("MatMul", {left, Shape(editor, b.name, {b.rows, b.columns})});
  } else {
    product = editor.Emit("MatMul", {Stack(editor, a, batch), Stack(editor, b, batch)});
  }
  Return(editor, product, dims, node.output[0]);
}

/// Of constant weights; the engine takes computed values itself.
void RewriteTranspose(GraphEditor& editor, const Onnx__NodeProto& node) {
  if (!editor.IsConstant(node.input[0]) || IntsAttribute(node, "perm", {1, 0}) != Dims{1, 0}) {
    throw NoEquivalent();
  }
  Transpose(editor, node.input[0], node.output[0]);
}

}  // namespace quilm_host
