#include "profile/reports.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/c_locale.h"
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

// This is large enough for the header and nine figures. The longest one is a time, a double of up
// to 312 characters; all others have 32 bits.
using CsvText = std::array<char, 1536>;

size_t FormatCsv(const ProfileRecord& record, CsvText& text) {
  const CLocale locale;
  const int size = std::snprintf(
      text.data(), text.size(), "%s%.2f,%.2f,%.2f,%.3f,%.3f,%.3f,%.3f,%.3f,%u\n", kCsvHeader,
      record.modelLoadTime, record.readModelFileTime, TimePerExecution(record),
      InKb(record.inputSize), InKb(record.taskBufSize), InKb(record.outputSize),
      InKb(record.workBufSize), InKb(record.omSize), static_cast<uint32_t>(record.quilmInitMem));
  return static_cast<size_t>(size);
}

// Runs that end at the same time replace the report one after the other. A run gives up after one
// second, when somebody keeps the lock. It goes on at once where the file system has no locks.
constexpr int kLockTries = 1000;
constexpr int kLockWaitMs = 1;

void Lock(const Descriptor& file) {
  for (int i = 0; i < kLockTries && flock(file.Number(), LOCK_EX | LOCK_NB) != 0; ++i) {
    if (errno != EWOULDBLOCK && errno != EINTR) {
      return;
    }
    poll(nullptr, 0, kLockWaitMs);
  }
}

// Truncates and fills the file while it is locked, so that readers that lock it find whole lines.
// The file itself stays, with its links and its permissions.
bool Replace(const Descriptor& file, const CsvText& text, size_t size) {
  Lock(file);
  // A pipe or a device refuses to be truncated, and has nothing to truncate.
  return (ftruncate(file.Number(), 0) == 0 || errno == EINVAL) && file.Write(text.data(), size);
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
  CsvText text;
  const size_t size = FormatCsv(record, text);
  // O_NONBLOCK: a pipe that nobody reads must not keep the process from ending.
  const Descriptor file(reportPath, O_WRONLY | O_CREAT | O_NONBLOCK, kReadableByAll);
  if (!file.IsOpen() || !Replace(file, text, size)) {
    LogWarn("can't write memory report %s: %s", reportPath.c_str(), std::strerror(errno));
  }
}

}  // namespace quilmrun
