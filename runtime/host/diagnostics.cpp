#include "runtime/host/diagnostics.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

namespace quilm_host {

void Explain(const char* format, ...) {
  char line[1024];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line, sizeof(line), format, arguments);
  va_end(arguments);
  std::replace(line, line + sizeof(line), '\n', ' ');
  std::fprintf(stderr, "host runtime: %s\n", line);
}

}  // namespace quilm_host
