// The place where exceptions end: memory has run out, or the runtime library has thrown something.
// Everything above it works with statuses.
#ifndef QUILMRUN_APP_ATTEMPT_H_
#define QUILMRUN_APP_ATTEMPT_H_

#include <exception>
#include <new>

#include "base/log.h"
#include "base/status.h"

namespace quilmrun {

/// Calls `step` and returns its result. An exception of any type is reported and becomes kFailure.
template <typename Step>
int Attempt(const Step& step) {
  try {
    return step();
  } catch (const std::bad_alloc&) {
    LogError("out of memory");
  } catch (const std::exception& exception) {
    LogError("unexpected exception: %s", exception.what());
  } catch (...) {
    LogError("unexpected exception of an unknown type");
  }
  return kFailure;
}

}  // namespace quilmrun

#endif  // QUILMRUN_APP_ATTEMPT_H_
