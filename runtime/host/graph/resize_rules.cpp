#include <algorithm>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <string>

#include "runtime/host/graph/operator_rules.h"

namespace quilm_host {
namespace {

/// Where the engine's way of picking source pixels is the one asked for; scales are whole numbers
/// for the nearest pixel and the ratio of the sizes for the linear mode.
struct ResizeMode {
  const char* mode;
  const char* coordinates;
  const char* rounding;
  bool shrinks;
};
constexpr ResizeMode kResizeModes[] = {
    {"nearest", "asymmetric", "floor", true},
    {"nearest", "half_pixel", "round_prefer_floor", false},
    {"nearest", "half_pixel", "round_prefer_ceil", false},
    {"linear", "asymmetric", "", true},
    {"linear", "half_pixel", "", true},
    {"linear", "pytorch_half_pixel", "", true},
    {"linear", "align_corners", "", true},
};

const char* CheckResizeMode(const Call& call, const Dims& dims) {
  const bool old = call.facts.Opset() < 11;
  const std::string mode = TextAttribute(call.node, "mode", "");
  const bool isNearest = mode == "nearest";
  // The engine has a default of its own for the linear mode.
  const std::string implied = !isNearest ? "" : old ? "asymmetric" : "half_pixel";
  const std::string coordinates =
      TextAttribute(call.node, "coordinate_transformation_mode", implied);
  const std::string rounding =
      TextAttribute(call.node, "nearest_mode", old ? "floor" : "round_prefer_floor");
  const auto* known = std::find_if(
      std::begin(kResizeModes), std::end(kResizeModes), [&](const ResizeMode& candidate) {
        return mode == candidate.mode && coordinates == candidate.coordinates &&
               (!isNearest || rounding == candidate.rounding);
      });
  if (known == std::end(kResizeModes)) {
    return "mode, or none given, with this coordinate_transformation_mode and nearest_mode";
  }
  for (size_t k = 2; k < 4; ++k) {
    const int64_t size = call.X()[k];
    const bool whole = dims[k] % size == 0 || (known->shrinks && size % dims[k] == 0);
    if ((isNearest && !whole) || (coordinates == "pytorch_half_pixel" && dims[k] == 1)) {
      return "sizes that are not a whole multiple, or a single pixel";
    }
  }
  return nullptr;
}

/// Empty unless sizes or scales, and only one of them, give whole numbers.
Dims ResizedDims(const Call& call) {
  const bool bySizes = call.in.size() == 4 && call.Has(3);
  const size_t scalesAt = call.in.size() == 2 ? 1 : 2;
  const bool byScales = call.Has(scalesAt) && Count(call.in[scalesAt]->dims) != 0;
  if (bySizes == byScales) {
    return {};
  }
  if (bySizes) {
    const bool isInts = call.in[3]->type == ONNX__TENSOR_PROTO__DATA_TYPE__INT64;
    return isInts ? ReadInts(*call.in[3]->tensor) : Dims();
  }
  if (call.in[scalesAt]->type != ONNX__TENSOR_PROTO__DATA_TYPE__FLOAT) {
    return {};
  }
  Dims dims;
  for (const float scale : ReadFloats(*call.in[scalesAt]->tensor)) {
    const float size = scale * static_cast<float>(dims.size() < 4 ? call.X()[dims.size()] : 0);
    if (!(size >= 1 && size <= static_cast<float>(INT16_MAX)) || size != std::floor(size)) {
      return {};
    }
    dims.push_back(static_cast<int64_t>(size));
  }
  return dims;
}

}  // namespace

/// Scales or sizes of the last two of four dimensions.
const char* Resizing(Call& call) {
  const Dims dims = ResizedDims(call);
  if (dims.size() != 4 || dims[0] != call.X()[0] || dims[1] != call.X()[1] || dims[2] < 1 ||
      dims[3] < 1 || Count(dims) < 0) {
    return "scales or sizes that give no whole numbers or change batch or channels";
  }
  const char* reason = CheckResizeMode(call, dims);
  return reason != nullptr ? reason : Give(call, dims);
}

}  // namespace quilm_host
