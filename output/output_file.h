// A file being written.
#ifndef QUILMRUN_OUTPUT_OUTPUT_FILE_H_
#define QUILMRUN_OUTPUT_OUTPUT_FILE_H_

#include <cstddef>
#include <string>

#include "base/descriptor.h"

namespace quilmrun {

/// Creates or truncates a file, and closes it when destroyed. A file that cannot be created is
/// reported.
class OutputFile {
 public:
  explicit OutputFile(const std::string& path);

  bool IsOpen() const { return descriptor_.IsOpen(); }

  /// Returns when the data have reached the file. False when the file takes no more. REQUIRES:
  /// IsOpen().
  bool Write(const void* data, size_t size) const { return descriptor_.Write(data, size); }

 private:
  Descriptor descriptor_;
};

}  // namespace quilmrun

#endif  // QUILMRUN_OUTPUT_OUTPUT_FILE_H_
