// The part of quilmrun-record that is no shell script:
//   convert prepare CALLS EVERY_CALL COMMAND...
//     starts a calls file, before the run
//   convert progress CALLS COMMAND...
//     shows how far the run is
//   convert record CALLS STATUS RECORD CSV EVERY_CALL [COMMAND...]
//     makes the record, and a table of calls when CSV is not empty, both in files that are there
//     and empty; prints the statistics
// EVERY_CALL is "yes" or empty.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "companions/recorder/progress.h"
#include "companions/recorder/write_record.h"

namespace {

using namespace quilmrun_record;  // NOLINT: this is its program

constexpr int kFailed = 2;
constexpr int kNotLoaded = 3;  // the program has not loaded libquilm.so
constexpr int kRefused = 4;    // the recorder could not record, and has said why

int Fail(const char* path, const char* problem) {
  std::fprintf(stderr, "quilmrun-record: %s: %s\n", path, problem);
  return kFailed;
}

// Returns 0 or an error number.
template <typename Write>
int WriteFile(const char* path, const Write& write) {
  std::FILE* file = std::fopen(path, "we");
  if (file == nullptr) {
    return errno;
  }
  errno = 0;
  write(file);
  const int problem = std::ferror(file) != 0 ? errno : 0;
  return std::fclose(file) != 0 ? errno : problem;
}

// How much a record shows.
struct Extent {
  long most;    // inferences of which the trace shows all
  long some;    // of more: so many of the first, the last and the slowest
  size_t bins;  // of the course
};

// The smaller extents are for a full disk: the last one fits into what the recorder gives back.
constexpr Extent kExtents[] = {{200000, 1000, 500}, {500, 50, 500}, {30, 10, 100}};

bool LacksSpace(int problem) {
  return problem == ENOSPC || problem == EFBIG || problem == EDQUOT;
}

// Returns 1 where the trace shows all inferences, and otherwise a step that leaves about seven
// times `some`. With both ends and the slowest, the trace then shows about ten times `some`.
long EveryOf(const Measurements& measured, const Extent& extent) {
  const long between = 7 * extent.some;
  return measured.inferences <= extent.most ? 1 : (measured.inferences + between - 1) / between;
}

// Writes a record that keeps within the bytes that it may have for each inference, by showing fewer
// of them where calls are many. Returns 0 or an error number.
int WriteWithin(const Calls& calls, const RunFacts& facts, const char* path,
                const Measurements& measured, const Extent& extent, bool everyCall,
                TracePlan& plan) {
  constexpr long kFewInferences = 1000;  // whose record is small whatever it takes
  constexpr long kBytesPerInference = 2000;
  const long most = std::max(measured.inferences, kFewInferences) * kBytesPerInference;
  long every = EveryOf(measured, extent);
  while (true) {
    plan = PlanTrace(measured, every, extent.some, everyCall);
    long bytes = 0;
    const int problem = WriteFile(path, [&](std::FILE* file) {
      WriteTrace(file, calls, facts, measured, plan);
      bytes = std::ftell(file);
    });
    if (problem != 0 || everyCall || bytes <= most || every >= measured.inferences) {
      return problem;
    }
    every += every * (bytes / most);
  }
}

int WriteRecord(const Calls& calls, const RunFacts& facts, const char* path, bool everyCall,
                Measurements& measured) {
  int problem = 0;
  for (const Extent& extent : kExtents) {
    const bool isLess = &extent != &kExtents[0];
    measured = Measure(calls, extent.bins, static_cast<size_t>(extent.some));
    TracePlan plan;
    problem = WriteWithin(calls, facts, path, measured, extent, everyCall && !isLess, plan);
    // When calls were dropped, the recorder has told of the full disk already.
    if (problem == 0 && isLess && calls.Header().dropped == 0) {
      std::fprintf(stderr,
                   "quilmrun-record: there is space for %ld of %ld inferences in the record\n",
                   plan.Kept(), plan.inferences);
    }
    if (!LacksSpace(problem)) {
      break;
    }
  }
  return problem == 0 ? 0 : Fail(path, std::strerror(problem));
}

int Convert(const Calls& calls, const RunFacts& facts, const char* record, const char* csv,
            bool everyCall) {
  if (calls.Header().everyCall == 0 && (everyCall || *csv != '\0')) {
    std::fputs("quilmrun-record: calls that only ask were counted, but not noted one by one\n",
               stderr);
  }
  Measurements measured;
  if (const int result = WriteRecord(calls, facts, record, everyCall, measured); result != 0) {
    return result;
  }
  if (*csv != '\0') {
    const int problem = WriteFile(csv, [&](std::FILE* file) { WriteCsv(file, calls); });
    if (problem != 0) {
      return Fail(csv, std::strerror(problem));
    }
  }
  PrintTable(stdout, calls, measured);
  return 0;
}

RunFacts CollectFacts(const Calls& calls, std::vector<std::string> command, const char* status) {
  RunFacts facts;
  facts.command = command.empty() ? calls.Facts("command") : std::move(command);
  facts.exitStatus = status;
  const std::vector<std::string> directories = calls.Facts("directory");
  const std::string directory = directories.empty() ? "" : directories[0];
  const auto lookAt = [&](const std::string& path) {
    return LookAt(path, directory, calls.Header().startUs);
  };
  facts.tool = lookAt(calls.Program());
  facts.runtime = lookAt(calls.Library());
  facts.model = lookAt(OptionOf(facts.command, 'm'));
  facts.settings = lookAt(OptionOf(facts.command, 'j'));
  return facts;
}

int Record(int argc, char** argv) {
  constexpr int kFixedArguments = 7;
  if (argc < kFixedArguments) {
    return Fail(argv[0], "is called by quilmrun-record");
  }
  std::string problem;
  const std::unique_ptr<Calls> calls = Calls::Open(argv[2], problem);
  if (calls == nullptr) {
    return Fail(argv[2], problem.c_str());
  }
  if (calls->Header().state == RecordingState::kPrepared) {
    return kNotLoaded;
  }
  if (calls->Header().state == RecordingState::kRefused) {
    return kRefused;
  }
  const RunFacts facts = CollectFacts(*calls, {argv + kFixedArguments, argv + argc}, argv[3]);
  return Convert(*calls, facts, argv[4], argv[5], *argv[6] != '\0');
}

int Prepare(int argc, char** argv) {
  const char* problem = PrepareCallsFile(argv[2], {argv + 4, argv + argc}, *argv[3] != '\0');
  return problem == nullptr ? 0 : Fail(argv[2], problem);
}

}  // namespace

int main(int argc, char** argv) {
  // A write beyond the limit on file sizes then fails, and does not end the process.
  std::signal(SIGXFSZ, SIG_IGN);
  const std::string task = argc > 3 ? argv[1] : "";
  if (task == "prepare") {
    return Prepare(argc, argv);
  }
  if (task == "progress") {
    ShowProgress(argv[2], OptionOf({argv + 3, argv + argc}, 'i'));
    return 0;
  }
  return Record(argc, argv);
}
