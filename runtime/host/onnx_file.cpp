// Reads ONNX files with the decoder that is generated from ONNX's own schema.
#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <map>
#include <set>
#include <string_view>

#include "onnx.pb-c.h"
#include "runtime/host/diagnostics.h"
#include "runtime/host/model.h"

namespace quilm_host {
namespace {

using Dimension = Onnx__TensorShapeProto__Dimension;

struct ModelProtoDeleter {
  void operator()(Onnx__ModelProto* proto) const {
    onnx__model_proto__free_unpacked(proto, nullptr);
  }
};

constexpr int64_t kOpen = -1;

std::string Text(const char* text) {
  return text == nullptr ? "" : text;
}

// The tensor type of an input or output. Others are refused by the names of ONNX's schema.
const Onnx__TypeProto__Tensor& TensorType(const Onnx__TypeProto* type) {
  const int kind = type == nullptr ? 0 : type->value_case;
  std::string name = "value without a type";
  for (unsigned i = 0; i < onnx__type_proto__descriptor.n_fields; ++i) {
    const ProtobufCFieldDescriptor& field = onnx__type_proto__descriptor.fields[i];
    name = field.id == static_cast<uint32_t>(kind) ? field.name : name;
  }
  if (kind != ONNX__TYPE_PROTO__VALUE_TENSOR_TYPE) {
    Refuse(kBadModel, "it is a ", name, ", only tensors can be inputs and outputs");
  }
  const int32_t elementType = type->tensor_type->elem_type;
  const ProtobufCEnumDescriptor& types = onnx__tensor_proto__data_type__descriptor;
  for (unsigned i = 0; i < types.n_values; ++i) {
    name = types.values[i].value == elementType ? types.values[i].name : name;
  }
  if (FindElementType(elementType) == nullptr) {
    Refuse(kBadModel, "element type ", name, " has no code");
  }
  return *type->tensor_type;
}

// An input of the graph with the shape that the file gives it.
struct Input {
  Tensor& tensor;
  Onnx__TensorShapeProto& shape;

