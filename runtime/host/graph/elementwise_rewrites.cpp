#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "runtime/host/graph/rewrite_rules.h"

namespace quilm_host {
namespace {

/// A constant that is written out in full must not blow up the model.
constexpr int64_t kMostWrittenOut = 1 << 24;

/// Neighbouring dims that are either all repeated or all there, as one.
struct Span {
  int64_t size;
  bool isRepeated;
};

std::vector<Span> SpansOf(const Dims& from, const Dims& to) {
  const Dims padded = Padded(from, to.size());
  std::vector<Span> spans;
  for (size_t k = 0; k < to.size() && padded.size() == to.size(); ++k) {
    if (padded[k] != to[k] && padded[k] != 1) {
      throw NoEquivalent();
    }
    const bool isRepeated = padded[k] != to[k];
    if (to[k] == 1) {
      continue;
    }
    if (spans.empty() || spans.back().isRepeated != isRepeated) {
      spans.push_back({1, isRepeated});
    }
    spans.back().size *= to[k];
  }
  return spans;
}

std::vector<float> RepeatElements(std::vector<float> values, const std::vector<Span>& spans) {
  int64_t inner = 1;
  for (auto span = spans.rbegin(); span != spans.rend(); ++span) {
    if (span->isRepeated) {
      std::vector<float> repeated;
      for (auto from = values.begin(); from != values.end(); from += inner) {
        for (int64_t k = 0; k < span->size; ++k) {
          repeated.insert(repeated.end(), from, from + inner);
        }
      }
      values = std::move(repeated);
    }
    inner *= span->size;
  }
  return values;
}

/// A product with a row of ones repeats every element exactly; the copies then move to where they
/// belong.
std::string RepeatComputed(GraphEditor& editor, const std::string& name,
                           const std::vector<Span>& spans) {
  int64_t copies = 1;
  Dims moved;
  for (const bool isRepeated : {false, true}) {
    for (const Span& span : spans) {
      if (span.isRepeated == isRepeated) {
        moved.push_back(span.size);
        copies *= isRepeated ? span.size : 1;
      }
    }
  }
  const int64_t single = Count(editor.DimsOf(name));
  const std::string ones =
      editor.Constant({1, copies}, std::vector<float>(static_cast<size_t>(copies), 1.0F));
  const std::string all = editor.Emit("MatMul", {Shape(editor, name, {single, 1}), ones});
  Dims order;
  int64_t kept = 0;
  int64_t repeated =
      std::count_if(spans.begin(), spans.end(), [](const Span& span) { return !span.isRepeated; });
  for (const Span& span : spans) {
    order.push_back(span.isRepeated ? repeated++ : kept++);
  }
  return std::is_sorted(order.begin(), order.end())
             ? all
             : editor.Emit("Transpose", {Shape(editor, all, moved)}, {{"perm", order}});
}

void CheckWritable(const Dims& dims) {
  if (Count(dims) < 1 || Count(dims) > kMostWrittenOut) {
    throw NoEquivalent();
  }
}

bool HasConstant(const GraphEditor& editor, const Names& names) {
  return std::any_of(names.begin(), names.end(),
                     [&editor](const std::string& name) { return editor.IsConstant(name); });
}

/// The operands with equal dims: those of the result, or a single row where the engine is not
/// right for them.
Names AlignOperands(GraphEditor& editor, const Names& names, const Dims& dims) {
  const bool isFlat = dims.size() < 2 || HasConstant(editor, names);
  const Dims aligned = isFlat ? Dims{1, Count(dims)} : dims;
  Names operands;
  std::transform(
      names.begin(), names.end(), std::back_inserter(operands),
      [&](const std::string& name) { return Shape(editor, Repeat(editor, name, dims), aligned); });
  return operands;
}

}  // namespace

Dims CommonDims(const Dims& a, const Dims& b) {
  Dims common = Padded(a, b.size());
  const Dims other = Padded(b, a.size());
  for (size_t k = 0; k < common.size(); ++k) {
    if (common[k] != other[k] && common[k] != 1 && other[k] != 1) {
      throw NoEquivalent();
    }
    common[k] = common[k] == 1 ? other[k] : common[k];
  }
  return common;
}

Dims CommonDims(const GraphEditor& editor, const Names& names) {
  Dims common;
  for (const std::string& name : names) {
    common = CommonDims(common, editor.DimsOf(name));
  }
  return common;
}

std::string Repeat(GraphEditor& editor, const std::string& name, const Dims& dims) {
  const Dims& from = editor.DimsOf(name);
  if (from == dims) {
    return name;
  }
  CheckWritable(dims);
  if (from.size() > dims.size()) {
    throw NoEquivalent();
  }
  const std::vector<Span> spans = SpansOf(from, dims);
  if (editor.IsConstant(name)) {
    return editor.Constant(dims, RepeatElements(editor.Floats(name), spans));
  }
  const bool isWhole = Count(from) == Count(dims);
  return Shape(editor, isWhole ? name : RepeatComputed(editor, name, spans), dims);
}

std::string Shape(GraphEditor& editor, const std::string& name, const Dims& dims) {
  const Dims& own = editor.DimsOf(name);
  if (own == dims) {
    return name;
  }
  if (Count(own) != Count(dims)) {
    throw NoEquivalent();
  }
  return editor.IsConstant(name) ? editor.Constant(dims, editor.Floats(name))
                                 : editor.Emit("Reshape", {name}, {{"shape", dims}});
}

void Return(GraphEditor& editor, const std::string& name, const Dims& dims,
            const std::string& output) {
  if (editor.IsConstant(name)) {
    if (Count(dims) != Count(editor.DimsOf(name))) {
      throw NoEquivalent();
    }
    if (editor.At(name).type == ONNX__TENSOR_PROTO__DATA_TYPE__INT64) {
      editor.Constant(dims, editor.Ints(name), output);
    } else {
      editor.Constant(dims, editor.Floats(name), output);
    }
    return;
  }
  if (dims.empty() && !editor.DimsOf(name).empty()) {
    // The engine reshapes nothing to a scalar, but it reduces to one.
    editor.Emit("ReduceMax", {Shape(editor, name, {1, 1})},
                {{"axes", Dims{0, 1}}, {"keepdims", int64_t{0}}}, output);
    return;
  }
  const bool isSame = editor.DimsOf(name) == dims;
  editor.Emit(isSame ? "Identity" : "Reshape", {name},
              isSame ? Attributes{} : Attributes{{"shape", dims}}, output);
}

void RewriteElementwise(GraphEditor& editor, const Onnx__NodeProto& node) {
  const Names inputs = InputsOf(node);
  if (AreAllConstant(editor, inputs)) {
    FoldElementwise(editor, node);
    return;
  }
  const Dims dims = CommonDims(editor, inputs);
  const Names operands = AlignOperands(editor, inputs, dims);
  if (editor.DimsOf(operands[0]) == dims) {
    editor.Emit(node.op_type, operands, {}, node.output[0]);
  } else {
    Return(editor, editor.Emit(node.op_type, operands), dims, node.output[0]);
  }
}

void RewriteSum(GraphEditor& editor, const Onnx__NodeProto& node) {
  const Names inputs = InputsOf(node);
  std::string sum = inputs[0];
  for (size_t k = 1; k < inputs.size(); ++k) {
    sum = editor.Emit("Add", {sum, inputs[k]}, {}, k + 1 == inputs.size() ? node.output[0] : "");
  }
  if (inputs.size() == 1) {
    editor.Emit("Identity", inputs, {}, node.output[0]);
  }
}

/// Constants bound the numbers like Clip; only single ones, as the engine compares no others.
void RewriteExtremes(GraphEditor& editor, const Onnx__NodeProto& node) {
  const Names inputs = InputsOf(node);
  const Dims dims = CommonDims(editor, inputs);
  Names computed;
  Attributes bounds;
  for (const std::string& name : inputs) {
    if (!editor.IsConstant(name)) {
      computed.push_back(name);
    } else if (bounds.empty() && Count(editor.DimsOf(name)) == 1) {
      bounds.push_back(
          {node.op_type == std::string("Max") ? "min" : "max", editor.Floats(name)[0]});
    } else {
      throw NoEquivalent();
    }
  }
  if (computed.empty()) {
    throw NoEquivalent();
  }
  const Names operands = AlignOperands(editor, computed, dims);
  std::string result = operands.size() > 1 ? editor.Emit(node.op_type, operands) : operands[0];
  result = bounds.empty() ? result : editor.Emit("Clip", {result}, bounds);
  Return(editor, result, dims, node.output[0]);
}

void RewriteMean(GraphEditor& editor, const Onnx__NodeProto& node) {
  const std::string sum = editor.Emit("Sum", InputsOf(node));
  const std::string count = editor.Constant({}, std::vector{static_cast<float>(node.n_input)});
  editor.Emit("Div", {sum, count}, {}, node.output[0]);
}

/// The bounds are inputs since opset 11, the engine only knows them as attributes. A computed one
/// is a comparison of its own; the lower comes first, as the upper one wins where they cross.
void RewriteClip(GraphEditor& editor, const Onnx__NodeProto& node) {
  const std::pair<const char*, const char*> sides[] = {{"min", "Max"}, {"max", "Min"}};
  std::string result = node.input[0];
  Attributes bounds;
  for (size_t k = 0; k < 2; ++k) {
    const std::string bound = InputOf(node, k + 1);
    if (bound.empty()) {
      continue;
    }
    const Dims& dims = editor.DimsOf(bound);
    if (Count(dims) != 1 || dims.size() > editor.DimsOf(result).size()) {
      throw NoEquivalent();
    }
    if (editor.IsConstant(bound)) {
      bounds.emplace_back(sides[k].first, editor.Floats(bound)[0]);
    } else {
      result = bounds.empty() ? result : editor.Emit("Clip", {result}, std::exchange(bounds, {}));
      result = editor.Emit(sides[k].second, {result, bound});
    }
  }
  const int32_t type = editor.At(result).type;
  const bool isReal = type == ONNX__TENSOR_PROTO__DATA_TYPE__FLOAT ||
                      type == ONNX__TENSOR_PROTO__DATA_TYPE__FLOAT16;
  const bool isBound = !bounds.empty() || (isReal && result == node.input[0]);
  editor.Emit(isBound ? "Clip" : "Identity", {result}, bounds, node.output[0]);
}

void RewritePRelu(GraphEditor& editor, const Onnx__NodeProto& node) {
  if (CommonDims(editor, InputsOf(node)) != editor.DimsOf(node.input[0])) {
    throw NoEquivalent();
  }
  const std::string positive = editor.Emit("Relu", {node.input[0]});
  const std::string negative = editor.Emit("Relu", {editor.Emit("Neg", {node.input[0]})});
  const std::string scaled = editor.Emit("Mul", {negative, node.input[1]});
  editor.Emit("Sub", {positive, scaled}, {}, node.output[0]);
}

void RewriteExpand(GraphEditor& editor, const Onnx__NodeProto& node) {
  const Dims dims = CommonDims(editor.DimsOf(node.input[0]), editor.Ints(node.input[1]));
  Return(editor, Repeat(editor, node.input[0], dims), dims, node.output[0]);
}

/// The ramp and ln(1 + p) with a power p of at most 1, which cannot overflow; as 2 artanh(p / (2 +
/// p)) the logarithm is exact for the smallest powers too.
void RewriteSoftplus(GraphEditor& editor, const Onnx__NodeProto& node) {
  const std::string two = editor.Constant({}, std::vector{2.0F});
  const std::string distance = editor.Emit("Abs", {node.input[0]});
  const std::string power = editor.Emit("Exp", {editor.Emit("Neg", {distance})});
  const std::string ratio = editor.Emit("Div", {power, editor.Emit("Add", {power, two})});
  const std::string logarithm = editor.Emit("Mul", {editor.Emit("Atanh", {ratio}), two});
  // Not a Relu, which the engine multiplies out to NaN for minus infinity.
  const Attributes ramp = {{"min", 0.0F}, {"max", std::numeric_limits<float>::infinity()}};
  const std::string positive = editor.Emit("Clip", {node.input[0]}, ramp);
  editor.Emit("Add", {positive, logarithm}, {}, node.output[0]);
}

}  // namespace quilm_host
