#include "tests/fuzz/fuzz.h"

#include <sys/mman.h>
#include <unistd.h>

namespace quilmrun_fuzz {

MemoryFile::MemoryFile()
    : descriptor_(memfd_create("input", 0)), path_("/proc/self/fd/" + std::to_string(descriptor_)) {
  Require(descriptor_ >= 0);
}

const std::string& MemoryFile::Hold(std::string_view content) {
  Require(ftruncate(descriptor_, 0) == 0);
  const ssize_t written = pwrite(descriptor_, content.data(), content.size(), 0);
  Require(written == static_cast<ssize_t>(content.size()));
  return path_;
}

}  // namespace quilmrun_fuzz
