// A file as the operating system knows it. All bulk reads and all writes of the tool go through
// here. The system may interrupt a call, or do only a part of it; this file alone deals with both.
#ifndef QUILMRUN_BASE_DESCRIPTOR_H_
#define QUILMRUN_BASE_DESCRIPTOR_H_

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <string>

namespace quilmrun {

/// Writes all `size` bytes to the descriptor `number`. Waits while a non-blocking one is full.
/// False, with errno set, when it takes no more at all.
bool WriteWaiting(int number, const void* source, size_t size);

/// Owns a file descriptor and closes it when destroyed. Has no buffer: bytes go straight between
/// the file and where the caller has or wants them. Prints nothing.
class Descriptor {
 public:
  /// Opens `path` as open() does; a file that `flags` create gets `mode`, less the umask. Child
  /// programs do not inherit the descriptor.
  Descriptor(const std::string& path, int flags, mode_t mode = 0);
  ~Descriptor();
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  /// When this is false right after the construction, errno says why.
  bool IsOpen() const { return number_ >= 0; }

  /// The system's number for the file, which stays owned. REQUIRES, like all below: IsOpen().
  int Number() const { return number_; }

  /// Fills `size` bytes at `target`; returns how many the file still had.
  size_t Read(void* target, size_t size) const;

  /// Fills `count` pieces one after the other, all with one system call where the file delivers;
  /// stops at the end of the file. Changes the list. Returns false when the file ended first.
  /// REQUIRES: no piece is empty, and there are at most IOV_MAX of them.
  bool ReadPieces(iovec* pieces, size_t count) const;

  /// Writes all `size` bytes, with one system call where the file takes them; false, with errno
  /// set, when it takes no more.
  bool Write(const void* source, size_t size) const;

  /// Closes the file ahead of the destruction; IsOpen() is false from then on.
  void Close();

 private:
  int number_;
};

}  // namespace quilmrun

#endif  // QUILMRUN_BASE_DESCRIPTOR_H_
