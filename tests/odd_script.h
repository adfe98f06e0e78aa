// What the odd runtime is told to be, and what it notes about its callers. quilm_init() reads its
// script from the file it is given:
//
//   log FILE                                     record calls here
//   input NAME TYPE SIZE STRIDE DIM...           model inputs and outputs in order; NAME "-" is
//   output NAME TYPE SIZE STRIDE DIM...          null, "." empty, "*" 128 letters without a NUL
//   dim_count N                                  claim N dimensions for every tensor
//   net_type N, run_mode N, reported_size N
//   fail FUNCTION N CODE                         the N-th call of FUNCTION returns CODE (0: null)
//   signal FUNCTION N NUMBER                     ... is interrupted by a signal
//   kill FUNCTION N NUMBER                       ... by two, as if another process had sent them
//   run FUNCTION N COMMAND                       ... runs a shell command first
#ifndef QUILMRUN_TESTS_ODD_SCRIPT_H_
#define QUILMRUN_TESTS_ODD_SCRIPT_H_

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

struct OddTensor {
  std::string name;
  int32_t type = 0;
  size_t size = 0;
  size_t stride = 0;
  std::vector<int64_t> dims;
};

/// What happens at one call.
struct OddEvent {
  bool fails = false;
  long code = 0;
  int signal = 0;
  bool twiceFromOutside = false;
  std::string command;
};

struct OddRuntime {
  std::FILE* log = nullptr;
  std::vector<OddTensor> inputs;
  std::vector<OddTensor> outputs;
  std::map<std::string, long> numbers;                     // dim_count, net_type, ...
  std::map<std::pair<std::string, int>, OddEvent> events;  // by function and call
  std::map<std::string, int> calls;
  std::set<const void*> live;  // everything handed out
  long openFiles = 0;          // when the script had been read
};

extern OddRuntime odd;

/// False when there is no such script.
bool ReadScript(const char* path);

long NumberOr(const char* key, long fallback);

/// The file descriptors that the process has open.
long CountOpenFiles();

/// Records the call and does what is due at it; true, with the code to return in `code`, when it is
/// to fail.
__attribute__((format(printf, 3, 4))) bool Fails(long& code, const char* function,
                                                 const char* format, ...);

/// Calls that return a pointer fail with null, whatever the code.
template <typename Result>
Result Failure(long code) {
  if constexpr (std::is_pointer_v<Result>) {
    return nullptr;
  } else {
    return static_cast<Result>(code);
  }
}

// Every function of the interface starts with this one.
#define RECORD(Result, ...)                                \
  if (long code = 0; Fails(code, __func__, __VA_ARGS__)) { \
    return Failure<Result>(code);                          \
  }

template <typename Object>
Object* Track(Object* object) {
  odd.live.insert(object);
  return object;
}

inline int Forget(const void* object) {
  return odd.live.erase(object) == 1 ? 0 : 9;
}

inline const OddTensor& At(const std::vector<OddTensor>& tensors, size_t index) {
  static const OddTensor kNone;
  return index < tensors.size() ? tensors[index] : kNone;
}

#endif  // QUILMRUN_TESTS_ODD_SCRIPT_H_
