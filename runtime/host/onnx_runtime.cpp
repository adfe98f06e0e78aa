#include "runtime/host/onnx_runtime.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <vector>

namespace quilm_host::ort {

const void* const* functions = nullptr;
OrtEnv* environment = nullptr;

namespace {

constexpr uint32_t kInterfaceVersion = 17;
constexpr int kWarning = 2;

struct ApiBase {
  const void* const* (*getApi)(uint32_t version);
  const char* (*getVersion)();
};

// Threads of the library report too.
std::mutex mutex;
std::vector<std::string> problems;  // the latest first

bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

void Log(void*, int, const char*, const char*, const char*, const char* message) {
  Keep(message);
}

// The engine stands beside the host runtime; otherwise wherever the system has one.
void* OpenLibrary() {
  constexpr char kName[] = "libonnxruntime.so.1";
  Dl_info self{};
  dladdr(&environment, &self);
  const auto directory = std::filesystem::path(self.dli_fname).parent_path();
  void* library = dlopen((directory / "quilmrun-engine" / kName).c_str(), RTLD_NOW | RTLD_LOCAL);
  return library != nullptr ? library : dlopen(kName, RTLD_NOW | RTLD_LOCAL);
}

}  // namespace

// Results and log often say the same, one of them with more words.
void Keep(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  const std::lock_guard<std::mutex> lock(mutex);
  for (std::string& known : problems) {
    if (Contains(known, text) || Contains(text, known)) {
      known =
          std::max(known, text, [](const auto& a, const auto& b) { return a.size() < b.size(); });
      return;
    }
  }
  problems.insert(problems.begin(), std::move(text));
}

bool Succeeded(OrtStatus* status) {
  const Status owner(status);
  if (status != nullptr) {
    Keep(GetErrorMessage::Call(status));
  }
  return status == nullptr;
}

std::string TakeProblems() {
  const std::lock_guard<std::mutex> lock(mutex);
  std::string text;
  for (const std::string& problem : problems) {
    text += (text.empty() ? "" : "\n") + problem;
  }
  problems.clear();
  return text;
}

std::string Load() {
  if (environment != nullptr) {
    return {};
  }
  // It would keep usage figures in the user's home and send them to its maker.
  setenv("ORT_DISABLE_TELEMETRY", "1", 1);
  void* library = OpenLibrary();
  if (library == nullptr) {
    return std::string("there is no engine: ") + dlerror();
  }
  auto* getBase = reinterpret_cast<const ApiBase* (*)()>(dlsym(library, "OrtGetApiBase"));
  if (getBase == nullptr) {
    return "the engine's library is not ONNX Runtime";
  }
  functions = getBase()->getApi(kInterfaceVersion);
  if (functions == nullptr) {
    return std::string("the engine, ONNX Runtime ") + getBase()->getVersion() + ", is too old: 1." +
           std::to_string(kInterfaceVersion) + " or newer is needed";
  }
  if (!Succeeded(CreateEnvironment::Call(Log, nullptr, kWarning, "quilm", &environment))) {
    return TakeProblems();
  }
  TakeProblems();  // what it thinks of the machine's devices
  return {};
}

}  // namespace quilm_host::ort
