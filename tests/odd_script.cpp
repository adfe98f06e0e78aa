#include "tests/odd_script.h"

#include <sys/mman.h>
#include <unistd.h>

#include <clocale>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

OddRuntime odd;
int withinOddRuntime = 1;

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
  words >> function >> call >> std::ws;
  std::getline(words, odd.events[{function, call}][kind]);
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
  } else if (key == "settings") {
    words >> odd.settings;
  } else if (line.find("quilm_") != std::string::npos) {
    ReadEvent(key, words);
  } else {
    words >> odd.numbers[key];
  }
}

// An empty settings file that is nowhere on the disk.
std::string MakeUsualSettings() {
  const int file = memfd_create("settings", MFD_CLOEXEC);
  return write(file, "{}", 2) == 2 ? "/proc/self/fd/" + std::to_string(file) : "";
}

void Happen(const std::string& kind, const std::string& what) {
  if (kind == "run" && std::system(what.c_str()) != 0) {
    std::fprintf(stderr, "odd runtime: %s failed\n", what.c_str());
  } else if (kind == "locale" && std::setlocale(LC_ALL, what.c_str()) == nullptr) {
    std::fprintf(stderr, "odd runtime: there is no locale %s\n", what.c_str());
  } else if (kind == "signal") {
    std::raise(std::stoi(what));
  } else if (kind == "kill") {
    kill(getpid(), std::stoi(what));
    kill(getpid(), std::stoi(what));
  } else if (kind == "throw" && what == "int") {
    throw 1;
  } else if (kind == "throw") {
    throw std::runtime_error(what);
  }
}

}  // namespace

bool ReadScript(const char* path) {
  std::ifstream script(path);
  for (std::string line; std::getline(script, line);) {
    ReadLine(line);
  }
  if (odd.settings.empty()) {
    odd.settings = MakeUsualSettings();
  }
  return script.is_open();
}

long NumberOr(const char* key, long fallback) {
  const auto found = odd.numbers.find(key);
  return found == odd.numbers.end() ? fallback : found->second;
}

bool TakeEvent(const char* function, long& code) {
  auto found = odd.events.find({function, ++odd.calls[function]});
  if (found == odd.events.end()) {
    found = odd.events.find({function, 0});
  }
  if (found == odd.events.end()) {
    return false;
  }
  const std::map<std::string, std::string>& event = found->second;
  for (const char* kind : {"run", "locale", "signal", "kill", "throw"}) {
    if (const auto due = event.find(kind); due != event.end()) {
      Happen(kind, due->second);
    }
  }
  const auto fails = event.find("fail");
  if (fails == event.end()) {
    return false;
  }
  code = std::stol(fails->second);
  return true;
}
