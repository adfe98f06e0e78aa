// quilmrun-record-convert CALLS STATUS RECORD CSV COMMAND...: makes a record of a calls file, and a
// table of calls when CSV is not empty, both in files that are there and empty; prints the
// statistics. Part of quilmrun-record, which calls it after a run.
#include <cerrno>
#include <cstring>

#include "companions/recorder/write_record.h"

namespace {

using namespace quilmrun_record;  // NOLINT: this is its program

constexpr int kFailed = 2;

int Fail(const char* path, const char* problem) {
  std::fprintf(stderr, "quilmrun-record: %s: %s\n", path, problem);
  return kFailed;
}

template <typename Write>
int WriteFile(const char* path, const Write& write) {
  std::FILE* file = std::fopen(path, "we");
  if (file == nullptr) {
    return Fail(path, std::strerror(errno));
  }
  write(file);
  const bool failed = std::ferror(file) != 0;
  return std::fclose(file) != 0 || failed ? Fail(path, std::strerror(errno)) : 0;
}

int Convert(const Calls& calls, const RunFacts& facts, const char* record, const char* csv) {
  const std::vector<NamedStatistics> statistics = Measure(calls);
  int result =
      WriteFile(record, [&](std::FILE* file) { WriteTrace(file, calls, facts, statistics); });
  if (result == 0 && *csv != '\0') {
    result = WriteFile(csv, [&](std::FILE* file) { WriteCsv(file, calls); });
  }
  if (result == 0) {
    PrintTable(stdout, calls, statistics);
  }
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  constexpr int kFixedArguments = 5;
  if (argc < kFixedArguments) {
    return Fail("quilmrun-record-convert", "is called by quilmrun-record");
  }
  const std::optional<Calls> calls = Calls::Open(argv[1]);
  if (!calls.has_value()) {
    return Fail(argv[1], "no calls were recorded here");
  }
  return Convert(*calls, {{argv + kFixedArguments, argv + argc}, argv[2]}, argv[3], argv[4]);
}
