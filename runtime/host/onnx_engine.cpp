// The engine: ONNX Runtime, by its C interface. The library exports one function, which hands out a
// table of function pointers; the table only ever grows at its end, so that a position keeps its
// meaning.
#include <dlfcn.h>
#include <signal.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <utility>

#include "runtime/host/model.h"

namespace quilm_host {
namespace {

constexpr uint32_t kInterfaceVersion = 17;
void* const* functions = nullptr;  // null until the library is loaded

// Positions in the table.
enum Function : size_t {
  kGetErrorMessage = 2,
  kCreateEnvWithCustomLogger = 4,
  kCreateSessionFromArray = 8,
  kRun = 9,
  kCreateSessionOptions = 10,
  kSetIntraOpNumThreads = 24,
  kSessionGetOutputTypeInfo = 34,
  kCreateTensorWithDataAsOrtValue = 49,
  kGetTensorMutableData = 51,
  kCastTypeInfoToTensorInfo = 55,
  kGetTensorElementType = 60,
  kGetDimensionsCount = 61,
  kGetDimensions = 62,
  kGetTensorTypeAndShape = 65,
  kCreateCpuMemoryInfo = 69,
  kReleaseStatus = 93,
  kReleaseMemoryInfo = 94,
  kReleaseSession = 95,
  kReleaseValue = 96,
  kReleaseTypeInfo = 98,
  kReleaseTensorTypeAndShapeInfo = 99,
  kReleaseSessionOptions = 100
};

// The arguments have to be of the very types that the function takes; handles are void*.
template <typename Result, typename... Arguments>
Result Call(Function function, Arguments... arguments) {
  return reinterpret_cast<Result (*)(Arguments...)>(functions[function])(arguments...);
}

// Of an object of the library, which is released with it.
using Handle = std::shared_ptr<void>;

Handle Own(void* object, Function release) {
  return {object, [release](void* owned) { Call<void>(release, owned); }};
}

// What the library reports, by results and as warnings and errors in its log; the latest first.
std::vector<std::string> problems;
std::mutex problemsMutex;  // its threads report too

// Results and log often say the same, one of them with more words.
void Keep(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  const std::lock_guard<std::mutex> lock(problemsMutex);
  for (std::string& known : problems) {
    if (known.find(text) != std::string::npos || text.find(known) != std::string::npos) {
      known = text.size() > known.size() ? text : known;
      return;
    }
  }
  problems.insert(problems.begin(), std::move(text));
}

void Log(void*, int, const char*, const char*, const char*, const char* message) {
  Keep(message);
}

std::string TakeProblems() {
  const std::lock_guard<std::mutex> lock(problemsMutex);
  return Joined(std::exchange(problems, {}), "\n");
}

// Calls a function that can fail.
template <typename... Arguments>
void Do(Function function, Arguments... arguments) {
  if (const Handle status = Own(Call<void*>(function, arguments...), kReleaseStatus)) {
    Keep(Call<const char*>(kGetErrorMessage, status.get()));
    Refuse(TakeProblems());
  }
}

// Calls a function that hands out a handle by its last argument.
template <typename... Arguments>
Handle Make(Function function, Function release, Arguments... arguments) {
  void* made = nullptr;
  Do(function, arguments..., &made);
  return Own(made, release);
}

// The library stands beside the host runtime; otherwise wherever the system has one.
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
    const char* (*getVersion)();
  };
  // It would keep usage figures in the user's home and send them to its maker.
  setenv("ORT_DISABLE_TELEMETRY", "1", 1);
  void* library = OpenLibrary();
  void* getBase = library == nullptr ? nullptr : dlsym(library, "OrtGetApiBase");
  const char* problem = getBase == nullptr ? dlerror() : "";  // which forgets what it has told
  Require(getBase != nullptr, "there is no engine, which scripts/fetch-engine or the package ",
          "quilmrun-host-runtime brings: ", problem);
  const ApiBase* base = reinterpret_cast<const ApiBase* (*)()>(getBase)();
  functions = base->getApi(kInterfaceVersion);
  Require(functions != nullptr, "ONNX Runtime ", base->getVersion(), " is too old, 1.",
          kInterfaceVersion, " or newer is needed");
}

// One for the whole process, not before there is a model to load, as it takes most of the time of a
// short run.
void* Environment() {
  constexpr int kWarning = 2;
  static void* environment = nullptr;
  if (environment == nullptr) {
    LoadFunctions();
    Do(kCreateEnvWithCustomLogger, &Log, static_cast<void*>(nullptr), kWarning, "quilm",
       &environment);
  }
  return environment;
}

