// A file opened for reading.
#ifndef QUILMRUN_INPUT_INPUT_FILE_H_
#define QUILMRUN_INPUT_INPUT_FILE_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "base/descriptor.h"

namespace quilmrun {

/// Reads a file in order, from its start. Closes it when destroyed. Prints nothing.
class InputFile {
 public:
  /// Opens `path` for reading, with further `flags`. A directory counts as not opened, since it has
  /// no bytes to read.
  explicit InputFile(const std::string& path, int flags = 0);

  bool IsOpen() const { return descriptor_.IsOpen(); }

  /// Bytes from the start to the end; empty when the file cannot be positioned, such as a pipe. The
  /// next read starts at the first byte. REQUIRES, like all below: IsOpen().
  std::optional<int64_t> Size() const;

  /// The same as those of Descriptor.
  size_t Read(void* target, size_t size) const { return descriptor_.Read(target, size); }
  bool ReadPieces(iovec* pieces, size_t count) const {
    return descriptor_.ReadPieces(pieces, count);
  }

  /// Appends the next piece of the file to `text`; false when the file has ended.
  bool AppendChunk(std::string& text) const;

  /// How ReadLines() came to its end.
  enum class LinesEnd { kWhole, kFileTooLarge, kLineTooLong };

  /// Calls `use` with every line, without its newline; the last line needs none. Holds no more than
  /// a line and a chunk of the text. Stops where the file has more than `maxBytes`, or in a line of
  /// more than `maxLineLength` bytes, of which the beginning is used.
  LinesEnd ReadLines(size_t maxBytes, size_t maxLineLength,
                     const std::function<void(std::string_view)>& use) const;

 private:
  Descriptor descriptor_;
};

}  // namespace quilmrun

#endif  // QUILMRUN_INPUT_INPUT_FILE_H_
