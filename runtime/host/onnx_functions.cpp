#include "runtime/host/onnx_functions.h"

#include <dlfcn.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace quilm_host::onnx {
namespace {

constexpr uint32_t kInterfaceVersion = 17;

std::unique_ptr<const Functions> functions;  // empty until the library is loaded
const Environment* environment = nullptr;

// What the library has reported, by statuses and in its log, the latest first.
std::vector<std::string> problems;
std::mutex problemsMutex;  // the library's threads report too

// Keeps the longer one of two reports of which one contains the other: the status and the log often
// say the same.
void Keep(std::string report) {
  std::replace(report.begin(), report.end(), '\n', ' ');
  const std::lock_guard<std::mutex> lock(problemsMutex);
  for (std::string& known : problems) {
    if (known.find(report) != std::string::npos || report.find(known) != std::string::npos) {
      known = report.size() > known.size() ? report : known;
      return;
    }
  }
  problems.insert(problems.begin(), std::move(report));
}

void Log(void*, int, const char*, const char*, const char*, const char* message) {
  Keep(message);
}

// Opens the library that stands beside the host runtime, or otherwise the system's.
void* OpenLibrary() {
  constexpr char kName[] = "libonnxruntime.so.1";
  Dl_info self{};
  dladdr(&functions, &self);
  auto beside = std::filesystem::path(self.dli_fname).parent_path();
  beside.append("quilmrun-engine").append(kName);
  std::error_code ignored;
  const bool isThere = std::filesystem::exists(beside, ignored);
  return dlopen(isThere ? beside.c_str() : kName, RTLD_NOW | RTLD_LOCAL);
}

void LoadFunctions() {
  struct ApiBase {
    void* const* (*getApi)(uint32_t version);
    const char* (*getVersionString)();
  };
  // The library would keep usage figures in the user's home and send them to its maker.
  setenv("ORT_DISABLE_TELEMETRY", "1", 1);
  void* library = OpenLibrary();
  void* getBase = library == nullptr ? nullptr : dlsym(library, "OrtGetApiBase");
  const char* problem = getBase == nullptr ? dlerror() : "";
  Require(getBase != nullptr, "there is no engine, which scripts/fetch-engine or the package ",
          "quilmrun-host-runtime brings: ", problem);
  const ApiBase* base = reinterpret_cast<const ApiBase* (*)()>(getBase)();
  void* const* table = base->getApi(kInterfaceVersion);
  Require(table != nullptr, "ONNX Runtime ", base->getVersionString(), " is too old, 1.",
          kInterfaceVersion, " or newer is needed");
  functions = std::make_unique<const Functions>(Functions{table});
}

}  // namespace

const Functions& Library() {
  constexpr int kWarning = 2;
  if (environment == nullptr) {
    LoadFunctions();
    Environment* created = nullptr;
    Check(functions->createEnvWithCustomLogger(&Log, nullptr, kWarning, "quilm", &created));
    environment = created;
  }
  return *functions;
}

const Environment* TheEnvironment() {
  return environment;
}

void ForgetProblems() {
  const std::lock_guard<std::mutex> lock(problemsMutex);
  problems.clear();
}

void Check(Status* status) {
  if (status != nullptr) {
    const Handle<Status> owner(status, functions->releaseStatus);
    Keep(functions->getErrorMessage(status));
    const std::lock_guard<std::mutex> lock(problemsMutex);
    throw Refusal(Joined(std::exchange(problems, {}), "\n"));
  }
}

}  // namespace quilm_host::onnx
