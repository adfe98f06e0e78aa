#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "runtime/host/graph/rewrite_rules.h"

namespace quilm_host {
namespace {

bool IsWanted(const GraphEditor& editor, const Onnx__NodeProto& node, size_t output) {
  return output < node.n_output && node.output[output][0] != '\0' &&
         editor.IsUsed(node.output[output]);
}

/// The same inputs, but with constants of their own, which the engine reorders where they are, and
/// without lengths that are those of all frames.
Names OwnInputs(GraphEditor& editor, const Onnx__NodeProto& node) {
  constexpr size_t kLengths = 4;
  Names inputs = InputsOf(node);
  const Dims& dims = editor.DimsOf(inputs[0]);
  if (dims.size() != 3) {
    throw NoEquivalent();
  }
  for (size_t k = 1; k < inputs.size(); ++k) {
    if (inputs[k].empty()) {
      continue;
    }
    if (k == kLengths) {
      const Dims lengths = editor.Ints(inputs[k]);
      if (std::count(lengths.begin(), lengths.end(), dims[0]) !=
          static_cast<int64_t>(lengths.size())) {
        throw NoEquivalent();
      }
      inputs[k].clear();
    } else {
      inputs[k] = editor.Constant(editor.DimsOf(inputs[k]), editor.Floats(inputs[k]));
    }
  }
  while (inputs.back().empty()) {
    inputs.pop_back();
  }
  return inputs;
}

/// The states of one direction after its last frame: for the reverse one that is the first.
std::string LastState(GraphEditor& editor, const std::string& states, int64_t direction,
                      bool isReverse) {
  const Dims& dims = editor.DimsOf(states);
  const int64_t at = isReverse ? 0 : dims[0] - 1;
  return editor.Emit("Slice", {states},
                     {{"axes", Dims{0, 1}},
                      {"starts", Dims{at, direction}},
                      {"ends", Dims{at + 1, direction + 1}}});
}

}  // namespace

/// The engine gives the states of all frames; the last states are among them.
void RewriteRecurrent(GraphEditor& editor, const Onnx__NodeProto& node) {
  if (IsWanted(editor, node, 2)) {
    throw NoEquivalent();
  }
  Attributes attributes = {{"hidden_size", IntAttribute(node, "hidden_size", 0)}};
  for (const char* name : {"linear_before_reset", "input_forget", "layout"}) {
    if (FindAttribute(node, name) != nullptr) {
      attributes.push_back({name, IntAttribute(node, name, 0)});
    }
  }
  const std::string direction = TextAttribute(node, "direction", "forward");
  attributes.push_back({"direction", direction});
  const bool namesStates = node.output[0][0] != '\0';
  const std::string states = editor.Emit(node.op_type, OwnInputs(editor, node), attributes,
                                         namesStates ? node.output[0] : "");
  if (!IsWanted(editor, node, 1)) {
    return;
  }
  const Dims dims = editor.DimsOf(states);
  std::string last = LastState(editor, states, 0, direction == "reverse");
  if (dims[1] == 2) {
    last =
        editor.Emit("Concat", {last, LastState(editor, states, 1, true)}, {{"axis", int64_t{1}}});
  }
  Return(editor, last, {dims[1], dims[2], dims[3]}, node.output[1]);
}

}  // namespace quilm_host
