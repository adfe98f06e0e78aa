#include "companions/recorder/statistics.h"

#include <algorithm>
#include <iterator>

#include "companions/recorder/call_kinds.h"

namespace quilmrun_record {

const RowName kRowNames[kRows] = {{"load", "load"},
                                  {"warm_up", "execute: warm-up"},
                                  {"execute", "execute: all others"},
                                  {"execute_first", "  first of an inference"},
                                  {"execute_repeated", "  repetitions (-p 1)"},
                                  {"staging", "staging of inputs"},
                                  {"write_outputs", "writing of outputs"},
                                  {"inference", "whole inferences"}};

namespace {

using quilm_interposer::Id;

constexpr size_t kMostMemoryPoints = 4096;
constexpr size_t kMostOutputs = 4096;

// Fills the figures of a bin, and empties the durations for the next one.
void Summarize(std::vector<uint64_t>& durations, CourseBin& bin) {
  bin.executions = durations.size();
  if (!durations.empty()) {
    std::sort(durations.begin(), durations.end());
    const size_t middle = durations.size() / 2;
    const size_t other = durations.size() - 1 - middle;
    bin.minNs = durations.front();
    bin.medianNs =
        (static_cast<double>(durations[other]) + static_cast<double>(durations[middle])) / 2;
    bin.maxNs = durations.back();
  }
  durations.clear();
}

// Makes the measurements while the run is followed.
class Meter : public RunSink {
 public:
  Meter(Measurements& results, const CallsHeader& header, size_t bins, size_t slowest)
      : results_(results), slowest_(slowest) {
    // The first dataset takes the outputs. A damaged file may claim any number.
    constexpr uint64_t kMostDatasets = uint64_t{1} << 40;
    expected_ = static_cast<long>(std::clamp<uint64_t>(header.datasets, 2, kMostDatasets) - 1);
    const auto most = static_cast<long>(bins);
    results_.inferencesPerBin = (expected_ + most - 1) / most;
    std::copy(std::begin(header.withoutEntry), std::end(header.withoutEntry),
              results_.functions.begin());
  }

  void OnCall(const CallEntry& call, const Place& place) override {
    firstNs_ = results_.calls == 0 ? call.startNs : firstNs_;
    lastNs_ = std::max({lastNs_, call.beforeNs, EndOf(call)});
    results_.unfinished = HasReturned(call) ? nullptr : NameOf(call);
    ++results_.calls;
    EnterInference(place.group, call.startNs);
    if (!HasReturned(call)) {
      ++results_.functions[call.call - 1].count;
      return;
    }
    Add(call, results_.functions[call.call - 1]);
    const Id id = static_cast<Id>(call.call - 1);
    if (id == Id::quilm_mdl_get_output_data_type && results_.inferences == 0 &&
        results_.outputTypes.size() < kMostOutputs) {
      results_.outputTypes.push_back(call.result);
    }
    if (call.result != 0) {
      return;
    }
    if (id == Id::quilm_mdl_load_from_mem) {
      results_.rows[kLoad].Add(call.durationNs);
    } else if (id == Id::quilm_mdl_execute) {
      AddExecution(call.durationNs, place);
    }
  }

  void OnSpan(const Span& span) override {
    const uint64_t ns = span.endNs - span.startNs;
    if (span.kind == SpanKind::kStaging) {
      results_.rows[kStaging].Add(ns);
    } else if (span.kind == SpanKind::kWriteOutputs) {
      results_.rows[kWriteOutputs].Add(ns);
    } else if (span.kind == SpanKind::kInference && span.isComplete) {
      results_.rows[kInference].Add(ns);
      results_.loopEndNs = span.endNs;
      KeepIfSlow({ns, span.group});
    }
  }

  void OnMemory(uint64_t ns, uint64_t bytes) override {
    results_.peakBytes = std::max(results_.peakBytes, bytes);
    if (group_ < 0) {
      EndPeak();
      AddMemory({ns, bytes});
    } else if (bytes > most_.bytes) {
      most_ = {ns, bytes};
    }
  }

  // `endNs` is the end of the last call without an entry.
  void Finish(uint64_t endNs) {
    EndBin();
    results_.spanNs = std::max({lastNs_, endNs, firstNs_}) - firstNs_;
    if (results_.rows[kExecuteRepeated].Count() == 0) {
      results_.rows[kExecuteFirst] = {};  // there is nothing to tell them from
    }
    std::sort(results_.slowest.begin(), results_.slowest.end(), IsSlower);
  }

 private:
  static bool IsSlower(const SlowInference& a, const SlowInference& b) {
    return a.ns != b.ns ? a.ns > b.ns : a.group < b.group;
  }

  void EnterInference(long group, uint64_t ns) {
    if (group >= 0 && group_ != group) {
      results_.loopStartNs = results_.inferences == 0 ? ns : results_.loopStartNs;
      results_.inferences = group + 1;
      if (group % results_.inferencesPerBin == 0) {
        EndBin();
        bin_.inference = group;
        bin_.startNs = ns;
      }
    }
    group_ = group;
  }

  void AddExecution(uint64_t ns, const Place& place) {
    executions_.push_back(ns);
    if (results_.rows[kWarmUp].Count() == 0) {
      results_.rows[kWarmUp].Add(ns);
      return;
    }
    results_.rows[kExecute].Add(ns);
    results_.rows[place.repetition == 0 ? kExecuteFirst : kExecuteRepeated].Add(ns);
    const auto tenths = static_cast<long>(results_.tenths.size());
    const long tenth = std::max(place.group, 0L) * tenths / expected_;
    results_.tenths[static_cast<size_t>(std::min(tenth, tenths - 1))].Add(ns);
  }

  void EndBin() {
    if (!executions_.empty()) {
      Summarize(executions_, bin_);
      results_.course.push_back(bin_);
    }
    EndPeak();
  }

  void EndPeak() {
    if (most_.bytes > 0) {
      AddMemory(most_);
    }
    most_ = {};
  }

  void AddMemory(const MemoryPoint& point) {
    if (results_.memory.size() < kMostMemoryPoints) {
      results_.memory.push_back(point);
    }
  }

  // The heap has the fastest of the slow ones on top.
  void KeepIfSlow(const SlowInference& inference) {
    std::vector<SlowInference>& heap = results_.slowest;
    heap.push_back(inference);
    std::push_heap(heap.begin(), heap.end(), IsSlower);
    if (heap.size() > slowest_) {
      std::pop_heap(heap.begin(), heap.end(), IsSlower);
      heap.pop_back();
    }
  }

  Measurements& results_;
  size_t slowest_;
  long expected_ = 1;  // inferences
  uint64_t firstNs_ = 0;
  uint64_t lastNs_ = 0;
  long group_ = -1;
  CourseBin bin_;
  std::vector<uint64_t> executions_;  // of the bin, ns
  MemoryPoint most_;                  // of device memory within the bin
};

}  // namespace

Measurements Measure(const Calls& calls, size_t bins, size_t slowest) {
  Measurements results;
  Meter meter(results, calls.Header(), bins, slowest);
  FollowRun(calls, meter);
  meter.Finish(calls.Header().endNs);
  return results;
}

}  // namespace quilmrun_record
