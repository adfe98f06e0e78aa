// A file as the operating system knows it. Everything the tool reads in bulk or writes goes through
// here, so that interrupted system calls, and those that do only a part, are dealt with once.
#ifndef QUILMRUN_BASE_DESCRIPTOR_H_
#define QUILMRUN_BASE_DESCRIPTOR_H_

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <string>

namespace quilmrun {

/// Writes all `size` bytes to the descriptor `number`. Where it is non-blocking and takes no more
/// for the time being, waits until it does. False, with errno set, when it takes no more at all.
bool WriteWaiting(int number, const void* source, size_t size);

/// Owns a file descriptor and closes it when destroyed. Has no buffer: bytes go straight between
/// the file and where the caller has or wants them. Prints nothing.
class Descriptor {
 public:
  /// Opens `path` as open() does; a file that `flags` create gets `mode`, less the umask. Not
  /// handed on to other programs.
  Descriptor(const std::string& path, int flags, mode_t mode = 0);
  ~Descriptor();
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  /// When false, errno said why right after the construction.
  bool IsOpen() const { return number_ >= 0; }

  /// The system's number for it; stays owned. REQUIRES, like all below: IsOpen().
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

  /// Closes the file before the descriptor's end; IsOpen() is false from then on.
  void Close();

 private:
  int number_;
};

}  // namespace quilmrun

#endif  // QUILMRUN_BASE_DESCRIPTOR_H_
