// Reads ONNX files with the decoder that is generated from ONNX's own schema.
#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <map>
#include <memory>
#include <set>
#include <string_view>

#include "onnx.pb-c.h"
#include "runtime/host/model.h"
#include "runtime/host/nesting.h"

namespace quilm_host {
namespace {

using Dimension = Onnx__TensorShapeProto__Dimension;

struct ModelProtoDeleter {
  void operator()(Onnx__ModelProto* proto) const {
    onnx__model_proto__free_unpacked(proto, nullptr);
  }
};
using ModelProto = std::unique_ptr<Onnx__ModelProto, ModelProtoDeleter>;

constexpr int64_t kOpen = -1;

std::string Text(const char* text) {
  return text == nullptr ? "" : text;
}

std::string Quoted(const char* kind, const std::string& name) {
  return std::string(kind) + " \"" + name + "\"";
}

std::string NameOfElementType(int32_t onnxType) {
  const ProtobufCEnumDescriptor& types = onnx__tensor_proto__data_type__descriptor;
  for (unsigned i = 0; i < types.n_values; ++i) {
    if (types.values[i].value == onnxType) {
      return types.values[i].name;
    }
  }
  return "number " + std::to_string(onnxType);
}

// The tensor type of an input or output; null, with the reason, for anything else.
Onnx__TypeProto__Tensor* TensorType(const Onnx__ValueInfoProto& info, std::string& problem) {
  constexpr const char* kKinds[] = {
      "value without a type", "tensor",  "", "", "sequence", "map", "", "",
      "sparse tensor",        "optional"};
  const auto kind = info.type == nullptr ? ONNX__TYPE_PROTO__VALUE__NOT_SET : info.type->value_case;
  if (kind != ONNX__TYPE_PROTO__VALUE_TENSOR_TYPE) {
    problem = std::string("a ") + (kind < std::size(kKinds) ? kKinds[kind] : "value of its type") +
              " cannot be an input or output";
    return nullptr;
  }
  const int32_t elementType = info.type->tensor_type->elem_type;
  if (FindElementType(elementType) == nullptr) {
    problem = "element type " + NameOfElementType(elementType) + " cannot be an input or output";
    return nullptr;
  }
  return info.type->tensor_type;
}

// An input of the graph with the shape that the file gives it.
struct Input {
  std::string name;
  Onnx__TensorShapeProto* shape = nullptr;
  std::vector<int64_t> dims;

