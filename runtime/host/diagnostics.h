// How the host runtime explains itself: lines on standard error with the prefix "host runtime: ",
// apart from the tool's own messages on standard output.
#ifndef QUILMRUN_RUNTIME_HOST_DIAGNOSTICS_H_
#define QUILMRUN_RUNTIME_HOST_DIAGNOSTICS_H_

namespace quilm_host {

/// Prints a problem, each of its lines with the prefix; other control characters become blanks.
void Explain(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace quilm_host

#endif  // QUILMRUN_RUNTIME_HOST_DIAGNOSTICS_H_
