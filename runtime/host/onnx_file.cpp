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

// Names that a file leaves out.
std::string Text(const char* text) {
  return text == nullptr ? protobuf_c_empty_string : text;
}

// The tensor type of an input or output. Others are refused by the names of ONNX's schema.
const Onnx__TypeProto__Tensor& TensorType(const Onnx__TypeProto* type) {
  const int kind = type == nullptr ? 0 : type->value_case;
  std::string name = "value without a type";
  for (unsigned i = 0; i < onnx__type_proto__descriptor.n_fields; ++i) {
    const ProtobufCFieldDescriptor& field = onnx__type_proto__descriptor.fields[i];
    name = field.id == static_cast<uint32_t>(kind) ? field.name : name;
  }
  Require(kind == ONNX__TYPE_PROTO__VALUE_TENSOR_TYPE, "it is a ", name,
          ", only tensors can be inputs and outputs");
  const int32_t elementType = type->tensor_type->elem_type;
  const ProtobufCEnumDescriptor& types = onnx__tensor_proto__data_type__descriptor;
  for (unsigned i = 0; i < types.n_values; ++i) {
    name = types.values[i].value == elementType ? types.values[i].name : name;
  }
  Require(FindElementType(elementType) != nullptr, "element type ", name, " has no code");
  return *type->tensor_type;
}

int64_t NumberOf(const Dimension& dim) {
  const bool isNumber = dim.value_case == ONNX__TENSOR_SHAPE_PROTO__DIMENSION__VALUE_DIM_VALUE;
  return isNumber && dim.dim_value >= 0 ? dim.dim_value : kOpen;
}

// A dimension of an input, in the file and as the model has it.
struct Dim {
  Dimension& inFile;
  int64_t& number;
  bool isFirst;

  bool HasSymbol() const {
    return inFile.value_case == ONNX__TENSOR_SHAPE_PROTO__DIMENSION__VALUE_DIM_PARAM;
  }
  std::string Symbol() const { return HasSymbol() ? inFile.dim_param : protobuf_c_empty_string; }
};

// Open dimensions of the same name are the same number. First those that are given count, then the
// first dimensions that stand for a batch.
void InferFromNames(const std::vector<Dim>& dims) {
  std::map<std::string, int64_t> numbers;
  for (const bool firstIsOne : {false, true, false}) {
    for (const Dim& dim : dims) {
      const auto known = numbers.find(dim.Symbol());
      if (dim.number == kOpen) {
        dim.number = known != numbers.end() ? known->second : firstIsOne && dim.isFirst ? 1 : kOpen;
      }
      if (dim.number != kOpen && !dim.Symbol().empty()) {
        numbers.emplace(dim.Symbol(), dim.number);
      }
    }
  }
}

// Whether a batch can be the first dimension: of all inputs, and of nothing else.
bool CanBatchAsOne(const std::vector<Tensor>& inputs, const std::vector<Dim>& dims) {
  std::set<std::string> others;
  for (const Dim& dim : dims) {
    others.insert(dim.isFirst ? "" : dim.Symbol());
  }
  const auto isBatch = [&](const Dim& dim) {
    return NumberOf(dim.inFile) == kOpen && dim.number == 1 &&
           (dim.Symbol().empty() || others.count(dim.Symbol()) == 0);
  };
  return std::none_of(inputs.begin(), inputs.end(),
                      [](auto& input) { return input.dims.empty(); }) &&
         std::all_of(dims.begin(), dims.end(),
                     [&](auto& dim) { return !dim.isFirst || isBatch(dim); });
}

// The entries that the settings file lacks, with the model's names for the missing numbers.
std::string MissingEntries(const std::vector<Tensor>& inputs, const std::vector<Dim>& dims) {
  std::vector<std::string> entries;
  auto dim = dims.begin();
  for (const Tensor& input : inputs) {
    std::vector<std::string> shape;
    for (const int64_t number : input.dims) {
      const std::string symbol = (dim++)->Symbol();
      shape.push_back(number != kOpen ? std::to_string(number) : symbol.empty() ? "?" : symbol);
    }
    if (input.IsOpen()) {
      entries.push_back("\"" + input.name + "\": [" + Joined(shape) + "]");
    }
  }
  return Joined(entries);
}

// Returns whether the file left any of them open.
bool WriteDims(const std::vector<Dim>& dims, bool leaveFirstOpen) {
  bool isChanged = false;
  for (const Dim& dim : dims) {
    if (NumberOf(dim.inFile) == kOpen && !(leaveFirstOpen && dim.isFirst)) {
      if (dim.HasSymbol()) {
        std::free(dim.inFile.dim_param);
      }
      dim.inFile.value_case = ONNX__TENSOR_SHAPE_PROTO__DIMENSION__VALUE_DIM_VALUE;
      dim.inFile.dim_value = dim.number;
      isChanged = true;
    }
  }
  return isChanged;
}

