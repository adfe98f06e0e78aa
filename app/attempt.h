// Where exceptions end: memory that runs out, and whatever the runtime library throws.
#ifndef QUILMRUN_APP_ATTEMPT_H_
#define QUILMRUN_APP_ATTEMPT_H_

#include <exception>
#include <new>

#include "base/log.h"
#include "base/status.h"

namespace quilmrun {

/// The result of `step`; kFailure, after a report, when an exception of any type comes out of it.
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
