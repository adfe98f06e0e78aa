#include "tests/odd_script.h"

#include <unistd.h>

#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

OddRuntime odd;

namespace {

OddTensor ReadTensor(std::istringstream& words) {
  OddTensor tensor;
  words >> tensor.name >> tensor.type >> tensor.size >> tensor.stride;
  for (int64_t dim = 0; words >> dim;) {
    tensor.dims.push_back(dim);
  }
  return tensor;
}

void ReadEvent(const std::string& kind, std::istringstream& words) {
  std::string function;
  int call = 0;
  words >> function >> call;
  OddEvent& event = odd.events[{function, call}];
  if (kind == "fail") {
    event.fails = true;
    words >> event.code;
  } else if (kind == "signal" || kind == "kill") {
    words >> event.signal;
    event.twiceFromOutside = kind == "kill";
  } else {
    std::getline(words, event.command);
  }
}

void ReadLine(const std::string& line) {
  std::istringstream words(line);
  std::string key;
  words >> key;
  if (key == "input" || key == "output") {
    (key == "input" ? odd.inputs : odd.outputs).push_back(ReadTensor(words));
  } else if (key == "log") {
    std::string name;
    words >> name;
    odd.log = std::fopen(name.c_str(), "we");
  } else if (key == "fail" || key == "signal" || key == "kill" || key == "run") {
    ReadEvent(key, words);
  } else {
    words >> odd.numbers[key];
  }
}

}  // namespace

bool ReadScript(const char* path) {
  std::ifstream script(path);
  for (std::string line; std::getline(script, line);) {
    ReadLine(line);
  }
  const bool read = script.is_open();
  script.close();
  odd.openFiles = CountOpenFiles();
  return read;
}

long NumberOr(const char* key, long fallback) {
  const auto found = odd.numbers.find(key);
  return found == odd.numbers.end() ? fallback : found->second;
}

long CountOpenFiles() {
  std::error_code none;
  const std::filesystem::directory_iterator open("/proc/self/fd", none);
  return std::distance(begin(open), end(open));
}

bool Fails(long& code, const char* function, const char* format, ...) {
  if (odd.log != nullptr) {
    va_list arguments;
    va_start(arguments, format);
    std::fputs(function, odd.log);
    std::vfprintf(odd.log, format, arguments);
    std::fputc('\n', odd.log);
    std::fflush(odd.log);
    va_end(arguments);
  }
  const auto found = odd.events.find({function, ++odd.calls[function]});
  if (found == odd.events.end()) {
    return false;
  }
  const OddEvent& event = found->second;
  if (!event.command.empty() && std::system(event.command.c_str()) != 0) {
    std::fprintf(stderr, "odd runtime: %s failed\n", event.command.c_str());
  }
  if (event.twiceFromOutside) {
    kill(getpid(), event.signal);
    kill(getpid(), event.signal);
  } else if (event.signal != 0) {
    std::raise(event.signal);
  }
  code = event.code;
  return event.fails;
}
