#include "runtime/host/settings.h"

#include <dlfcn.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "runtime/host/diagnostics.h"

namespace quilm_host {
namespace {

using Json = nlohmann::json;

const Json& Expect(const Json& value, bool isRight, const std::string& key, const char* expected) {
  Require(isRight, "\"", key, "\" takes ", expected);
  return value;
}

int64_t Number(const Json& value, const std::string& key, int64_t least) {
  const bool isRight = value.is_number_integer() && value >= least && value <= INT32_MAX;
  Require(isRight, "\"", key, "\" takes a whole number from ", least, " to ", INT32_MAX);
  return value;
}

Fault ReadFault(const Json& object) {
  const Json code = object.value("code", Json());
  const std::string function = object.at("function");
  // The interface itself is the list of functions that can go wrong.
  Require(function.rfind("quilm_", 0) == 0 && dlsym(RTLD_DEFAULT, function.c_str()) != nullptr,
          "no such function:", Quoted(function));
  Require(object.size() == (object.contains("code") ? 3 : 2),
          "a fault has \"function\", \"call\" and \"code\" only");
  Expect(code, code.is_null() || code.is_number_integer(), "code", "a whole number or null");
  return {function, static_cast<uint64_t>(Number(object.at("call"), "call", 1)),
          code.is_null() ? 0 : code.get<int64_t>()};
}

Shapes ReadShapes(const Json& object, const std::string& key) {
  Shapes shapes;
  for (const auto& [name, dims] : Expect(object, object.is_object(), key, "an object").items()) {
    std::vector<int64_t>& shape = shapes[name];
    for (const Json& dim :
         Expect(dims, dims.is_array(), key, "shapes by name, such as {\"x\": [1, 3, 48, 192]}")) {
      shape.push_back(Number(dim, key, 1));
    }
  }
  return shapes;
}

constexpr struct {
  const char* key;
  size_t Settings::*value;
  int64_t least;
} kNumbers[] = {
    {"row_alignment", &Settings::rowAlignment, 1},
    {"task_buffer_size", &Settings::taskBufferSize, 0},
    {"work_buffer_size", &Settings::workBufferSize, 0},
    {"run_mode", &Settings::runMode, 0},
    {"threads", &Settings::threads, 1},
};

void ReadEntry(const std::string& key, const Json& value, Settings& settings) {
  for (const auto& number : kNumbers) {
    if (key == number.key) {
      settings.*number.value = static_cast<size_t>(Number(value, key, number.least));
      return;
    }
  }
  if (key == "trace") {
    settings.trace = Expect(value, value.is_boolean(), key, "true or false");
  } else if (key == "faults") {
    for (const Json& fault : Expect(value, value.is_array(), key, "a list")) {
      settings.faults.push_back(ReadFault(fault));
    }
  } else if (key == "input_shapes") {
    settings.inputShapes = ReadShapes(value, key);
  } else if (key == "output_shapes") {
    settings.outputShapes = ReadShapes(value, key);
  } else {
    Refuse("unknown key", Quoted(key));
  }
}

// What builds, shows or deletes JSON may call itself for each level.
bool CheckDepth(int depth, Json::parse_event_t, const Json&) {
  Require(depth <= 8, "its parts lie in each other too deeply");
  return true;
}

}  // namespace

Settings ReadSettings(const std::string& path) {
  Settings settings;
  std::ifstream file(path);
  Require(file.good(), "cannot be opened");
  try {
    const Json object = Json::parse(file, CheckDepth);
    for (const auto& [key, value] :
         Expect(object, object.is_object(), "", "a JSON object").items()) {
      ReadEntry(key, value, settings);
    }
  } catch (const Json::exception& problem) {
    Refuse(problem.what());
  }
  return settings;
}

}  // namespace quilm_host
