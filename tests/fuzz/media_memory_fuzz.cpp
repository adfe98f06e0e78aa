// The text of the board's memory file.
#include <cerrno>
#include <cstdlib>
#include <sstream>

#include "profile/media_memory.h"
#include "tests/fuzz/fuzz.h"

using namespace quilmrun;       // NOLINT: what is tested
using namespace quilmrun_fuzz;  // NOLINT

namespace {

int32_t Expected(std::string_view text) {
  while (!text.empty()) {
    std::string line(TakeLine(text));
    const size_t used = line.find("used=");
    if (used == std::string::npos) {
      continue;
    }
    line = line.substr(used + 5);
    line = line.substr(0, line.find("KB"));
    char* end = nullptr;
    errno = 0;
    const int64_t value = std::strtoll(line.c_str(), &end, 10);
    const bool fits = errno == 0 && value == static_cast<int32_t>(value);
    return end != line.c_str() && fits ? static_cast<int32_t>(value) : 0;
  }
  return 0;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::istringstream mediaMem(text);
  Require(ParseMediaMemUsed(mediaMem) == Expected(text));
  return 0;
}
