#include "runtime/host/settings.h"

#include <dlfcn.h>

#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace quilm_host {
namespace {

using Json = nlohmann::json;

[[noreturn]] void Refuse(const std::string& problem) {
  throw std::runtime_error(problem);
}

uint64_t Number(const Json& value, const std::string& key, uint64_t least, uint64_t most) {
  if (!value.is_number_unsigned() || value.get<uint64_t>() < least ||
      value.get<uint64_t>() > most) {
    Refuse("\"" + key + "\" takes a whole number from " + std::to_string(least) + " to " +
           std::to_string(most));
  }
  return value.get<uint64_t>();
}

// The interface itself is the list of functions that can go wrong.
bool IsRuntimeFunction(const std::string& name) {
  return name.rfind("quilm_", 0) == 0 && dlsym(RTLD_DEFAULT, name.c_str()) != nullptr;
}

using Setter = std::function<void(const Json& value)>;

void ReadObject(const Json& object, const std::map<std::string, Setter>& setters) {
  if (!object.is_object()) {
    Refuse("a JSON object is expected, not " + object.dump());
  }
  for (const auto& [key, value] : object.items()) {
    const auto setter = setters.find(key);
    if (setter == setters.end()) {
      Refuse("unknown key \"" + key + "\"");
    }
    setter->second(value);
  }
}

Fault ReadFault(const Json& object) {
  Fault fault;
  ReadObject(
      object,
      {{"function",
        [&](const Json& value) {
          if (!value.is_string() || !IsRuntimeFunction(value)) {
            Refuse("no such function: " + value.dump());
          }
          fault.function = value;
        }},
       {"call", [&](const Json& value) { fault.call = Number(value, "call", 1, UINT32_MAX); }},
       {"code", [&](const Json& value) {
          if (!value.is_number_integer() && !value.is_null()) {
            Refuse("\"code\" takes a whole number or null");
          }
          fault.code = value.is_null() ? 0 : value.get<int64_t>();
        }}});
  if (fault.function.empty() || fault.call == 0) {
    Refuse("a fault needs \"function\" and \"call\"");
  }
  return fault;
}

// The elements of a list, or the entries of an object; `kind` is what is expected.
const Json& Container(const Json& value, const std::string& key, bool isRight, const char* kind) {
  if (!isRight) {
    Refuse("\"" + key + "\" takes " + kind);
  }
  return value;
}

Shapes ReadShapes(const Json& value, const std::string& key) {
  constexpr char kExample[] = "shapes by name, such as {\"x\": [1, 3, 48, 192]}";
  Shapes shapes;
  for (const auto& [name, dims] : Container(value, key, value.is_object(), kExample).items()) {
    for (const Json& dim : Container(dims, key, dims.is_array(), kExample)) {
      shapes[name].push_back(static_cast<int64_t>(Number(dim, key, 1, INT32_MAX)));
    }
  }
  return shapes;
}

Setter SetNumber(const std::string& key, size_t& target, uint64_t least) {
  return
      [key, &target, least](const Json& value) { target = Number(value, key, least, INT32_MAX); };
}

Setter SetShapes(const std::string& key, Shapes& target) {
  return [key, &target](const Json& value) { target = ReadShapes(value, key); };
}

void ReadAll(const Json& object, Settings& settings) {
  ReadObject(object,
             {{"row_alignment", SetNumber("row_alignment", settings.rowAlignment, 1)},
              {"task_buffer_size", SetNumber("task_buffer_size", settings.taskBufferSize, 0)},
              {"work_buffer_size", SetNumber("work_buffer_size", settings.workBufferSize, 0)},
              {"run_mode", SetNumber("run_mode", settings.runMode, 0)},
              {"threads", SetNumber("threads", settings.threads, 1)},
              {"input_shapes", SetShapes("input_shapes", settings.inputShapes)},
              {"output_shapes", SetShapes("output_shapes", settings.outputShapes)},
              {"trace",
               [&](const Json& value) {
                 settings.trace = Container(value, "trace", value.is_boolean(), "true or false");
               }},
              {"faults", [&](const Json& value) {
                 for (const Json& fault : Container(value, "faults", value.is_array(), "a list")) {
                   settings.faults.push_back(ReadFault(fault));
                 }
               }}});
}

// Whatever reads or shows JSON calls itself for each level.
bool LimitDepth(int depth, Json::parse_event_t, const Json&) {
  constexpr int kMaxDepth = 8;
  if (depth > kMaxDepth) {
    Refuse("it is nested more than " + std::to_string(kMaxDepth) + " levels deep");
  }
  return true;
}

}  // namespace

std::string ReadSettings(const std::string& path, Settings& settings) {
  std::ifstream file(path);
  if (!file) {
    return "cannot be opened";
  }
  try {
    ReadAll(Json::parse(file, LimitDepth), settings);
  } catch (const std::exception& problem) {
    return problem.what();
  }
  return {};
}

}  // namespace quilm_host
