#include <algorithm>
#include <cstdint>
#include <iterator>
#include <set>
#include <string>
#include <utility>

#include "runtime/host/graph/operator_rules.h"

namespace quilm_host {

const char* Reduction(Call& call) {
  const bool keep = call.Int("keepdims", 1) != 0;
  Dims all;
  for (int64_t k = 0; k < call.Rank(); ++k) {
    all.push_back(k);
  }
  std::set<int64_t> reduced;
  for (const int64_t axis : call.Ints("axes", all)) {
    reduced.insert(Axis(axis, call.Rank()));
  }
  if (reduced.empty() || *reduced.begin() < 0) {
    return "axes empty or out of range";
  }
  Dims dims;
  for (const int64_t k : all) {
    if (reduced.count(k) == 0) {
      dims.push_back(call.X()[static_cast<size_t>(k)]);
    } else if (keep) {
      dims.push_back(1);
    }
  }
  return Give(call, dims);
}

/// Before opset 13 everything from the axis on is one row; the engine always takes one dimension.
const char* SoftmaxAxis(Call& call) {
  const bool old = call.facts.Opset() < 13;
  if (!old && FindAttribute(call.node, "axis") == nullptr && call.Rank() != 2) {
    return "axis left out";
  }
  const int64_t axis = Axis(call.Int("axis", 1), call.Rank());
  if (axis < 0) {
    return "axis out of range";
  }
  const bool oneDimension = !old || CountBetween(call.X(), axis + 1, call.Rank()) == 1;
  return oneDimension ? Same(call) : "axis before the last one at this opset";
}

const char* Flattening(Call& call) {
  const int64_t axis = Axis(call.Int("axis", 1), call.Rank());
  return axis < 0 ? "axis out of range"
                  : Give(call, {CountBetween(call.X(), 0, axis),
                                CountBetween(call.X(), axis, call.Rank())});
}

const char* Reshaping(Call& call) {
  Dims dims = call.Has(1) ? ReadInts(*call.in[1]->tensor) : call.Ints("shape", {});
  if (dims.empty() || dims.size() > 6 || std::count(dims.begin(), dims.end(), -1) > 1) {
    return "shape left out, of more than 6 dimensions or with two unknown ones";
  }
  for (size_t k = 0; k < dims.size(); ++k) {
    if (dims[k] == 0 && k < call.X().size()) {
      dims[k] = call.X()[k];
    }
  }
  const auto unknown = std::find(dims.begin(), dims.end(), -1);
  if (unknown != dims.end()) {
    *unknown = 1;
    const int64_t rest = Count(dims);
    *unknown = rest > 0 ? Count(call.X()) / rest : 0;
  }
  return Count(dims) == Count(call.X()) ? Give(call, dims) : "shape of another size";
}

const char* Transposition(Call& call) {
  Dims order;
  for (int64_t k = call.Rank() - 1; k >= 0; --k) {
    order.push_back(k);
  }
  order = call.Ints("perm", order);
  const std::set<int64_t> axes(order.begin(), order.end());
  const bool valid = order.size() == call.X().size() && axes.size() == order.size() &&
                     *axes.begin() == 0 && *axes.rbegin() == call.Rank() - 1;
  Dims dims;
  for (size_t k = 0; valid && k < order.size(); ++k) {
    dims.push_back(call.X()[static_cast<size_t>(order[k])]);
  }
  return valid ? Give(call, dims) : "perm that is no permutation";
}

const char* Squeezing(Call& call) {
  Dims axes = call.Ints("axes", {});
  std::sort(axes.rbegin(), axes.rend());
  Dims dims = call.X();
  for (const int64_t axis : axes) {
    if (axis < 0 || axis >= call.Rank() || dims[static_cast<size_t>(axis)] != 1) {
      return "axes negative or not of size 1";
    }
    dims.erase(dims.begin() + axis);
  }
  return axes.empty() || dims.empty() ? "axes left out, or all of them" : Give(call, dims);
}

const char* Unsqueezing(Call& call) {
  const Dims axes = call.Has(1) ? ReadInts(*call.in[1]->tensor) : call.Ints("axes", {});
  if (axes.size() != 1 || axes[0] < 0 || axes[0] > call.Rank()) {
    return "axes other than a single one that is not negative";
  }
  Dims dims = call.X();
  dims.insert(dims.begin() + axes[0], 1);
  return Give(call, dims);
}

const char* ArgReduction(Call& call) {
  call.outType = ONNX__TENSOR_PROTO__DATA_TYPE__INT64;
  const int64_t axis = Axis(call.Int("axis", 0), call.Rank());
  if (axis < 0) {
    return "axis out of range";
  }
  Dims dims = call.X();
  if (call.Int("keepdims", 1) != 0) {
    dims[static_cast<size_t>(axis)] = 1;
  } else {
    dims.erase(dims.begin() + axis);
  }
  return Give(call, dims);
}

const char* Concatenation(Call& call) {
  const int64_t axis = Axis(call.Int("axis", INT32_MAX), call.Rank());
  if (axis < 0) {
    return "axis left out or out of range";
  }
  Dims dims = call.X();
  const auto at = static_cast<size_t>(axis);
  dims[at] = 0;
  for (const Value* value : call.in) {
    Dims rest = value->dims;
    if (rest.size() != dims.size()) {
      return "operands of different dimensions";
    }
    const int64_t size = std::exchange(rest[at], dims[at]);
    if (rest != dims) {
      return "operands that do not fit";
    }
    dims[at] += size;
  }
  return Give(call, dims);
}

const char* Splitting(Call& call) {
  const int64_t axis = Axis(call.Int("axis", 0), call.Rank());
  if (axis < 0) {
    return "axis out of range";
  }
  const int64_t size = call.X()[static_cast<size_t>(axis)];
  const auto parts = static_cast<int64_t>(call.node.n_output);
  const Dims equal(call.node.n_output, size / parts);
  const Dims sizes = call.Has(1) ? ReadInts(*call.in[1]->tensor) : call.Ints("split", equal);
  int64_t sum = 0;
  for (const int64_t part : sizes) {
    sum += part > 0 && part <= size ? part : size + 1;
  }
  if (parts < 2 || sizes.size() != equal.size() || sum != size || (call.Has(1) && sizes != equal)) {
    return "sizes that do not fit, or unequal ones as an input";
  }
  for (const int64_t part : sizes) {
    call.out.push_back(call.X());
    call.out.back()[static_cast<size_t>(axis)] = part;
  }
  return nullptr;
}

/// The constant or attribute that Slice takes a parameter from, by the opset.
Dims SliceParameter(const Call& call, size_t input, const char* attribute, const Dims& fallback) {
  return call.in.size() == 1 ? call.Ints(attribute, fallback)
         : call.Has(input)   ? ReadInts(*call.in[input]->tensor)
                             : fallback;
}

const char* Slicing(Call& call) {
  const Dims starts = SliceParameter(call, 1, "starts", {});
  const Dims ends = SliceParameter(call, 2, "ends", {});
  Dims axes;
  for (int64_t k = 0; k < static_cast<int64_t>(starts.size()); ++k) {
    axes.push_back(k);
  }
  axes = SliceParameter(call, 3, "axes", axes);
  const Dims steps = SliceParameter(call, 4, "steps", Dims(starts.size(), 1));
  if (starts.empty() || ends.size() != starts.size() || axes.size() != starts.size() ||
      steps.size() != starts.size()) {
    return "parameters of different sizes";
  }
  Dims dims = call.X();
  for (size_t k = 0; k < axes.size(); ++k) {
    if (axes[k] < 0 || axes[k] >= call.Rank() || axes[k] != axes[0] + static_cast<int64_t>(k)) {
      return "axes that are negative or do not follow each other";
    }
    int64_t& size = dims[static_cast<size_t>(axes[k])];
    const int64_t start = starts[k] < 0 ? starts[k] + size : starts[k];
    const int64_t end = ends[k] < 0 ? ends[k] + size : std::min(ends[k], size);
    if (start < 0 || start >= end || steps[k] < 1 || steps[k] > INT32_MAX) {
      return "range that is empty, reversed or starts before the first element";
    }
    size = (end - start + steps[k] - 1) / steps[k];
  }
  return Give(call, dims);
}

const char* Gathering(Call& call) {
  const Value& index = *call.in[1];
  const int64_t axis = call.Int("axis", 0);
  if (!index.dims.empty() || axis < 0 || axis >= call.Rank()) {
    return "indices other than one number, or a negative axis";
  }
  const int64_t at = ReadInts(*index.tensor)[0];
  if (at < 0 || at >= call.X()[static_cast<size_t>(axis)]) {
    return "index negative or out of range";
  }
  Dims dims = call.X();
  dims.erase(dims.begin() + axis);
  return Give(call, dims);
}

const char* Padding(Call& call) {
  const Dims pads = call.Has(1) ? ReadInts(*call.in[1]->tensor) : call.Ints("pads", {});
  const std::string mode = TextAttribute(call.node, "mode", "constant");
  const size_t rank = call.X().size();
  if (pads.size() != 2 * rank || (call.Has(2) && Count(call.in[2]->dims) != 1)) {
    return "pads that do not fit the dimensions, or a value that is no single number";
  }
  const bool isConstant = mode == "constant";
  if (!isConstant && ((mode != "reflect" && mode != "edge") || rank != 4)) {
    return "mode, or reflect and edge on other than 4 dimensions";
  }
  Dims dims = call.X();
  for (size_t k = 0; k < 2 * rank; ++k) {
    const int64_t most = isConstant ? INT32_MAX : k % rank < 2 ? 0 : call.X()[k % rank] - 1;
    if (pads[k] < 0 || pads[k] > most) {
      return "negative pads, or reflect and edge beyond the size or on the first two dimensions";
    }
    dims[k % rank] += pads[k];
  }
  return Give(call, dims);
}

const char* DepthSpace(Call& call) {
  const int64_t block = call.Int("blocksize", 0);
  const Dims& x = call.X();
  if (block < 1 || block > INT16_MAX) {
    return "blocksize";
  }
  const std::string mode = TextAttribute(call.node, "mode", "DCR");
  if (call.IsOp("DepthToSpace")) {
    const bool fits = x[1] % (block * block) == 0 && (mode == "DCR" || mode == "CRD");
    return fits ? Give(call, {x[0], x[1] / (block * block), x[2] * block, x[3] * block}) : "mode";
  }
  const bool fits = x[2] % block == 0 && x[3] % block == 0;
  return fits ? Give(call, {x[0], x[1] * block * block, x[2] / block, x[3] / block})
              : "blocksize that does not divide the image";
}

}  // namespace quilm_host
