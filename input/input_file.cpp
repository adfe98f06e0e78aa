#include "input/input_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quilmrun {
namespace {

bool IsDirectory(const Descriptor& descriptor) {
  struct stat status {};
  return fstat(descriptor.Number(), &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

InputFile::InputFile(const std::string& path, int flags) : descriptor_(path, O_RDONLY | flags) {
  if (IsOpen() && IsDirectory(descriptor_)) {
    descriptor_.Close();
  }
}

std::optional<int64_t> InputFile::Size() const {
  const off_t size = lseek(descriptor_.Number(), 0, SEEK_END);
  if (size < 0 || lseek(descriptor_.Number(), 0, SEEK_SET) != 0) {
    return std::nullopt;
  }
  return size;
}

std::optional<std::string> InputFile::ReadText(size_t limit) const {
  constexpr size_t kChunkSize = 65536;
  std::string text;
  size_t received = 0;
  do {
    const size_t done = text.size();
    text.resize(done + kChunkSize);
    received = Read(&text[done], kChunkSize);
    text.resize(done + received);
    if (text.size() > limit) {
      return std::nullopt;
    }
  } while (received == kChunkSize);
  return text;
}

}  // namespace quilmrun
