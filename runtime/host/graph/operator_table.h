#ifndef QUILMRUN_RUNTIME_HOST_GRAPH_OPERATOR_TABLE_H_
#define QUILMRUN_RUNTIME_HOST_GRAPH_OPERATOR_TABLE_H_

#include <cstddef>
#include <cstdint>

#include "runtime/host/graph/operator_rules.h"

namespace quilm_host {

/// Kinds of element types; the engine computes with float32 whatever flows in.
enum Types : int {
  kReal = 1,   ///< float32, float16.
  kSmall = 2,  ///< 8 and 16 bits: exact in float32, but sums would not wrap.
  kWide = 4,   ///< int32: exact below 2^24.
  kIndex = 8,  ///< int64: only inside the graph.
};

/// One operator. Inputs, a letter each: x computed, c constant, e either, i constant integers,
/// o constant or left out, - left out, u constant, even empty, or left out; after '?' they may end
/// early, '*' repeats the letter before it. Attributes: name:type with the type i, f, s, I (ints)
/// or L (ints of 64 bits). Attributes that are not listed would reach the engine's layers, so
/// they are refused.
struct Row {
  const char* name;
  const char* inputs;
  const char* attributes;
  Rule* rule;
  size_t minRank = 2;
  size_t maxRank = 5;
  int types = kReal;
  size_t maxOutputs = 1;
  int64_t firstOpset = 1;
};

/// Null for operators that are not on the table.
const Row* FindRow(const char* name);

}  // namespace quilm_host

#endif  // QUILMRUN_RUNTIME_HOST_GRAPH_OPERATOR_TABLE_H_
