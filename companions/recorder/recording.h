// Notes calls into a calls file. This has to be fast, and to need nothing but libc.
#ifndef QUILMRUN_COMPANIONS_RECORDER_RECORDING_H_
#define QUILMRUN_COMPANIONS_RECORDER_RECORDING_H_

#include <atomic>
#include <ctime>

#include "companions/recorder/calls_file.h"

namespace quilmrun_record {

inline uint64_t MonotonicNs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec);
}

/// Calls may come from several threads, and from within others.
class Recording {
 public:
  /// Goes on with the calls file at `path`, which has been prepared. Returns null, or a text that
  /// says why nothing is recorded.
  const char* Open(const char* path, const char* library);

  /// Notes that the call of `entry`, which says what is known of it, begins now. Returns its
  /// number.
  size_t Begin(CallEntry& entry);

  /// Notes that call `number` has returned `result` just now, and what else `entry` says.
  void End(size_t number, CallEntry& entry, int64_t result);

  /// Notes that the process ends by itself.
  void Close();

 private:
  const char* Map(const char* path);
  void MeasureCost();
  bool Flush();
  void TakeBack(const CallEntry& entry);

  CallsFile* mapped_ = nullptr;
  uint64_t startNs_ = 0;
  std::atomic_flag busy_ = ATOMIC_FLAG_INIT;
  int file_ = -1;
};

}  // namespace quilmrun_record

#endif  // QUILMRUN_COMPANIONS_RECORDER_RECORDING_H_
