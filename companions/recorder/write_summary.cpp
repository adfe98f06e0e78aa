// Writes the head of record.json: what the run was, and its figures. A reader that wants no single
// calls needs no more than this.
#include <algorithm>
#include <cmath>

#include "companions/recorder/write_record.h"

namespace quilmrun_record {
namespace {

constexpr uint64_t kNsPerMs = 1000000;
constexpr double kPsPerUs = 1e6;
constexpr size_t kSlowestShown = 20;
constexpr int kBinDigits = 5;  // a bin is wider than what further digits would tell

void Milliseconds(JsonWriter& json, const char* key, uint64_t ns) {
  json.Key(key).Time(ns, kNsPerMs);
}

void Milliseconds(JsonWriter& json, const char* key, double ns) {
  json.Key(key).Number(std::round(ns) / static_cast<double>(kNsPerMs));
}

void TextOrNull(JsonWriter& json, const char* key, const std::string& text) {
  json.Key(key);
  text.empty() ? json.Null() : json.Text(text);
}

double PerSecond(double count, uint64_t ns) {
  constexpr double kNsPerSecond = 1e9;
  return ns > 0 ? count * kNsPerSecond / static_cast<double>(ns) : 0;
}

void WriteFile(JsonWriter& json, const char* key, const UsedFile& file) {
  json.Break().Key(key);
  if (file.path.empty()) {
    json.Null();
    return;
  }
  json.Open('{').Key("path").Text(file.path).Key("bytes");
  file.bytes < 0 ? json.Null() : json.Integer(file.bytes);
  TextOrNull(json, "sha256", file.sha256);
  json.Close('}');
}

void WriteWhere(JsonWriter& json, const Calls& calls, const RunFacts& facts) {
  json.Break().Key("where").Open('{');
  for (const char* key : {"date", "name", "board", "processor", "cores", "kernel", "companions"}) {
    const std::vector<std::string> values = calls.Facts(key);
    const std::string value = values.empty() ? "" : values[0];
    if (key == std::string_view("cores") && !value.empty()) {
      json.Key(key).Integer(std::strtol(value.c_str(), nullptr, 10));
    } else {
      TextOrNull(json, key, value);
    }
  }
  WriteFile(json, "tool", facts.tool);
  WriteFile(json, "runtime", facts.runtime);
  WriteFile(json, "model", facts.model);
  WriteFile(json, "settings", facts.settings);
  json.Close('}');
}

void WriteLoop(JsonWriter& json, const Measurements& measured) {
  const uint64_t count = measured.rows[kInference].Count();
  const uint64_t ns = count > 0 ? measured.loopEndNs - measured.loopStartNs : 0;
  json.Break().Key("loop").Open('{').Key("begun").Integer(measured.inferences);
  json.Key("inferences").Count(count);
  Milliseconds(json, "ms", ns);
  json.Key("inferences_per_second").Number(PerSecond(static_cast<double>(count), ns)).Close('}');
}

void WriteDistribution(JsonWriter& json, const Distribution& times) {
  json.Open('{').Key("count").Count(times.Count());
  if (times.Count() == 0) {
    for (const char* key : {"min", "mean", "p50", "p90", "p95", "p99", "max", "per_second"}) {
      json.Key(key).Null();
    }
    json.Close('}');
    return;
  }
  const auto count = static_cast<double>(times.Count());
  Milliseconds(json, "min", times.MinNs());
  Milliseconds(json, "mean", static_cast<double>(times.TotalNs()) / count);
  Milliseconds(json, "p50", times.Percentile(0.5));
  Milliseconds(json, "p90", times.Percentile(0.9));
  Milliseconds(json, "p95", times.Percentile(0.95));
  Milliseconds(json, "p99", times.Percentile(0.99));
  Milliseconds(json, "max", times.MaxNs());
  json.Key("per_second").Number(PerSecond(count, times.TotalNs()));
  json.Key("percentiles_within").Number(times.IsExact() ? 0 : Distribution::kError).Close('}');
}

void WriteStatistics(JsonWriter& json, const Measurements& measured) {
  json.Break().Key("statistics").Open('{');
  for (size_t row = 0; row < kRows; ++row) {
    json.Break().Key(kRowNames[row].key);
    WriteDistribution(json, measured.rows[row]);
  }
  json.Close('}');
}

void WriteFunctions(JsonWriter& json, const Measurements& measured) {
  json.Break().Key("functions").Open('{');
  for (size_t i = 0; i < measured.functions.size(); ++i) {
    const FunctionTotals& totals = measured.functions[i];
    if (totals.count > 0) {
      json.Break().Key(quilm_interposer::kNames[i]).Open('{').Key("count").Count(totals.count);
      json.Key("failed").Count(totals.failed);
      Milliseconds(json, "total", totals.totalNs);
      Milliseconds(json, "min", totals.minNs);
      Milliseconds(json, "max", totals.maxNs);
      json.Close('}');
    }
  }
  json.Close('}');
}

void WriteHistograms(JsonWriter& json, const Measurements& measured) {
  json.Break().Key("histograms").Open('{');
  for (size_t row = 0; row < kRows; ++row) {
    if (measured.rows[row].Count() > 1) {
      json.Break().Key(kRowNames[row].key).Open('[');
      for (const auto& [ns, count] : measured.rows[row].Bins()) {
        json.Open('[')
            .Number(ns / static_cast<double>(kNsPerMs), kBinDigits)
            .Count(count)
            .Close(']');
      }
      json.Close(']');
    }
  }
  json.Close('}');
}

void WriteTenths(JsonWriter& json, const Measurements& measured) {
  json.Break().Key("tenths").Open('[');
  for (const Distribution& tenth : measured.tenths) {
    json.Break();
    WriteDistribution(json, tenth);
  }
  json.Close(']');
}

// Columns take half the space of rows with names.
void WriteCourse(JsonWriter& json, const Measurements& measured) {
  json.Break().Key("course").Open('{').Key("inferences_per_bin").Integer(measured.inferencesPerBin);
  const auto column = [&](const char* key, const auto& write) {
    json.Break().Key(key).Open('[');
    for (const CourseBin& bin : measured.course) {
      write(bin);
    }
    json.Close(']');
  };
  column("inference", [&](const CourseBin& bin) { json.Integer(bin.inference); });
  column("at", [&](const CourseBin& bin) { json.Time(bin.startNs, kNsPerMs); });
  column("executions", [&](const CourseBin& bin) { json.Count(bin.executions); });
  column("min", [&](const CourseBin& bin) { json.Time(bin.minNs, kNsPerMs); });
  column("median", [&](const CourseBin& bin) {
    json.Number(std::round(bin.medianNs) / static_cast<double>(kNsPerMs));
  });
  column("max", [&](const CourseBin& bin) { json.Time(bin.maxNs, kNsPerMs); });
  json.Close('}');
}

void WriteMemory(JsonWriter& json, const Measurements& measured) {
  json.Break().Key("memory").Open('{').Key("peak_bytes").Count(measured.peakBytes);
  json.Key("course").Open('[');
  for (const MemoryPoint& point : measured.memory) {
    json.Open('[').Time(point.ns, kNsPerMs).Count(point.bytes).Close(']');
  }
  json.Close(']').Close('}');
}

void WriteSlowest(JsonWriter& json, const Measurements& measured) {
  json.Break().Key("slowest").Open('[');
  for (size_t i = 0; i < std::min(kSlowestShown, measured.slowest.size()); ++i) {
    json.Open('[').Integer(measured.slowest[i].group).Time(measured.slowest[i].ns, kNsPerMs);
    json.Close(']');
  }
  json.Close(']');
}

void WritePlan(JsonWriter& json, const TracePlan& plan) {
  json.Break().Key("trace").Open('{').Key("inferences").Integer(plan.inferences);
  json.Key("kept").Integer(plan.Kept());
  if (plan.every > 1) {
    json.Key("first").Integer(plan.atEachEnd).Key("last").Integer(plan.atEachEnd);
    json.Key("slowest").Integer(static_cast<int64_t>(plan.slowest.size()));
    json.Key("every").Integer(plan.every);
  }
  json.Key("all_calls").Bool(plan.everyCall).Close('}');
}

}  // namespace

bool IsComplete(const Calls& calls, const Measurements& measured) {
  return calls.Header().state == RecordingState::kEnded && MissingCalls(calls, measured) == 0;
}

uint64_t MissingCalls(const Calls& calls, const Measurements& measured) {
  return calls.Header().dropped + calls.Header().count - measured.calls;
}

void WriteSummary(JsonWriter& json, const Calls& calls, const RunFacts& facts,
                  const Measurements& measured, const TracePlan& plan) {
  const CallsHeader& header = calls.Header();
  json.Open('{').Key("format").Text("quilmrun-record").Key("version").Integer(2);
  json.Break().Key("command").Open('[');
  for (const std::string& word : facts.command) {
    json.Text(word);
  }
  json.Close(']').Break().Key("library").Text(calls.Library());
  json.Break().Key("complete").Bool(IsComplete(calls, measured)).Key("exit_status");
  facts.exitStatus.empty() ? json.Null()
                           : json.Integer(std::strtol(facts.exitStatus.c_str(), nullptr, 10));
  json.Key("start_us").Integer(header.startUs);
  json.Key("recorder_cost_us").Number(static_cast<double>(header.costPs) / kPsPerUs);
  json.Key("dropped").Count(MissingCalls(calls, measured));
  Milliseconds(json, "span", measured.spanNs);
  const bool isCut = header.state != RecordingState::kEnded && measured.unfinished != nullptr;
  TextOrNull(json, "unfinished", isCut ? measured.unfinished : "");
  json.Key("output_types").Open('[');
  for (const int64_t type : measured.outputTypes) {
    json.Integer(type);
  }
  json.Close(']');
  WriteWhere(json, calls, facts);
  WriteLoop(json, measured);
  WriteStatistics(json, measured);
  WriteFunctions(json, measured);
  WriteHistograms(json, measured);
  WriteTenths(json, measured);
  WriteCourse(json, measured);
  WriteMemory(json, measured);
  WriteSlowest(json, measured);
  WritePlan(json, plan);
  json.Close('}');
}

}  // namespace quilmrun_record
