// Signals that ask the process to end. An accelerator whose runtime nobody finalised stays
// initialised, so none of them may end a run before its teardown.
#ifndef QUILMRUN_APP_STOP_SIGNALS_H_
#define QUILMRUN_APP_STOP_SIGNALS_H_

namespace quilmrun {

/// From here on the first SIGINT, SIGTERM or SIGHUP is only noted, and another SIGINT or SIGTERM
/// ends the process at once. One that another process sends within kSameRequestMs counts as the
/// first again: timeout, for one, signals both its child and the group that the child is in. A
/// SIGHUP never ends the process, since a terminal that goes away may send several, and one that is
/// ignored, as nohup arranges, stays ignored. Writing in vain shows as a failing write instead of
/// ending the process (SIGPIPE, SIGXFSZ).
void CatchStopSignals();

constexpr int kSameRequestMs = 20;

/// True once a signal has been noted.
bool StopSignalReceived();

}  // namespace quilmrun

#endif  // QUILMRUN_APP_STOP_SIGNALS_H_
