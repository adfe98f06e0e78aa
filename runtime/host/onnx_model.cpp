#include "runtime/host/onnx_model.h"

#include <charconv>
#include <cstdlib>
#include <memory>
#include <set>
#include <string_view>

#include "onnx.pb-c.h"
#include "runtime/host/graph/operators.h"
#include "runtime/host/graph/rewrites.h"

namespace quilm_host {
namespace {

struct ModelProtoDeleter {
  void operator()(Onnx__ModelProto* proto) const {
    onnx__model_proto__free_unpacked(proto, nullptr);
  }
};
using ModelProto = std::unique_ptr<Onnx__ModelProto, ModelProtoDeleter>;

struct ElementType {
  int32_t onnx;
  int32_t dataType;
};

constexpr ElementType kElementTypes[] = {
    {ONNX__TENSOR_PROTO__DATA_TYPE__FLOAT, kFloat},
    {ONNX__TENSOR_PROTO__DATA_TYPE__FLOAT16, kHalf},
    {ONNX__TENSOR_PROTO__DATA_TYPE__INT8, kInt8},
    {ONNX__TENSOR_PROTO__DATA_TYPE__INT32, kInt32},
    {ONNX__TENSOR_PROTO__DATA_TYPE__UINT8, kUint8},
    {ONNX__TENSOR_PROTO__DATA_TYPE__INT16, kInt16},
    {ONNX__TENSOR_PROTO__DATA_TYPE__UINT16, kUint16},
};

std::string NameOfElementType(int32_t onnxType) {
  const ProtobufCEnumDescriptor& types = onnx__tensor_proto__data_type__descriptor;
  for (unsigned i = 0; i < types.n_values; ++i) {
    if (types.values[i].value == onnxType) {
      return types.values[i].name;
    }
  }
  return std::to_string(onnxType);
}

std::string ReadElementType(int32_t onnxType, Tensor& tensor) {
  for (const ElementType& type : kElementTypes) {
    if (type.onnx == onnxType) {
      tensor.dataType = type.dataType;
      return {};
    }
  }
  return "element type " + NameOfElementType(onnxType) + " has no code";
}

// Makes the dimension in the graph a number too, so that the engine sees the same shape.
std::string ReadDimension(size_t index, Onnx__TensorShapeProto__Dimension& dimension,
                          Tensor& tensor) {
  if (dimension.value_case != ONNX__TENSOR_SHAPE_PROTO__DIMENSION__VALUE_DIM_VALUE) {
    if (index != 0) {
      return "dimension " + std::to_string(index) + " is not a number";
    }
    if (dimension.value_case == ONNX__TENSOR_SHAPE_PROTO__DIMENSION__VALUE_DIM_PARAM) {
      std::free(dimension.dim_param);
    }
    dimension.value_case = ONNX__TENSOR_SHAPE_PROTO__DIMENSION__VALUE_DIM_VALUE;
    dimension.dim_value = 1;
  }
  tensor.dims.push_back(dimension.dim_value);
  return {};
}

std::string ReadTensor(const Onnx__ValueInfoProto& info, size_t rowAlignment, Tensor& tensor) {
  if (info.type == nullptr || info.type->value_case != ONNX__TYPE_PROTO__VALUE_TENSOR_TYPE ||
      info.type->tensor_type->shape == nullptr) {
    return "it is no tensor with a shape";
  }
  std::string problem = ReadElementType(info.type->tensor_type->elem_type, tensor);
  const Onnx__TensorShapeProto& shape = *info.type->tensor_type->shape;
  for (size_t i = 0; i < shape.n_dim && problem.empty(); ++i) {
    problem = ReadDimension(i, *shape.dim[i], tensor);
  }
  if (tensor.dims.empty()) {
    tensor.dims = {1};  // a scalar is a row of one element
  }
  return problem.empty() ? LayOut(tensor, rowAlignment) : problem;
}

std::string ReadTensors(const char* kind, Onnx__ValueInfoProto** infos, size_t count,
                        const std::set<std::string>& skip, size_t rowAlignment,
                        std::vector<Tensor>& tensors) {
  for (size_t i = 0; i < count; ++i) {
    Tensor tensor;
    tensor.name = infos[i]->name == nullptr ? "" : infos[i]->name;
    if (skip.count(tensor.name) != 0) {
      continue;
    }
    const std::string problem = ReadTensor(*infos[i], rowAlignment, tensor);
    if (!problem.empty()) {
      return std::string(kind) + " \"" + tensor.name + "\": " + problem;
    }
    tensors.push_back(std::move(tensor));
  }
  return {};
}

std::string ReadNetType(const Onnx__ModelProto& proto, int32_t& netType) {
  constexpr char kKey[] = "quilm.net_type";
  for (size_t i = 0; i < proto.n_metadata_props; ++i) {
    const Onnx__StringStringEntryProto& entry = *proto.metadata_props[i];
    if (entry.key == nullptr || std::string_view(entry.key) != kKey) {
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

std::string CheckNetType(const OnnxModel& model) {
  if (model.netType != kRecurrent) {
    return {};
  }
  if (model.inputs.size() < 2 || model.inputs[0].dims.front() != model.inputs[1].dims.back()) {
    return "a recurrent model's input 0 has as many frames, its first dimension, as input 1 has "
           "marks, its last";
  }
  return {};
}

std::set<std::string> InitializerNames(const Onnx__GraphProto& graph) {
  std::set<std::string> names;
  for (size_t i = 0; i < graph.n_initializer; ++i) {
    names.insert(graph.initializer[i]->name == nullptr ? "" : graph.initializer[i]->name);
  }
  return names;
}

}  // namespace

std::string ReadOnnxModel(const void* data, size_t size, const Settings& settings,
                          OnnxModel& model) {
  const ModelProto proto(
      onnx__model_proto__unpack(nullptr, size, static_cast<const uint8_t*>(data)));
  if (proto == nullptr || proto->graph == nullptr || proto->graph->n_node == 0) {
    return "it is not an ONNX file";
  }
  const Onnx__GraphProto& graph = *proto->graph;
  std::string problem = ReadTensors("input", graph.input, graph.n_input, InitializerNames(graph),
                                    settings.rowAlignment, model.inputs);
  if (problem.empty()) {
    problem = ReadTensors("output", graph.output, graph.n_output, {}, settings.rowAlignment,
                          model.outputs);
  }
  if (problem.empty()) {
    problem = ReadNetType(*proto, model.netType);
  }
  if (problem.empty()) {
    problem = CheckNetType(model);
  }
  if (problem.empty()) {
    RewriteForEngine(*proto);
    problem = FindUnsupportedNode(*proto);
  }
  if (!problem.empty()) {
    return problem;
  }
  model.inputs.push_back(PlainBuffer("task_buffer", settings.taskBufferSize));
  model.inputs.push_back(PlainBuffer("work_buffer", settings.workBufferSize));
  model.encoded.resize(onnx__model_proto__get_packed_size(proto.get()));
  onnx__model_proto__pack(proto.get(), model.encoded.data());
  return {};
}

}  // namespace quilm_host