std::vector<int64_t> ReadDims(void* info) {
  size_t count = 0;
  Do(kGetDimensionsCount, info, &count);
  std::vector<int64_t> dims(count);
  Do(kGetDimensions, info, dims.data(), count);
  return dims;
}

class Session {
 public:
  Session(std::string_view file, const std::vector<Tensor>& inputs, std::vector<Tensor>& outputs,
          size_t threads)
      : inputs_(inputs) {
    void* environment = Environment();
    const auto options = Make(kCreateSessionOptions, kReleaseSessionOptions);
    Do(kSetIntraOpNumThreads, options.get(), static_cast<int>(threads));
    TakeProblems();  // what was said of the machine's devices
    session_ = Make(kCreateSessionFromArray, kReleaseSession, environment, file.data(), file.size(),
                    options.get());
    memory_ = Make(kCreateCpuMemoryInfo, kReleaseMemoryInfo, 0, 0);
    for (size_t i = 0; i < outputs.size(); ++i) {
      DescribeOutput(i, outputs[i]);
    }
    outputs_ = outputs;
    TakeProblems();  // warnings that came to nothing
  }

  std::vector<Array> Run(const std::vector<Array>& inputs) const {
    std::vector<Handle> owners;
    std::vector<void*> values;
    std::vector<const char*> names;
    for (size_t i = 0; i < inputs.size(); ++i) {
      owners.push_back(Make(kCreateTensorWithDataAsOrtValue, kReleaseValue, memory_.get(),
                            inputs[i].bytes.data(), inputs[i].bytes.size(), inputs[i].dims.data(),
                            inputs[i].dims.size(), inputs_[i].type->onnx));
      values.push_back(owners.back().get());
      names.push_back(inputs_[i].name.c_str());
    }
    for (const Tensor& output : outputs_) {
      names.push_back(output.name.c_str());
    }
    std::vector<void*> results(outputs_.size());
    Do(kRun, session_.get(), static_cast<void*>(nullptr), names.data(), values.data(),
       values.size(), names.data() + values.size(), results.size(), results.data());
    for (void* result : results) {
      owners.push_back(Own(result, kReleaseValue));
    }
    TakeProblems();  // warnings that came to nothing
    std::vector<Array> outputs;
    for (size_t i = 0; i < results.size(); ++i) {
      outputs.push_back(CopyResult(results[i], outputs_[i].type->modelBytes));
    }
    return outputs;
  }

 private:
  void DescribeOutput(size_t index, Tensor& output) {
    const auto type = Make(kSessionGetOutputTypeInfo, kReleaseTypeInfo, session_.get(), index);
    void* info = nullptr;  // of a tensor, owned by the type
    int elementType = 0;
    Do(kCastTypeInfoToTensorInfo, type.get(), &info);
    if (info != nullptr) {
      Do(kGetTensorElementType, info, &elementType);
      output.dims = ReadDims(info);
    }
    output.type = FindElementType(elementType);
    Require(output.type != nullptr, "output", Quoted(output.name),
            " is of a type that has no code");
  }

  static Array CopyResult(void* result, size_t elementBytes) {
    const auto info = Make(kGetTensorTypeAndShape, kReleaseTensorTypeAndShapeInfo, result);
    Array output{ReadDims(info.get()), {}};
    auto size = static_cast<int64_t>(elementBytes);
    for (const int64_t dim : output.dims) {
      size *= dim;
    }
    unsigned char* data = nullptr;
    Do(kGetTensorMutableData, result, &data);
    output.bytes.assign(data, data + size);
    return output;
  }

  std::vector<Tensor> inputs_;
  std::vector<Tensor> outputs_;
  Handle memory_;
  Handle session_;
};

}  // namespace

Engine CreateEngine(std::string_view file, const std::vector<Tensor>& inputs,
                    std::vector<Tensor>& outputs, size_t threads) {
  // The engine's threads inherit that all signals are blocked: they are the tool's to receive.
  sigset_t before;
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &before);
  const auto unblock = [](sigset_t* mask) { pthread_sigmask(SIG_SETMASK, mask, nullptr); };
  const std::unique_ptr<sigset_t, decltype(unblock)> blocked(&before, unblock);
  const auto session = std::make_shared<Session>(file, inputs, outputs, threads);
  return [session](const std::vector<Array>& arrays) { return session->Run(arrays); };
}

}  // namespace quilm_host
