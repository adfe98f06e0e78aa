// Writes record.json: the summary of a run, and its calls as a trace.
#include <algorithm>
#include <cstdint>
#include <string_view>

#include "companions/recorder/call_kinds.h"
#include "companions/recorder/write_record.h"

namespace quilmrun_record {
namespace {

// The trace tells times to 0.1 us, which saves space. All moments are rounded alike, so that what
// encloses a call still does. The summary is made of the nanoseconds.
constexpr uint64_t kGrainNs = 100;
constexpr uint64_t kNsPerUs = 1000;

constexpr uint64_t Rounded(uint64_t ns) {
  return ns / kGrainNs * kGrainNs;
}

// Returns the group of functions that a call belongs to, for the viewer's colours and filters.
const char* CategoryOf(std::string_view function) {
  const auto has = [&](std::string_view word) { return Contains(function, word); };
  return has("execute")                         ? "execute"
         : has("mdl_load")                      ? "load"
         : has("rt_malloc") || has("rt_free")   ? "memory"
         : has("dataset") || has("data_buffer") ? "dataset"
         : has("mdl") || has("data_type")       ? "model"
                                                : "runtime";
}

// Writes all events of an inference in one line, and each other event in a line of its own.
class TraceWriter : public RunSink {
 public:
  TraceWriter(JsonWriter& json, const TracePlan& plan) : json_(json), plan_(plan) {}

  void OnCall(const CallEntry& call, const Place& place) override {
    Enter(place.group);
    const CallKind& kind = kCallKinds[call.call - 1];
    if (!isKept_ || (kind.onlyAsks && !plan_.everyCall && HasReturned(call))) {
      return;
    }
    Begin(NameOf(call), plan_.everyCall ? CategoryOf(NameOf(call)) : "",
          HasReturned(call) ? "X" : "B", call.startNs);
    if (HasReturned(call)) {
      Duration(call.startNs, EndOf(call));
    }
    json_.Key("pid").Integer(1).Key("tid").Integer(ThreadOf(call));
    WriteArguments(call, place);
    json_.Close('}');
  }

  void OnSpan(const Span& span) override {
    if (isKept_) {
      const bool isPhase = span.kind == SpanKind::kPhase || span.kind == SpanKind::kInference;
      Begin(span.name.c_str(), isPhase ? "phase" : "copy", "X", span.startNs);
      Duration(span.startNs, span.endNs);
      json_.Key("pid").Integer(1).Key("tid").Integer(1);
      if (!span.isComplete || plan_.everyCall) {
        json_.Key("args").Open('{').Key("complete").Bool(span.isComplete);
        WriteNumber("group", span.group);
        WriteNumber("bytes", span.bytes == 0 ? -1 : static_cast<long>(span.bytes));
        json_.Close('}');
      }
      json_.Close('}');
    }
    if (span.kind == SpanKind::kInference) {
      ShowPeak();
    }
  }

  // Of an inference, only the peak is shown, and only where it differs from the one shown last.
  void OnMemory(uint64_t ns, uint64_t bytes) override {
    if (group_ < 0 || plan_.everyCall) {
      WriteMemory({ns, bytes});
    } else if (bytes >= peak_.bytes) {
      peak_ = {ns, bytes};
    }
  }

 private:
  void Enter(long group) {
    if (group != group_ && group >= 0) {
      isKept_ = plan_.Keeps(group);
      isNewLine_ = true;
    }
    group_ = group;
  }

  void ShowPeak() {
    if (isKept_ && peak_.bytes != 0 && peak_.bytes != shownBytes_) {
      WriteMemory(peak_);
      shownBytes_ = peak_.bytes;
    }
    peak_ = {};
  }

  void WriteMemory(const MemoryPoint& point) {
    if (isKept_) {
      Begin("device memory", "", "C", point.ns);
      json_.Key("pid").Integer(1).Key("args").Open('{').Key("bytes").Count(point.bytes);
      json_.Close('}').Close('}');
    }
  }

