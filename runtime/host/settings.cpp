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

void ReadFaults(const Json& list, std::vector<Fault>& faults) {
  if (!list.is_array()) {
    Refuse("\"faults\" takes a list");
  }
  for (const Json& object : list) {
    faults.push_back(ReadFault(object));
  }
}

bool Switch(const Json& value, const std::string& key) {
  if (!value.is_boolean()) {
    Refuse("\"" + key + "\" takes true or false");
  }
  return value;
}

Setter NumberSetter(const std::string& key, size_t& target, uint64_t least) {
  return
      [key, &target, least](const Json& value) { target = Number(value, key, least, INT32_MAX); };
}

}  // namespace

std::string ReadSettings(const std::string& path, Settings& settings) {
  std::ifstream file(path);
  if (!file) {
    return "cannot be opened";
  }
  try {
    size_t runMode = 0;
    ReadObject(Json::parse(file),
               {{"row_alignment", NumberSetter("row_alignment", settings.rowAlignment, 1)},
                {"task_buffer_size", NumberSetter("task_buffer_size", settings.taskBufferSize, 0)},
                {"work_buffer_size", NumberSetter("work_buffer_size", settings.workBufferSize, 0)},
                {"run_mode", NumberSetter("run_mode", runMode, 0)},
                {"trace", [&](const Json& value) { settings.trace = Switch(value, "trace"); }},
                {"faults", [&](const Json& value) { ReadFaults(value, settings.faults); }}});
    settings.runMode = static_cast<uint32_t>(runMode);
  } catch (const std::exception& problem) {
    return problem.what();
  }
  return {};
}

}  // namespace quilm_host
