#include "runtime/host/graph/graph_editor.h"

#include <algorithm>
#include <cstdlib>
#include <new>
#include <utility>

#include "runtime/host/graph/operators.h"

namespace quilm_host {
namespace {

// The decoder's release functions free() every part of a message.
template <typename T>
T* Allocate(size_t count) {
  // NOLINTNEXTLINE(bugprone-sizeof-expression): lists of messages are lists of pointers.
  auto* memory = static_cast<T*>(std::calloc(std::max<size_t>(count, 1), sizeof(T)));
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

char* Copy(const std::string& text) {
  auto* copy = Allocate<char>(text.size() + 1);
  std::copy(text.begin(), text.end(), copy);
  return copy;
}

template <typename T>
T* Copy(const std::vector<T>& values) {
  auto* copy = Allocate<T>(values.size());
  std::copy(values.begin(), values.end(), copy);
  return copy;
}

char** Copy(const Names& names) {
  auto* copies = Allocate<char*>(names.size());
  std::transform(names.begin(), names.end(), copies,
                 [](const std::string& name) { return Copy(name); });
  return copies;
}

Node NewNode(const char* op, const Names& inputs, const Attributes& attributes,
             const Names& outputs) {
  Node node(Allocate<Onnx__NodeProto>(1));
  onnx__node_proto__init(node.get());
  node->op_type = Copy(std::string(op));
  node->n_input = inputs.size();
  node->input = Copy(inputs);
  node->n_output = outputs.size();
  node->output = Copy(outputs);
  node->n_attribute = attributes.size();
  node->attribute = Allocate<Onnx__AttributeProto*>(attributes.size());
  std::transform(attributes.begin(), attributes.end(), node->attribute,
                 [](const Attribute& attribute) { return attribute.Encode(); });
  return node;
}

Onnx__TensorProto* NewTensor(const std::string& name, int32_t type, const Dims& dims) {
  auto* tensor = Allocate<Onnx__TensorProto>(1);
  onnx__tensor_proto__init(tensor);
  tensor->name = Copy(name);
  tensor->has_data_type = 1;
  tensor->data_type = type;
  tensor->n_dims = dims.size();
  tensor->dims = Copy(dims);
  return tensor;
}

template <typename T>
void Append(T* message, T**& list, size_t& count) {
  T** longer = Allocate<T*>(count + 1);
  std::copy(list, list + count, longer);
  std::free(list);
  list = longer;
  list[count++] = message;
}

}  // namespace

Onnx__AttributeProto* Attribute::Encode() const {
  constexpr Onnx__AttributeProto__AttributeType kTypes[] = {
      ONNX__ATTRIBUTE_PROTO__ATTRIBUTE_TYPE__INT, ONNX__ATTRIBUTE_PROTO__ATTRIBUTE_TYPE__FLOAT,
      ONNX__ATTRIBUTE_PROTO__ATTRIBUTE_TYPE__INTS, ONNX__ATTRIBUTE_PROTO__ATTRIBUTE_TYPE__STRING};
  auto* attribute = Allocate<Onnx__AttributeProto>(1);
  onnx__attribute_proto__init(attribute);
  attribute->name = Copy(std::string(name_));
  attribute->has_type = 1;
  attribute->type = kTypes[type_];
  attribute->has_i = type_ == kInt ? 1 : 0;
  attribute->i = integer_;
  attribute->has_f = type_ == kReal ? 1 : 0;
  attribute->f = real_;
  if (type_ == kInts) {
    attribute->n_ints = list_.size();
    attribute->ints = Copy(list_);
  }
  if (type_ == kText) {
    attribute->has_s = 1;
    attribute->s.len = text_.size();
    attribute->s.data = Copy(std::vector<uint8_t>(text_.begin(), text_.end()));
  }
  return attribute;
}

GraphEditor::GraphEditor(Onnx__ModelProto& model, FindRewrite* findRewrite)
    : graph_(*model.graph), facts_(model), findRewrite_(findRewrite) {
  areDimsKnown_ = facts_.AddRoots().empty();
  for (size_t i = 0; i < graph_.n_node; ++i) {
    const Onnx__NodeProto& node = *graph_.node[i];
    taken_.insert(node.input, node.input + node.n_input);
    taken_.insert(node.output, node.output + node.n_output);
  }
  for (size_t i = 0; i < graph_.n_initializer; ++i) {
    taken_.insert(graph_.initializer[i]->name == nullptr ? "" : graph_.initializer[i]->name);
  }
}

void GraphEditor::EditAll() {
  std::vector<Node> originals(graph_.node, graph_.node + graph_.n_node);
  graph_.n_node = 0;
  for (Node& node : originals) {
    Edit(std::move(node));
  }
  std::free(graph_.node);
  graph_.n_node = nodes_.size();
  graph_.node = Allocate<Onnx__NodeProto*>(nodes_.size());
  std::transform(nodes_.begin(), nodes_.end(), graph_.node,
                 [](Node& node) { return node.release(); });
}

void GraphEditor::Edit(Node node) {
  const size_t before = nodes_.size();
  try {
    if (areDimsKnown_) {
      Place(node);
    }
  } catch (const NoEquivalent&) {
    nodes_.resize(before);
    areDimsKnown_ = false;
  }
  if (node != nullptr) {
    nodes_.push_back(std::move(node));
  }
}

// Takes the node, or leaves it where it is when it throws.
void GraphEditor::Place(Node& node) {
  if (AdmitNode(*node, facts_).empty()) {
    nodes_.push_back(std::move(node));
    return;
  }
  Rewrite* rewrite = findRewrite_(*node);
  if (rewrite == nullptr || !beingReplaced_.insert(node->op_type).second) {
    throw NoEquivalent();
  }
  facts_.CountUses(*node, -1);
  rewrite(*this, *node);
  beingReplaced_.erase(node->op_type);
  node.reset();
}

const Value& GraphEditor::At(const std::string& name) const {
  const Value* value = facts_.Find(name);
  if (value == nullptr) {
    throw NoEquivalent();
  }
  return *value;
}

std::vector<float> GraphEditor::Floats(const std::string& name) const {
  const Value& value = At(name);
  if (value.tensor == nullptr || value.type != ONNX__TENSOR_PROTO__DATA_TYPE__FLOAT) {
    throw NoEquivalent();
  }
  return ReadFloats(*value.tensor);
}

Dims GraphEditor::Ints(const std::string& name) const {
  const Value& value = At(name);
  if (value.tensor == nullptr || value.type == ONNX__TENSOR_PROTO__DATA_TYPE__FLOAT) {
    throw NoEquivalent();
  }
  return ReadInts(*value.tensor);
}

std::string GraphEditor::Emit(const char* op, const Names& inputs, const Attributes& attributes,
                              const std::string& output) {
  std::string name = NewName(output);
  EmitAll(op, inputs, attributes, {name});
  return name;
}

void GraphEditor::EmitAll(const char* op, const Names& inputs, const Attributes& attributes,
                          const Names& outputs) {
  Node node = NewNode(op, inputs, attributes, outputs);
  facts_.CountUses(*node, 1);
  Place(node);
}

std::string GraphEditor::Constant(const Dims& dims, const std::vector<float>& values,
                                  const std::string& name) {
  Onnx__TensorProto* tensor = NewTensor(NewName(name), ONNX__TENSOR_PROTO__DATA_TYPE__FLOAT, dims);
  tensor->n_float_data = values.size();
  tensor->float_data = Copy(values);
  return Define(tensor);
}

std::string GraphEditor::Constant(const Dims& dims, const Dims& values, const std::string& name) {
  Onnx__TensorProto* tensor = NewTensor(NewName(name), ONNX__TENSOR_PROTO__DATA_TYPE__INT64, dims);
  tensor->n_int64_data = values.size();
  tensor->int64_data = Copy(values);
  return Define(tensor);
}

// The graph owns the tensor from here on.
std::string GraphEditor::Define(Onnx__TensorProto* tensor) {
  Append(tensor, graph_.initializer, graph_.n_initializer);
  Value value;
  value.type = tensor->data_type;
  value.dims.assign(tensor->dims, tensor->dims + tensor->n_dims);
  value.tensor = tensor;
  if (!facts_.Define(tensor->name, value)) {
    throw NoEquivalent();
  }
  return tensor->name;
}

std::string GraphEditor::NewName(const std::string& wanted) {
  std::string name = wanted;
  while (name.empty() || (wanted.empty() && !taken_.insert(name).second)) {
    name = "rewritten_" + std::to_string(++newNames_);
  }
  return name;
}

void AddDimension(Onnx__TensorShapeProto& shape) {
  auto* dimension = Allocate<Onnx__TensorShapeProto__Dimension>(1);
  onnx__tensor_shape_proto__dimension__init(dimension);
  dimension->value_case = ONNX__TENSOR_SHAPE_PROTO__DIMENSION__VALUE_DIM_VALUE;
  dimension->dim_value = 1;
  Append(dimension, shape.dim, shape.n_dim);
}

std::string InputOf(const Onnx__NodeProto& node, size_t index) {
  return index < node.n_input ? node.input[index] : "";
}

Names InputsOf(const Onnx__NodeProto& node) {
  return {node.input, node.input + node.n_input};
}

}  // namespace quilm_host
