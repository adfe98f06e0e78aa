#include "app/stop_signals.h"

#include <atomic>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <initializer_list>

namespace quilmrun {
namespace {

// Both are written by the handler and read by the run. An atomic of 64 bits has no lock on the
// processors that the tool is built for, so that a handler may use it.
volatile std::sig_atomic_t received = 0;
std::atomic<int64_t> receivedMs = 0;

// The wall clock may be set while the tool runs; this one may not.
int64_t MonotonicMs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

// Only kill() and its like send one request twice. A key that is pressed again is meant.
bool IsSameRequest(const siginfo_t& info) {
  return info.si_code == SI_USER && MonotonicMs() - receivedMs < kSameRequestMs;
}

// Runs as a signal handler, and calls only functions that may be called there.
void NoteSignal(int number, siginfo_t* info, void*) {
  if (received == 0) {
    receivedMs = MonotonicMs();
    received = 1;
  } else if (number != SIGHUP && number != SIGXCPU && !IsSameRequest(*info)) {
    std::signal(number, SIG_DFL);
    std::raise(number);  // delivered when this handler returns
  }
}

// A program that nohup starts, for one, finds SIGHUP ignored.
bool IsIgnored(int number) {
  struct sigaction action = {};
  return sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

}  // namespace

void IgnoreWriteSignals() {
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
}

void CatchStopSignals() {
  struct sigaction action = {};
  action.sa_sigaction = NoteSignal;
  // SA_RESTART: the runtime's system calls go on as if nothing had happened.
  action.sa_flags = SA_SIGINFO | SA_RESTART;
  for (const int number : {SIGINT, SIGTERM, SIGQUIT, SIGHUP, SIGXCPU}) {
    if (!IsIgnored(number)) {
      sigaction(number, &action, nullptr);
    }
  }
}

bool StopSignalReceived() {
  return received != 0;
}

}  // namespace quilmrun
