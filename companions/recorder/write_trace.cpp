// Writes record.json: the facts and statistics of a run, and its calls as a trace.
#include <cstdint>

#include "companions/recorder/write_record.h"

namespace quilmrun_record {
namespace {

constexpr double kNsPerUs = 1000;
constexpr double kPsPerUs = 1e6;

double InUs(uint64_t ns) {
  return static_cast<double>(ns) / kNsPerUs;
}

// The number of bytes of the UTF-8 character at `text`, or 0 when there is none.
size_t CharacterBytes(const std::string& text, size_t start) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const size_t size = byte(start) < 0x80                           ? 1
                      : byte(start) >= 0xC2 && byte(start) < 0xE0  ? 2
                      : (byte(start) & 0xF0) == 0xE0               ? 3
                      : byte(start) >= 0xF0 && byte(start) <= 0xF4 ? 4
                                                                   : 0;
  for (size_t i = start + 1; i < start + size; ++i) {
    if (i >= text.size() || (byte(i) & 0xC0) != 0x80) {
      return 0;
    }
  }
  return size;
}

// A JSON string. Bytes that are no UTF-8, as file names may have them, become what Python makes of
// them, which makes the same bytes of that.
std::string Quote(const std::string& text) {
  std::string quoted = "\"";
  for (size_t i = 0; i < text.size();) {
    const size_t size = CharacterBytes(text, i);
    const auto byte = static_cast<unsigned char>(text[i]);
    char escape[8];
    if (size == 0 || byte < 0x20) {
      std::snprintf(escape, sizeof(escape), "\\u%04x", size == 0 ? 0xDC00 + byte : byte);
      quoted += escape;
    } else {
      quoted += byte == '"' || byte == '\\' ? "\\" : "";
      quoted.append(text, i, size);
    }
    i += size == 0 ? 1 : size;
  }
  return quoted + "\"";
}

void WriteStatistics(std::FILE* file, const Statistics& s) {
  std::fprintf(file, "{\"count\": %zu", s.count);
  const struct {
    const char* key;
    double value;
  } numbers[] = {{"min", s.min}, {"mean", s.mean}, {"p50", s.p50}, {"p90", s.p90},
                 {"p95", s.p95}, {"p99", s.p99},   {"max", s.max}, {"per_second", s.perSecond}};
  for (const auto& number : numbers) {
    if (s.count == 0) {
      std::fprintf(file, ", \"%s\": null", number.key);
    } else {
      std::fprintf(file, ", \"%s\": %.6f", number.key, number.value);
    }
  }
  std::fputc('}', file);
}

void WriteFacts(std::FILE* file, const Calls& calls, const RunFacts& facts,
                const std::vector<NamedStatistics>& statistics) {
  const CallsHeader& header = calls.Header();
  std::fputs(R"({"format": "quilmrun-record", "version": 1,)"
             "\n"
             R"( "command": [)",
             file);
  for (size_t i = 0; i < facts.command.size(); ++i) {
    std::fprintf(file, "%s%s", i == 0 ? "" : ", ", Quote(facts.command[i]).c_str());
  }
  std::fprintf(
      file,
      "],\n \"library\": %s,\n \"complete\": %s, \"exit_status\": %s, \"start_us\": %lld, "
      "\"recorder_cost_us\": %.4f, \"dropped\": %llu,\n \"statistics\": {",
      Quote(header.library).c_str(), header.ended != 0 && header.dropped == 0 ? "true" : "false",
      facts.exitStatus.empty() ? "null" : facts.exitStatus.c_str(),
      static_cast<long long>(header.startUs), static_cast<double>(header.costPs) / kPsPerUs,
      static_cast<unsigned long long>(header.dropped));
  const char* separator = "\n  ";
  for (const NamedStatistics& row : statistics) {
    std::fprintf(file, "%s\"%s\": ", separator, row.key);
    WriteStatistics(file, row.statistics);
    separator = ",\n  ";
  }
  std::fputs("}}", file);
}

// What a call is counted to, for the viewer's colours and filters.
const char* CategoryOf(const std::string& function) {
  const auto has = [&](const char* word) { return function.find(word) != std::string::npos; };
  return has("execute")                         ? "execute"
         : has("mdl_load")                      ? "load"
         : has("rt_malloc") || has("rt_free")   ? "memory"
         : has("dataset") || has("data_buffer") ? "dataset"
         : has("mdl") || has("data_type")       ? "model"
                                                : "runtime";
}

class TraceWriter : public RunSink {
 public:
  explicit TraceWriter(std::FILE* file) : file_(file) {}

