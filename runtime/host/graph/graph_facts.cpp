#include "runtime/host/graph/graph_facts.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>

namespace quilm_host {
namespace {

/// The engine's own layers take names that start so.
constexpr char kEnginePrefix[] = "onnx_node";
/// The engine takes any value whose name ends so for an 8-bit one.
constexpr char kQuantizedSuffix[] = "quantized";
/// The engine counts elements with 32 bits.
constexpr int64_t kMostElements = INT32_MAX;

std::string Text(const char* text) {
  return text == nullptr ? "" : text;
}

bool IsReservedName(const std::string& name) {
  const std::string suffix = kQuantizedSuffix;
  return name.empty() || name.rfind(kEnginePrefix, 0) == 0 ||
         (name.size() >= suffix.size() &&
          name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0);
}

/// Zero unless the default domain is imported exactly once.
int64_t DefaultOpset(const Onnx__ModelProto& model) {
  int64_t version = 0;
  for (size_t i = 0; i < model.n_opset_import; ++i) {
    const Onnx__OperatorSetIdProto& import = *model.opset_import[i];
    const std::string domain = Text(import.domain);
    if (!domain.empty() && domain != "ai.onnx") {
      continue;
    }
    if (version != 0) {
      return 0;
    }
    version = import.version;
  }
  return version;
}

const Onnx__TypeProto__Tensor* TensorType(const Onnx__ValueInfoProto& info) {
  const bool isTensor =
      info.type != nullptr && info.type->value_case == ONNX__TYPE_PROTO__VALUE_TENSOR_TYPE;
  return isTensor ? info.type->tensor_type : nullptr;
}

/// Type, bytes of an element, and where its elements are when they are not raw.
struct Payload {
  int32_t type;
  size_t elementBytes;
  size_t Onnx__TensorProto::*typedCount;
};
constexpr Payload kPayloads[] = {
    {ONNX__TENSOR_PROTO__DATA_TYPE__FLOAT, 4, &Onnx__TensorProto::n_float_data},
    {ONNX__TENSOR_PROTO__DATA_TYPE__INT32, 4, &Onnx__TensorProto::n_int32_data},
    {ONNX__TENSOR_PROTO__DATA_TYPE__INT64, 8, &Onnx__TensorProto::n_int64_data},
};

}  // namespace

GraphFacts::GraphFacts(const Onnx__ModelProto& model) : model_(model), opset_(DefaultOpset(model)) {
  for (size_t i = 0; i < Graph().n_node; ++i) {
    CountUses(*Graph().node[i], 1);
  }
  for (size_t i = 0; i < Graph().n_output; ++i) {
    outputs_.insert(Text(Graph().output[i]->name));
  }
}

std::string GraphFacts::AddRoots() {
  for (size_t i = 0; i < Graph().n_initializer; ++i) {
    const Onnx__TensorProto& tensor = *Graph().initializer[i];
    const std::string name = Text(tensor.name);
    Value value;
    value.type = tensor.data_type;
    value.dims.assign(tensor.dims, tensor.dims + tensor.n_dims);
    value.tensor = &tensor;
    if (!IsReadable(tensor)) {
      return "initializer \"" + name + "\": its elements cannot be read by the engine";
    }
    if (!Define(name, value)) {
      return "initializer \"" + name + "\": its name is taken";
    }
  }
  for (size_t i = 0; i < Graph().n_input; ++i) {
    std::string reason = AddInput(*Graph().input[i]);
    if (!reason.empty()) {
      return reason;
    }
  }
  return "";
}

std::string GraphFacts::AddInput(const Onnx__ValueInfoProto& input) {
  const std::string name = Text(input.name);
  const Value* known = Find(name);
  if (known != nullptr && known->tensor != nullptr) {
    return "";
  }
  if (uses_.count(name) == 0) {
    return "input \"" + name + "\": no node uses it";
  }
  const std::optional<Dims> dims = DeclaredDims(input);
  if (!dims.has_value() || Count(*dims) <= 0) {
    return "input \"" + name + "\": its dims are not static";
  }
  Value value;
  value.type = DeclaredType(input);
  value.dims = *dims;
  return Define(name, value) ? "" : "input \"" + name + "\": its name is taken";
}

bool GraphFacts::Define(const std::string& name, Value value) {
  if (IsReservedName(name)) {
    return false;
  }
  const auto uses = uses_.find(name);
  value.uses = uses == uses_.end() ? 0 : uses->second;
  value.isOutput = outputs_.count(name) != 0;
  return values_.emplace(name, std::move(value)).second;
}

void GraphFacts::CountUses(const Onnx__NodeProto& node, int change) {
  for (size_t k = 0; k < node.n_input; ++k) {
    size_t& uses = uses_[node.input[k]];
    uses += static_cast<size_t>(change);
    const auto value = values_.find(node.input[k]);
    if (value != values_.end()) {
      value->second.uses = uses;
    }
  }
}

const Value* GraphFacts::Find(const std::string& name) const {
  const auto found = values_.find(name);
  return found == values_.end() ? nullptr : &found->second;
}

bool GraphFacts::IsUsed(const std::string& name) const {
  const auto uses = uses_.find(name);
  return outputs_.count(name) != 0 || (uses != uses_.end() && uses->second != 0);
}

bool GraphFacts::IsLeaf(const std::string& name) const {
  const auto uses = uses_.find(name);
  return outputs_.count(name) != 0 && (uses == uses_.end() || uses->second == 0);
}

bool GraphFacts::MadeByPytorch() const {
  return Text(model_.producer_name) == "pytorch";
}

int64_t Count(const Dims& dims) {
  int64_t count = 1;
  for (const int64_t dim : dims) {
    if (dim < 0 || (dim != 0 && count > kMostElements / dim)) {
      return -1;
    }
    count *= dim;
  }
  return count;
}

int64_t CountBetween(const Dims& dims, int64_t begin, int64_t end) {
  return Count(Dims(dims.begin() + begin, dims.begin() + end));
}

Dims Padded(const Dims& dims, size_t rank) {
  Dims padded(rank > dims.size() ? rank - dims.size() : 0, 1);
  padded.insert(padded.end(), dims.begin(), dims.end());
  return padded;
}

std::optional<Dims> DeclaredDims(const Onnx__ValueInfoProto& info) {
  const Onnx__TypeProto__Tensor* type = TensorType(info);
  if (type == nullptr || type->shape == nullptr) {
    return std::nullopt;
  }
  Dims dims;
  for (size_t i = 0; i < type->shape->n_dim; ++i) {
    const Onnx__TensorShapeProto__Dimension& dim = *type->shape->dim[i];
    const bool isStatic = dim.value_case == ONNX__TENSOR_SHAPE_PROTO__DIMENSION__VALUE_DIM_VALUE;
    if (!isStatic || dim.dim_value <= 0) {
      return std::nullopt;
    }
    dims.push_back(dim.dim_value);
  }
  return dims;
}

int32_t DeclaredType(const Onnx__ValueInfoProto& info) {
  const Onnx__TypeProto__Tensor* type = TensorType(info);
  return type == nullptr ? 0 : type->elem_type;
}

bool IsReadable(const Onnx__TensorProto& tensor) {
  const auto* payload = std::find_if(
      std::begin(kPayloads), std::end(kPayloads),
      [&tensor](const Payload& candidate) { return candidate.type == tensor.data_type; });
  const bool isElsewhere = tensor.n_external_data != 0 ||
                           tensor.data_location != ONNX__TENSOR_PROTO__DATA_LOCATION__DEFAULT;
  if (payload == std::end(kPayloads) || isElsewhere || tensor.segment != nullptr) {
    return false;
  }
  const int64_t elements = Count(Dims(tensor.dims, tensor.dims + tensor.n_dims));
  if (elements < 0) {
    return false;
  }
  const auto count = static_cast<size_t>(elements);
  const size_t typed = tensor.*(payload->typedCount);
  return tensor.raw_data.len == 0
             ? typed == count
             : typed == 0 && tensor.raw_data.len == count * payload->elementBytes;
}

std::vector<int64_t> ReadInts(const Onnx__TensorProto& tensor) {
  if (tensor.data_type == ONNX__TENSOR_PROTO__DATA_TYPE__INT64) {
    if (tensor.raw_data.len == 0) {
      return {tensor.int64_data, tensor.int64_data + tensor.n_int64_data};
    }
    std::vector<int64_t> values(tensor.raw_data.len / sizeof(int64_t));
    std::memcpy(values.data(), tensor.raw_data.data, values.size() * sizeof(int64_t));
    return values;
  }
  if (tensor.raw_data.len == 0) {
    return {tensor.int32_data, tensor.int32_data + tensor.n_int32_data};
  }
  std::vector<int32_t> narrow(tensor.raw_data.len / sizeof(int32_t));
  std::memcpy(narrow.data(), tensor.raw_data.data, narrow.size() * sizeof(int32_t));
  return {narrow.begin(), narrow.end()};
}

std::vector<float> ReadFloats(const Onnx__TensorProto& tensor) {
  if (tensor.raw_data.len == 0) {
    return {tensor.float_data, tensor.float_data + tensor.n_float_data};
  }
  std::vector<float> values(tensor.raw_data.len / sizeof(float));
  std::memcpy(values.data(), tensor.raw_data.data, values.size() * sizeof(float));
  return values;
}

const Onnx__AttributeProto* FindAttribute(const Onnx__NodeProto& node, const std::string& name) {
  for (size_t i = 0; i < node.n_attribute; ++i) {
    if (Text(node.attribute[i]->name) == name) {
      return node.attribute[i];
    }
  }
  return nullptr;
}

int64_t IntAttribute(const Onnx__NodeProto& node, const std::string& name, int64_t fallback) {
  const Onnx__AttributeProto* attribute = FindAttribute(node, name);
  return attribute == nullptr ? fallback : attribute->i;
}

float FloatAttribute(const Onnx__NodeProto& node, const std::string& name, float fallback) {
  const Onnx__AttributeProto* attribute = FindAttribute(node, name);
  return attribute == nullptr ? fallback : attribute->f;
}

Dims IntsAttribute(const Onnx__NodeProto& node, const std::string& name, const Dims& fallback) {
  const Onnx__AttributeProto* attribute = FindAttribute(node, name);
  return attribute == nullptr ? fallback
                              : Dims(attribute->ints, attribute->ints + attribute->n_ints);
}

std::string TextAttribute(const Onnx__NodeProto& node, const std::string& name,
                          const std::string& fallback) {
  const Onnx__AttributeProto* attribute = FindAttribute(node, name);
  if (attribute == nullptr) {
    return fallback;
  }
  return {reinterpret_cast<const char*>(attribute->s.data), attribute->s.len};
}

}  // namespace quilm_host
