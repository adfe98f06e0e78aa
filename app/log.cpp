#include "app/log.h"

#include <cstdarg>
#include <cstdio>

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

void SetLineBufferedOutput() {
  std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
}

}  // namespace quilmrun
