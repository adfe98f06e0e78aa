#include "companions/recorder/progress.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <ctime>
#include <fstream>

#include "companions/recorder/calls_file.h"
#include "companions/recorder/file_space.h"

namespace quilmrun_record {
namespace {

constexpr uint64_t kTaskAndWorkBuffer = 2;

volatile std::sig_atomic_t isOver = 0;

double Seconds() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// Returns how many files a list names: each line that is not empty names one.
uint64_t CountFiles(const std::string& list) {
  struct stat status = {};
  if (list.empty() || stat(list.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return 0;
  }
  std::ifstream file(list);
  uint64_t count = 0;
  for (std::string line; std::getline(file, line);) {
    count += line.empty() || line == "\r" ? 0U : 1U;
  }
  return count;
}

// The number of inferences that have begun, and of all where list and model tell it.
struct Progress {
  uint64_t begun = 0;
  uint64_t all = 0;
};

Progress ReadProgress(int file, uint64_t files) {
  CallsHeader header;
  Progress progress;
  if (ReadAt(file, &header, sizeof(header), 0) && header.datasets > 1) {
    progress.begun = header.datasets - 1;  // the first one takes the outputs
    const uint64_t inputs =
        header.inputs > kTaskAndWorkBuffer ? header.inputs - kTaskAndWorkBuffer : 1;
    progress.all = header.inputs > kTaskAndWorkBuffer ? files / inputs : 0;
  }
  return progress;
}

void Show(const Progress& progress, double perSecond, double seconds) {
  char all[32] = "";
  if (progress.all > 0) {
    std::snprintf(all, sizeof(all), " of %llu", static_cast<unsigned long long>(progress.all));
  }
  // When the log goes to the terminal too, each message is a line of its own: the log would tear a
  // line apart that is written over and over.
  const bool isLogShown = isatty(STDOUT_FILENO) != 0;
  std::fprintf(stderr, "%squilmrun-record: %llu%s inferences, %.1f a second, %.0f s%s",
               isLogShown ? "" : "\r\033[K", static_cast<unsigned long long>(progress.begun), all,
               perSecond, seconds, isLogShown ? "\n" : "\r");
  std::fflush(stderr);
}

}  // namespace

void ShowProgress(const char* calls, const std::string& list) {
  const int file = open(calls, O_RDONLY | O_CLOEXEC);
  const pid_t parent = getppid();
  const uint64_t files = CountFiles(list);
  const double start = Seconds();
  double last = start;
  Progress before;
  std::signal(SIGTERM, [](int) { isOver = 1; });
  while (isOver == 0 && sleep(1) == 0 && getppid() == parent) {
    const Progress progress = ReadProgress(file, files);
    const double now = Seconds();
    Show(progress, static_cast<double>(progress.begun - before.begun) / (now - last), now - start);
    before = progress;
    last = now;
  }
}

}  // namespace quilmrun_record
