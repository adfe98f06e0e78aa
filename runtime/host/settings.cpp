// Reads the settings file.
#include <dlfcn.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "runtime/host/model.h"

namespace quilm_host {

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Fault, function, call, code)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(Settings, row_alignment, task_buffer_size,
                                                work_buffer_size, run_mode, threads, trace, faults,
                                                input_shapes, output_shapes)

namespace {

using Json = nlohmann::json;

// Refuses deep nesting: the library's functions may call themselves for each level.
bool CheckDepth(int depth, Json::parse_event_t, const Json&) {
  Require(depth <= 8, "its parts lie in each other too deeply");
  return true;
}

// Refuses a value that is not the same when it is written again: conversions from JSON cut off
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
  const size_t mostThreads = 4UL * std::max(std::thread::hardware_concurrency(), 1U);
  Require(settings.threads <= mostThreads, "\"threads\": ", settings.threads, " is more than ",
          mostThreads, ", 4 times the machine's cores");
  for (const Fault& fault : settings.faults) {
    // The process has a symbol for each function of the interface.
    Require(fault.function.rfind("quilm_", 0) == 0 &&
                dlsym(RTLD_DEFAULT, fault.function.c_str()) != nullptr,
            "no such function:", Quoted(fault.function));
  }
}

}  // namespace

Settings ReadSettings(const std::string& path) {
  Settings settings;
  // Reading a pipe or a device may never end.
  std::error_code absent;
  const auto type = std::filesystem::status(path, absent).type();
  Require(absent || type == std::filesystem::file_type::regular, "is not a regular file");
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
