#ifndef QUILMRUN_RUNTIME_HOST_GRAPH_GRAPH_EDITOR_H_
#define QUILMRUN_RUNTIME_HOST_GRAPH_GRAPH_EDITOR_H_

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "onnx.pb-c.h"
#include "runtime/host/graph/graph_facts.h"

namespace quilm_host {

/// Of one of the types that nodes here have.
class Attribute {
 public:
  Attribute(const char* name, int64_t value) : name_(name), type_(kInt), integer_(value) {}
  Attribute(const char* name, float value) : name_(name), type_(kReal), real_(value) {}
  Attribute(const char* name, Dims value) : name_(name), type_(kInts), list_(std::move(value)) {}
  Attribute(const char* name, std::string value)
      : name_(name), type_(kText), text_(std::move(value)) {}

  /// A message that its node owns.
  Onnx__AttributeProto* Encode() const;

 private:
  enum Type { kInt, kReal, kInts, kText };

  const char* name_;
  Type type_;
  int64_t integer_ = 0;
  float real_ = 0;
  Dims list_;
  std::string text_;
};
using Attributes = std::vector<Attribute>;
using Names = std::vector<std::string>;

/// Thrown where a node has no equivalent; the node then stays as it was.
class NoEquivalent : public std::exception {};

class GraphEditor;

/// Emits the equivalent of `node`, whose last node gives the outputs their names.
using Rewrite = void(GraphEditor& editor, const Onnx__NodeProto& node);

/// Null where there is none for this operator, these attributes and this many inputs and outputs.
using FindRewrite = Rewrite*(const Onnx__NodeProto& node);

struct NodeDeleter {
  void operator()(Onnx__NodeProto* node) const { onnx__node_proto__free_unpacked(node, nullptr); }
};
using Node = std::unique_ptr<Onnx__NodeProto, NodeDeleter>;

/// Goes through the nodes of a graph in order, with the dims of all values before each of them
/// known, and replaces those that are not admitted.
class GraphEditor {
 public:
  GraphEditor(Onnx__ModelProto& model, FindRewrite* findRewrite);

  void EditAll();

  int64_t Opset() const { return facts_.Opset(); }
  const Value& At(const std::string& name) const;
  const Dims& DimsOf(const std::string& name) const { return At(name).dims; }
  bool IsConstant(const std::string& name) const { return At(name).tensor != nullptr; }
  /// Whether a node or the graph's result needs the value.
  bool IsUsed(const std::string& name) const { return facts_.IsUsed(name); }
  /// The elements of a constant float32 or integer tensor.
  std::vector<float> Floats(const std::string& name) const;
  Dims Ints(const std::string& name) const;

  /// Adds a node, or its equivalent, and returns the name of its first output, which is a new one
  /// unless it is given.
  std::string Emit(const char* op, const Names& inputs, const Attributes& attributes = {},
                   const std::string& output = "");
  /// The same for several outputs.
  void EmitAll(const char* op, const Names& inputs, const Attributes& attributes,
               const Names& outputs);
  /// Adds a constant float32 or int64 tensor.
  std::string Constant(const Dims& dims, const std::vector<float>& values,
                       const std::string& name = "");
  std::string Constant(const Dims& dims, const Dims& values, const std::string& name);

 private:
  void Edit(Node node);
  void Place(Node& node);
  std::string Define(Onnx__TensorProto* tensor);
  std::string NewName(const std::string& wanted);

  Onnx__GraphProto& graph_;
  GraphFacts facts_;
  FindRewrite* findRewrite_;
  std::vector<Node> nodes_;
  std::set<std::string> taken_;          // the names that nodes and constants had
  std::set<std::string> beingReplaced_;  // operators, so that none ends up as itself
  size_t newNames_ = 0;
  bool areDimsKnown_ = false;  // until the first node that stays refused
};

/// Appends a dimension of size 1 to a shape.
void AddDimension(Onnx__TensorShapeProto& shape);

/// The named input; empty where it is left out.
std::string InputOf(const Onnx__NodeProto& node, size_t index);
/// All inputs, also those left out.
Names InputsOf(const Onnx__NodeProto& node);

}  // namespace quilm_host

#endif  // QUILMRUN_RUNTIME_HOST_GRAPH_GRAPH_EDITOR_H_
