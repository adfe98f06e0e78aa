// What a calls file tells: the calls of a run, and what they mean together.
#ifndef QUILMRUN_COMPANIONS_RECORDER_CALLS_H_
#define QUILMRUN_COMPANIONS_RECORDER_CALLS_H_

#include <optional>
#include <string>

#include "companions/recorder/calls_file.h"

namespace quilmrun_record {

/// A calls file, mapped into memory.
class Calls {
 public:
  /// Nothing when there is no such file, or it is no calls file.
  static std::optional<Calls> Open(const std::string& path);

  const CallsHeader& Header() const { return file_->header; }
  size_t Count() const { return count_; }
  /// By number; they are in the order in which they began.
  const CallEntry& operator[](size_t number) const {
    return number < file_->header.flushed ? flushed_[number] : file_->latest[number % kLatest];
  }

 private:
  const CallsFile* file_ = nullptr;
  const CallEntry* flushed_ = nullptr;
  size_t count_ = 0;
};

/// The name of the function called.
const char* NameOf(const CallEntry& call);

/// The moment at which the call returned, or, where it did not, at which it began; ns.
uint64_t EndOf(const CallEntry& call);

/// What it returned, as text: a number, or a pointer in hexadecimal.
std::string ResultOf(const CallEntry& call);

/// Where in the run a call is.
struct Place {
  long group = -1;       // inference, counted from 0; -1 outside of them
  long repetition = -1;  // executions of this inference before this one; -1 for other calls
};

/// A stretch of time that calls enclose, or that lies between them.
struct Span {
  const char* category = "";  // "phase", or "copy": the tool moves data, and no call is in progress
  std::string name;
  uint64_t startNs = 0;
  uint64_t endNs = 0;
  uint64_t bytes = 0;  // of a copy
  long group = -1;
  bool isComplete = true;  // false for an inference that did not get to its end
};

/// Takes what FollowRun() finds.
class RunSink {
 public:
  virtual ~RunSink() = default;
  virtual void OnCall(const CallEntry& call, const Place& place) = 0;
  virtual void OnSpan(const Span& span) = 0;
  /// Device memory in use from this moment on.
  virtual void OnMemory(uint64_t ns, uint64_t bytes) = 0;
};

/// Follows the calls of a run and recognises by their order, which is always the same, what the
/// tool is at:
/// - phases: "start", "load", "describe", "group K" for each inference, from the creation of its
///   input dataset to the end of that, and "teardown";
/// - copies: "read model", "staging" (an input file into device memory, from the end of the
/// memory's
///   allocation to the creation of the data buffer over it) and "write outputs" (from the end of an
///   inference's last execution to the release of its first input).
void FollowRun(const Calls& calls, RunSink& sink);

}  // namespace quilmrun_record

#endif  // QUILMRUN_COMPANIONS_RECORDER_CALLS_H_
