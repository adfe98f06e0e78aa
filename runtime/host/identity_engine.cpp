// The engine that passes inputs on to outputs: for emulation, under which no real engine runs, and
// for sweeps of hundreds of runs, in which one would only cost time.
#include <cstring>
#include <map>

#include "onnx.pb-c.h"
#include "runtime/host/diagnostics.h"
#include "runtime/host/model.h"

namespace quilm_host {
namespace {

// Follows the graph from its inputs: tells which input every name shows. Returns the first node
// that does something else, or null.
const Onnx__NodeProto* FollowInputs(const Onnx__GraphProto& graph,
                                    std::map<std::string, size_t>& sources) {
  for (size_t i = 0; i < graph.n_node; ++i) {
    const Onnx__NodeProto& node = *graph.node[i];
    const auto found = node.n_input == 1 ? sources.find(node.input[0]) : sources.end();
    if (node.n_output != 1 || node.op_type == nullptr || found == sources.end() ||
        std::strcmp(node.op_type, "Identity") != 0) {
      return &node;
    }
    sources.emplace(node.output[0], found->second);
  }
  return nullptr;
}

}  // namespace

Engine CreateEngine(std::string_view file, const std::vector<Tensor>& inputs,
                    std::vector<Tensor>& outputs, size_t) {
  Onnx__ModelProto* proto = onnx__model_proto__unpack(
      nullptr, file.size(), reinterpret_cast<const uint8_t*>(file.data()));
  std::map<std::string, size_t> sourcesByName;
  for (size_t i = 0; i < inputs.size(); ++i) {
    sourcesByName.emplace(inputs[i].name, i);
  }
  const bool followed = FollowInputs(*proto->graph, sourcesByName) == nullptr;
  onnx__model_proto__free_unpacked(proto, nullptr);
  std::vector<size_t> sources;  // output i shows input `sources[i]`
  for (Tensor& output : outputs) {
    const auto source = sourcesByName.find(output.name);
    Require(followed && source != sourcesByName.end(),
            "this host runtime has no engine, it runs graphs of Identity nodes only");
    sources.push_back(source->second);
    output.type = inputs[source->second].type;
    output.dims = inputs[source->second].dims;
  }
  return [sources](const std::vector<Array>& arrays) {
    std::vector<Array> results;
    results.reserve(sources.size());
    for (const size_t source : sources) {
      results.push_back(arrays[source]);
    }
    return results;
  };
}

}  // namespace quilm_host
