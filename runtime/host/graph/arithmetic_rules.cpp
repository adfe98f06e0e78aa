#include <algorithm>
#include <cfloat>
#include <cstdint>
#include <utility>
#include <vector>

#include "runtime/host/graph/operator_rules.h"

namespace quilm_host {
namespace {

/// The engine lays a smaller operand along the first dims from `axis` on whose product is its size.
bool LiesAlong(const Dims& big, const Dims& small, int64_t axis) {
  const auto rank = static_cast<int64_t>(big.size());
  if (small.size() > big.size() || axis < 0) {
    return false;
  }
  Dims laid(big.size(), 1);
  int64_t product = 0;
  for (int64_t k = axis; k < rank && product != Count(small); ++k) {
    laid[static_cast<size_t>(k)] = big[static_cast<size_t>(k)];
    product = CountBetween(big, axis, k + 1);
  }
  return product == Count(small) && laid == Padded(small, big.size());
}

/// For products the engine finds the dims itself; it can repeat one dim in the middle of a smaller
/// operand with as many dims.
bool FitsProduct(const Dims& big, const Dims& small) {
  if (small.size() > big.size()) {
    return false;
  }
  const Dims padded = Padded(small, big.size());
  std::vector<size_t> spread;
  size_t changes = 0;
  for (size_t k = 0; k < big.size(); ++k) {
    if (padded[k] != big[k] && padded[k] != 1) {
      return false;
    }
    if (padded[k] != 1) {
      changes += !spread.empty() && spread.back() + 1 != k ? k - spread.back() - 1 : 0;
      spread.push_back(k);
    }
  }
  const size_t mostChanges = small.size() == big.size() ? 1 : 0;
  return !spread.empty() && changes <= mostChanges;
}

const char* ConstantOperand(Call& call, size_t constantId) {
  const Value& constant = *call.in[constantId];
  const Dims& dims = call.in[1 - constantId]->dims;
  const bool isDivision = call.IsOp("Div");
  const bool isProduct = isDivision || call.IsOp("Mul");
  call.out.assign(1, dims);
  if (constant.dims.size() > dims.size()) {
    return "constant operand of more dimensions than the other";
  }
  if (Count(constant.dims) == 1) {
    const bool dividesZero = isDivision && constantId == 0 && ReadFloats(*constant.tensor)[0] == 0;
    return dividesZero ? "division of a constant zero" : nullptr;
  }
  if (dims.size() < 2) {
    return "constant tensor with fewer than 2 dimensions";
  }
  if (isDivision && (constantId == 0 || constant.uses != 1)) {
    return constantId == 0 ? "division of a constant tensor" : "divisor that other nodes use too";
  }
  if (!isProduct && constant.dims == dims) {
    return nullptr;
  }
  const bool isInitializer = constant.producer == nullptr;
  const int64_t axis =
      isProduct || !isInitializer ? 1 : static_cast<int64_t>(dims.size() - constant.dims.size());
  return LiesAlong(dims, constant.dims, axis) ? nullptr : "constant operand in this broadcast";
}

}  // namespace

const char* Same(Call& call) {
  return Give(call, call.X());
}

const char* Arithmetic(Call& call) {
  for (size_t k = 0; k < 2; ++k) {
    if (call.IsConstant(k)) {
      return ConstantOperand(call, k);
    }
  }
  const Dims* big = &call.X();
  const Dims* small = &call.in[1]->dims;
  if (call.IsOp("Mul") && Count(*big) < Count(*small)) {
    std::swap(big, small);
  }
  call.out.assign(1, *big);
  const bool isProduct = call.IsOp("Mul") || call.IsOp("Div");
  if (big->size() < 2 || small->size() < (isProduct ? 1 : 2)) {
    return "two computed operands of which one has too few dimensions";
  }
  const bool fits =
      *big == *small || (isProduct ? FitsProduct(*big, *small) && Count(*big) > Count(*small)
                                   : LiesAlong(*big, *small, 1));
  return fits ? nullptr : "computed operands in this broadcast";
}

const char* EqualShapes(Call& call) {
  const bool equal = std::all_of(call.in.begin(), call.in.end(),
                                 [&call](const Value* value) { return value->dims == call.X(); });
  const bool isList = call.in.size() > 1 && call.Rank() < 2;
  return equal && !isList ? Same(call) : "operands of different dims, or of fewer than 2";
}

const char* ScalarPower(Call& call) {
  const Dims& power = call.in[1]->dims;
  const bool fits = Count(power) == 1 && power.size() <= call.X().size();
  return fits ? Same(call) : "power other than one constant number";
}

const char* ClipRange(Call& call) {
  const bool ordered =
      FloatAttribute(call.node, "min", -FLT_MAX) <= FloatAttribute(call.node, "max", FLT_MAX);
  return ordered ? Same(call) : "min above max";
}

/// Only casts that change no number; float16 is rounded where the graph ends.
const char* ExactCast(Call& call) {
  const int64_t to = call.Int("to", 0);
  const int32_t from = call.in[0]->type;
  const bool isInteger = from != ONNX__TENSOR_PROTO__DATA_TYPE__FLOAT &&
                         from != ONNX__TENSOR_PROTO__DATA_TYPE__FLOAT16;
  const bool isByte =
      from == ONNX__TENSOR_PROTO__DATA_TYPE__UINT8 || from == ONNX__TENSOR_PROTO__DATA_TYPE__INT8;
  call.outType = static_cast<int32_t>(to);
  if (to == ONNX__TENSOR_PROTO__DATA_TYPE__FLOAT16) {
    const bool isLast = call.facts.IsLeaf(call.node.output[0]);
    return isByte || isLast ? Same(call) : "cast to float16 inside the graph";
  }
  const bool isExact = to == ONNX__TENSOR_PROTO__DATA_TYPE__FLOAT ||
                       (to == ONNX__TENSOR_PROTO__DATA_TYPE__INT32 && isInteger);
  return isExact ? Same(call) : "cast to an integer type";
}

const char* Dropping(Call& call) {
  const bool trains = call.facts.Opset() < 7 && call.Int("is_test", 0) == 0;
  return trains ? "training mode" : Same(call);
}

/// Scale, bias and the statistics are one number a channel.
const char* Normalizing(Call& call) {
  const bool trains = call.IsOp("BatchNormalization") &&
                      ((call.facts.Opset() < 7 && call.Int("is_test", 0) == 0) ||
                       call.Int("training_mode", 0) != 0 || call.Int("spatial", 1) != 1);
  for (size_t k = 1; k < call.in.size(); ++k) {
    if (call.in[k]->dims != Dims{call.X()[1]}) {
      return "parameters other than one number a channel";
    }
  }
  if (call.IsOp("InstanceNormalization") &&
      (call.X()[0] != 1 || FindAttribute(call.node, "epsilon") == nullptr)) {
    return "batch above 1 or no epsilon";
  }
  return trains ? "training mode or statistics by position" : Same(call);
}

const char* ChannelSlope(Call& call) {
  const Dims& slope = call.in[1]->dims;
  if (Count(slope) == 1) {
    return slope.size() <= call.X().size() ? Same(call) : "slope of more dimensions than the input";
  }
  // Before opset 7 a plain list held one slope a channel.
  const bool isList = call.facts.Opset() < 7 && slope == Dims{call.X()[1]};
  Dims wanted(call.X().size(), 1);
  wanted[1] = call.X()[1];
  const bool fits = slope.size() <= wanted.size() && Padded(slope, wanted.size()) == wanted;
  return fits || isList ? Same(call) : "slope other than one number or one a channel";
}

/// The engine adds and takes away the squares of a moving window, which is exact enough only while
/// they weigh little.
const char* LocalNormalizing(Call& call) {
  constexpr float kMostWeight = 1e-4F;
  const int64_t size = call.Int("size", 0);
  const float alpha = FloatAttribute(call.node, "alpha", 1e-4F);
  const float bias = FloatAttribute(call.node, "bias", 1);
  if (size < 1 || size % 2 == 0) {
    return "even size";
  }
  const bool isLight = alpha >= 0 && alpha <= kMostWeight * static_cast<float>(size) && bias >= 1;
  return isLight ? Same(call) : "alpha above a ten thousandth of the size, or bias below 1";
}

const char* MatrixProduct(Call& call) {
  const Dims& other = call.in[1]->dims;
  if (other.size() < 2 ||
      (call.IsConstant(1) ? other.size() != 2 : other.size() != call.X().size())) {
    return "second operand of other dimensions than the first, or a constant that is no matrix";
  }
  const bool isBatched = !call.IsConstant(1);
  if (isBatched && !std::equal(other.begin(), other.end() - 2, call.X().begin())) {
    return "broadcast between batches";
  }
  if (call.X().back() != *(other.end() - 2)) {
    return "matrices that do not fit";
  }
  Dims dims = call.X();
  dims.back() = other.back();
  return Give(call, dims);
}

/// The engine leaves the factors alone and takes weights as transposed whatever transB says.
const char* FullyConnected(Call& call) {
  const Dims& weights = call.in[1]->dims;
  if (FloatAttribute(call.node, "alpha", 1) != 1 || FloatAttribute(call.node, "beta", 1) != 1 ||
      call.Int("transA", 0) != 0 || call.Int("transB", 0) == 0) {
    return "alpha, beta or transA, or no transB";
  }
  if (weights.size() != 2 || weights[1] != call.X()[1]) {
    return "weights that do not fit the input";
  }
  const bool hasBias = call.Has(2);
  if (hasBias && call.in[2]->dims != Dims{weights[0]} && call.in[2]->dims != Dims{1, weights[0]}) {
    return "bias other than one number an output";
  }
  return Give(call, {call.X()[0], weights[0]});
}

}  // namespace quilm_host
