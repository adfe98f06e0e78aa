#include "profile/reports.h"

#include <fcntl.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/descriptor.h"
#include "base/log.h"

namespace quilmrun {
namespace {

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

// Every figure has 32 bits or is a time in milliseconds, so a line of this length holds them all.
using CsvLine = std::array<char, 1024>;

size_t FormatCsvValues(const ProfileRecord& record, CsvLine& line) {
  const int size = std::snprintf(
      line.data(), line.size(), "%.2f,%.2f,%.2f,%.3f,%.3f,%.3f,%.3f,%.3f,%u\n",
      record.modelLoadTime, record.readModelFileTime, TimePerExecution(record),
      InKb(record.inputSize), InKb(record.taskBufSize), InKb(record.outputSize),
      InKb(record.workBufSize), InKb(record.omSize), static_cast<uint32_t>(record.quilmInitMem));
  return static_cast<size_t>(size);
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
  constexpr mode_t kReadableByAll = 0666;
  CsvLine values;
  // O_NONBLOCK: a pipe that nobody reads must not keep the process from ending.
  const Descriptor file(reportPath, O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK, kReadableByAll);
  if (!file.IsOpen() || !file.Write(kCsvHeader, sizeof(kCsvHeader) - 1) ||
      !file.Write(values.data(), FormatCsvValues(record, values))) {
    LogWarn("can't write memory report %s: %s", reportPath.c_str(), std::strerror(errno));
  }
}

}  // namespace quilmrun
