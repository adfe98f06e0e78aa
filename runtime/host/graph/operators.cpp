#include "runtime/host/graph/operators.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "runtime/host/graph/graph_facts.h"
#include "runtime/host/graph/operator_rules.h"
#include "runtime/host/graph/operator_table.h"

namespace quilm_host {
namespace {

int KindOf(int32_t type) {
  switch (static_cast<Onnx__TensorProto__DataType>(type)) {
    case ONNX__TENSOR_PROTO__DATA_TYPE__FLOAT:
    case ONNX__TENSOR_PROTO__DATA_TYPE__FLOAT16:
      return kReal;
    case ONNX__TENSOR_PROTO__DATA_TYPE__UINT8:
    case ONNX__TENSOR_PROTO__DATA_TYPE__INT8:
    case ONNX__TENSOR_PROTO__DATA_TYPE__UINT16:
    case ONNX__TENSOR_PROTO__DATA_TYPE__INT16:
      return kSmall;
    case ONNX__TENSOR_PROTO__DATA_TYPE__INT32:
      return kWide;
    case ONNX__TENSOR_PROTO__DATA_TYPE__INT64:
      return kIndex;
    default:
      return 0;
  }
}

bool FitsAttribute(const Onnx__AttributeProto& attribute, char type) {
  const bool isInt = attribute.has_i != 0;
  const bool isFloat = attribute.has_f != 0;
  const bool isText = attribute.has_s != 0;
  const bool isInts = attribute.n_ints != 0;
  const auto isWide = [](int64_t value) { return value != static_cast<int32_t>(value); };
  if (isInt + isFloat + isText + isInts != 1) {
    return false;
  }
  switch (type) {
    case 'i':
      return isInt && !isWide(attribute.i);
    case 'f':
      return isFloat;
    case 's':
      return isText;
    case 'I':
      return isInts && std::none_of(attribute.ints, attribute.ints + attribute.n_ints, isWide);
    default:
      return isInts;
  }
}

const char* FindMismatchOfComputed(const Row& row, const Value& value, char letter) {
  if (letter != 'x' && letter != 'e') {
    return letter == '-' ? "must be left out" : "must be constant";
  }
  if ((KindOf(value.type) & row.types) == 0) {
    return "has an element type that the engine has wrong here";
  }
  const bool fitsRank = value.dims.size() >= row.minRank && value.dims.size() <= row.maxRank;
  return fitsRank ? nullptr : "has too few or too many dimensions";
}

const char* FindMismatchOfConstant(const Value& value, char letter) {
  if (letter == 'x' || letter == '-') {
    return "must not be constant";
  }
  const bool isReal = value.type == ONNX__TENSOR_PROTO__DATA_TYPE__FLOAT;
  const bool fits = letter == 'u' || ((letter == 'i') != isReal && Count(value.dims) > 0);
  return fits ? nullptr : "is a constant of the wrong element type or without elements";
}

/// Why the value, null when left out, is not what the letter stands for, or null.
const char* FindMismatch(const Row& row, const Value* value, char letter) {
  if (letter == '\0') {
    return "is one too many";
  }
  if (value == nullptr) {
    return std::strchr("-ou", letter) != nullptr ? nullptr : "must not be left out";
  }
  return value->tensor == nullptr ? FindMismatchOfComputed(row, *value, letter)
                                  : FindMismatchOfConstant(*value, letter);
}

std::string BindInputs(const Row& row, Call* call) {
  const char* letter = row.inputs;
  bool mayEnd = false;
  bool anyComputed = false;
  for (size_t k = 0; k < call->node.n_input; ++k) {
    const std::string name = call->node.input[k];
    const Value* value = call->facts.Find(name);
    if (value == nullptr && !name.empty()) {
      return "input \"" + name + "\" is not defined before the node";
    }
    mayEnd = mayEnd || *letter == '?';
    letter += *letter == '?' ? 1 : 0;
    letter -= *letter == '*' ? 1 : 0;
    const char* mismatch = FindMismatch(row, value, *letter);
    if (mismatch != nullptr) {
      return "input \"" + name + "\" " + mismatch;
    }
    if (value != nullptr && value->tensor == nullptr && !anyComputed) {
      anyComputed = true;
      call->outType = value->type;
    }
    call->in.push_back(value);
    ++letter;
  }
  const bool complete = mayEnd || *letter == '\0' || *letter == '?' || *letter == '*';
  return complete && anyComputed ? "" : "inputs that are too few or all constant";
}

/// When it loads a model, the engine replaces a node whose operand has these producers, upwards
/// from the node by input and operator, by one layer of its own. Some of its patterns do not
/// compare the operands that must be equal, others ignore attributes or crash.
struct Fusion {
  const char* op;
  std::vector<std::pair<size_t, const char*>> path;
  bool isExactForSameInput;
};

const std::vector<Fusion>& Fusions() {
  static const std::vector<Fusion> fusions = {
      {"Mul", {{1, "HardSigmoid"}}, true},
      {"Mul", {{1, "Elu"}, {0, "Div"}}, false},
      {"Mul", {{1, "Reciprocal"}, {0, "Sqrt"}, {0, "Max"}}, false},
      {"Mul", {{1, "Div"}, {1, "Sqrt"}, {0, "Clip"}}, false},
      {"Div", {{1, "ReduceL2"}}, false},
      {"Div", {{1, "ReduceSum"}, {0, "Exp"}}, false},
      {"Div", {{1, "Add"}, {0, "Sqrt"}, {0, "ReduceSum"}}, false},
      {"Add", {{1, "Sub"}, {1, "Mul"}, {1, "Mul"}, {1, "Div"}, {1, "Sqrt"}}, false},
      {"Add", {{1, "Reshape"}, {0, "Sub"}, {1, "Mul"}, {1, "Mul"}, {1, "Div"}}, false},
      {"Cast", {{0, "Gather"}}, false},
      {"Cast", {{0, "Mul"}}, false},
  };
  return fusions;
}

bool IsReplacedWrongly(const Fusion& fusion, const Call& call) {
  const Onnx__NodeProto* node = &call.node;
  bool isPrivate = true;
  for (const auto& [input, op] : fusion.path) {
    const Value* value = input < node->n_input ? call.facts.Find(node->input[input]) : nullptr;
    if (value == nullptr || value->producer == nullptr ||
        std::strcmp(value->producer->op_type, op) != 0) {
      return false;
    }
    isPrivate = isPrivate && value->uses == 1 && !value->isOutput;
    node = value->producer;
  }
  const bool sameInput = std::strcmp(node->input[0], call.node.input[0]) == 0;
  return !(fusion.isExactForSameInput && sameInput && isPrivate);
}

std::string CheckProducers(const Call& call) {
  for (const Fusion& fusion : Fusions()) {
    if (call.IsOp(fusion.op) && IsReplacedWrongly(fusion, call)) {
      return std::string("the nodes before it, ending with ") + fusion.path.front().second +
             ", are a pattern that the engine replaces";
    }
  }
  return "";
}

std::string AddConstant(const Onnx__NodeProto& node, GraphFacts* facts) {
  const Onnx__AttributeProto* attribute = FindAttribute(node, "value");
  if (node.n_attribute != 1 || attribute == nullptr || attribute->t == nullptr ||
      node.n_output != 1 || !IsReadable(*attribute->t)) {
    return "value other than a tensor that the engine can read";
  }
  Value value;
  value.type = attribute->t->data_type;
  value.dims.assign(attribute->t->dims, attribute->t->dims + attribute->t->n_dims);
  value.tensor = attribute->t;
  value.producer = &node;
  return facts->Define(node.output[0], value) ? "" : "its output's name is taken";
}

std::string AddOutputs(const Row& row, const Call& call, GraphFacts* facts) {
  const Onnx__NodeProto& node = call.node;
  if (node.n_output == 0 || node.n_output > row.maxOutputs || node.n_output > call.out.size()) {
    return "number of outputs";
  }
  for (size_t k = 0; k < node.n_output; ++k) {
    Value value;
    value.type = call.outType;
    value.dims = call.out[k];
    value.producer = &node;
    if (Count(value.dims) <= 0) {
      return "output without elements or with too many";
    }
    const bool isLeftOut = node.output[k][0] == '\0' && k + 1 < node.n_output;
    if (!isLeftOut && !facts->Define(node.output[k], value)) {
      return "its output's name is missing, taken or reserved";
    }
  }
  return "";
}

std::string CheckOutput(const Onnx__ValueInfoProto& output, const GraphFacts& facts) {
  const Value* value = facts.Find(output.name == nullptr ? "" : output.name);
  if (value == nullptr || value->producer == nullptr || value->tensor != nullptr) {
    return "no node computes it";
  }
  const std::optional<Dims> dims = DeclaredDims(output);
  if (!dims.has_value() || *dims != value->dims || DeclaredType(output) != value->type) {
    return "its declared dims or type are not those that its node gives";
  }
  return "";
}

std::string CheckModel(const Onnx__ModelProto& model) {
  constexpr int64_t kOldestIr = 3;
  constexpr int64_t kNewestOpset = 17;
  if (model.graph == nullptr || model.ir_version < kOldestIr) {
    return "model without a graph or of an IR version below 3";
  }
  if (model.n_functions != 0 || model.graph->n_sparse_initializer != 0) {
    return "model with functions or sparse initializers";
  }
  const int64_t opset = GraphFacts(model).Opset();
  return opset < 1 || opset > kNewestOpset ? "model of an operator set other than 1 to 17" : "";
}

/// Names come from the model; whatever is in them, the reason stays one line.
std::string OneLine(std::string text) {
  std::replace_if(
      text.begin(), text.end(),
      [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; }, '?');
  return text;
}

std::string NameOf(const Onnx__NodeProto& node) {
  const bool named = node.name != nullptr && node.name[0] != '\0';
  return named ? node.name : node.n_output > 0 ? node.output[0] : "";
}

}  // namespace

std::string CheckAttributes(const Onnx__NodeProto& node, const char* known) {
  const std::string list = std::string(" ") + known + " ";
  std::set<std::string> seen;
  for (size_t i = 0; i < node.n_attribute; ++i) {
    const Onnx__AttributeProto& attribute = *node.attribute[i];
    const std::string name = attribute.name == nullptr ? "" : attribute.name;
    const size_t at = list.find(" " + name + ":");
    const bool fits = !name.empty() && at != std::string::npos && seen.insert(name).second &&
                      FitsAttribute(attribute, list[at + name.size() + 2]);
    if (!fits) {
      return "attribute " + name + " is not admitted";
    }
  }
  return "";
}

std::string AdmitNode(const Onnx__NodeProto& node, GraphFacts& facts) {
  const std::string domain = node.domain == nullptr ? "" : node.domain;
  if (node.op_type == nullptr) {
    return "no operator";
  }
  const Row* row = FindRow(node.op_type);
  if (!domain.empty() && domain != "ai.onnx") {
    return "operator of another domain";
  }
  if (std::strcmp(node.op_type, "Constant") == 0) {
    return AddConstant(node, &facts);
  }
  if (row == nullptr) {
    return "operator is not on the table";
  }
  if (facts.Opset() < row->firstOpset) {
    return "operator of this opset";
  }
  Call call{node, facts, {}, 0, {}};
  std::string reason = CheckAttributes(node, row->attributes);
  reason = reason.empty() ? BindInputs(*row, &call) : reason;
  if (!reason.empty()) {
    return reason;
  }
  const char* refusal = row->rule(call);
  if (refusal != nullptr) {
    return refusal;
  }
  reason = CheckProducers(call);
  return reason.empty() ? AddOutputs(*row, call, &facts) : reason;
}

std::string FindUnsupportedNode(const Onnx__ModelProto& model) {
  std::string reason = CheckModel(model);
  if (!reason.empty()) {
    return reason;
  }
  GraphFacts facts(model);
  reason = facts.AddRoots();
  if (!reason.empty()) {
    return OneLine(reason);
  }
  const Onnx__GraphProto& graph = *model.graph;
  for (size_t i = 0; i < graph.n_node; ++i) {
    const Onnx__NodeProto& node = *graph.node[i];
    reason = AdmitNode(node, facts);
    if (!reason.empty()) {
      const std::string op = node.op_type == nullptr ? "" : node.op_type;
      std::string line = "node \"" + NameOf(node);
      return OneLine(line.append("\" (").append(op).append("): ").append(reason));
    }
  }
  for (size_t i = 0; i < graph.n_output; ++i) {
    reason = CheckOutput(*graph.output[i], facts);
    if (!reason.empty()) {
      const char* name = graph.output[i]->name;
      return OneLine(std::string("output \"") + (name == nullptr ? "" : name) + "\": " + reason);
    }
  }
  return "";
}

}  // namespace quilm_host
