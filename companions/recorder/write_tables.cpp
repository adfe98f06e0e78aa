// Writes the two tables: all calls separated by commas, and the statistics for people.
#include <cstdint>

#include "companions/recorder/write_record.h"

namespace quilmrun_record {
namespace {

constexpr double kNsPerMs = 1e6;
constexpr double kNsPerSecond = 1e9;

class CsvWriter : public RunSink {
 public:
  explicit CsvWriter(std::FILE* file) : file_(file) {}

  void OnCall(const CallEntry& call, const Place& place) override {
    constexpr double kNsPerUs = 1000;
    std::fprintf(file_, "%s,%.3f,", NameOf(call), static_cast<double>(call.startNs) / kNsPerUs);
    if (HasReturned(call)) {
      std::fprintf(file_, "%.3f,%s,", static_cast<double>(call.durationNs) / kNsPerUs,
                   ResultOf(call).c_str());
    } else {
      std::fputs(",,", file_);
    }
    WriteNumber(call.bytes == 0 ? -1 : static_cast<long>(call.bytes), ',');
    WriteNumber(place.group, ',');
    WriteNumber(place.repetition, '\n');
  }

  void OnSpan(const Span&) override {}
  void OnMemory(uint64_t, uint64_t) override {}

 private:
  // An empty field where there is no number.
  void WriteNumber(long value, char separator) {
    if (value >= 0) {
      std::fprintf(file_, "%ld", value);
    }
    std::fputc(separator, file_);
  }

  std::FILE* file_;
};

void PrintFacts(std::FILE* file, const Calls& calls, const Measurements& measured) {
  constexpr double kPsPerUs = 1e6;
  uint64_t count = 0;
  for (const FunctionTotals& totals : measured.functions) {
    count += totals.count;
  }
  std::fprintf(file, "\n%llu calls of %s; noting one took %.3f us\n",
               static_cast<unsigned long long>(count), calls.Library().c_str(),
               static_cast<double>(calls.Header().costPs) / kPsPerUs);
  const uint64_t missing = MissingCalls(calls, measured);
  if (missing > 0) {
    std::fprintf(file, "%llu more are missing: there was no space for them\n",
                 static_cast<unsigned long long>(missing));
  }
  if (calls.Header().state != RecordingState::kEnded) {
    std::fputs("the run was cut short; the last call is the one in which it ended\n", file);
  }
}

void PrintRow(std::FILE* file, const char* title, const Distribution& times) {
  const auto count = static_cast<double>(times.Count());
  const double mean = static_cast<double>(times.TotalNs()) / count;
  std::fprintf(file, "%-24s%7llu", title, static_cast<unsigned long long>(times.Count()));
  for (const double ns :
       {static_cast<double>(times.MinNs()), mean, times.Percentile(0.5), times.Percentile(0.9),
        times.Percentile(0.95), times.Percentile(0.99), static_cast<double>(times.MaxNs())}) {
    std::fprintf(file, "%10.4f", ns / kNsPerMs);
  }
  std::fprintf(file, "%12.1f\n", mean > 0 ? kNsPerSecond / mean : 0);
}

void PrintLoop(std::FILE* file, const Measurements& measured) {
  const uint64_t count = measured.rows[kInference].Count();
  const double seconds =
      static_cast<double>(measured.loopEndNs - measured.loopStartNs) / kNsPerSecond;
  if (count > 0 && seconds > 0) {
    std::fprintf(file, "%llu inferences in %.3f s: %.1f a second, by the clock\n",
                 static_cast<unsigned long long>(count), seconds,
                 static_cast<double>(count) / seconds);
  }
}

}  // namespace

void WriteCsv(std::FILE* file, const Calls& calls) {
  std::fputs("function,start_us,duration_us,result,bytes,group,repetition\n", file);
  CsvWriter writer(file);
  FollowRun(calls, writer);
}

void PrintTable(std::FILE* file, const Calls& calls, const Measurements& measured) {
  PrintFacts(file, calls, measured);
  std::fprintf(file, "%-24s%7s%10s%10s%10s%10s%10s%10s%10s%12s\n", "times in ms", "count", "min",
               "mean", "p50", "p90", "p95", "p99", "max", "per second");
  bool isExact = true;
  for (size_t row = 0; row < kRows; ++row) {
    if (measured.rows[row].Count() > 0) {
      PrintRow(file, kRowNames[row].title, measured.rows[row]);
      isExact = isExact && measured.rows[row].IsExact();
    }
  }
  PrintLoop(file, measured);
  if (!isExact) {
    std::fprintf(file, "percentiles of more than %zu times are within %.1f %%\n",
                 Distribution::kMostExact, 100 * Distribution::kError);
  }
  if (measured.rows[kWarmUp].Count() == 0) {
    std::fputs("nothing was executed; the tool's messages say why\n", file);
  }
}

}  // namespace quilmrun_record
