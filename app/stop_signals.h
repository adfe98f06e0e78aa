// Signals that ask the process to end. An accelerator whose runtime nobody finalised stays
// initialised, so none of them may end a run before its teardown.
#ifndef QUILMRUN_APP_STOP_SIGNALS_H_
#define QUILMRUN_APP_STOP_SIGNALS_H_

namespace quilmrun {

/// From here on a write that nobody reads, or beyond the largest size of a file, fails instead of
/// ending the process (SIGPIPE, SIGXFSZ).
void IgnoreWriteSignals();

/// From here on the first SIGINT, SIGTERM, SIGQUIT, SIGHUP or SIGXCPU is only noted, and another
/// SIGINT, SIGTERM or SIGQUIT ends the process at once. One that another process sends within
/// kSameRequestMs counts as the first again: timeout, for one, signals both its child and the group
/// that the child is in. A SIGHUP never ends the process, since a terminal that goes away may send
/// several, nor does a SIGXCPU, which comes every second once the time is used up. A signal that
/// the parent has set to be ignored, as nohup does, stays ignored.
void CatchStopSignals();

constexpr int kSameRequestMs = 20;

/// True once a signal has been noted.
bool StopSignalReceived();

}  // namespace quilmrun

#endif  // QUILMRUN_APP_STOP_SIGNALS_H_
