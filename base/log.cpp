#include "base/log.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <initializer_list>

namespace quilmrun {
namespace {

__attribute__((format(printf, 2, 0))) void PrintLine(const char* prefix, const char* format,
                                                     va_list arguments) {
  std::fputs(prefix, stdout);
  std::vprintf(format, arguments);
  std::fputc('\n', stdout);
}

}  // namespace

// A variadic function cannot forward its arguments; only this much has to be said per level.
#define QUILMRUN_DEFINE_LOG(name, prefix) \
  void name(const char* format, ...) {    \
    va_list arguments;                    \
    va_start(arguments, format);          \
    PrintLine(prefix, format, arguments); \
    va_end(arguments);                    \
  }

QUILMRUN_DEFINE_LOG(LogInfo, "[INFO]  ")
QUILMRUN_DEFINE_LOG(LogWarn, "[WARN]  ")
QUILMRUN_DEFINE_LOG(LogError, "[ERROR] ")
QUILMRUN_DEFINE_LOG(LogPlain, "")

void PrepareStandardStreams() {
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(stream, F_GETFD) < 0) {
      open("/dev/null", O_RDWR);  // takes the lowest number that is free
    }
  }
  std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
}

}  // namespace quilmrun