  const char* Symbol(size_t index) const {
    const Dimension& dim = *shape->dim[index];
    return dim.value_case == ONNX__TENSOR_SHAPE_PROTO__DIMENSION__VALUE_DIM_PARAM ? dim.dim_param
                                                                                  : "";
  }
  bool IsOpen(size_t index) const {
    const Dimension& dim = *shape->dim[index];
    return dim.value_case != ONNX__TENSOR_SHAPE_PROTO__DIMENSION__VALUE_DIM_VALUE ||
           dim.dim_value < 0;
  }
  bool HasOpen() const { return std::find(dims.begin(), dims.end(), kOpen) != dims.end(); }
};

std::string TakeGiven(Input& input, const std::vector<int64_t>& given) {
  bool fits = given.size() == input.dims.size();
  for (size_t i = 0; fits && i < given.size(); ++i) {
    fits = input.IsOpen(i) || input.dims[i] == given[i];
  }
  if (!fits) {
    return "\"input_shapes\" has " + ShapeText(given) + ", the model " + ShapeText(input.dims) +
           ", where -1 may be any number";
  }
  input.dims = given;
  return {};
}

// Open dimensions of the same name are the same number. First those that are given count, then the
// first dimensions that stand for a batch.
void InferFromNames(std::vector<Input>& inputs) {
  std::map<std::string, int64_t> numbers;
  for (const bool firstIsOne : {false, true, false}) {
    for (Input& input : inputs) {
      for (size_t i = 0; i < input.dims.size(); ++i) {
        const std::string symbol = input.Symbol(i);
        const auto known = numbers.find(symbol);
        if (input.dims[i] == kOpen && known != numbers.end()) {
          input.dims[i] = known->second;
        } else if (input.dims[i] == kOpen && firstIsOne && i == 0) {
          input.dims[i] = 1;
        }
        if (input.dims[i] != kOpen && !symbol.empty()) {
          numbers.emplace(symbol, input.dims[i]);
        }
      }
    }
  }
}

// The entry of the settings file that is missing, with the model's names for the missing numbers.
std::string MissingEntry(const std::vector<Input>& inputs) {
  std::string entry;
  for (const Input& input : inputs) {
    if (!input.HasOpen()) {
      continue;
    }
    entry += (entry.empty() ? "\"" : ", \"") + input.name + "\": [";
    for (size_t i = 0; i < input.dims.size(); ++i) {
      const std::string symbol = *input.Symbol(i) == '\0' ? "?" : input.Symbol(i);
      entry +=
          (i == 0 ? "" : ", ") + (input.dims[i] == kOpen ? symbol : std::to_string(input.dims[i]));
    }
    entry += "]";
  }
  return entry;
}

// Whether a batch can be the first dimension: of all inputs, and of nothing else.
bool CanBatchAsOne(const std::vector<Input>& inputs) {
  std::set<std::string> first;
  std::set<std::string> others;
  for (const Input& input : inputs) {
    if (input.dims.empty() || !input.IsOpen(0) || input.dims[0] != 1) {
      return false;
    }
    for (size_t i = 0; i < input.dims.size(); ++i) {
      (i == 0 ? first : others).insert(input.Symbol(i));
    }
  }
  first.erase("");
  return std::none_of(first.begin(), first.end(),
                      [&](const std::string& name) { return others.count(name) != 0; });
}

void WriteDims(const Input& input, bool leaveFirstOpen) {
  for (size_t i = leaveFirstOpen ? 1 : 0; i < input.dims.size(); ++i) {
    Dimension& dim = *input.shape->dim[i];
    if (dim.value_case == ONNX__TENSOR_SHAPE_PROTO__DIMENSION__VALUE_DIM_PARAM) {
      std::free(dim.dim_param);
    }
    dim.value_case = ONNX__TENSOR_SHAPE_PROTO__DIMENSION__VALUE_DIM_VALUE;
    dim.dim_value = input.dims[i];
  }
}

std::string ReadInput(Onnx__ValueInfoProto& info, Input& input, Tensor& tensor) {
  std::string problem;
  const Onnx__TypeProto__Tensor* type = TensorType(info, problem);
  if (type == nullptr) {
    return problem;
  }
  if (type->shape == nullptr) {
    return "the model does not even give it a number of dimensions";
  }
  input = {Text(info.name), type->shape, {}};
  for (size_t i = 0; i < type->shape->n_dim; ++i) {
    input.dims.push_back(input.IsOpen(i) ? kOpen : type->shape->dim[i]->dim_value);
  }
  tensor.name = input.name;
  tensor.type = FindElementType(type->elem_type);
  return {};
}

// Inputs whose numbers stand in the file as initializers are none of the model's.
std::string ReadInputs(const Onnx__GraphProto& graph, std::vector<Input>& inputs, Model& model) {
  std::set<std::string> initializers;
  for (size_t i = 0; i < graph.n_initializer; ++i) {
    const Onnx__TensorProto& initializer = *graph.initializer[i];
    initializers.insert(Text(initializer.name));
    if (initializer.data_location == ONNX__TENSOR_PROTO__DATA_LOCATION__EXTERNAL) {
      return Quoted("initializer", Text(initializer.name)) +
             ": its data lie in another file; the model has to be one file";
    }
  }
  for (size_t i = 0; i < graph.n_input; ++i) {
    const std::string name = Text(graph.input[i]->name);
    if (initializers.count(name) == 0) {
      std::string problem =
          ReadInput(*graph.input[i], inputs.emplace_back(), model.inputs.emplace_back());
      if (!problem.empty()) {
        return Quoted("input", name) + ": " + problem;
      }
    }
  }
  return {};
}

std::string ResolveShapes(std::vector<Input>& inputs, const Settings& settings, Model& model) {
  for (const auto& [name, given] : settings.inputShapes) {
    const auto input = std::find_if(inputs.begin(), inputs.end(),
                                    [&name = name](const Input& i) { return i.name == name; });
    if (input == inputs.end()) {
      return "\"input_shapes\" names " + Quoted("input", name) + ", which the model does not have";
    }
    std::string problem = TakeGiven(*input, given);
    if (!problem.empty()) {
      return Quoted("input", name) + ": " + problem;
    }
  }
  InferFromNames(inputs);
  if (const std::string missing = MissingEntry(inputs); !missing.empty()) {
    return "the model leaves shapes open; write \"input_shapes\": {" + missing +
           "} with numbers for names into the settings file";
  }
  model.batchesAsOne = CanBatchAsOne(inputs) && model.netType != kRecurrent;
  for (size_t i = 0; i < inputs.size(); ++i) {
    model.inputs[i].dims = inputs[i].dims;
    WriteDims(inputs[i], model.batchesAsOne);
  }
  return {};
}

std::string ReadOutputs(const Onnx__GraphProto& graph, Model& model) {
  for (size_t i = 0; i < graph.n_output; ++i) {
    Tensor& output = model.outputs.emplace_back();
    output.name = Text(graph.output[i]->name);
    std::string problem;
    if (graph.output[i]->type != nullptr && TensorType(*graph.output[i], problem) == nullptr) {
      return Quoted("output", output.name) + ": " + problem;
    }
  }
  return model.outputs.empty() ? "the model has no outputs" : "";
}

std::string ReadNetType(const Onnx__ModelProto& proto, int32_t& netType) {
  constexpr char kKey[] = "quilm.net_type";
  for (size_t i = 0; i < proto.n_metadata_props; ++i) {
    const Onnx__StringStringEntryProto& entry = *proto.metadata_props[i];
    if (Text(entry.key) != kKey) {
      continue;
    }
    const std::string_view value = entry.value == nullptr ? "" : entry.value;
    const auto [end, error] = std::from_chars(value.begin(), value.end(), netType);
    if (error != std::errc() || end != value.end()) {
      return std::string(kKey) + " \"" + std::string(value) + "\" is not a number";
    }
  }
  return {};
}

std::string CheckNetType(const Model& model) {
  const auto& inputs = model.inputs;
  if (model.netType == kRecurrent &&
      (inputs.size() < 2 || inputs[0].dims.empty() || inputs[1].dims.empty() ||
       inputs[0].dims.front() != inputs[1].dims.back())) {
    return "a recurrent model's input 0 has as many frames, its first dimension, as input 1 has "
           "marks, its last";
  }
  return {};
}

std::string ReadProto(const Onnx__ModelProto& proto, const Settings& settings, Model& model) {
  std::vector<Input> inputs;
  std::string problem = ReadNetType(proto, model.netType);
  if (problem.empty()) {
    problem = ReadInputs(*proto.graph, inputs, model);
  }
  if (problem.empty()) {
    problem = ReadOutputs(*proto.graph, model);
  }
  if (problem.empty()) {
    problem = ResolveShapes(inputs, settings, model);
  }
  return problem.empty() ? CheckNetType(model) : problem;
}

}  // namespace

std::string ReadOnnxFile(const void* data, size_t size, const Settings& settings, Model& model,
                         std::vector<uint8_t>& encoded) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  if (IsNestedTooDeeply(onnx__model_proto__descriptor, bytes, size)) {
    return "its parts are nested in each other more deeply than ONNX Runtime reads";
  }
  const ModelProto proto(onnx__model_proto__unpack(nullptr, size, bytes));
  if (proto == nullptr || proto->graph == nullptr || proto->graph->n_node == 0) {
    return "it is not an ONNX file";
  }
  std::string problem = ReadProto(*proto, settings, model);
  if (problem.empty()) {
    encoded.resize(onnx__model_proto__get_packed_size(proto.get()));
    onnx__model_proto__pack(proto.get(), encoded.data());
  }
  return problem;
}

}  // namespace quilm_host
