#include "profile/reports.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "app/log.h"

namespace quilmrun {
namespace {

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

double InKb(uint32_t bytes) {
  return bytes * 0.0009765625;
}

double TimePerExecution(const ProfileRecord& record) {
  return record.executeTime / record.loopCount;
}

constexpr char kCsvHeader[] =
    "Model Load Time(ms),"
    "Read Model File Time(ms),"
    "Model Execute Time(ms),"
    "Input Size(KB),"
    "Task Buffer Size(KB),"
    "Output Size(KB),"
    "Mapper Temp Buffer(KB),"
    "Online Model Size(KB),"
    "Quilm Init Memory Size(KB)\n";

// Returns false with errno set when a line did not reach the file.
bool WriteCsvLines(const ProfileRecord& record, std::FILE* file) {
  if (std::fputs(kCsvHeader, file) == EOF || std::fflush(file) != 0) {
    return false;
  }
  const int written =
      std::fprintf(file, "%.2f,%.2f,%.2f,%.3f,%.3f,%.3f,%.3f,%.3f,%u\n", record.modelLoadTime,
                   record.readModelFileTime, TimePerExecution(record), InKb(record.inputSize),
                   InKb(record.taskBufSize), InKb(record.outputSize), InKb(record.workBufSize),
                   InKb(record.omSize), static_cast<uint32_t>(record.quilmInitMem));
  return written >= 0 && std::fflush(file) == 0;
}

}  // namespace

void PrintProfileSummary(const ProfileRecord& record) {
  LogInfo("===================================================");
  LogInfo("Input Size:                %.3f KB.", InKb(record.inputSize));
  LogInfo("Task Buffer Size:          %.3f KB.", InKb(record.taskBufSize));
  LogInfo("Work Buffer Size:          %.3f KB.", InKb(record.workBufSize));
  LogInfo("Output Size:               %.3f KB.", InKb(record.outputSize));
  LogInfo("ModelInfoMem Size:         %d KB.", record.modelInfoMem);
  LogInfo("QuilmInitMem Size:           %d KB.", record.quilmInitMem);
  LogInfo("Om Size:                   %.3f KB.", InKb(record.omSize));
  LogInfo("---------------------------------------------------");
  LogInfo("Read Model File Time:      %.2f ms", record.readModelFileTime);
  LogInfo("Model Load Time:           %.2f ms", record.modelLoadTime);
  LogInfo("Model Execute Time:        %.2f ms", TimePerExecution(record));
  LogInfo("===================================================");
}

void WriteMemoryDataCsv(const ProfileRecord& record, const std::string& reportPath) {
  const std::unique_ptr<std::FILE, FileCloser> file(std::fopen(reportPath.c_str(), "we"));
  if (file == nullptr || !WriteCsvLines(record, file.get())) {
    LogWarn("can't write memory report %s: %s", reportPath.c_str(), std::strerror(errno));
  }
}

}  // namespace quilmrun
