#include "output/output_file.h"

#include <fcntl.h>

#include "base/log.h"

namespace quilmrun {
namespace {

constexpr int kCreateOrTruncate = O_WRONLY | O_CREAT | O_TRUNC;
constexpr mode_t kReadableByAll = 0666;

}  // namespace

OutputFile::OutputFile(const std::string& path)
    : descriptor_(path, kCreateOrTruncate, kReadableByAll) {
  if (!IsOpen()) {
    LogError("create output file [%s] failed", path.c_str());
  }
}

}  // namespace quilmrun