  void OnCall(const CallEntry& call, const Place& place) override {
    const bool finished = call.durationNs != kUnfinished;
    const char* name = NameOf(call);
    std::fprintf(file_,
                 ",\n"
                 R"({"name":"%s","cat":"%s","ph":"%s","ts":%.3f,)",
                 name, CategoryOf(name), finished ? "X" : "B", InUs(call.startNs));
    if (finished) {
      std::fprintf(file_, R"("dur":%.3f,)", InUs(call.durationNs));
    }
    std::fprintf(file_, R"("pid":1,"tid":%u,"args":{)", ThreadOf(call));
    if (finished) {
      const std::string result = ResultOf(call);
      std::fprintf(file_, result[1] == 'x' ? R"("result":"%s")" : R"("result":%s)", result.c_str());
    } else {
      std::fputs(R"("unfinished":true)", file_);
    }
    WriteNumber("group", place.group);
    WriteNumber("repetition", place.repetition);
    WriteNumber("bytes", call.bytes == 0 ? -1 : static_cast<long>(call.bytes));
    std::fputs("}}", file_);
  }

  void OnSpan(const Span& span) override {
    std::fprintf(file_,
                 ",\n"
                 R"({"name":"%s","cat":"%s","ph":"X","ts":%.3f,"dur":%.3f,"pid":1,"tid":1,)"
                 R"("args":{"complete":%s)",
                 span.name.c_str(), span.category, InUs(span.startNs),
                 InUs(span.endNs - span.startNs), span.isComplete ? "true" : "false");
    WriteNumber("group", span.group);
    WriteNumber("bytes", span.bytes == 0 ? -1 : static_cast<long>(span.bytes));
    std::fputs("}}", file_);
  }

  void OnMemory(uint64_t ns, uint64_t bytes) override {
    std::fprintf(file_,
                 ",\n"
                 R"({"name":"device memory","ph":"C","ts":%.3f,"pid":1,"args":{"bytes":%llu}})",
                 InUs(ns), static_cast<unsigned long long>(bytes));
  }

 private:
  // The tool's own thread is 1; a library may call from others.
  unsigned ThreadOf(const CallEntry& call) {
    mainThread_ = mainThread_ == 0 ? call.thread : mainThread_;
    return call.thread == mainThread_ ? 1 : call.thread;
  }

  void WriteNumber(const char* key, long value) {
    if (value >= 0) {
      std::fprintf(file_, R"(,"%s":%ld)", key, value);
    }
  }

  std::FILE* file_;
  unsigned mainThread_ = 0;
};

}  // namespace

void WriteTrace(std::FILE* file, const Calls& calls, const RunFacts& facts,
                const std::vector<NamedStatistics>& statistics) {
  std::fputs(R"({"displayTimeUnit": "ms", "otherData": )", file);
  WriteFacts(file, calls, facts, statistics);
  std::fputs(
      ",\n\"traceEvents\": [\n{\"name\": \"process_name\", \"ph\": \"M\", \"pid\": 1, \"args\": "
      "{\"name\": \"quilmrun\"}}",
      file);
  TraceWriter writer(file);
  FollowRun(calls, writer);
  std::fputs("\n]}\n", file);
}

}  // namespace quilmrun_record
