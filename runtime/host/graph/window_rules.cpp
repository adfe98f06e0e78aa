#include <algorithm>
#include <cstdint>
#include <set>
#include <string>

#include "runtime/host/graph/operator_rules.h"

namespace quilm_host {
namespace {

struct Window {
  Dims kernel, strides, pads, dilations;
  std::string autoPad;
};

/// Whether as many pixels are missing on either side, so that SAME_LOWER and SAME_UPPER agree.
bool PadsEvenly(const Call& call, const Window& window) {
  for (size_t k = 0; k < window.kernel.size(); ++k) {
    const int64_t last = (call.X()[k + 2] - 1) / window.strides[k] * window.strides[k];
    const int64_t missing = last + window.kernel[k] - call.X()[k + 2];
    if (missing > 0 && missing % 2 != 0) {
      return false;
    }
  }
  return true;
}

const char* ReadWindow(const Call& call, const Dims& kernel, Window* window) {
  const size_t rank = call.X().size() - 2;
  *window = {call.Ints("kernel_shape", {}), call.Ints("strides", Dims(rank, 1)),
             call.Ints("pads", Dims(2 * rank, 0)), call.Ints("dilations", Dims(rank, 1)),
             TextAttribute(call.node, "auto_pad", "NOTSET")};
  if (window->kernel.size() != rank || (!kernel.empty() && window->kernel != kernel)) {
    return "kernel_shape left out or other than that of the weights";
  }
  if (window->strides.size() != rank || window->pads.size() != 2 * rank ||
      window->dilations.size() != rank) {
    return "attributes that do not fit the dimensions";
  }
  const auto isPositive = [](int64_t value) { return value > 0; };
  for (const Dims* sizes : {&window->kernel, &window->strides, &window->dilations}) {
    if (!std::all_of(sizes->begin(), sizes->end(), isPositive)) {
      return "kernel, stride or dilation below 1";
    }
  }
  for (size_t k = 0; k < 2 * rank; ++k) {
    const bool mayDiffer = rank == 2 && !call.IsOp("ConvTranspose");
    if (window->pads[k] < 0 || (window->pads[k] != window->pads[k % rank] && !mayDiffer)) {
      return "negative pads, or asymmetric ones for other than 4 dimensions";
    }
  }
  const bool padded = *std::max_element(window->pads.begin(), window->pads.end()) > 0;
  if (window->autoPad == "SAME_LOWER" && PadsEvenly(call, *window)) {
    window->autoPad = "SAME_UPPER";
  }
  const std::set<std::string> known = {"NOTSET", "VALID", "SAME_UPPER"};
  if (known.count(window->autoPad) == 0 || (padded && window->autoPad != "NOTSET")) {
    return "auto_pad together with pads, or SAME_LOWER where it pads unevenly";
  }
  return nullptr;
}

/// The dims behind batch and channels; -1 where the window does not fit.
Dims Slide(const Call& call, const Window& window, bool ceil) {
  Dims slid;
  for (size_t k = 0; k < window.kernel.size(); ++k) {
    const int64_t stride = window.strides[k];
    const int64_t reach = window.dilations[k] * (window.kernel[k] - 1) + 1;
    const int64_t room =
        call.X()[k + 2] + window.pads[k] + window.pads[k + window.kernel.size()] - reach;
    const bool same = window.autoPad == "SAME_UPPER";
    const int64_t steps =
        same ? (call.X()[k + 2] - 1) / stride : (ceil ? room + stride - 1 : room) / stride;
    slid.push_back(room < 0 && !same ? -1 : steps + 1);
  }
  return slid;
}

const char* GiveImages(Call& call, int64_t channels, const Dims& spatial) {
  Dims dims = {call.X()[0], channels};
  dims.insert(dims.end(), spatial.begin(), spatial.end());
  return Count(dims) > 0 ? Give(call, dims) : "window larger than the image";
}

}  // namespace

const char* Convolution(Call& call) {
  const Dims& weights = call.in[1]->dims;
  const int64_t group = call.Int("group", 1);
  if (weights.size() != call.X().size() || group < 1 || weights[1] * group != call.X()[1] ||
      weights[0] % group != 0) {
    return "weights that do not fit the input";
  }
  if (call.Has(2) && call.in[2]->dims != Dims{weights[0]}) {
    return "bias of other dims than one number a channel";
  }
  Window window;
  const char* reason = ReadWindow(call, Dims(weights.begin() + 2, weights.end()), &window);
  if (reason != nullptr) {
    return reason;
  }
  if (window.autoPad == "SAME_UPPER" && window.dilations != Dims(window.kernel.size(), 1)) {
    return "auto_pad with dilations";
  }
  if (call.IsConstant(1) ? call.Has(2) && !call.IsConstant(2)
                         : call.Has(2) || call.Rank() != 4 || group != 1) {
    return "computed bias, or computed weights with bias, groups or other than 4 dimensions";
  }
  return GiveImages(call, weights[0], Slide(call, window, false));
}

const char* TransposedConvolution(Call& call) {
  const Dims& weights = call.in[1]->dims;
  const int64_t group = call.Int("group", 1);
  if (weights.size() != call.X().size() || group < 1 || weights[0] != call.X()[1] ||
      weights[0] % group != 0) {
    return "weights that do not fit the input";
  }
  if (call.Has(2) && call.in[2]->dims != Dims{weights[1] * group}) {
    return "bias of other dims than one number a channel";
  }
  Window window;
  const char* reason = ReadWindow(call, Dims(weights.begin() + 2, weights.end()), &window);
  if (reason != nullptr) {
    return reason;
  }
  const size_t rank = window.kernel.size();
  if (window.dilations != Dims(rank, 1) || window.autoPad != "NOTSET") {
    return "dilations other than 1";
  }
  const Dims extra = call.Ints("output_padding", Dims(rank, 0));
  Dims spatial;
  for (size_t k = 0; k < rank && extra.size() == rank; ++k) {
    // The engine writes beyond its buffers for wider pads.
    if (extra[k] < 0 || extra[k] >= window.strides[k] || window.pads[k] >= window.kernel[k]) {
      return "output_padding not below the stride or pads not below the kernel";
    }
    spatial.push_back((call.X()[k + 2] - 1) * window.strides[k] - 2 * window.pads[k] +
                      window.kernel[k] + extra[k]);
  }
  return spatial.size() == rank ? GiveImages(call, weights[1] * group, spatial)
                                : "attributes that do not fit the dimensions";
}

const char* Pooling(Call& call) {
  Window window;
  const char* reason = ReadWindow(call, {}, &window);
  if (reason != nullptr) {
    return reason;
  }
  const size_t rank = window.kernel.size();
  const bool isAutomatic = window.autoPad != "NOTSET";
  const bool padded = window.pads != Dims(2 * rank, 0) || window.autoPad == "SAME_UPPER";
  if (window.dilations != Dims(rank, 1)) {
    return "dilations other than 1";
  }
  const bool ceil = call.Int("ceil_mode", 0) != 0;
  const auto middle = window.pads.begin() + static_cast<int64_t>(rank);
  const bool isUneven = !std::equal(window.pads.begin(), middle, middle);
  if ((isAutomatic && (ceil || rank == 1)) || (isUneven && ceil)) {
    return "auto_pad on 3 dimensions, or ceil_mode with auto_pad or uneven pads";
  }
  const Dims slid = Slide(call, window, ceil);
  for (size_t k = 0; k < rank; ++k) {
    const int64_t last = (slid[k] - 1) * window.strides[k] - window.pads[k];
    if (std::max(window.pads[k], window.pads[k + rank]) >= window.kernel[k] ||
        last >= call.X()[k + 2]) {
      return "windows wholly in the padding";
    }
  }
  // The engine goes by the producer's name.
  const bool counts = call.facts.MadeByPytorch();
  if (call.IsOp("AveragePool") && padded &&
      (counts != (call.Int("count_include_pad", 0) != 0) || (counts && isAutomatic))) {
    return "padding with this count_include_pad";
  }
  return GiveImages(call, call.X()[1], slid);
}

const char* GlobalPooling(Call& call) {
  return GiveImages(call, call.X()[1], Dims(call.X().size() - 2, 1));
}

}  // namespace quilm_host
