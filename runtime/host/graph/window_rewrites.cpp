#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "runtime/host/graph/rewrite_rules.h"

namespace quilm_host {
namespace {

struct Window {
  Dims kernel, strides, pads;
};

Window ReadWindow(const GraphEditor& editor, const Onnx__NodeProto& node) {
  const size_t rank = editor.DimsOf(node.input[0]).size();
  if (rank < 3) {
    throw NoEquivalent();
  }
  const size_t spatial = rank - 2;
  Window window = {IntsAttribute(node, "kernel_shape", {}),
                   IntsAttribute(node, "strides", Dims(spatial, 1)),
                   IntsAttribute(node, "pads", Dims(2 * spatial, 0))};
  const bool isPlain = IntsAttribute(node, "dilations", Dims(spatial, 1)) == Dims(spatial, 1) &&
                       IntAttribute(node, "ceil_mode", 0) == 0;
  const auto isBelowOne = [](int64_t value) { return value < 1; };
  if (!isPlain || window.kernel.size() != spatial || window.strides.size() != spatial ||
      window.pads.size() != 2 * spatial ||
      std::any_of(window.kernel.begin(), window.kernel.end(), isBelowOne) ||
      std::any_of(window.strides.begin(), window.strides.end(), isBelowOne)) {
    throw NoEquivalent();
  }
  return window;
}

/// What SAME_LOWER stands for.
Dims LowerPads(const Dims& dims, const Window& window) {
  const size_t rank = window.kernel.size();
  Dims pads(2 * rank);
  for (size_t k = 0; k < rank; ++k) {
    const int64_t last = (dims[k + 2] - 1) / window.strides[k] * window.strides[k];
    const int64_t missing = std::max<int64_t>(last + window.kernel[k] - dims[k + 2], 0);
    pads[k] = missing - missing / 2;
    pads[k + rank] = missing / 2;
  }
  return pads;
}

}  // namespace

/// Writes out the pads of SAME_LOWER, and pads beforehand where they count for an average.
void RewritePool(GraphEditor& editor, const Onnx__NodeProto& node) {
  Window window = ReadWindow(editor, node);
  const std::string autoPad = TextAttribute(node, "auto_pad", "NOTSET");
  const bool counts = IntAttribute(node, "count_include_pad", 0) != 0;
  if (autoPad != "NOTSET" && (autoPad != "SAME_LOWER" || FindAttribute(node, "pads") != nullptr)) {
    throw NoEquivalent();
  }
  if (autoPad == "SAME_LOWER") {
    window.pads = LowerPads(editor.DimsOf(node.input[0]), window);
  }
  std::string x = node.input[0];
  if (counts && editor.Opset() < 11) {
    throw NoEquivalent();
  }
  if (counts) {
    Dims pads = window.pads;
    pads.insert(pads.begin() + static_cast<int64_t>(pads.size() / 2), 2, 0);
    pads.insert(pads.begin(), 2, 0);
    const auto count = static_cast<int64_t>(pads.size());
    x = editor.Emit("Pad", {x, editor.Constant({count}, pads, "")});
    std::fill(window.pads.begin(), window.pads.end(), 0);
  }
  editor.Emit(node.op_type, {x},
              {{"kernel_shape", window.kernel}, {"strides", window.strides}, {"pads", window.pads}},
              node.output[0]);
}

/// Of more than two spatial dimensions, as of one.
void RewriteGlobalPool(GraphEditor& editor, const Onnx__NodeProto& node) {
  const Dims dims = editor.DimsOf(node.input[0]);
  const auto rank = static_cast<int64_t>(dims.size());
  if (rank < 3) {
    throw NoEquivalent();
  }
  const std::string flat =
      Shape(editor, node.input[0], {dims[0], dims[1], CountBetween(dims, 2, rank)});
  Dims pooled(dims.size(), 1);
  std::copy(dims.begin(), dims.begin() + 2, pooled.begin());
  Return(editor, editor.Emit(node.op_type, {flat}), pooled, node.output[0]);
}

}  // namespace quilm_host
