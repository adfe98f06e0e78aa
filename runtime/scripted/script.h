// A script tells the scripted runtime what to do differently from the host runtime. quilm_init()
// reads it from the file that it is given:
//
//   log FILE                      record calls here, with their numbers
//   settings FILE                 give the host runtime these settings
//   input NAME TYPE SIZE STRIDE DIM...
//   output NAME TYPE SIZE STRIDE DIM...
//                                 describe a model of these instead of the one that is loaded;
//                                 NAME "-" is null, "." empty, "*" 128 letters without a NUL
//   dim_count N                   claim N dimensions for every tensor
//   net_type N, run_mode N, reported_size N
//
// A line of the following kinds tells what happens at the N-th call of FUNCTION, or, when N is 0,
// at every call without a line of its own. Several may happen at one call, in this order:
//
//   run FUNCTION N COMMAND        a shell command is run
//   locale FUNCTION N NAME        the process gets this locale
//   print FUNCTION N TEXT         the text goes to standard output through stdio; a newline
//                                 follows it where it ends in "\n"
//   signal FUNCTION N NUMBER      a signal interrupts the call
//   kill FUNCTION N NUMBER MS     two signals do, MS apart, as if another process had sent them
//   spend FUNCTION N US           so many microseconds pass
//   throw FUNCTION N TYPE         an exception leaves the call: an "int", or an "error"
//   fail FUNCTION N CODE          the call returns CODE (0: null) and does nothing
//   claim FUNCTION N CODE         the call is made, and returns CODE all the same
#ifndef QUILMRUN_RUNTIME_SCRIPTED_SCRIPT_H_
#define QUILMRUN_RUNTIME_SCRIPTED_SCRIPT_H_

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <utility>
#include <vector>

struct ScriptedTensor {
  std::string name;
  int32_t type = 0;
  size_t size = 0;    // bytes
  size_t stride = 0;  // bytes
  std::vector<int64_t> dims;
};

/// What is due at a call: {"signal", "15"}, ... Empty when nothing is.
using Event = std::map<std::string, std::string>;

struct Script {
  std::FILE* log = nullptr;
  std::string settings;
  std::vector<ScriptedTensor> inputs;
  std::vector<ScriptedTensor> outputs;
  std::map<std::string, long> numbers;                  // dim_count, net_type, ...
  std::map<std::pair<std::string, int>, Event> events;  // by function and call
  std::map<std::string, int> calls;
  std::map<const void*, size_t> strides;  // bytes, by the memory of a data buffer
};

extern Script script;

/// Above 0 while the process is in a call of the runtime, or is being started.
extern int callsInProgress;

/// Reads the script at `path`. False when there is none.
bool ReadScript(const char* path);

/// The number that the script gives for `key`, or `fallback`.
long NumberOr(const char* key, long fallback);

/// Counts the call; returns what is due at it.
const Event& NextEvent(const char* function);

/// Does what is due, except for "fail" and "claim", which are about the result of the call.
void Perform(const Event& event);

#endif  // QUILMRUN_RUNTIME_SCRIPTED_SCRIPT_H_
