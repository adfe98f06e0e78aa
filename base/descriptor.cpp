#include "base/descriptor.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace quilmrun {
namespace {

// A signal may interrupt any call that waits. The tool notes the signal and goes on, so that the
// call has to be made again.
template <typename Call>
auto RetryInterrupted(const Call& call) {
  auto result = call();
  while (result < 0 && errno == EINTR) {
    result = call();
  }
  return result;
}

// Takes the first `size` bytes off the list; returns its new start.
iovec* DropFilled(iovec* piece, size_t size) {
  for (; size > 0 && piece->iov_len <= size; ++piece) {
    size -= piece->iov_len;
  }
  if (size > 0) {
    piece->iov_base = static_cast<char*>(piece->iov_base) + size;
    piece->iov_len -= size;
  }
  return piece;
}

// Calls `isToBeTriedAgain` after every write that failed, and gives up when it returns false.
template <typename Decide>
bool WriteAll(int number, const void* source, size_t size, const Decide& isToBeTriedAgain) {
  size_t done = 0;
  while (done < size) {
    const ssize_t taken = RetryInterrupted(
        [&] { return write(number, static_cast<const char*>(source) + done, size - done); });
    if (taken > 0) {
      done += static_cast<size_t>(taken);
    } else if (!isToBeTriedAgain()) {
      return false;
    }
  }
  return true;
}

// Waits after a write that failed. False when waiting would not help.
bool WaitUntilWritable(int number) {
  if (errno != EAGAIN && errno != EWOULDBLOCK) {
    return false;
  }
  pollfd writable = {number, POLLOUT, 0};
  return RetryInterrupted([&] { return poll(&writable, 1, -1); }) == 1;
}

}  // namespace

Descriptor::Descriptor(const std::string& path, int flags, mode_t mode)
    : number_(RetryInterrupted([&] { return open(path.c_str(), flags | O_CLOEXEC, mode); })) {}

Descriptor::~Descriptor() {
  Close();
}

void Descriptor::Close() {
  if (IsOpen()) {
    // The descriptor is closed even when close() reports an interruption, so that a second try
    // could close a file that has been opened meanwhile.
    close(std::exchange(number_, -1));
  }
}

size_t Descriptor::Read(void* target, size_t size) const {
  size_t done = 0;
  while (done < size) {
    const ssize_t received = RetryInterrupted(
        [&] { return read(number_, static_cast<char*>(target) + done, size - done); });
    if (received <= 0) {
      break;  // the end of the file, or an error, of which the caller sees that bytes are missing
    }
    done += static_cast<size_t>(received);
  }
  return done;
}

bool Descriptor::ReadPieces(iovec* pieces, size_t count) const {
  const iovec* const end = pieces + count;
  while (pieces != end) {
    const ssize_t received =
        RetryInterrupted([&] { return readv(number_, pieces, static_cast<int>(end - pieces)); });
    if (received <= 0) {
      return false;
    }
    pieces = DropFilled(pieces, static_cast<size_t>(received));
  }
  return true;
}

bool Descriptor::Write(const void* source, size_t size) const {
  return WriteAll(number_, source, size, [] { return false; });
}

bool WriteWaiting(int number, const void* source, size_t size) {
  return WriteAll(number, source, size, [number] { return WaitUntilWritable(number); });
}

}  // namespace quilmrun
