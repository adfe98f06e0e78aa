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

/// An entry of the library's table, which becomes a pointer to a function of the type that is asked
/// for.
struct Entry {
  void* function;

  template <typename Function>
  operator Function*() const {  // NOLINT(google-explicit-constructor): that is what it is for
    return reinterpret_cast<Function*>(function);
  }
};

/// The library's functions, named as in its own interface. Strings are UTF-8.
struct Functions {
  void* const* table;
  const char* (*getErrorMessage)(const Status*) = Entry{table[2]};  // owned by the status
  Status* (*createEnvWithCustomLogger)(LogFunction*, void* parameter, int severity, const char* id,
                                       Environment**) = Entry{table[4]};
  Status* (*createSessionFromArray)(const Environment*, const void* model, size_t bytes,
                                    const SessionOptions*, Session**) = Entry{table[8]};
  Status* (*run)(Session*, const RunOptions*, const char* const* inputNames,
                 const Value* const* inputs, size_t inputCount, const char* const* outputNames,
                 size_t outputCount, Value** outputs) = Entry{table[9]};
  Status* (*createSessionOptions)(SessionOptions**) = Entry{table[10]};
  Status* (*setIntraOpNumThreads)(SessionOptions*, int threads) = Entry{table[24]};
  Status* (*sessionGetOutputTypeInfo)(const Session*, size_t index, TypeInfo**) = Entry{table[34]};
  // The data stay the caller's. Those of inputs are only read.
  Status* (*createTensorWithDataAsOrtValue)(const MemoryInfo*, const void* data, size_t bytes,
                                            const int64_t* dims, size_t dimCount, int elementType,
                                            Value**) = Entry{table[49]};
  Status* (*getTensorMutableData)(Value*, void** data) = Entry{table[51]};
  // The tensor info is owned by the type info, and null when that is no tensor's.
  Status* (*castTypeInfoToTensorInfo)(const TypeInfo*, const TensorInfo**) = Entry{table[55]};
  Status* (*getTensorElementType)(const TensorInfo*, int*) = Entry{table[60]};
  Status* (*getDimensionsCount)(const TensorInfo*, size_t*) = Entry{table[61]};
  Status* (*getDimensions)(const TensorInfo*, int64_t* dims,
                           size_t count) = Entry{table[62]};  // -1: not known
  Status* (*getTensorTypeAndShape)(const Value*, TensorInfo**) = Entry{table[65]};
  Status* (*createCpuMemoryInfo)(int allocatorType, int memoryType,
                                 MemoryInfo**) = Entry{table[69]};
  void (*releaseStatus)(Status*) = Entry{table[93]};
  void (*releaseMemoryInfo)(MemoryInfo*) = Entry{table[94]};
  void (*releaseSession)(Session*) = Entry{table[95]};
  void (*releaseValue)(Value*) = Entry{table[96]};
  void (*releaseTypeInfo)(TypeInfo*) = Entry{table[98]};
  void (*releaseTensorTypeAndShapeInfo)(TensorInfo*) = Entry{table[99]};
  void (*releaseSessionOptions)(SessionOptions*) = Entry{table[100]};
  Status* (*addSessionConfigEntry)(SessionOptions*, const char* key,
                                   const char* value) = Entry{table[130]};
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
