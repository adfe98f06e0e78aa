#include "base/log.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <new>

#include "base/c_locale.h"
#include "base/descriptor.h"

namespace quilmrun {
namespace {

// Most lines fit a buffer of this size. Printing them allocates nothing, so that they appear even
// when memory has run out.
constexpr size_t kUsualSize = 2048;

// Replaces the character at `size` by the newline and writes the line. The runtime library may have
// left text in stdio, which belongs before this line. The line itself bypasses stdio, which would
// drop the rest of it where standard output is non-blocking and full.
void WriteLine(char* line, size_t size) {
  line[size] = '\n';
  std::fflush(stdout);
  WriteWaiting(STDOUT_FILENO, line, size + 1);
}

// Returns how many characters the whole line has, without a newline. `line` receives at most
// `room - 1` of them.
__attribute__((format(printf, 4, 0))) size_t FormatLine(char* line, size_t room, const char* prefix,
                                                        const char* format, va_list arguments) {
  const size_t prefixSize = std::strlen(prefix);
  std::copy_n(prefix, prefixSize, line);
  const int size = std::vsnprintf(line + prefixSize, room - prefixSize, format, arguments);
  return prefixSize + static_cast<size_t>(std::max(size, 0));
}

__attribute__((format(printf, 2, 0))) void PrintLine(const char* prefix, const char* format,
                                                     va_list arguments) {
  const CLocale locale;
  // A list of arguments can be used once only, and a long line is formatted twice.
  va_list again;
  va_copy(again, arguments);
  char usual[kUsualSize];
  const size_t size = FormatLine(usual, sizeof(usual), prefix, format, arguments);
  const std::unique_ptr<char[]> large(size < sizeof(usual) ? nullptr
                                                           : new (std::nothrow) char[size + 1]);
  if (large != nullptr) {
    FormatLine(large.get(), size + 1, prefix, format, again);
    WriteLine(large.get(), size);
  } else {
    WriteLine(usual, std::min(size, sizeof(usual) - 1));  // cut, when there is no memory for more
  }
  va_end(again);
}

}  // namespace

// A variadic function cannot forward its arguments to another one, so that each level needs these
// lines of its own.
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
      open("/dev/null", O_RDWR);  // gets the lowest free number, which is this one
    }
  }
  std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
}

}  // namespace quilmrun