// Of all that are no initializers, whose numbers stand in the file.
std::vector<const Onnx__ValueInfoProto*> FindInputs(const Onnx__GraphProto& graph) {
  std::set<std::string> initializers;
  for (size_t i = 0; i < graph.n_initializer; ++i) {
    const std::string name = Text(graph.initializer[i]->name);
    initializers.insert(name);
    Require(graph.initializer[i]->data_location != ONNX__TENSOR_PROTO__DATA_LOCATION__EXTERNAL,
            "initializer", Quoted(name), " lies in another file; models are one file");
  }
  std::vector<const Onnx__ValueInfoProto*> inputs;
  std::copy_if(graph.input, graph.input + graph.n_input, std::back_inserter(inputs),
               [&](auto* input) { return initializers.count(Text(input->name)) == 0; });
  return inputs;
}

// Returns whether dimensions that the file leaves open have become numbers in it.
bool ReadInputs(const Onnx__GraphProto& graph, const Settings& settings, Model& model) {
  const std::vector<const Onnx__ValueInfoProto*> inFile = FindInputs(graph);
  for (const Onnx__ValueInfoProto* value : inFile) {
    Tensor& input = model.inputs.emplace_back();
    input.name = Text(value->name);
    About("input" + Quoted(input.name), [&] {
      const Onnx__TypeProto__Tensor& type = TensorType(value->type);
      Require(type.shape != nullptr, "it does not even have a number of dimensions");
      input.type = FindElementType(type.elem_type);
      for (size_t i = 0; i < type.shape->n_dim; ++i) {
        input.dims.push_back(NumberOf(*type.shape->dim[i]));
      }
    });
  }
  TakeShapes("input", settings.inputShapes, model.inputs);
  std::vector<Dim> dims;
  for (size_t i = 0; i < inFile.size(); ++i) {
    for (size_t j = 0; j < model.inputs[i].dims.size(); ++j) {
      Dimension& dim = *inFile[i]->type->tensor_type->shape->dim[j];
      dims.push_back({dim, model.inputs[i].dims[j], j == 0});
    }
  }
  InferFromNames(dims);
  const std::string missing = MissingEntries(model.inputs, dims);
  Require(missing.empty(), "it leaves shapes open: write \"input_shapes\": {", missing,
          "}, with numbers for names, into the settings file");
  model.batchesAsOne = CanBatchAsOne(model.inputs, dims) && model.netType != kRecurrent;
  return WriteDims(dims, model.batchesAsOne);
}

void ReadOutputs(const Onnx__GraphProto& graph, Model& model) {
  for (size_t i = 0; i < graph.n_output; ++i) {
    model.outputs.emplace_back().name = Text(graph.output[i]->name);
    if (graph.output[i]->type != nullptr) {
      About("output" + Quoted(model.outputs.back().name),
            [&] { TensorType(graph.output[i]->type); });
    }
  }
  Require(!model.outputs.empty(), "it has no outputs");
}

int32_t ReadNetType(const Onnx__ModelProto& proto) {
  int32_t netType = 0;
  for (size_t i = 0; i < proto.n_metadata_props; ++i) {
    const std::string value = Text(proto.metadata_props[i]->value);
    const char* end = value.data() + value.size();
    Require(Text(proto.metadata_props[i]->key) != "quilm.net_type" ||
                std::from_chars(value.data(), end, netType).ptr == end,
            "quilm.net_type", Quoted(value), " is not a number");
  }
  return netType;
}

// Memory for the decoder, which calls itself for each message in a message. It gets none any more
// before it runs out of stack.
void* AllocateForDecoder(void* outermost, size_t size) {
  constexpr std::ptrdiff_t kMostStack = 2 << 20;  // bytes, of 8 MB on most systems
  const auto* innermost = static_cast<const char*>(__builtin_frame_address(0));
  return static_cast<const char*>(outermost) - innermost > kMostStack ? nullptr : std::malloc(size);
}

}  // namespace

std::vector<uint8_t> ReadOnnxFile(Bytes file, const Settings& settings, Model& model) {
  ProtobufCAllocator allocator = {AllocateForDecoder,
                                  [](void*, void* memory) { std::free(memory); },
                                  __builtin_frame_address(0)};
  const std::unique_ptr<Onnx__ModelProto, ModelProtoDeleter> proto(
      onnx__model_proto__unpack(&allocator, file.size, file.data));
  Require(proto != nullptr && proto->graph != nullptr && proto->graph->n_node > 0,
          "it is not an ONNX file");
  model.netType = ReadNetType(*proto);
  const bool isChanged = ReadInputs(*proto->graph, settings, model);
  ReadOutputs(*proto->graph, model);
  const std::vector<Tensor>& inputs = model.inputs;
  Require(model.netType != kRecurrent ||
              (inputs.size() > 1 && !inputs[0].dims.empty() && !inputs[1].dims.empty() &&
               inputs[0].dims.front() == inputs[1].dims.back()),
          "a recurrent model's input 0 has as many frames, its first dimension, as input 1 has ",
          "marks, its last");
  std::vector<uint8_t> encoded(isChanged ? onnx__model_proto__get_packed_size(proto.get()) : 0);
  if (isChanged) {
    onnx__model_proto__pack(proto.get(), encoded.data());
  }
  return encoded;
}

}  // namespace quilm_host
