#include "app/stop_signals.h"

#include <csignal>

namespace quilmrun {
namespace {

volatile std::sig_atomic_t received = 0;

// Calls nothing but what a signal handler may.
void NoteSignal(int number) {
  if (received != 0) {
    std::signal(number, SIG_DFL);
    std::raise(number);  // delivered when this handler returns
  }
  received = 1;
}

void SetHandler(int number, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;  // the runtime's system calls go on as if nothing had happened
  sigaction(number, &action, nullptr);
}

bool IsIgnored(int number) {
  struct sigaction action {};
  return sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

}  // namespace

void CatchStopSignals() {
  SetHandler(SIGINT, NoteSignal);
  SetHandler(SIGTERM, NoteSignal);
  if (!IsIgnored(SIGHUP)) {
    SetHandler(SIGHUP, NoteSignal);
  }
  SetHandler(SIGPIPE, SIG_IGN);
  SetHandler(SIGXFSZ, SIG_IGN);
}

bool StopSignalReceived() {
  return received != 0;
}

}  // namespace quilmrun
