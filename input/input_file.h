// A file opened for reading.
#ifndef QUILMRUN_INPUT_INPUT_FILE_H_
#define QUILMRUN_INPUT_INPUT_FILE_H_

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace quilmrun {

/// Reads from the start, in order, without a buffer of its own, so that the bytes go straight to
/// where the caller wants them. Closes the file when destroyed. Prints nothing.
class InputFile {
 public:
  /// Opens `path`, with `flags` on top of those for reading. A directory counts as not opened: it
  /// has no bytes to read.
  explicit InputFile(const std::string& path, int flags = 0);
  ~InputFile();
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;

  bool IsOpen() const { return descriptor_ >= 0; }

  /// Bytes from the start to the end; empty when the file has no end to seek to. The next read
  /// starts at the first byte. REQUIRES: IsOpen().
  std::optional<int64_t> Size() const;

  /// Fills `size` bytes at `target`; returns how many the file still had. REQUIRES: IsOpen().
  size_t Read(void* target, size_t size) const;

  /// Fills the pieces one after the other, all with one system call where the file delivers; stops
  /// at the end of the file. Consumes the list. REQUIRES: IsOpen(), at most IOV_MAX pieces. Returns
  /// false when the file ended first.
  bool ReadPieces(std::vector<iovec>& pieces) const;

  /// All bytes up to the end; nothing when there are more than `limit`. REQUIRES: IsOpen().
  std::optional<std::string> ReadText(size_t limit) const;

 private:
  int descriptor_;
};

}  // namespace quilmrun

#endif  // QUILMRUN_INPUT_INPUT_FILE_H_