  std::string Symbol(size_t index) const {
    const Dimension& dim = *shape.dim[index];
    return dim.value_case == ONNX__TENSOR_SHAPE_PROTO__DIMENSION__VALUE_DIM_PARAM ? dim.dim_param
                                                                                  : "";
  }
  int64_t Number(size_t index) const {
    const Dimension& dim = *shape.dim[index];
    const bool isNumber = dim.value_case == ONNX__TENSOR_SHAPE_PROTO__DIMENSION__VALUE_DIM_VALUE;
    return isNumber && dim.dim_value >= 0 ? dim.dim_value : kOpen;
  }
};

void TakeGiven(const std::vector<int64_t>& given, std::vector<int64_t>& dims) {
  const auto fits = [](int64_t own, int64_t number) { return own == kOpen || own == number; };
  if (!std::equal(dims.begin(), dims.end(), given.begin(), given.end(), fits)) {
    Refuse(kBadModel, "\"input_shapes\" has ", ShapeText(given), ", the model ", ShapeText(dims),
           ", where -1 may be any number");
  }
  dims = given;
}

// Open dimensions of the same name are the same number. First those that are given count, then the
// first dimensions that stand for a batch.
void InferFromNames(const std::vector<Input>& inputs) {
  std::map<std::string, int64_t> numbers;
  for (const bool firstIsOne : {false, true, false}) {
    for (const Input& input : inputs) {
      for (size_t i = 0; i < input.tensor.dims.size(); ++i) {
        int64_t& dim = input.tensor.dims[i];
        const std::string symbol = input.Symbol(i);
        const auto known = numbers.find(symbol);
        if (dim == kOpen) {
          dim = known != numbers.end() ? known->second : firstIsOne && i == 0 ? 1 : kOpen;
        }
        if (dim != kOpen && !symbol.empty()) {
          numbers.emplace(symbol, dim);
        }
      }
    }
  }
}

// The entry that the settings file lacks, with the model's names for the missing numbers; empty
// when there is none missing.
std::string MissingEntry(const Input& input) {
  const std::vector<int64_t>& dims = input.tensor.dims;
  std::string entry;
  for (size_t i = 0; i < dims.size(); ++i) {
    const std::string symbol = input.Symbol(i).empty() ? "?" : input.Symbol(i);
    entry += (i == 0 ? "" : ", ") + (dims[i] == kOpen ? symbol : std::to_string(dims[i]));
  }
  const bool isMissing = std::find(dims.begin(), dims.end(), kOpen) != dims.end();
  return isMissing ? "\"" + input.tensor.name + "\": [" + entry + "]" : "";
}

// Whether a batch can be the first dimension: of all inputs, and of nothing else.
bool CanBatchAsOne(const std::vector<Input>& inputs) {
  std::set<std::string> others;
  for (const Input& input : inputs) {
    for (size_t i = 1; i < input.tensor.dims.size(); ++i) {
      others.insert(input.Symbol(i));
    }
  }
  others.erase("");
  return std::all_of(inputs.begin(), inputs.end(), [&](const Input& input) {
    return !input.tensor.dims.empty() && input.Number(0) == kOpen && input.tensor.dims[0] == 1 &&
           others.count(input.Symbol(0)) == 0;
  });
}

void WriteDims(const Input& input, bool leaveFirstOpen) {
  for (size_t i = leaveFirstOpen ? 1 : 0; i < input.tensor.dims.size(); ++i) {
    Dimension& dim = *input.shape.dim[i];
    if (dim.value_case == ONNX__TENSOR_SHAPE_PROTO__DIMENSION__VALUE_DIM_PARAM) {
      std::free(dim.dim_param);
    }
    dim.value_case = ONNX__TENSOR_SHAPE_PROTO__DIMENSION__VALUE_DIM_VALUE;
    dim.dim_value = input.tensor.dims[i];
  }
}

void ResolveShapes(const std::vector<Input>& inputs, const Settings& settings, Model& model) {
  for (const auto& [name, given] : settings.inputShapes) {
    const auto input =
        std::find_if(inputs.begin(), inputs.end(),
                     [&, &wanted = name](const Input& i) { return i.tensor.name == wanted; });
    if (input == inputs.end()) {
      Refuse(kBadModel, "it has no input", Quoted(name), " as \"input_shapes\" has");
    }
    About("input" + Quoted(name), [&, &shape = given] { TakeGiven(shape, input->tensor.dims); });
  }
  InferFromNames(inputs);
  model.batchesAsOne = CanBatchAsOne(inputs) && model.netType != kRecurrent;
  std::string missing;
  for (const Input& input : inputs) {
    const std::string entry = MissingEntry(input);
    missing += (missing.empty() || entry.empty() ? "" : ", ") + entry;
    WriteDims(input, model.batchesAsOne);
  }
  if (!missing.empty()) {
    Refuse(kBadModel, "it leaves shapes open: write \"input_shapes\": {", missing,
           "}, with numbers for names, into the settings file");
  }
}

// Inputs whose numbers stand in the file as initializers are none of the model's.
void ReadInputs(const Onnx__GraphProto& graph, const Settings& settings, Model& model) {
  std::set<std::string> initializers;
  for (size_t i = 0; i < graph.n_initializer; ++i) {
    const std::string name = Text(graph.initializer[i]->name);
    initializers.insert(name);
    if (graph.initializer[i]->data_location == ONNX__TENSOR_PROTO__DATA_LOCATION__EXTERNAL) {
      Refuse(kBadModel, "initializer", Quoted(name), " lies in another file; models are one file");
    }
  }
  std::vector<Input> inputs;
  model.inputs.reserve(graph.n_input);  // for the references to them
  for (size_t i = 0; i < graph.n_input; ++i) {
    const std::string name = Text(graph.input[i]->name);
    if (initializers.count(name) != 0) {
      continue;
    }
    About("input" + Quoted(name), [&] {
      const Onnx__TypeProto__Tensor& type = TensorType(graph.input[i]->type);
      if (type.shape == nullptr) {
        Refuse(kBadModel, "it does not even have a number of dimensions");
      }
      model.inputs.push_back({name, FindElementType(type.elem_type), {}, 0, 0});
      inputs.push_back({model.inputs.back(), *type.shape});
    });
    for (size_t dim = 0; dim < inputs.back().shape.n_dim; ++dim) {
      model.inputs.back().dims.push_back(inputs.back().Number(dim));
    }
  }
  ResolveShapes(inputs, settings, model);
}

void ReadOutputs(const Onnx__GraphProto& graph, Model& model) {
  for (size_t i = 0; i < graph.n_output; ++i) {
    model.outputs.emplace_back().name = Text(graph.output[i]->name);
    if (graph.output[i]->type != nullptr) {
      About("output" + Quoted(model.outputs.back().name),
            [&] { TensorType(graph.output[i]->type); });
    }
  }
  if (model.outputs.empty()) {
    Refuse(kBadModel, "it has no outputs");
  }
}

int32_t ReadNetType(const Onnx__ModelProto& proto) {
  int32_t netType = 0;
  for (size_t i = 0; i < proto.n_metadata_props; ++i) {
    const std::string value = Text(proto.metadata_props[i]->value);
    const char* end = value.data() + value.size();
    if (Text(proto.metadata_props[i]->key) == "quilm.net_type" &&
        std::from_chars(value.data(), end, netType).ptr != end) {
      Refuse(kBadModel, "quilm.net_type", Quoted(value), " is not a number");
    }
  }
  return netType;
}

void CheckNetType(const Model& model) {
  const std::vector<Tensor>& inputs = model.inputs;
  if (model.netType == kRecurrent &&
      (inputs.size() < 2 || inputs[0].dims.empty() || inputs[1].dims.empty() ||
       inputs[0].dims.front() != inputs[1].dims.back())) {
    Refuse(kBadModel, "a recurrent model's input 0 has as many frames, its first dimension, as ",
           "input 1 has marks, its last");
  }
}

// Memory for the decoder, which calls itself for each message in a message. It gets none any more
// before it runs out of stack.
void* AllocateForDecoder(void* outermost, size_t size) {
  constexpr std::ptrdiff_t kMostStack = 2 << 20;  // bytes, of 8 MB on most systems
  const auto* innermost = static_cast<const char*>(__builtin_frame_address(0));
  return static_cast<const char*>(outermost) - innermost > kMostStack ? nullptr : std::malloc(size);
}

}  // namespace

std::vector<uint8_t> ReadOnnxFile(const void* data, size_t size, const Settings& settings,
                                  Model& model) {
  ProtobufCAllocator allocator = {AllocateForDecoder,
                                  [](void*, void* memory) { std::free(memory); },
                                  __builtin_frame_address(0)};
  const std::unique_ptr<Onnx__ModelProto, ModelProtoDeleter> proto(
      onnx__model_proto__unpack(&allocator, size, static_cast<const uint8_t*>(data)));
  if (proto == nullptr || proto->graph == nullptr || proto->graph->n_node == 0) {
    Refuse(kBadModel, "it is not an ONNX file");
  }
  model.netType = ReadNetType(*proto);
  ReadInputs(*proto->graph, settings, model);
  ReadOutputs(*proto->graph, model);
  CheckNetType(model);
  std::vector<uint8_t> encoded(onnx__model_proto__get_packed_size(proto.get()));
  onnx__model_proto__pack(proto.get(), encoded.data());
  return encoded;
}

}  // namespace quilm_host