  void Begin(const char* name, const char* category, const char* phase, uint64_t ns) {
    if (group_ < 0 || isNewLine_) {
      json_.Break();
    }
    isNewLine_ = false;
    json_.Open('{').Key("name").Text(name);
    if (category[0] != '\0') {
      json_.Key("cat").Text(category);
    }
    json_.Key("ph").Text(phase).Key("ts").Time(Rounded(ns), kNsPerUs);
  }

  void Duration(uint64_t startNs, uint64_t endNs) {
    json_.Key("dur").Time(Rounded(endNs) - Rounded(startNs), kNsPerUs);
  }

  // The tool's own thread is 1; a library may call from others.
  unsigned ThreadOf(const CallEntry& call) {
    mainThread_ = mainThread_ == 0 ? call.thread : mainThread_;
    return call.thread == mainThread_ ? 1 : call.thread;
  }

  // A call without arguments has succeeded.
  void WriteArguments(const CallEntry& call, const Place& place) {
    const CallKind& kind = kCallKinds[call.call - 1];
    if (!HasReturned(call) || Failed(kind, call.result) || plan_.everyCall) {
      json_.Key("args").Open('{');
      if (HasReturned(call)) {
        WriteResult(call, kind);
      } else {
        json_.Key("unfinished").Bool(true);
      }
      WriteNumber("group", place.group);
      WriteNumber("repetition", place.repetition);
      WriteNumber("bytes", call.bytes == 0 ? -1 : static_cast<long>(call.bytes));
      json_.Close('}');
    }
  }

  void WriteResult(const CallEntry& call, const CallKind& kind) {
    json_.Key("result");
    if (kind.result == ResultKind::kPointer) {
      json_.Text(ResultOf(call));
    } else if (kind.isSigned) {
      json_.Integer(call.result);
    } else {
      json_.Count(static_cast<uint64_t>(call.result));
    }
  }

  void WriteNumber(const char* key, long value) {
    if (value >= 0) {
      json_.Key(key).Integer(value);
    }
  }

  JsonWriter& json_;
  const TracePlan& plan_;
  unsigned mainThread_ = 0;
  long group_ = -1;
  bool isKept_ = true;  // this inference, and what follows until the next one
  bool isNewLine_ = false;
  MemoryPoint peak_;         // of this inference
  uint64_t shownBytes_ = 0;  // the peak shown last
};

}  // namespace

bool TracePlan::Keeps(long group) const {
  return group < atEachEnd || group >= inferences - atEachEnd || group % every == 0 ||
         std::binary_search(slowest.begin(), slowest.end(), group);
}

long TracePlan::Kept() const {
  long kept = 0;
  for (long group = 0; group < inferences; ++group) {
    kept += Keeps(group) ? 1 : 0;
  }
  return kept;
}

TracePlan PlanTrace(const Measurements& measured, long every, long some, bool everyCall) {
  constexpr long kLargestShare =
      20;  // each end, and the slowest, are a twentieth of the run at most
  TracePlan plan;
  plan.inferences = measured.inferences;
  plan.everyCall = everyCall;
  plan.every = every;
  plan.atEachEnd = std::min(some, measured.inferences / kLargestShare);
  for (const SlowInference& inference : measured.slowest) {
    if (static_cast<long>(plan.slowest.size()) < plan.atEachEnd) {
      plan.slowest.push_back(inference.group);
    }
  }
  std::sort(plan.slowest.begin(), plan.slowest.end());
  return plan;
}

void WriteTrace(std::FILE* file, const Calls& calls, const RunFacts& facts,
                const Measurements& measured, const TracePlan& plan) {
  JsonWriter json(file);
  json.Open('{').Key("displayTimeUnit").Text("ms").Key("otherData");
  WriteSummary(json, calls, facts, measured, plan);
  json.Break().Key("traceEvents").Open('[').Break();
  json.Open('{').Key("name").Text("process_name").Key("ph").Text("M").Key("pid").Integer(1);
  json.Key("args").Open('{').Key("name").Text("quilmrun").Close('}').Close('}');
  TraceWriter writer(json, plan);
  FollowRun(calls, writer);
  json.Close(']').Close('}');
  json.Flush();
  std::fputc('\n', file);
}

}  // namespace quilmrun_record
