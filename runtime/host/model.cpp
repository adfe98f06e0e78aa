// Makes a model of a file: reads the file with the decoder that is generated from ONNX's own
// schema, finds numbers for all shapes, and creates the engine.
#include "runtime/host/model.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <thread>

#include "onnx.pb-c.h"

namespace quilm_host {
namespace {

using Dimension = Onnx__TensorShapeProto__Dimension;

// Returns the text of a field, which the decoder gives as a null pointer when the file leaves it
// out.
std::string Text(const char* text) {
  return text == nullptr ? protobuf_c_empty_string : text;
}

// Returns the tensor type of an input or output. Refuses other types, by their names in ONNX's
// schema.
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

// Returns the number of a dimension. An open one gets a negative number, which stands for its name:
// -1 for the first of `names`, to which new ones are added.
int64_t NumberOf(const Dimension& dim, std::vector<std::string>& names) {
  if (dim.value_case == ONNX__TENSOR_SHAPE_PROTO__DIMENSION__VALUE_DIM_VALUE &&
      dim.dim_value >= 0) {
    return dim.dim_value;
  }
  const bool isNamed = dim.value_case == ONNX__TENSOR_SHAPE_PROTO__DIMENSION__VALUE_DIM_PARAM &&
                       *dim.dim_param != '\0';
  names.push_back(isNamed ? dim.dim_param : "?" + std::to_string(names.size() + 1));
  return -1 - (std::find(names.begin(), names.end(), names.back()) - names.begin());
}

// Puts the shapes that the settings file has under the key "`kind`_shapes" into the tensors.
void TakeShapes(const std::string& kind, const Shapes& given, std::vector<Tensor>& tensors) {
  const auto fits = [](int64_t own, int64_t number) { return own < 0 || own == number; };
  for (const auto& [name, shape] : given) {
    const auto tensor =
        std::find_if(tensors.begin(), tensors.end(),
                     [&wanted = name](const Tensor& t) { return t.name == wanted; });
    Require(tensor != tensors.end(), "it has no ", kind, Quoted(name), " as \"", kind,
            "_shapes\" has");
    const std::vector<int64_t>& dims = tensor->dims;
    // The engine describes a shape of any number of dimensions like that of a scalar.
    Require((kind == "output" && dims.empty()) ||
                std::equal(dims.begin(), dims.end(), shape.begin(), shape.end(), fits),
            kind, Quoted(name), ": \"", kind, "_shapes\" has ", ShapeText(shape), ", the model ",
            ShapeText(dims), ", where negative numbers may be any");
    tensor->dims = shape;
  }
}

// Gives open dimensions of the same name the same number: one that the settings file has, or
// otherwise 1 where the name is that of a first dimension, which stands for a batch.
void InferFromNames(const std::vector<Tensor>& inFile, std::vector<Tensor>& inputs) {
  const auto replace = [&](int64_t open, int64_t number) {
    for (Tensor& input : inputs) {
      std::replace(input.dims.begin(), input.dims.end(), open, number);
    }
  };
  for (size_t i = 0; i < inputs.size(); ++i) {
    for (size_t j = 0; j < inputs[i].dims.size(); ++j) {
      if (inFile[i].dims[j] < 0 && inputs[i].dims[j] >= 0) {
        replace(inFile[i].dims[j], inputs[i].dims[j]);
      }
    }
  }
  for (const Tensor& input : inputs) {
    if (!input.dims.empty() && input.dims[0] < 0) {
      replace(input.dims[0], 1);
    }
  }
}

// Returns whether the first dimension of all inputs, and no other dimension, is open and counts
// batches.
bool CanBatchAsOne(const std::vector<Tensor>& inFile, const std::vector<Tensor>& inputs) {
  std::set<int64_t> others;
  for (const Tensor& input : inFile) {
    others.insert(input.dims.begin() + (input.dims.empty() ? 0 : 1), input.dims.end());
  }
  const auto isBatched = [&](const Tensor& input, const Tensor& own) {
    return !own.dims.empty() && own.dims[0] < 0 && input.dims[0] == 1 &&
           others.count(own.dims[0]) == 0;
  };
  return std::equal(inputs.begin(), inputs.end(), inFile.begin(), isBatched);
}

// Returns the entries that the settings file lacks, with the model's names for the missing numbers.
std::string MissingEntries(const std::vector<Tensor>& inputs,
                           const std::vector<std::string>& names) {
  std::vector<std::string> entries;
  for (const Tensor& input : inputs) {
    std::vector<std::string> shape;
    shape.reserve(input.dims.size());
    for (const int64_t number : input.dims) {
      shape.push_back(number < 0 ? names[static_cast<size_t>(-1 - number)]
                                 : std::to_string(number));
    }
    if (input.IsOpen()) {
      entries.push_back("\"" + input.name + "\": [" + Joined(shape) + "]");
    }
  }
  return Joined(entries);
}

void WriteDim(Dimension& dim, int64_t number) {
  if (dim.value_case == ONNX__TENSOR_SHAPE_PROTO__DIMENSION__VALUE_DIM_PARAM) {
    std::free(dim.dim_param);
  }
  dim.value_case = ONNX__TENSOR_SHAPE_PROTO__DIMENSION__VALUE_DIM_VALUE;
  dim.dim_value = number;
}

// Returns the graph's inputs without the initializers, whose numbers stand in the file.
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

// Fills in the model's inputs. Returns whether dimensions that the file leaves open have become
// numbers in `graph`.
bool ReadInputs(const Onnx__GraphProto& graph, const Settings& settings, Model& model) {
  const std::vector<const Onnx__ValueInfoProto*> values = FindInputs(graph);
  std::vector<std::string> names;  // the open dimensions'
  for (const Onnx__ValueInfoProto* value : values) {
    Tensor& input = model.inputs.emplace_back();
    input.name = Text(value->name);
    WithContext([&] { return "input" + Quoted(input.name); },
                [&] {
                  const Onnx__TypeProto__Tensor& type = TensorType(value->type);
                  Require(type.shape != nullptr, "it does not even have a number of dimensions");
                  input.type = FindElementType(type.elem_type);
                  for (size_t i = 0; i < type.shape->n_dim; ++i) {
                    input.dims.push_back(NumberOf(*type.shape->dim[i], names));
                  }
                });
  }
  const std::vector<Tensor> inFile = model.inputs;
  TakeShapes("input", settings.input_shapes, model.inputs);
  InferFromNames(inFile, model.inputs);
  const std::string missing = MissingEntries(model.inputs, names);
  Require(missing.empty(), "it leaves shapes open: write \"input_shapes\": {", missing,
          "}, with numbers for names, into the settings file");
  model.batchesAsOne = CanBatchAsOne(inFile, model.inputs) && model.netType != kRecurrent;
  bool isChanged = false;
  for (size_t i = 0; i < values.size(); ++i) {
    for (size_t j = model.batchesAsOne ? 1 : 0; j < inFile[i].dims.size(); ++j) {
      if (inFile[i].dims[j] < 0) {
        WriteDim(*values[i]->type->tensor_type->shape->dim[j], model.inputs[i].dims[j]);
        isChanged = true;
      }
    }
  }
  return isChanged;
}

void ReadOutputs(const Onnx__GraphProto& graph, Model& model) {
  for (size_t i = 0; i < graph.n_output; ++i) {
    const std::string name = model.outputs.emplace_back().name = Text(graph.output[i]->name);
    if (graph.output[i]->type != nullptr) {
      WithContext([&] { return "output" + Quoted(name); },
                  [&] {
                    const auto* shape = TensorType(graph.output[i]->type).shape;
                    if (shape != nullptr && shape->n_dim == 0) {
                      model.scalarOutputs.insert(name);
                    }
                  });
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

// Allocates memory for the decoder, which calls itself for each message in a message. It gets no
// more memory before it runs out of stack.
void* AllocateForDecoder(void* outermost, size_t size) {
  constexpr std::ptrdiff_t kMostStack = 2 << 20;  // bytes; most systems have 8 MB
  const auto* innermost = static_cast<const char*>(__builtin_frame_address(0));
  return static_cast<const char*>(outermost) - innermost > kMostStack ? nullptr : std::malloc(size);
}

// Fills in the model's inputs, the outputs' names, and the net type. Dimensions of inputs that the
// file leaves open come from `settings`; a first one is 1 otherwise. Returns the file with these
// numbers in it, or an empty text when that is the file as it is.
std::string ReadOnnxFile(std::string_view file, const Settings& settings, Model& model) {
  ProtobufCAllocator allocator = {AllocateForDecoder,
                                  [](void*, void* memory) { std::free(memory); },
                                  __builtin_frame_address(0)};
  const std::shared_ptr<Onnx__ModelProto> proto(
      onnx__model_proto__unpack(&allocator, file.size(),
                                reinterpret_cast<const uint8_t*>(file.data())),
      [](Onnx__ModelProto* owned) { onnx__model_proto__free_unpacked(owned, nullptr); });
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
  std::string encoded(isChanged ? onnx__model_proto__get_packed_size(proto.get()) : 0, '\0');
  if (isChanged) {
    onnx__model_proto__pack(proto.get(), reinterpret_cast<uint8_t*>(encoded.data()));
  }
  return encoded;
}

// Lays out the tensors in device memory. Refuses tensors that the machine's memory cannot hold once
// there and once in the engine.
void LayOutAll(const char* kind, std::vector<Tensor>& tensors, size_t rowAlignment) {
  size_t needed = 0;
  for (Tensor& tensor : tensors) {
    WithContext([&] { return kind + Quoted(tensor.name); }, [&] { LayOut(tensor, rowAlignment); });
    needed += tensor.size + tensor.Elements() * tensor.type->modelBytes;
  }
  Require(needed <= PhysicalMemory(), "its ", kind, "s take ", needed, " bytes, the machine has ",
          PhysicalMemory());
}

// Calls `attempt` with one candidate after the other until it does not refuse. When it refuses all
// of them, refuses with all the reasons, each once.
template <typename Candidates, typename Attempt>
void TryEach(const Candidates& candidates, const Attempt& attempt) {
  std::vector<std::string> problems;
  for (const auto& candidate : candidates) {
    try {
      attempt(candidate);
      return;
    } catch (const Refusal& refusal) {
      problems.emplace_back(refusal.what());
    }
  }
  problems.erase(std::unique(problems.begin(), problems.end()), problems.end());
  Refuse(Joined(problems, "\n"));
}

std::vector<Array> MakeTrialInputs(const Model& model, bool ones) {
  std::vector<Array> inputs;
  for (const Tensor& input : model.inputs) {
    const size_t elementBytes = input.type->modelBytes;
    std::vector<unsigned char> bytes(input.Elements() * elementBytes);
    for (size_t at = 0; ones && at < bytes.size(); at += elementBytes) {
      std::memcpy(bytes.data() + at, &input.type->one, elementBytes);
    }
    inputs.push_back({input.dims, std::move(bytes)});
  }
  return inputs;
}

// Executes the model to learn the shapes of the outputs at the indexes `unknown`. Ones come before
// zeros: operators that select by value then leave something, and some of the engine's end the
// process when they get nothing.
void LearnShapes(Model& model, const std::vector<size_t>& unknown) {
  TryEach(std::array{true, false}, [&](bool ones) {
    const std::vector<Array> results = model.engine(MakeTrialInputs(model, ones));
    for (const size_t i : unknown) {
      const std::vector<int64_t>& dims = results[i].dims;
      Require(std::count(dims.begin(), dims.end(), 0) == 0, "output", Quoted(model.outputs[i].name),
              " came out with shape ", ShapeText(dims));
      model.outputs[i].dims = dims;
    }
  });
}

// Completes the outputs' shapes. The engine describes a shape of any number of dimensions like that
// of a scalar; the file tells the two apart.
void DescribeOutputs(Model& model, const Settings& settings) {
  TakeShapes("output", settings.output_shapes, model.outputs);
  std::vector<size_t> unknown;
  std::vector<std::string> entries;
  for (size_t i = 0; i < model.outputs.size(); ++i) {
    const Tensor& output = model.outputs[i];
    const bool mayHaveDims = output.dims.empty() && model.scalarOutputs.count(output.name) == 0;
    if ((mayHaveDims || output.IsOpen()) && settings.output_shapes.count(output.name) == 0) {
      unknown.push_back(i);
      entries.push_back("\"" + output.name + "\": " + ShapeText(output.dims));
    }
  }
  const auto describe = [&] {
    return "a trial run does not show shapes of outputs: write \"output_shapes\": {" +
           Joined(entries) + "}, with whole shapes for these, into the settings file";
  };
  if (!unknown.empty()) {
    WithContext(describe, [&] { LearnShapes(model, unknown); });
  }
}

// Creates the engine for the file with the given shapes in it, or for the file as it is when the
// engine finds fault with the first, as with a branch that these shapes rule out.
void CreateEngineOfEither(std::string_view changed, std::string_view asItIs,
                          const Settings& settings, Model& model) {
  const size_t threads =
      settings.threads > 0 ? settings.threads : std::thread::hardware_concurrency();
  std::vector<std::string_view> files{changed, asItIs};
  files.erase(files.begin(), files.begin() + (changed.empty() ? 1 : 0));
  TryEach(files, [&](std::string_view file) {
    model.engine = CreateEngine(file, model.inputs, model.outputs, threads);
    DescribeOutputs(model, settings);
  });
}

}  // namespace

size_t PhysicalMemory() {
  static const size_t bytes =
      static_cast<size_t>(sysconf(_SC_PHYS_PAGES)) * static_cast<size_t>(sysconf(_SC_PAGESIZE));
  return bytes;
}

Model LoadModel(std::string_view file, const Settings& settings) {
  Model model;
  const std::string changed = ReadOnnxFile(file, settings, model);
  LayOutAll("input", model.inputs, settings.row_alignment);
  CreateEngineOfEither(changed, file, settings, model);
  LayOutAll("output", model.outputs, settings.row_alignment);
  const ElementType* byte = FindElementType(ONNX__TENSOR_PROTO__DATA_TYPE__UINT8);
  for (const auto& [name, size] : {std::pair("task_buffer", settings.task_buffer_size),
                                   std::pair("work_buffer", settings.work_buffer_size)}) {
    model.inputs.push_back({name, byte, {static_cast<int64_t>(size)}, size, size});
  }
  return model;
}

}  // namespace quilm_host
