#ifndef QUILMRUN_RUNTIME_HOST_GRAPH_GRAPH_FACTS_H_
#define QUILMRUN_RUNTIME_HOST_GRAPH_GRAPH_FACTS_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "onnx.pb-c.h"

namespace quilm_host {

using Dims = std::vector<int64_t>;

/// What is known, before anything runs, about one named value of the graph.
struct Value {
  int32_t type = 0;
  Dims dims;
  const Onnx__TensorProto* tensor = nullptr;  ///< Set for constants only.
  const Onnx__NodeProto* producer = nullptr;  ///< Null for graph inputs and initializers.
  size_t uses = 0;                            ///< How many node inputs name the value.
  bool isOutput = false;
};

/// Collects the facts about a graph's values, in the order in which its nodes define them.
class GraphFacts {
 public:
  explicit GraphFacts(const Onnx__ModelProto& model);

  /// Takes in the initializers and the inputs; returns the reason for a refusal, or "".
  std::string AddRoots();

  /// False when the name is empty, reserved by the engine or defined already.
  bool Define(const std::string& name, Value value);

  /// Notes that the graph has gained (1) or lost (-1) a node since it was read.
  void CountUses(const Onnx__NodeProto& node, int change);

  /// Null for names that are not defined (yet).
  const Value* Find(const std::string& name) const;

  /// Whether a node or an output of the graph names the value.
  bool IsUsed(const std::string& name) const;

  /// Whether the value goes nowhere but out of the graph.
  bool IsLeaf(const std::string& name) const;

  int64_t Opset() const { return opset_; }
  const Onnx__GraphProto& Graph() const { return *model_.graph; }
  bool MadeByPytorch() const;

 private:
  std::string AddInput(const Onnx__ValueInfoProto& input);

  const Onnx__ModelProto& model_;
  int64_t opset_ = 0;  ///< 0 when the default domain is not imported exactly once.
  std::map<std::string, size_t> uses_;
  std::set<std::string> outputs_;
  std::map<std::string, Value> values_;
};

/// The number of elements; -1 for negative dims and more elements than the engine can count.
int64_t Count(const Dims& dims);
int64_t CountBetween(const Dims& dims, int64_t begin, int64_t end);

/// `dims` with ones put before them up to `rank`.
Dims Padded(const Dims& dims, size_t rank);

/// The declared static dims; nothing for other types than tensors and for unknown dims.
std::optional<Dims> DeclaredDims(const Onnx__ValueInfoProto& info);
int32_t DeclaredType(const Onnx__ValueInfoProto& info);

/// Whether the engine reads the tensor as written: a known type, inline, all elements there.
bool IsReadable(const Onnx__TensorProto& tensor);
std::vector<int64_t> ReadInts(const Onnx__TensorProto& tensor);
std::vector<float> ReadFloats(const Onnx__TensorProto& tensor);

const Onnx__AttributeProto* FindAttribute(const Onnx__NodeProto& node, const std::string& name);
int64_t IntAttribute(const Onnx__NodeProto& node, const std::string& name, int64_t fallback);
float FloatAttribute(const Onnx__NodeProto& node, const std::string& name, float fallback);
Dims IntsAttribute(const Onnx__NodeProto& node, const std::string& name, const Dims& fallback);
std::string TextAttribute(const Onnx__NodeProto& node, const std::string& name,
                          const std::string& fallback);

}  // namespace quilm_host

#endif  // QUILMRUN_RUNTIME_HOST_GRAPH_GRAPH_FACTS_H_
