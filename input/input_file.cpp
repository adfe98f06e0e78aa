#include "input/input_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace quilmrun {
namespace {

bool IsDirectory(int descriptor) {
  struct stat status {};
  return fstat(descriptor, &status) == 0 && S_ISDIR(status.st_mode);
}

template <typename Call>
ssize_t RetryInterrupted(const Call& call) {
  ssize_t result = -1;
  do {
    result = call();
  } while (result < 0 && errno == EINTR);
  return result;
}

// Takes the first `size` bytes off the list.
void DropFilled(std::vector<iovec>& pieces, size_t size) {
  auto piece = pieces.begin();
  while (piece != pieces.end() && piece->iov_len <= size) {
    size -= piece->iov_len;
    ++piece;
  }
  if (piece != pieces.end()) {
    piece->iov_base = static_cast<char*>(piece->iov_base) + size;
    piece->iov_len -= size;
  }
  pieces.erase(pieces.begin(), piece);
}

}  // namespace

InputFile::InputFile(const std::string& path, int flags)
    : descriptor_(open(path.c_str(), O_RDONLY | O_CLOEXEC | flags)) {
  if (IsOpen() && IsDirectory(descriptor_)) {
    close(descriptor_);
    descriptor_ = -1;
  }
}

InputFile::~InputFile() {
  if (IsOpen()) {
    close(descriptor_);
  }
}

std::optional<int64_t> InputFile::Size() const {
  const off_t size = lseek(descriptor_, 0, SEEK_END);
  if (size < 0 || lseek(descriptor_, 0, SEEK_SET) != 0) {
    return std::nullopt;
  }
  return size;
}

size_t InputFile::Read(void* target, size_t size) const {
  size_t done = 0;
  while (done < size) {
    const ssize_t received = RetryInterrupted(
        [&] { return read(descriptor_, static_cast<char*>(target) + done, size - done); });
    if (received <= 0) {
      break;
    }
    done += static_cast<size_t>(received);
  }
  return done;
}

bool InputFile::ReadPieces(std::vector<iovec>& pieces) const {
  while (!pieces.empty()) {
    const ssize_t received = RetryInterrupted(
        [&] { return readv(descriptor_, pieces.data(), static_cast<int>(pieces.size())); });
    if (received <= 0) {
      return false;
    }
    DropFilled(pieces, static_cast<size_t>(received));
  }
  return true;
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
