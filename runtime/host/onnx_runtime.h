// The part of ONNX Runtime's C interface that the engine calls. The library exports one function,
// which hands out a table of function pointers; the table only ever grows at its end, so that a
// position keeps its meaning.
#ifndef QUILMRUN_RUNTIME_HOST_ONNX_RUNTIME_H_
#define QUILMRUN_RUNTIME_HOST_ONNX_RUNTIME_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

struct OrtStatus;
struct OrtEnv;
struct OrtSession;
struct OrtSessionOptions;
struct OrtRunOptions;
struct OrtMemoryInfo;
struct OrtTypeInfo;
struct OrtTensorInfo;
struct OrtValue;

namespace quilm_host::ort {

/// Loads the library once per process, and its environment with it: not before there is a model to
/// load. Returns an empty string, or why there is no engine.
std::string Load();

/// Null before Load().
extern OrtEnv* environment;

/// True for success; otherwise the problem's text is kept for TakeProblems().
bool Succeeded(OrtStatus* status);

/// Adds a problem for TakeProblems().
void Keep(std::string text);

/// What the library has reported since the last time, by results and as warnings and errors in its
/// log; one problem a line, the latest first.
std::string TakeProblems();

extern const void* const* functions;

template <size_t kPosition, typename Result, typename... Arguments>
struct Function {
  static Result Call(Arguments... arguments) {
    void* const function = const_cast<void*>(functions[kPosition]);
    return reinterpret_cast<Result (*)(Arguments...)>(function)(arguments...);
  }
};

using LogFunction = void (*)(void* parameter, int severity, const char* category, const char* id,
                             const char* location, const char* message);

// clang-format off
using GetErrorMessage = Function<2, const char*, const OrtStatus*>;
using CreateEnvironment = Function<4, OrtStatus*, LogFunction, void*, int, const char*, OrtEnv**>;
using CreateSession = Function<8, OrtStatus*, const OrtEnv*, const void*, size_t,
                               const OrtSessionOptions*, OrtSession**>;
using Run = Function<9, OrtStatus*, OrtSession*, const OrtRunOptions*, const char* const*,
                     const OrtValue* const*, size_t, const char* const*, size_t, OrtValue**>;
using CreateSessionOptions = Function<10, OrtStatus*, OrtSessionOptions**>;
using SetIntraOpThreads = Function<24, OrtStatus*, OrtSessionOptions*, int>;
using GetOutputTypeInfo = Function<34, OrtStatus*, const OrtSession*, size_t, OrtTypeInfo**>;
using CreateTensorWithData = Function<49, OrtStatus*, const OrtMemoryInfo*, void*, size_t,
                                      const int64_t*, size_t, int, OrtValue**>;
using GetTensorData = Function<51, OrtStatus*, OrtValue*, void**>;
using CastToTensorInfo = Function<55, OrtStatus*, const OrtTypeInfo*, const OrtTensorInfo**>;
using GetElementType = Function<60, OrtStatus*, const OrtTensorInfo*, int*>;
using GetDimensionsCount = Function<61, OrtStatus*, const OrtTensorInfo*, size_t*>;
using GetDimensions = Function<62, OrtStatus*, const OrtTensorInfo*, int64_t*, size_t>;
using GetElementCount = Function<64, OrtStatus*, const OrtTensorInfo*, size_t*>;
using GetTensorInfo = Function<65, OrtStatus*, const OrtValue*, OrtTensorInfo**>;
using CreateCpuMemoryInfo = Function<69, OrtStatus*, int, int, OrtMemoryInfo**>;
using ReleaseStatus = Function<93, void, OrtStatus*>;
using ReleaseMemoryInfo = Function<94, void, OrtMemoryInfo*>;
using ReleaseSession = Function<95, void, OrtSession*>;
using ReleaseValue = Function<96, void, OrtValue*>;
using ReleaseTypeInfo = Function<98, void, OrtTypeInfo*>;
using ReleaseTensorInfo = Function<99, void, OrtTensorInfo*>;
using ReleaseSessionOptions = Function<100, void, OrtSessionOptions*>;
// clang-format on

template <typename Handle, typename Release>
struct Releaser {
  void operator()(Handle* handle) const { Release::Call(handle); }
};
template <typename Handle, typename Release>
using Owner = std::unique_ptr<Handle, Releaser<Handle, Release>>;

using Status = Owner<OrtStatus, ReleaseStatus>;
using MemoryInfo = Owner<OrtMemoryInfo, ReleaseMemoryInfo>;
using Session = Owner<OrtSession, ReleaseSession>;
using SessionOptions = Owner<OrtSessionOptions, ReleaseSessionOptions>;
using Value = Owner<OrtValue, ReleaseValue>;
using TypeInfo = Owner<OrtTypeInfo, ReleaseTypeInfo>;
using TensorInfo = Owner<OrtTensorInfo, ReleaseTensorInfo>;

/// Calls a function that hands out a handle by its last argument.
template <typename Create, typename Handle, typename... Arguments>
bool Make(Handle& handle, Arguments... arguments) {
  typename Handle::pointer made = nullptr;
  const bool succeeded = Succeeded(Create::Call(arguments..., &made));
  handle.reset(made);
  return succeeded;
}

}  // namespace quilm_host::ort

#endif  // QUILMRUN_RUNTIME_HOST_ONNX_RUNTIME_H_
