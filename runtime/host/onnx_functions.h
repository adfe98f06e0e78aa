// ONNX Runtime's C interface, as far as it is needed here. The library exports one function, which
// returns a table of function pointers. The table only ever grows at its end, so that a position
// keeps its meaning.
#ifndef QUILMRUN_RUNTIME_HOST_ONNX_FUNCTIONS_H_
#define QUILMRUN_RUNTIME_HOST_ONNX_FUNCTIONS_H_

#include <cstddef>
#include <cstdint>
#include <memory>

#include "runtime/host/diagnostics.h"

namespace quilm_host::onnx {

// The library's objects, which are known by their addresses only.
struct Allocator;
struct Environment;
struct MemoryInfo;
struct RunOptions;
struct Session;
struct SessionOptions;
struct Status;  // a null pointer means success
struct TensorInfo;
struct TypeInfo;
struct Value;

using LogFunction = void(void* parameter, int severity, const char* category, const char* id,
                         const char* location, const char* message);

/// The library's functions, with the names that its own interface gives them. Strings are UTF-8.
struct Functions {
  const char* (*GetErrorMessage)(const Status*);  // owned by the status
  Status* (*CreateEnvWithCustomLogger)(LogFunction*, void* parameter, int severity, const char* id,
                                       Environment**);
  Status* (*CreateSessionFromArray)(const Environment*, const void* model, size_t bytes,
                                    const SessionOptions*, Session**);
  Status* (*Run)(Session*, const RunOptions*, const char* const* inputNames,
                 const Value* const* inputs, size_t inputCount, const char* const* outputNames,
                 size_t outputCount, Value** outputs);
  Status* (*CreateSessionOptions)(SessionOptions**);
  Status* (*SetIntraOpNumThreads)(SessionOptions*, int threads);
  Status* (*SessionGetOutputTypeInfo)(const Session*, size_t index, TypeInfo**);
  // The data stay the caller's. Those of inputs are only read.
  Status* (*CreateTensorWithDataAsOrtValue)(const MemoryInfo*, const void* data, size_t bytes,
                                            const int64_t* dims, size_t dimCount, int elementType,
                                            Value**);
  Status* (*GetTensorMutableData)(Value*, void** data);
  // The tensor info is owned by the type info, and null when that is no tensor's.
  Status* (*CastTypeInfoToTensorInfo)(const TypeInfo*, const TensorInfo**);
  Status* (*GetTensorElementType)(const TensorInfo*, int*);
  Status* (*GetDimensionsCount)(const TensorInfo*, size_t*);
  Status* (*GetDimensions)(const TensorInfo*, int64_t* dims, size_t count);  // -1: not known
  Status* (*GetTensorTypeAndShape)(const Value*, TensorInfo**);
  Status* (*CreateCpuMemoryInfo)(int allocatorType, int memoryType, MemoryInfo**);
  void (*ReleaseStatus)(Status*);
  void (*ReleaseMemoryInfo)(MemoryInfo*);
  void (*ReleaseSession)(Session*);
  void (*ReleaseValue)(Value*);
  void (*ReleaseTypeInfo)(TypeInfo*);
  void (*ReleaseTensorTypeAndShapeInfo)(TensorInfo*);
  void (*ReleaseSessionOptions)(SessionOptions*);
  Status* (*AddSessionConfigEntry)(SessionOptions*, const char* key, const char* value);
};

/// The library's functions. The first call loads the library, and creates its environment, which
/// takes most of the time of a short run. Refuses when there is no library, or one that is too old.
const Functions& Library();

/// The environment, one for the whole process. Library() must have been called.
const Environment* TheEnvironment();

/// Forgets the warnings and errors that the library has logged so far.
void ForgetProblems();

/// Refuses when the status is not null, with everything that the library has reported.
void Check(Status* status);

/// An object of the library with the function that releases it.
template <typename Object>
using Handle = std::unique_ptr<Object, void (*)(Object*)>;

/// Calls a function of the library that hands out an object by its last parameter.
template <typename Object, typename... Parameters, typename... Arguments>
Handle<Object> Make(void (*release)(Object*), Status* (*create)(Parameters...),
                    Arguments... arguments) {
  Object* made = nullptr;
  Check(create(arguments..., &made));
  return {made, release};
}

}  // namespace quilm_host::onnx

#endif  // QUILMRUN_RUNTIME_HOST_ONNX_FUNCTIONS_H_
