// Writes the two tables: all calls separated by commas, and the statistics for people.
#include <cstdint>

#include "companions/recorder/write_record.h"

namespace quilmrun_record {
namespace {

class CsvWriter : public RunSink {
 public:
  explicit CsvWriter(std::FILE* file) : file_(file) {}

  void OnCall(const CallEntry& call, const Place& place) override {
    constexpr double kNsPerUs = 1000;
    std::fprintf(file_, "%s,%.3f,", NameOf(call), static_cast<double>(call.startNs) / kNsPerUs);
    if (call.durationNs != kUnfinished) {
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

}  // namespace

void WriteCsv(std::FILE* file, const Calls& calls) {
  std::fputs("function,start_us,duration_us,result,bytes,group,repetition\n", file);
  CsvWriter writer(file);
  FollowRun(calls, writer);
}

void PrintTable(std::FILE* file, const Calls& calls,
                const std::vector<NamedStatistics>& statistics) {
  constexpr double kPsPerUs = 1e6;
  const CallsHeader& header = calls.Header();
  std::fprintf(file, "\n%zu calls of %s; noting one took %.3f us\n", calls.Count(), header.library,
               static_cast<double>(header.costPs) / kPsPerUs);
  if (header.dropped > 0) {
    std::fprintf(file, "%llu more are missing: there was no space for them\n",
                 static_cast<unsigned long long>(header.dropped));
  }
  if (header.ended == 0) {
    std::fputs("the run was cut short; the last call is the one in which it ended\n", file);
  }
  std::fprintf(file, "%-24s%7s%10s%10s%10s%10s%10s%10s%10s%12s\n", "times in ms", "count", "min",
               "mean", "p50", "p90", "p95", "p99", "max", "per second");
  bool executed = false;
  for (const NamedStatistics& row : statistics) {
    const Statistics& s = row.statistics;
    if (s.count > 0) {
      std::fprintf(file, "%-24s%7zu%10.4f%10.4f%10.4f%10.4f%10.4f%10.4f%10.4f%12.1f\n", row.title,
                   s.count, s.min, s.mean, s.p50, s.p90, s.p95, s.p99, s.max, s.perSecond);
      executed = executed || row.key == std::string("warm_up");
    }
  }
  if (!executed) {
    std::fputs("nothing was executed; the tool's messages say why\n", file);
  }
}

}  // namespace quilmrun_record
