// How the host runtime explains itself: lines on standard error with the prefix "host runtime: ",
// apart from the tool's own messages on standard output. What refuses a call throws, and the
// interface turns that into an explanation and an error code, in one place.
#ifndef QUILMRUN_RUNTIME_HOST_DIAGNOSTICS_H_
#define QUILMRUN_RUNTIME_HOST_DIAGNOSTICS_H_

#include <stdexcept>
#include <string>

#include "runtime/quilm.h"

namespace quilm_host {

enum ErrorCode : quilm_error {
  kOk = 0,
  kNotInitialized = 100,
  kBadArgument = 101,
  kUnknownHandle = 102,
  kOutOfMemory = 103,
  kBadSettings = 104,
  kBadModel = 105,
  kBadDataset = 106,
  kEngineFailed = 107
};

struct Refusal : std::runtime_error {
  Refusal(ErrorCode errorCode, const std::string& reason)
      : std::runtime_error(reason), code(errorCode) {}
  ErrorCode code;
};

/// Prints a problem, each line of it with the prefix.
void Explain(const std::string& problem);

/// The texts in quotation marks, for names.
std::string Quoted(const std::string& name);

/// Throws a Refusal whose reason is the texts joined.
template <typename... Texts>
[[noreturn]] void Refuse(ErrorCode code, const Texts&... texts) {
  throw Refusal(code, (std::string() + ... + texts));
}

/// Calls `body`; the reason of a Refusal is put after what it is about.
template <typename Body>
void About(const std::string& subject, const Body& body) {
  try {
    body();
  } catch (const Refusal& refusal) {
    throw Refusal(refusal.code, subject + ": " + refusal.what());
  }
}

}  // namespace quilm_host

#endif  // QUILMRUN_RUNTIME_HOST_DIAGNOSTICS_H_
