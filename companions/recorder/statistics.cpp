#include "companions/recorder/statistics.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <numeric>

#include "runtime/interposer/interposer.h"

namespace quilmrun_record {
namespace {

using quilm_interposer::Id;

constexpr double kNsPerMs = 1e6;

using Durations = std::map<std::string, std::vector<double>>;  // ms, by key

class Collector : public RunSink {
 public:
  void OnCall(const CallEntry& call, const Place& place) override {
    const Id id = static_cast<Id>(call.call - 1);
    if (call.durationNs == kUnfinished || call.result != 0) {
      return;
    }
    const double ms = static_cast<double>(call.durationNs) / kNsPerMs;
    if (id == Id::quilm_mdl_load_from_mem) {
      durations["load"].push_back(ms);
    } else if (id == Id::quilm_mdl_execute && durations["warm_up"].empty()) {
      durations["warm_up"].push_back(ms);
    } else if (id == Id::quilm_mdl_execute) {
      durations["execute"].push_back(ms);
      durations[place.repetition == 0 ? "execute_first" : "execute_repeated"].push_back(ms);
    }
  }

  void OnSpan(const Span& span) override {
    const char* key = span.name == "staging"               ? "staging"
                      : span.name == "write outputs"       ? "write_outputs"
                      : span.group >= 0 && span.isComplete ? "inference"
                                                           : nullptr;
    if (key != nullptr) {
      durations[key].push_back(static_cast<double>(span.endNs - span.startNs) / kNsPerMs);
    }
  }

  void OnMemory(uint64_t, uint64_t) override {}

  Durations durations;
};

double Percentile(const std::vector<double>& sorted, double share) {
  const double position = share * static_cast<double>(sorted.size() - 1);
  const auto below = static_cast<size_t>(position);
  const size_t above = std::min(below + 1, sorted.size() - 1);
  return sorted[below] + (position - std::floor(position)) * (sorted[above] - sorted[below]);
}

Statistics Summarize(std::vector<double> times) {
  Statistics result;
  if (times.empty()) {
    return result;
  }
  std::sort(times.begin(), times.end());
  const double sum = std::accumulate(times.begin(), times.end(), 0.0);
  result.count = times.size();
  result.min = times.front();
  result.max = times.back();
  result.mean = sum / static_cast<double>(times.size());
  result.p50 = Percentile(times, 0.5);
  result.p90 = Percentile(times, 0.9);
  result.p95 = Percentile(times, 0.95);
  result.p99 = Percentile(times, 0.99);
  result.perSecond = sum > 0 ? 1000 / result.mean : 0;
  return result;
}

}  // namespace

std::vector<NamedStatistics> Measure(const Calls& calls) {
  Collector collector;
  FollowRun(calls, collector);
  if (collector.durations["execute_repeated"].empty()) {
    collector.durations["execute_first"].clear();  // there is nothing to tell them from
  }
  std::vector<NamedStatistics> rows = {{"load", "load", {}},
                                       {"warm_up", "execute: warm-up", {}},
                                       {"execute", "execute: all others", {}},
                                       {"execute_first", "  first of an inference", {}},
                                       {"execute_repeated", "  repetitions (-p 1)", {}},
                                       {"staging", "staging of inputs", {}},
                                       {"write_outputs", "writing of outputs", {}},
                                       {"inference", "whole inferences", {}}};
  for (NamedStatistics& row : rows) {
    row.statistics = Summarize(collector.durations[row.key]);
  }
  return rows;
}

}  // namespace quilmrun_record
