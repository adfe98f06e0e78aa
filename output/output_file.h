// A file being written.
#ifndef QUILMRUN_OUTPUT_OUTPUT_FILE_H_
#define QUILMRUN_OUTPUT_OUTPUT_FILE_H_

#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>

namespace quilmrun {

/// Creates or truncates a file and closes it when destroyed; a failure to create it is reported.
class OutputFile {
 public:
  explicit OutputFile(const std::string& path);

  bool IsOpen() const { return stream_ != nullptr; }

  /// Both return false once a write has failed. REQUIRES: IsOpen().
  bool Write(const void* data, size_t size) {
    return std::fwrite(data, 1, size, stream_.get()) == size;
  }
  bool Flush() { return std::fflush(stream_.get()) == 0; }

 private:
  struct Closer {
    void operator()(std::FILE* stream) const { std::fclose(stream); }
  };
  std::unique_ptr<std::FILE, Closer> stream_;
};

}  // namespace quilmrun

#endif  // QUILMRUN_OUTPUT_OUTPUT_FILE_H_
