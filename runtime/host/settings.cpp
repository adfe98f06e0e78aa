#include "runtime/host/settings.h"

#include <dlfcn.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "runtime/host/diagnostics.h"

namespace quilm_host {
namespace {

using Json = nlohmann::json;

const Json& Expect(const Json& value, bool isRight, const std::string& key, const char* expected) {
  if (!isRight) {
    Refuse(kBadSettings, "\"", key, "\" takes ", expected);
  }
  return value;
}

uint64_t Number(const Json& value, const std::string& key, uint64_t least) {
  constexpr uint64_t kMost = INT32_MAX;
  const std::string expected =
      "a whole number from " + std::to_string(least) + " to " + std::to_string(kMost);
  const bool isRight = value.is_number_unsigned() && value >= least && value <= kMost;
  return Expect(value, isRight, key, expected.c_str());
}

Fault ReadFault(const Json& object) {
  const Json code = object.value("code", Json());
  const std::string function = object.at("function");
  // The interface itself is the list of functions that can go wrong.
  if (function.rfind("quilm_", 0) != 0 || dlsym(RTLD_DEFAULT, function.c_str()) == nullptr) {
    Refuse(kBadSettings, "no such function:", Quoted(function));
  }
  if (object.size() != (object.contains("code") ? 3 : 2)) {
    Refuse(kBadSettings, "a fault has \"function\", \"call\" and \"code\" only");
  }
  Expect(code, code.is_null() || code.is_number_integer(), "code", "a whole number or null");
  return {function, Number(object.at("call"), "call", 1), code.is_null() ? 0 : code.get<int64_t>()};
}

std::vector<int64_t> ReadShape(const Json& dims, const std::string& key) {
  std::vector<int64_t> shape;
  for (const Json& dim :
       Expect(dims, dims.is_array(), key, "shapes by name, such as {\"x\": [1, 3, 48, 192]}")) {
    shape.push_back(static_cast<int64_t>(Number(dim, key, 1)));
  }
  return shape;
}

void ReadEntry(const std::string& key, const Json& value, Settings& settings) {
  if (key == "row_alignment") {
    settings.rowAlignment = Number(value, key, 1);
  } else if (key == "task_buffer_size") {
    settings.taskBufferSize = Number(value, key, 0);
  } else if (key == "work_buffer_size") {
    settings.workBufferSize = Number(value, key, 0);
  } else if (key == "run_mode") {
    settings.runMode = static_cast<uint32_t>(Number(value, key, 0));
  } else if (key == "threads") {
    settings.threads = Number(value, key, 1);
  } else if (key == "trace") {
    settings.trace = Expect(value, value.is_boolean(), key, "true or false");
  } else if (key == "faults") {
    for (const Json& fault : Expect(value, value.is_array(), key, "a list")) {
      settings.faults.push_back(ReadFault(fault));
    }
  } else if (key == "input_shapes") {
    for (const auto& [name, dims] : Expect(value, value.is_object(), key, "an object").items()) {
      settings.inputShapes[name] = ReadShape(dims, key);
    }
  } else {
    Refuse(kBadSettings, "unknown key", Quoted(key));
  }
}

// What builds, shows or deletes JSON may call itself for each level.
bool CheckDepth(int depth, Json::parse_event_t, const Json&) {
  if (depth > 8) {
    Refuse(kBadSettings, "its parts lie in each other too deeply");
  }
  return true;
}

}  // namespace

Settings ReadSettings(const std::string& path) {
  Settings settings;
  std::ifstream file(path);
  if (!file) {
    Refuse(kBadSettings, "cannot be opened");
  }
  try {
    const Json object = Json::parse(file, CheckDepth);
    for (const auto& [key, value] :
         Expect(object, object.is_object(), "", "a JSON object").items()) {
      ReadEntry(key, value, settings);
    }
  } catch (const Json::exception& problem) {
    Refuse(kBadSettings, problem.what());
  }
  return settings;
}

}  // namespace quilm_host
