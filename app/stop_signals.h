// Signals that ask the process to end. An accelerator whose runtime nobody finalised stays
// initialised, so none of them may end a run before its teardown.
#ifndef QUILMRUN_APP_STOP_SIGNALS_H_
#define QUILMRUN_APP_STOP_SIGNALS_H_

namespace quilmrun {

/// From here on the first SIGINT, SIGTERM or SIGHUP is only noted, and the next one ends the
/// process at once. A SIGHUP that is ignored, as nohup arranges, stays ignored. Writing in vain
/// shows as a failing write instead of ending the process (SIGPIPE, SIGXFSZ).
void CatchStopSignals();

/// True once a signal has been noted.
bool StopSignalReceived();

}  // namespace quilmrun

#endif  // QUILMRUN_APP_STOP_SIGNALS_H_
