// Calls of the runtime that release something. An exception of one must not keep the others from
// being made.
#ifndef QUILMRUN_RUNTIME_RELEASE_H_
#define QUILMRUN_RUNTIME_RELEASE_H_

#include "runtime/quilm.h"

namespace quilmrun {

/// The result of `call`; non-zero when an exception of any type comes out of it.
template <typename Call>
quilm_error Release(const Call& call) noexcept {
  constexpr quilm_error kThrew = -1;
  try {
    return call();
  } catch (...) {
    return kThrew;
  }
}

}  // namespace quilmrun

#endif  // QUILMRUN_RUNTIME_RELEASE_H_
