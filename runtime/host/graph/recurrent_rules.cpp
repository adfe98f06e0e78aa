#include <algorithm>
#include <cstdint>
#include <string>

#include "runtime/host/graph/operator_rules.h"

namespace quilm_host {
namespace {

struct Recurrent {
  int64_t length, batch, inputs, hidden, directions;
  std::string direction;
};

/// The constants' dims behind `x`, W, R, B, the lengths, the first states.
const char* ReadRecurrent(const Call& call, int64_t gates, Recurrent* layer) {
  const Dims& x = call.X();
  *layer = {x[0], x[1],
            x[2], call.Int("hidden_size", 0),
            1,    TextAttribute(call.node, "direction", "forward")};
  layer->directions = layer->direction == "bidirectional" ? 2 : 1;
  const int64_t rows = gates * layer->hidden;
  const Dims state = {layer->directions, layer->batch, layer->hidden};
  const Dims wanted[] = {x,
                         {layer->directions, rows, layer->inputs},
                         {layer->directions, rows, layer->hidden},
                         {layer->directions, 2 * rows},
                         {},
                         state,
                         state};
  if (call.Int("layout", 0) != 0 || call.Int("input_forget", 0) != 0) {
    return "layout or input_forget other than 0";
  }
  for (size_t k = 0; k < call.in.size(); ++k) {
    if (call.in[k] == nullptr) {
      continue;
    }
    if (call.in[k]->dims != wanted[k]) {
      return "weights or first states that do not fit";
    }
    // The engine reorders the weights where they are.
    if (k > 0 && call.in[k]->uses != 1) {
      return "weights that other nodes use too";
    }
  }
  return nullptr;
}

bool Wants(const Call& call, size_t output) {
  return output < call.node.n_output && call.node.output[output][0] != '\0';
}

}  // namespace

const char* Lstm(Call& call) {
  Recurrent layer;
  const char* reason = ReadRecurrent(call, 4, &layer);
  if (reason != nullptr) {
    return reason;
  }
  if (Wants(call, 1) && layer.direction == "reverse") {
    return "last state of the reverse direction";
  }
  if (layer.direction != "forward" && layer.direction != "reverse" && layer.directions != 2) {
    return "direction";
  }
  call.out = {{layer.length, layer.directions, layer.batch, layer.hidden},
              {layer.directions, layer.batch, layer.hidden}};
  return nullptr;
}

const char* Gru(Call& call) {
  Recurrent layer;
  const char* reason = ReadRecurrent(call, 3, &layer);
  if (reason != nullptr) {
    return reason;
  }
  if (call.Int("linear_before_reset", 0) != 1) {
    return "linear_before_reset other than 1";
  }
  if (layer.direction != "forward") {
    return "direction other than forward";
  }
  return Give(call, {layer.length, layer.directions, layer.batch, layer.hidden});
}

}  // namespace quilm_host
