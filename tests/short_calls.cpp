// Preloaded into the tool, this interrupts reads and writes of files or lets them do only a few
// bytes, as the system may do at any time.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>

namespace {

constexpr size_t kMostBytes = 7;

template <typename Function>
Function Real(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

// Every third call is interrupted.
bool IsInterrupted() {
  static int calls = 0;
  errno = EINTR;
  return ++calls % 3 == 0;
}

}  // namespace

extern "C" {

ssize_t read(int file, void* target, size_t size) {
  static const auto kRead = Real<ssize_t (*)(int, void*, size_t)>("read");
  return IsInterrupted() ? -1 : kRead(file, target, std::min(size, kMostBytes));
}

ssize_t readv(int file, const iovec* pieces, int) {
  return read(file, pieces->iov_base, pieces->iov_len);
}

ssize_t write(int file, const void* source, size_t size) {
  static const auto kWrite = Real<ssize_t (*)(int, const void*, size_t)>("write");
  return IsInterrupted() ? -1 : kWrite(file, source, std::min(size, kMostBytes));
}

int open(const char* path, int flags, ...) {
  static const auto kOpen = Real<int (*)(const char*, int, ...)>("open");
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return IsInterrupted() ? -1 : kOpen(path, flags, mode);
}
}
