// Finds the phases of a run, its inferences and the copies between calls, by what the tool calls
// one after the other.
#include "companions/recorder/follow_run.h"

#include <algorithm>
#include <unordered_map>

#include "runtime/interposer/interposer.h"

namespace quilmrun_record {
namespace {

using quilm_interposer::Id;

// Follows one run, and hands everything to the sink as soon as it is complete.
class Follower {
 public:
  explicit Follower(RunSink& sink) : sink_(sink) {}

  void Follow(const CallEntry& call) {
    const Id id = static_cast<Id>(call.call - 1);
    lastNs_ = std::max(lastNs_, call.beforeNs);
    Before(id, call);
    sink_.OnCall(call, {group_, id == Id::quilm_mdl_execute ? executions_ : -1});
    if (HasReturned(call)) {
      After(id, call);
    }
    lastNs_ = EndOf(call);
  }

  // `endNs` is the end of the last call without an entry.
  void Finish(uint64_t endNs) { EndPhase(std::max(lastNs_, endNs)); }

 private:
  // A phase begins with a call.
  void Before(Id id, const CallEntry& call) {
    if (id == Id::quilm_init) {
      BeginPhase("start", call.startNs);
    } else if (id == Id::quilm_rt_malloc && phase_.empty() && !loaded_) {
      BeginPhase("load", call.startNs);
    } else if (id == Id::quilm_mdl_create_desc) {
      BeginPhase("describe", call.startNs);
    } else if (id == Id::quilm_mdl_create_dataset) {
      BeginDataset(call);
    } else if (id == Id::quilm_mdl_unload || id == Id::quilm_rt_destroy_stream ||
               id == Id::quilm_rt_reset_device) {
      BeginTeardown(call.startNs);
    } else if (id == Id::quilm_rt_free && executedNs_ != 0) {
      EndCopy(SpanKind::kWriteOutputs, "write outputs", executedNs_, call.startNs, 0);
      executedNs_ = 0;
    } else if (id == Id::quilm_create_data_buffer && staged_.object == call.object) {
      if (group_ >= 0 && !isBatchSet_) {
        EndCopy(SpanKind::kStaging, "staging", EndOf(staged_), call.startNs, call.bytes);
      }
      staged_ = {};
    } else if (id == Id::quilm_mdl_load_from_mem && staged_.object == call.object) {
      EndCopy(SpanKind::kReadModel, "read model", EndOf(staged_), call.startNs, call.bytes);
      staged_ = {};
    }
  }

  // A phase ends with a call too.
  void After(Id id, const CallEntry& call) {
    if (id == Id::quilm_rt_malloc && call.result == 0) {
      staged_ = call;
      CountMemory(call, call.bytes);
    } else if (id == Id::quilm_rt_free && call.result == 0) {
      CountMemory(call, 0);
    } else if (id == Id::quilm_rt_get_run_mode || id == Id::quilm_finalize) {
      EndPhase(EndOf(call));
    } else if (id == Id::quilm_mdl_load_from_mem) {
      loaded_ = true;
      EndPhase(EndOf(call));
    } else if (id == Id::quilm_mdl_create_dataset) {
      dataset_ = static_cast<uint64_t>(call.result);
    } else if (id == Id::quilm_mdl_destroy_dataset && call.object == dataset_) {
      EndPhase(EndOf(call), executions_ > 0 && !hasFailed_);
    } else if (id == Id::quilm_mdl_set_dynamic_batch_size) {
      isBatchSet_ = true;
    } else if (id == Id::quilm_mdl_execute) {
      ++executions_;
      hasFailed_ = hasFailed_ || call.result != 0;
      executedNs_ = call.result == 0 ? EndOf(call) : 0;
    }
  }

  // The first dataset takes the outputs of all inferences, each other one takes the inputs of one.
  void BeginDataset(const CallEntry& call) {
    EndPhase(lastNs_);
    if (++datasets_ >= 2) {
      BeginPhase("group " + std::to_string(datasets_ - 2), call.startNs);
      group_ = datasets_ - 2;
      executions_ = 0;
      hasFailed_ = false;
      isBatchSet_ = false;
    }
  }

  void BeginTeardown(uint64_t ns) {
    if (phase_ != "teardown") {
      BeginPhase("teardown", ns);
    }
  }

  void BeginPhase(std::string name, uint64_t ns) {
    EndPhase(lastNs_);
    phase_ = std::move(name);
    phaseNs_ = ns;
  }

  void EndPhase(uint64_t ns, bool isComplete = false) {
    if (!phase_.empty()) {
      sink_.OnSpan({group_ >= 0 ? SpanKind::kInference : SpanKind::kPhase, phase_, phaseNs_, ns, 0,
                    group_, isComplete || group_ < 0});
      phase_.clear();
    }
    group_ = -1;
  }

  void EndCopy(SpanKind kind, const char* name, uint64_t startNs, uint64_t endNs, uint64_t bytes) {
    sink_.OnSpan({kind, name, startNs, endNs, bytes, group_, true});
  }

  void CountMemory(const CallEntry& call, uint64_t bytes) {
    inUse_ += bytes - memory_[call.object];
    memory_[call.object] = bytes;
    if (bytes == 0) {
      memory_.erase(call.object);
    }
    sink_.OnMemory(EndOf(call), inUse_);
  }

  RunSink& sink_;
  std::string phase_;  // empty between phases
  uint64_t phaseNs_ = 0;
  uint64_t lastNs_ = 0;
  bool loaded_ = false;
  long datasets_ = 0;
  uint64_t dataset_ = 0;
  long group_ = -1;
  long executions_ = 0;      // of this group
  bool hasFailed_ = false;   // one of them
  bool isBatchSet_ = false;  // in this group: buffers that follow are not read from files
  uint64_t executedNs_ = 0;  // end of the latest execution, until its outputs are written
  CallEntry staged_{};       // the latest allocation, until it is used
  std::unordered_map<uint64_t, uint64_t> memory_;  // bytes by address
  uint64_t inUse_ = 0;
};

}  // namespace

void FollowRun(const Calls& calls, RunSink& sink) {
  Follower follower(sink);
  calls.ForEach([&](const CallEntry& call) { follower.Follow(call); });
  follower.Finish(calls.Header().endNs);
}

}  // namespace quilmrun_record
