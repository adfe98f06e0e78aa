// Reads the settings file.
#include <dlfcn.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "runtime/host/model.h"

namespace quilm_host {

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Fault, function, call, code)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(Settings, row_alignment, task_buffer_size,
                                                work_buffer_size, run_mode, threads, trace, faults,
                                                input_shapes, output_shapes)

namespace {

using Json = nlohmann::json;

// What builds, shows or deletes JSON may call itself for each level.
bool CheckDepth(int depth, Json::parse_event_t, const Json&) {
  Require(depth <= 8, "its parts lie in each other too deeply");
  return true;
}

// What was read and can be written as the same has been understood: conversions from JSON cut off
// fractions and signs, and ignore what they do not know.
void CheckUnderstood(const std::string& key, const Json& value) {
  const Json understood = Json::object({{key, value}}).get<Settings>();
  Require(understood.contains(key), "unknown key", Quoted(key));
  Require(understood[key].dump() == value.dump(), "\"", key, "\" takes ", understood[key].dump(),
          ", not ", value.dump(), ": numbers are whole ones");
}

void CheckValues(const Settings& settings) {
  Require(settings.row_alignment > 0, "\"row_alignment\" takes a whole number from 1");
  for (const size_t number : {settings.row_alignment, settings.task_buffer_size,
                              settings.work_buffer_size, settings.run_mode, settings.threads}) {
    Require(number <= INT32_MAX, number, " is more than 2147483647");
  }
  for (const Fault& fault : settings.faults) {
    // The interface itself is the list of functions that can go wrong.
    Require(fault.function.rfind("quilm_", 0) == 0 &&
                dlsym(RTLD_DEFAULT, fault.function.c_str()) != nullptr,
            "no such function:", Quoted(fault.function));
  }
}

}  // namespace

Settings ReadSettings(const std::string& path) {
  Settings settings;
  std::ifstream file(path);
  Require(file.good(), "cannot be opened");
  std::string where;
  try {
    Json object = Json::parse(file, CheckDepth);
    Require(object.is_object(), "a JSON object is expected");
    object.emplace("faults", Json::array());
    for (Json& fault : object["faults"]) {
      fault["code"] = fault.value("code", Json()).is_null() ? Json(0) : fault["code"];
    }
    for (const auto& [key, value] : object.items()) {
      where = "\"" + key + "\": ";
      CheckUnderstood(key, value);
    }
    settings = object;
    CheckValues(settings);
  } catch (const Json::exception& problem) {
    Refuse(where, problem.what());
  }
  return settings;
}

}  // namespace quilm_host
