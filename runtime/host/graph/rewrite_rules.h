#ifndef QUILMRUN_RUNTIME_HOST_GRAPH_REWRITE_RULES_H_
#define QUILMRUN_RUNTIME_HOST_GRAPH_REWRITE_RULES_H_

#include <cstdint>
#include <string>

#include "runtime/host/graph/graph_editor.h"

namespace quilm_host {

/// The dims that values of both dims are broadcast to; throws where they do not fit.
Dims CommonDims(const Dims& a, const Dims& b);
/// The same for all the named values.
Dims CommonDims(const GraphEditor& editor, const Names& names);

/// The name of a value that repeats `name` to fill `dims`; computed float32 and float16 values, and
/// constant float32 ones.
std::string Repeat(GraphEditor& editor, const std::string& name, const Dims& dims);

/// The name of a value with other dims and the same elements, `name` itself when they are the same.
std::string Shape(GraphEditor& editor, const std::string& name, const Dims& dims);

/// Gives the value `name`, with other dims, to a node's output.
void Return(GraphEditor& editor, const std::string& name, const Dims& dims,
            const std::string& output);

/// Counts a negative axis from the end; throws when it is out of range.
int64_t CountedAxis(int64_t axis, int64_t rank);
Dims CountedAxes(const Dims& axes, int64_t rank);

bool AreAllConstant(const GraphEditor& editor, const Names& names);

/// Of one dimension, counted from its first element.
struct SliceRange {
  int64_t axis, start, end, step;
};

/// The results for constants, which the operators' rewrites leave to these.
Rewrite FoldElementwise, FoldConcat, FoldGather;
void FoldSlice(GraphEditor& editor, const Onnx__NodeProto& node, const SliceRange& range);

Rewrite RewriteCast, RewriteConstant, RewriteConstantOfShape, RewriteFunction, RewriteIdentity,
    RewriteShape, RewriteSize;

Rewrite RewriteElementwise, RewriteSum, RewriteExtremes, RewriteMean, RewriteClip, RewritePRelu,
    RewriteExpand, RewriteSoftplus;

Rewrite RewriteGemm, RewriteMatMul, RewriteTranspose;

Rewrite RewriteSqueeze, RewriteUnsqueeze, RewriteFlatten, RewriteConcat, RewriteGather,
    RewriteSplit, RewriteReshape, RewriteSlice;

Rewrite RewriteReduction, RewriteReduceLogSumExp, RewriteSoftmax;

Rewrite RewriteBatchNormalization, RewriteInstanceNormalization, RewriteLayerNormalization;

Rewrite RewritePool, RewriteGlobalPool;

Rewrite RewriteRecurrent;

}  // namespace quilm_host

#endif  // QUILMRUN_RUNTIME_HOST_GRAPH_REWRITE_RULES_H_
