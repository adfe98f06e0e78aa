// The engine of builds without OpenCV, as for another processor: it passes inputs on to outputs.
#include <algorithm>
#include <cstring>
#include <map>

#include "onnx.pb-c.h"
#include "runtime/host/element_checks.h"
#include "runtime/host/engine.h"

namespace quilm_host {
namespace {

// Elements that do not count become 0; row padding is left alone, as by any engine.
void CopyRows(const TensorData& source, const TensorData& target) {
  const Tensor& tensor = *source.tensor;
  const size_t elements = RowElements(tensor);
  const size_t elementSize = DataTypeBits(tensor.dataType) / 8;
  size_t valid = source.validElements;
  for (size_t r = 0; r < RowCount(tensor); ++r) {
    const size_t copied = std::min(valid, elements);
    unsigned char* row = target.data + r * target.tensor->stride;
    std::memcpy(row, source.data + r * tensor.stride, copied * elementSize);
    std::memset(row + copied * elementSize, 0, (elements - copied) * elementSize);
    valid -= copied;
  }
}

class IdentityEngine : public Engine {
 public:
  /// Output i shows input `sources[i]`, which has its type and dimensions.
  explicit IdentityEngine(std::vector<size_t> sources) : sources_(std::move(sources)) {}

  std::string Run(const std::vector<TensorData>& inputs,
                  const std::vector<TensorData>& outputs) override {
    for (const TensorData& input : inputs) {
      std::string problem = CheckElements(input);
      if (!problem.empty()) {
        return problem;
      }
    }
    for (size_t i = 0; i < outputs.size(); ++i) {
      CopyRows(inputs[sources_[i]], outputs[i]);
    }
    return {};
  }

 private:
  std::vector<size_t> sources_;
};

// Follows the graph from its inputs: tells which input every name shows. Returns the first node
// that does something else, or null.
const Onnx__NodeProto* FollowInputs(const Onnx__GraphProto& graph,
                                    std::map<std::string, size_t>& sources) {
  for (size_t i = 0; i < graph.n_node; ++i) {
    const Onnx__NodeProto& node = *graph.node[i];
    const auto found = node.n_input == 1 ? sources.find(node.input[0]) : sources.end();
    if (std::strcmp(node.op_type, "Identity") != 0 || found == sources.end()) {
      return &node;
    }
    sources.emplace(node.output[0], found->second);
  }
  return nullptr;
}

}  // namespace

std::unique_ptr<Engine> CreateEngine(const OnnxModel& model, std::string& problem) {
  struct Deleter {
    void operator()(Onnx__ModelProto* proto) const {
      onnx__model_proto__free_unpacked(proto, nullptr);
    }
  };
  const std::unique_ptr<Onnx__ModelProto, Deleter> proto(
      onnx__model_proto__unpack(nullptr, model.encoded.size(), model.encoded.data()));
  std::map<std::string, size_t> sourcesByName;
  for (size_t i = 0; i + kBuffersBehindInputs < model.inputs.size(); ++i) {
    sourcesByName.emplace(model.inputs[i].name, i);
  }
  if (const Onnx__NodeProto* other = FollowInputs(*proto->graph, sourcesByName)) {
    problem = std::string("node \"") + other->output[0] + "\" (" + other->op_type +
              "): this host runtime has no engine, it runs graphs of Identity nodes only";
    return nullptr;
  }
  std::vector<size_t> sources;
  for (const Tensor& output : model.outputs) {
    sources.push_back(sourcesByName.at(output.name));
  }
  return std::make_unique<IdentityEngine>(std::move(sources));
}

}  // namespace quilm_host
