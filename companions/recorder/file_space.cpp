#include "companions/recorder/file_space.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace quilmrun_record {

bool ReadAt(int file, void* bytes, size_t size, size_t offset) {
  auto* rest = static_cast<char*>(bytes);
  while (size > 0) {
    const ssize_t taken = pread(file, rest, size, static_cast<off_t>(offset));
    if (taken < 0 && errno == EINTR) {
      continue;
    }
    if (taken <= 0) {
      errno = taken == 0 ? ENODATA : errno;
      return false;
    }
    rest += taken;
    size -= static_cast<size_t>(taken);
    offset += static_cast<size_t>(taken);
  }
  return true;
}

bool WriteAt(int file, const void* bytes, size_t size, size_t offset) {
  const auto* rest = static_cast<const char*>(bytes);
  while (size > 0) {
    const ssize_t written = pwrite(file, rest, size, static_cast<off_t>(offset));
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written <= 0) {
      return false;
    }
    rest += written;
    size -= static_cast<size_t>(written);
    offset += static_cast<size_t>(written);
  }
  return true;
}

int TakeSpace(int file, size_t offset, size_t least, size_t wanted) {
  rlimit limit;
  if (getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY) {
    if (offset + least > limit.rlim_cur) {
      return EFBIG;
    }
    wanted = std::min<size_t>(wanted, limit.rlim_cur - offset);
  }
  int problem = posix_fallocate(file, static_cast<off_t>(offset), static_cast<off_t>(wanted));
  while (problem == EINTR) {
    problem = posix_fallocate(file, static_cast<off_t>(offset), static_cast<off_t>(wanted));
  }
  return problem;
}

void GiveBackSpace(int file, size_t offset) {
  static_cast<void>(ftruncate(file, static_cast<off_t>(offset)) == 0);  // or it stays too long
}

}  // namespace quilmrun_record
