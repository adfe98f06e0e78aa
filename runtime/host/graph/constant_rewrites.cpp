#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "runtime/host/graph/rewrite_rules.h"

// Arithmetic between constants, as exporters leave it where they work out shapes.

namespace quilm_host {
namespace {

/// Products and sums of numbers below this cannot overflow.
constexpr int64_t kLargestInteger = INT32_MAX;

int64_t Checked(int64_t value) {
  if (value < -kLargestInteger || value > kLargestInteger) {
    throw NoEquivalent();
  }
  return value;
}

template <typename T>
T Divided(T a, T b) {
  if (b == 0) {
    throw NoEquivalent();
  }
  return a / b;
}

template <typename T>
T Apply(char op, T a, T b) {
  return op == 'A' ? a + b : op == 'S' ? a - b : op == 'M' ? a * b : Divided(a, b);
}

std::vector<float> Apply(char op, const std::vector<float>& a, const std::vector<float>& b) {
  std::vector<float> results(a.size());
  for (size_t k = 0; k < a.size(); ++k) {
    results[k] = Apply(op, a[k], b[k]);
  }
  return results;
}

/// Lists of integers with as many elements, or single ones.
Dims ApplyToIntegers(char op, const Dims& a, const Dims& b, size_t count) {
  if ((a.size() != 1 && a.size() != count) || (b.size() != 1 && b.size() != count)) {
    throw NoEquivalent();
  }
  Dims results(count);
  for (size_t k = 0; k < count; ++k) {
    results[k] = Apply(op, Checked(a[a.size() == 1 ? 0 : k]), Checked(b[b.size() == 1 ? 0 : k]));
  }
  return results;
}

bool IsIndex(const GraphEditor& editor, const std::string& name) {
  return editor.At(name).type == ONNX__TENSOR_PROTO__DATA_TYPE__INT64;
}

/// A list or single constant int64 tensor.
Dims IndexList(const GraphEditor& editor, const std::string& name) {
  if (!IsIndex(editor, name) || editor.DimsOf(name).size() > 1) {
    throw NoEquivalent();
  }
  return editor.Ints(name);
}

void CheckSmall(const Dims& dims) {
  constexpr int64_t kMostElements = 1 << 24;
  if (Count(dims) < 0 || Count(dims) > kMostElements) {
    throw NoEquivalent();
  }
}

struct FunctionRow {
  const char* op;
  float (*function)(float x);
};
constexpr FunctionRow kFunctions[] = {
    {"Ceil", std::ceil},
    {"Floor", std::floor},
    {"Neg", [](float x) { return -x; }},
    {"Reciprocal", [](float x) { return 1 / x; }},
    {"Sqrt", std::sqrt},
};

}  // namespace

bool AreAllConstant(const GraphEditor& editor, const Names& names) {
  return std::all_of(names.begin(), names.end(), [&editor](const std::string& name) {
    return !name.empty() && editor.IsConstant(name);
  });
}

void FoldElementwise(GraphEditor& editor, const Onnx__NodeProto& node) {
  const Names inputs = InputsOf(node);
  const Dims dims = CommonDims(editor, inputs);
  CheckSmall(dims);
  const char op = node.op_type[0];
  if (IsIndex(editor, inputs[0])) {
    const Dims results =
        ApplyToIntegers(op, IndexList(editor, inputs[0]), IndexList(editor, inputs[1]),
                        static_cast<size_t>(Count(dims)));
    editor.Constant(dims, results, node.output[0]);
    return;
  }
  editor.Constant(dims,
                  Apply(op, editor.Floats(Repeat(editor, inputs[0], dims)),
                        editor.Floats(Repeat(editor, inputs[1], dims))),
                  node.output[0]);
}

void FoldConcat(GraphEditor& editor, const Onnx__NodeProto& node) {
  Dims joined;
  for (const std::string& name : InputsOf(node)) {
    const Dims part = IndexList(editor, name);
    joined.insert(joined.end(), part.begin(), part.end());
    CheckSmall({static_cast<int64_t>(joined.size())});
  }
  editor.Constant({static_cast<int64_t>(joined.size())}, joined, node.output[0]);
}

void FoldGather(GraphEditor& editor, const Onnx__NodeProto& node) {
  const Dims list = IndexList(editor, node.input[0]);
  if (editor.DimsOf(node.input[0]).size() != 1) {
    throw NoEquivalent();
  }
  CountedAxis(IntAttribute(node, "axis", 0), 1);
  Dims gathered;
  for (const int64_t index : editor.Ints(node.input[1])) {
    const int64_t at = CountedAxis(index, static_cast<int64_t>(list.size()));
    gathered.push_back(list[static_cast<size_t>(at)]);
  }
  editor.Constant(editor.DimsOf(node.input[1]), gathered, node.output[0]);
}

void FoldSlice(GraphEditor& editor, const Onnx__NodeProto& node, const SliceRange& range) {
  const Dims list = IndexList(editor, node.input[0]);
  Dims picked;
  for (int64_t k = range.start; k < range.end; k += range.step) {
    picked.push_back(list[static_cast<size_t>(k)]);
  }
  editor.Constant({static_cast<int64_t>(picked.size())}, picked, node.output[0]);
}

void RewriteConstant(GraphEditor& editor, const Onnx__NodeProto& node) {
  const Onnx__AttributeProto* number = FindAttribute(node, "value_int");
  const Onnx__AttributeProto* real = FindAttribute(node, "value_float");
  const Onnx__AttributeProto* list = FindAttribute(node, "value_ints");
  if (node.n_attribute != 1) {
    throw NoEquivalent();
  }
  if (real != nullptr) {
    editor.Constant({}, std::vector{real->f}, node.output[0]);
  } else if (number != nullptr) {
    editor.Constant({}, Dims{number->i}, node.output[0]);
  } else {
    const Dims values(list->ints, list->ints + list->n_ints);
    editor.Constant({static_cast<int64_t>(values.size())}, values, node.output[0]);
  }
}

void RewriteConstantOfShape(GraphEditor& editor, const Onnx__NodeProto& node) {
  const Dims dims = IndexList(editor, node.input[0]);
  CheckSmall(dims);
  const auto count = static_cast<size_t>(Count(dims));
  const Onnx__AttributeProto* value = FindAttribute(node, "value");
  const Onnx__TensorProto* tensor = value == nullptr ? nullptr : value->t;
  const bool isReal =
      tensor == nullptr || tensor->data_type == ONNX__TENSOR_PROTO__DATA_TYPE__FLOAT;
  if (node.n_attribute != (value == nullptr ? 0 : 1) || (value != nullptr && tensor == nullptr) ||
      (tensor != nullptr &&
       (!IsReadable(*tensor) || tensor->n_dims != 1 || tensor->dims[0] != 1)) ||
      (!isReal && tensor->data_type != ONNX__TENSOR_PROTO__DATA_TYPE__INT64)) {
    throw NoEquivalent();
  }
  if (isReal) {
    const float number = tensor == nullptr ? 0 : ReadFloats(*tensor)[0];
    editor.Constant(dims, std::vector<float>(count, number), node.output[0]);
  } else {
    editor.Constant(dims, Dims(count, ReadInts(*tensor)[0]), node.output[0]);
  }
}

void RewriteCast(GraphEditor& editor, const Onnx__NodeProto& node) {
  const std::string& name = node.input[0];
  const int64_t to = IntAttribute(node, "to", 0);
  const bool isIndex = IsIndex(editor, name);
  const Dims& dims = editor.DimsOf(name);
  if (to == editor.At(name).type) {
    Return(editor, name, dims, node.output[0]);
  } else if (isIndex && to == ONNX__TENSOR_PROTO__DATA_TYPE__FLOAT) {
    const Dims values = editor.Ints(name);
    std::vector<float> reals(values.size());
    std::transform(values.begin(), values.end(), reals.begin(),
                   [](int64_t value) { return static_cast<float>(value); });
    editor.Constant(dims, reals, node.output[0]);
  } else if (!isIndex && to == ONNX__TENSOR_PROTO__DATA_TYPE__INT64) {
    Dims values;
    for (const float real : editor.Floats(name)) {
      if (!(std::fabs(real) < static_cast<float>(kLargestInteger))) {
        throw NoEquivalent();
      }
      values.push_back(static_cast<int64_t>(real));
    }
    editor.Constant(dims, values, node.output[0]);
  } else {
    throw NoEquivalent();
  }
}

void RewriteIdentity(GraphEditor& editor, const Onnx__NodeProto& node) {
  Return(editor, node.input[0], editor.DimsOf(node.input[0]), node.output[0]);
}

/// A function of a constant.
void RewriteFunction(GraphEditor& editor, const Onnx__NodeProto& node) {
  const Dims& dims = editor.DimsOf(node.input[0]);
  if (IsIndex(editor, node.input[0]) && std::strcmp(node.op_type, "Neg") == 0) {
    const Dims values = IndexList(editor, node.input[0]);
    editor.Constant(dims, ApplyToIntegers('S', {0}, values, values.size()), node.output[0]);
    return;
  }
  const auto* row = std::find_if(std::begin(kFunctions), std::end(kFunctions),
                                 [&node](const FunctionRow& candidate) {
                                   return std::strcmp(candidate.op, node.op_type) == 0;
                                 });
  std::vector<float> values = editor.Floats(node.input[0]);
  std::transform(values.begin(), values.end(), values.begin(), row->function);
  editor.Constant(dims, values, node.output[0]);
}

void RewriteShape(GraphEditor& editor, const Onnx__NodeProto& node) {
  const Dims& dims = editor.DimsOf(node.input[0]);
  const auto rank = static_cast<int64_t>(dims.size());
  int64_t start = IntAttribute(node, "start", 0);
  int64_t end = IntAttribute(node, "end", rank);
  start = std::clamp<int64_t>(start < 0 ? start + rank : start, 0, rank);
  end = std::clamp<int64_t>(end < 0 ? end + rank : end, start, rank);
  const Dims part(dims.begin() + start, dims.begin() + end);
  editor.Constant({end - start}, part, node.output[0]);
}

void RewriteSize(GraphEditor& editor, const Onnx__NodeProto& node) {
  editor.Constant({}, Dims{Count(editor.DimsOf(node.input[0]))}, node.output[0]);
}

}  // namespace quilm_host
