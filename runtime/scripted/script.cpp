#include "runtime/scripted/script.h"

#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

Script script;
int callsInProgress = 1;

namespace {

ScriptedTensor ReadTensor(std::istringstream& words) {
  ScriptedTensor tensor;
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
  std::getline(words, script.events[{function, call}][kind]);
}

void ReadLine(const std::string& line) {
  std::istringstream words(line);
  std::string key;
  words >> key;
  if (key == "input" || key == "output") {
    (key == "input" ? script.inputs : script.outputs).push_back(ReadTensor(words));
  } else if (key == "log") {
    std::string name;
    words >> name;
    script.log = std::fopen(name.c_str(), "we");
  } else if (key == "settings") {
    words >> script.settings;
  } else if (line.find("quilm_") != std::string::npos) {
    ReadEvent(key, words);
  } else {
    words >> script.numbers[key];
  }
}

// Makes a settings file in memory, with nothing set in it, and returns its path.
std::string MakeUsualSettings() {
  const int file = static_cast<int>(syscall(SYS_memfd_create, "settings", MFD_CLOEXEC));
  return write(file, "{}", 2) == 2 ? "/proc/self/fd/" + std::to_string(file) : "";
}

// Takes "NUMBER MS".
void SendTwice(const std::string& numberAndPause) {
  std::istringstream words(numberAndPause);
  int number = 0;
  int pauseMs = 0;
  words >> number >> pauseMs;
  kill(getpid(), number);
  std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs));
  kill(getpid(), number);
}

// Occupies the processor, as a runtime does that computes, for so many microseconds.
void Spend(const std::string& microseconds) {
  const auto end =
      std::chrono::steady_clock::now() + std::chrono::microseconds(std::stol(microseconds));
  while (std::chrono::steady_clock::now() < end) {
  }
}

// A line of the script cannot hold a newline, and writes "\\n" instead.
void Print(const std::string& text) {
  const size_t end = text.find("\\n");
  std::fputs(text.substr(0, end).c_str(), stdout);
  if (end != std::string::npos) {
    std::fputc('\n', stdout);
  }
}

void PerformOne(const std::string& kind, const std::string& what) {
  if (kind == "run" && std::system(what.c_str()) != 0) {
    std::fprintf(stderr, "scripted runtime: %s failed\n", what.c_str());
  } else if (kind == "locale" && std::setlocale(LC_ALL, what.c_str()) == nullptr) {
    std::fprintf(stderr, "scripted runtime: there is no locale %s\n", what.c_str());
  } else if (kind == "print") {
    Print(what);
  } else if (kind == "signal") {
    std::raise(std::stoi(what));
  } else if (kind == "kill") {
    SendTwice(what);
  } else if (kind == "spend") {
    Spend(what);
  } else if (kind == "throw" && what == "int") {
    throw 1;
  } else if (kind == "throw") {
    throw std::runtime_error(what);
  }
}

}  // namespace

bool ReadScript(const char* path) {
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    ReadLine(line);
  }
  if (script.settings.empty()) {
    script.settings = MakeUsualSettings();
  }
  return file.is_open();
}

long NumberOr(const char* key, long fallback) {
  const auto found = script.numbers.find(key);
  return found == script.numbers.end() ? fallback : found->second;
}

const Event& NextEvent(const char* function) {
  static const Event kNothing;
  auto found = script.events.find({function, ++script.calls[function]});
  if (found == script.events.end()) {
    found = script.events.find({function, 0});
  }
  return found == script.events.end() ? kNothing : found->second;
}

void Perform(const Event& event) {
  for (const char* kind : {"run", "locale", "print", "signal", "kill", "spend", "throw"}) {
    if (const auto due = event.find(kind); due != event.end()) {
      PerformOne(kind, due->second);
    }
  }
}
