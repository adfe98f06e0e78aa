#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "runtime/host/graph/rewrite_rules.h"

namespace quilm_host {
namespace {

int64_t RankOf(const GraphEditor& editor, const std::string& name) {
  return static_cast<int64_t>(editor.DimsOf(name).size());
}

/// From the second input, where newer opsets have them, or from the attribute.
Dims ListParameter(const GraphEditor& editor, const Onnx__NodeProto& node, const char* attribute) {
  const std::string input = InputOf(node, 1);
  return input.empty() ? IntsAttribute(node, attribute, {}) : editor.Ints(input);
}

Dims Part(const Dims& dims, int64_t begin, int64_t end) {
  return {dims.begin() + begin, dims.begin() + end};
}

/// From the inputs, or before opset 10 from the attributes.
std::vector<SliceRange> ReadRanges(const GraphEditor& editor, const Onnx__NodeProto& node) {
  const char* attributes[] = {"", "starts", "ends", "axes", "steps"};
  Dims lists[5];
  for (size_t k = 1; k < 5; ++k) {
    const std::string input = InputOf(node, k);
    lists[k] = input.empty() ? IntsAttribute(node, attributes[k], {}) : editor.Ints(input);
  }
  const Dims& dims = editor.DimsOf(node.input[0]);
  const size_t count = lists[1].size();
  for (size_t k = 0; k < count && lists[3].size() < count; ++k) {
    lists[3].push_back(static_cast<int64_t>(k));
  }
  lists[4].resize(lists[4].empty() ? count : lists[4].size(), 1);
  std::vector<SliceRange> ranges;
  std::set<int64_t> axes;
  for (size_t k = 0; k < count; ++k) {
    if (lists[2].size() != count || lists[3].size() != count || lists[4].size() != count) {
      throw NoEquivalent();
    }
    const int64_t axis = CountedAxis(lists[3][k], static_cast<int64_t>(dims.size()));
    const int64_t size = dims[static_cast<size_t>(axis)];
    const auto counted = [size](int64_t at) {
      return std::clamp<int64_t>(at < 0 ? std::max(at, -size) + size : at, 0, size);
    };
    if (lists[4][k] < 1 || lists[4][k] > INT32_MAX || !axes.insert(axis).second) {
      throw NoEquivalent();
    }
    ranges.push_back({axis, counted(lists[1][k]), counted(lists[2][k]), lists[4][k]});
  }
  return ranges;
}

}  // namespace

int64_t CountedAxis(int64_t axis, int64_t rank) {
  if (axis < -rank || axis >= rank) {
    throw NoEquivalent();
  }
  return axis < 0 ? axis + rank : axis;
}

Dims CountedAxes(const Dims& axes, int64_t rank) {
  std::set<int64_t> counted;
  for (const int64_t axis : axes) {
    if (!counted.insert(CountedAxis(axis, rank)).second) {
      throw NoEquivalent();
    }
  }
  return {counted.begin(), counted.end()};
}

void RewriteSqueeze(GraphEditor& editor, const Onnx__NodeProto& node) {
  Dims dims = editor.DimsOf(node.input[0]);
  Dims axes = CountedAxes(ListParameter(editor, node, "axes"), RankOf(editor, node.input[0]));
  std::reverse(axes.begin(), axes.end());
  for (const int64_t axis : axes) {
    if (dims[static_cast<size_t>(axis)] != 1) {
      throw NoEquivalent();
    }
    dims.erase(dims.begin() + axis);
  }
  if (axes.empty()) {
    dims.erase(std::remove(dims.begin(), dims.end(), 1), dims.end());
  }
  Return(editor, node.input[0], dims, node.output[0]);
}

void RewriteUnsqueeze(GraphEditor& editor, const Onnx__NodeProto& node) {
  Dims dims = editor.DimsOf(node.input[0]);
  const Dims axes = ListParameter(editor, node, "axes");
  const auto rank = static_cast<int64_t>(dims.size() + axes.size());
  for (const int64_t axis : CountedAxes(axes, rank)) {
    dims.insert(dims.begin() + axis, 1);
  }
  Return(editor, node.input[0], dims, node.output[0]);
}

void RewriteFlatten(GraphEditor& editor, const Onnx__NodeProto& node) {
  const Dims& dims = editor.DimsOf(node.input[0]);
  const auto rank = static_cast<int64_t>(dims.size());
  const int64_t given = IntAttribute(node, "axis", 1);
  const int64_t axis = given == rank ? rank : CountedAxis(given, rank);
  Return(editor, node.input[0], {CountBetween(dims, 0, axis), CountBetween(dims, axis, rank)},
         node.output[0]);
}

/// Lists are joined as rows.
void RewriteConcat(GraphEditor& editor, const Onnx__NodeProto& node) {
  if (AreAllConstant(editor, InputsOf(node))) {
    FoldConcat(editor, node);
    return;
  }
  if (node.n_input == 1) {
    editor.Emit("Identity", {node.input[0]}, {}, node.output[0]);
    return;
  }
  Names rows;
  int64_t size = 0;
  for (const std::string& name : InputsOf(node)) {
    const Dims& dims = editor.DimsOf(name);
    const auto* axis = FindAttribute(node, "axis");
    if (dims.size() != 1 || axis == nullptr || CountedAxis(axis->i, 1) != 0) {
      throw NoEquivalent();
    }
    rows.push_back(Shape(editor, name, {1, dims[0]}));
    size += dims[0];
  }
  Return(editor, editor.Emit("Concat", rows, {{"axis", int64_t{1}}}), {size}, node.output[0]);
}

/// Several indices become slices that are joined.
void RewriteGather(GraphEditor& editor, const Onnx__NodeProto& node) {
  if (AreAllConstant(editor, InputsOf(node))) {
    FoldGather(editor, node);
    return;
  }
  constexpr size_t kMostSlices = 64;
  const Dims& dims = editor.DimsOf(node.input[0]);
  const Dims& indexDims = editor.DimsOf(node.input[1]);
  const auto rank = static_cast<int64_t>(dims.size());
  const int64_t axis = CountedAxis(IntAttribute(node, "axis", 0), rank);
  const int64_t size = dims[static_cast<size_t>(axis)];
  Names slices;
  for (const int64_t index : editor.Ints(node.input[1])) {
    const int64_t at = CountedAxis(index, size);
    if (slices.size() == kMostSlices) {
      throw NoEquivalent();
    }
    slices.push_back(
        editor.Emit("Slice", {node.input[0]},
                    {{"axes", Dims{axis}}, {"starts", Dims{at}}, {"ends", Dims{at + 1}}}));
  }
  Dims gathered = Part(dims, 0, axis);
  gathered.insert(gathered.end(), indexDims.begin(), indexDims.end());
  gathered.insert(gathered.end(), dims.begin() + axis + 1, dims.end());
  const std::string joined =
      slices.size() == 1 ? slices[0] : editor.Emit("Concat", slices, {{"axis", axis}});
  Return(editor, joined, gathered, node.output[0]);
}

void RewriteSplit(GraphEditor& editor, const Onnx__NodeProto& node) {
  const Dims sizes = ListParameter(editor, node, "split");
  const int64_t axis = CountedAxis(IntAttribute(node, "axis", 0), RankOf(editor, node.input[0]));
  const Names outputs(node.output, node.output + node.n_output);
  if (outputs.size() == 1) {
    editor.Emit("Identity", {node.input[0]}, {}, outputs[0]);
    return;
  }
  Attributes attributes = {{"axis", axis}};
  if (!sizes.empty()) {
    attributes.push_back({"split", sizes});
  }
  editor.EmitAll("Split", {node.input[0]}, attributes, outputs);
}

void RewriteReshape(GraphEditor& editor, const Onnx__NodeProto& node) {
  const Dims& from = editor.DimsOf(node.input[0]);
  Dims dims = ListParameter(editor, node, "shape");
  const bool keepsZeros = IntAttribute(node, "allowzero", 0) != 0;
  int64_t known = 1;
  for (size_t k = 0; k < dims.size(); ++k) {
    if (dims[k] == 0 && !keepsZeros && k < from.size()) {
      dims[k] = from[k];
    }
    if (dims[k] == 0 || dims[k] < -1 || dims[k] > INT32_MAX) {
      throw NoEquivalent();
    }
    known = dims[k] == -1 ? known : Count({known, dims[k]});
  }
  const auto unknown = std::find(dims.begin(), dims.end(), -1);
  if (unknown != dims.end()) {
    *unknown = known > 0 ? Count(from) / known : 0;
  }
  if (Count(dims) != Count(from)) {
    throw NoEquivalent();
  }
  Return(editor, node.input[0], dims, node.output[0]);
}

/// Each axis in a slice of its own, counted from the first.
void RewriteSlice(GraphEditor& editor, const Onnx__NodeProto& node) {
  const std::vector<SliceRange> ranges = ReadRanges(editor, node);
  if (AreAllConstant(editor, InputsOf(node))) {
    if (ranges.size() != 1) {
      throw NoEquivalent();
    }
    FoldSlice(editor, node, ranges[0]);
    return;
  }
  std::string result = node.input[0];
  for (const SliceRange& range : ranges) {
    const Dims size = {1};
    result = editor.Emit("Slice", {result, editor.Constant(size, Dims{range.start}, ""),
                                   editor.Constant(size, Dims{range.end}, ""),
                                   editor.Constant(size, Dims{range.axis}, ""),
                                   editor.Constant(size, Dims{range.step}, "")});
  }
  Return(editor, result, editor.DimsOf(result), node.output[0]);
}

}  // namespace quilm_host
