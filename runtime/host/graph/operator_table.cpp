#include "runtime/host/graph/operator_table.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace quilm_host {
namespace {

constexpr char kReduceAttributes[] = "axes:I keepdims:i";
constexpr char kPoolAttributes[] =
    "kernel_shape:I strides:I pads:I dilations:I auto_pad:s ceil_mode:i count_include_pad:i "
    "storage_order:i";
/// The runtime lets no int32 number in or out that float32 does not hold exactly.
constexpr int kMoved = kReal | kSmall | kWide;

constexpr Row kTable[] = {
    {"Abs", "x", "", Same, 0},
    {"Acos", "x", "", Same, 0},
    {"Acosh", "x", "", Same, 0},
    {"Add", "ee", "broadcast:i", Arithmetic, 0},
    {"ArgMax", "x", "axis:i keepdims:i select_last_index:i", ArgReduction},
    {"ArgMin", "x", "axis:i keepdims:i select_last_index:i", ArgReduction},
    {"Asin", "x", "", Same, 0},
    {"Asinh", "x", "", Same, 0},
    {"Atan", "x", "", Same, 0},
    {"Atanh", "x", "", Same, 0},
    {"AveragePool", "x", kPoolAttributes, Pooling, 3},
    {"BatchNormalization", "xcccc", "epsilon:f momentum:f spatial:i is_test:i training_mode:i",
     Normalizing},
    {"Cast", "x", "to:i", ExactCast, 0, 5, kReal | kSmall | kWide | kIndex},
    {"Ceil", "x", "", Same, 0},
    {"Celu", "x", "alpha:f", Same, 0},
    {"Clip", "x", "min:f max:f", ClipRange, 0},
    {"Concat", "xx*", "axis:i", Concatenation, 2, 5, kMoved},
    {"Conv", "xe?e", "kernel_shape:I strides:I pads:I dilations:I group:i auto_pad:s", Convolution,
     3},
    {"ConvTranspose", "xc?c",
     "kernel_shape:I strides:I pads:I dilations:I group:i output_padding:I", TransposedConvolution,
     4, 4},
    {"Cos", "x", "", Same, 0},
    {"Cosh", "x", "", Same, 0},
    {"DepthToSpace", "x", "blocksize:i mode:s", DepthSpace, 4, 4, kMoved},
    {"Div", "ee", "broadcast:i", Arithmetic, 0},
    {"Dropout", "x?c", "ratio:f is_test:i seed:i", Dropping, 0},
    {"Elu", "x", "alpha:f", Same, 0},
    {"Erf", "x", "", Same, 0},
    {"Exp", "x", "", Same, 0},
    {"Flatten", "x", "axis:i", Flattening, 2, 5, kMoved},
    {"Floor", "x", "", Same, 0},
    {"GRU", "xccc-c", "hidden_size:i direction:s linear_before_reset:i layout:i", Gru, 3, 3},
    {"Gather", "xi", "axis:i", Gathering, 1, 5, kMoved},
    {"Gemm", "xc?c", "alpha:f beta:f transA:i transB:i broadcast:i", FullyConnected, 2, 2},
    {"GlobalAveragePool", "x", "", GlobalPooling, 3, 4},
    {"GlobalMaxPool", "x", "", GlobalPooling, 3, 4},
    {"HardSigmoid", "x", "alpha:f beta:f", Same, 0},
    {"HardSwish", "x", "", Same, 0},
    {"Identity", "x", "", Same, 0, 5, kMoved},
    {"InstanceNormalization", "xcc", "epsilon:f", Normalizing, 3},
    {"LRN", "x", "alpha:f beta:f bias:f size:i", LocalNormalizing, 4, 4},
    {"LSTM", "xcc?o-oo", "hidden_size:i direction:s input_forget:i layout:i", Lstm, 3, 3, kReal, 2},
    {"LeakyRelu", "x", "alpha:f", Same, 0},
    {"Log", "x", "", Same, 0},
    {"MatMul", "xe", "", MatrixProduct},
    {"Max", "xx*", "", EqualShapes, 2, 5, kMoved},
    {"MaxPool", "x", kPoolAttributes, Pooling, 3, 5, kMoved},
    {"Min", "xx*", "", EqualShapes, 2, 5, kMoved},
    {"Mul", "ee", "broadcast:i", Arithmetic, 0},
    {"Neg", "x", "", Same, 0},
    {"PRelu", "xc", "", ChannelSlope},
    {"Pad", "x?ic", "pads:I mode:s value:f", Padding, 1, 5, kMoved},
    {"Pow", "xc", "", ScalarPower, 0},
    {"Reciprocal", "x", "", Same, 0},
    {"ReduceL1", "x", kReduceAttributes, Reduction},
    {"ReduceL2", "x", kReduceAttributes, Reduction},
    {"ReduceLogSum", "x", kReduceAttributes, Reduction},
    {"ReduceMax", "x", kReduceAttributes, Reduction, 2, 5, kMoved},
    {"ReduceMean", "x", kReduceAttributes, Reduction},
    {"ReduceMin", "x", kReduceAttributes, Reduction, 2, 5, kMoved},
    {"ReduceProd", "x", kReduceAttributes, Reduction},
    {"ReduceSum", "x", kReduceAttributes, Reduction},
    {"ReduceSumSquare", "x", kReduceAttributes, Reduction},
    {"Relu", "x", "", Same, 0, 5, kMoved},
    {"Reshape", "x?i", "shape:I", Reshaping, 1, 6, kMoved},
    {"Resize", "x?uuu",
     "mode:s coordinate_transformation_mode:s nearest_mode:s cubic_coeff_a:f exclude_outside:i "
     "extrapolation_value:f",
     Resizing, 4, 4, kReal, 1, 10},
    {"Round", "x", "", Same, 0},
    {"Selu", "x", "alpha:f gamma:f", Same, 0},
    {"Shrink", "x", "bias:f lambd:f", Same, 0},
    {"Sigmoid", "x", "", Same, 0},
    {"Sign", "x", "", Same, 0},
    {"Sin", "x", "", Same, 0},
    {"Sinh", "x", "", Same, 0},
    {"Slice", "x?iiii", "starts:L ends:L axes:I", Slicing, 1, 5, kMoved},
    {"Softmax", "x", "axis:i", SoftmaxAxis, 1},
    {"Softsign", "x", "", Same, 0},
    {"SpaceToDepth", "x", "blocksize:i", DepthSpace, 4, 4, kMoved},
    {"Split", "x?i", "axis:i split:I", Splitting, 1, 5, kMoved, 64},
    {"Sqrt", "x", "", Same, 0},
    {"Squeeze", "x", "axes:I", Squeezing, 1, 5, kMoved},
    {"Sub", "ee", "broadcast:i", Arithmetic, 0},
    {"Sum", "x*", "", EqualShapes, 1},
    {"Tan", "x", "", Same, 0},
    {"Tanh", "x", "", Same, 0},
    {"ThresholdedRelu", "x", "alpha:f", Same, 0},
    {"Transpose", "x", "perm:I", Transposition, 1, 6, kMoved},
    {"Upsample", "xc", "mode:s", Resizing, 4, 4, kReal, 1, 9},
    {"Unsqueeze", "x?i", "axes:I", Unsqueezing, 1, 4, kMoved},
};

}  // namespace

const Row* FindRow(const char* name) {
  const auto* row =
      std::find_if(std::begin(kTable), std::end(kTable),
                   [name](const Row& candidate) { return std::strcmp(candidate.name, name) == 0; });
  return row == std::end(kTable) ? nullptr : row;
}

}  // namespace quilm_host
