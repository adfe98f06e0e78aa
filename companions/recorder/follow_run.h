// What the calls of a run mean together.
#ifndef QUILMRUN_COMPANIONS_RECORDER_FOLLOW_RUN_H_
#define QUILMRUN_COMPANIONS_RECORDER_FOLLOW_RUN_H_

#include <string>

#include "companions/recorder/calls.h"

namespace quilmrun_record {

/// Where in the run a call is.
struct Place {
  long group = -1;       // inference, counted from 0; -1 outside of them
  long repetition = -1;  // executions of this inference before this one; -1 for other calls
};

enum class SpanKind {
  kPhase,         // such as "load"; calls lie within
  kInference,     // a phase too
  kReadModel,     // this one and the following are copies: the tool moves data between two calls
  kStaging,       // an input file into device memory
  kWriteOutputs,  // all output files of an inference
};

/// A stretch of time that calls enclose, or that lies between them.
struct Span {
  SpanKind kind = SpanKind::kPhase;
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
/// - copies: "read model", "staging" (from the end of the memory's allocation to the creation of
///   the data buffer over it) and "write outputs" (from the end of an inference's last execution to
///   the release of its first input).
void FollowRun(const Calls& calls, RunSink& sink);

}  // namespace quilmrun_record

#endif  // QUILMRUN_COMPANIONS_RECORDER_FOLLOW_RUN_H_
