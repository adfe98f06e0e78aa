// The result of an operation that can fail. The step that failed has printed the reason.
#ifndef QUILMRUN_BASE_STATUS_H_
#define QUILMRUN_BASE_STATUS_H_

namespace quilmrun {

/// Also the process exit status.
constexpr int kSuccess = 0;
constexpr int kFailure = 1;

}  // namespace quilmrun

#endif  // QUILMRUN_BASE_STATUS_H_
