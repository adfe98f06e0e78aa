// Signals that ask the process to end. The first one may not end a run before its teardown: an
// accelerator stays initialised until its runtime is finalised.
#ifndef QUILMRUN_APP_STOP_SIGNALS_H_
#define QUILMRUN_APP_STOP_SIGNALS_H_

namespace quilmrun {

/// Makes a write fail that nobody reads, or that exceeds the largest size of a file. Otherwise
/// SIGPIPE or SIGXFSZ would end the process.
void IgnoreWriteSignals();

/// From here on, the first SIGINT, SIGTERM, SIGQUIT, SIGHUP or SIGXCPU is only noted. Another
/// SIGINT, SIGTERM or SIGQUIT ends the process at once, unless another process sends it within
/// kSameRequestMs of the first: timeout, for one, signals its child and then the group that the
/// child is in. SIGHUP never ends the process, since a terminal that goes away may send several.
/// Nor does SIGXCPU, which comes every second once the time is used up. A signal that the parent
/// has set to be ignored, as nohup does, stays ignored.
void CatchStopSignals();

constexpr int kSameRequestMs = 20;

/// True once a signal has been noted.
bool StopSignalReceived();

}  // namespace quilmrun

#endif  // QUILMRUN_APP_STOP_SIGNALS_H_
