#include "runtime/host/diagnostics.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <string>

namespace quilm_host {
namespace {

__attribute__((format(printf, 1, 0))) std::string Format(const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, again);
  va_end(again);
  std::string text(static_cast<size_t>(std::max(length, 0)), '\0');
  std::vsnprintf(text.data(), text.size() + 1, format, arguments);
  return text;
}

}  // namespace

void Explain(const char* format, ...) {
  constexpr char kPrefix[] = "host runtime: ";
  va_list arguments;
  va_start(arguments, format);
  std::string text = kPrefix + Format(format, arguments) + "\n";
  va_end(arguments);
  for (size_t end = text.find('\n'); end + 1 < text.size(); end = text.find('\n', end + 1)) {
    text.insert(end + 1, kPrefix);
  }
  // Texts from files may hold anything.
  std::replace_if(
      text.begin(), text.end(), [](unsigned char c) { return c < ' ' && c != '\n'; }, ' ');
  std::fwrite(text.data(), 1, text.size(), stderr);
}

}  // namespace quilm_host
