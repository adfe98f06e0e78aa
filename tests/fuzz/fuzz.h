// What the fuzz targets share. A target feeds libFuzzer's bytes to one reader of the tool and stops
// the process (by a sanitizer, or by Require) when something does not hold.
#ifndef QUILMRUN_TESTS_FUZZ_FUZZ_H_
#define QUILMRUN_TESTS_FUZZ_FUZZ_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace quilmrun_fuzz {

/// Ends the process, which makes the input a find, unless `holds`.
inline void Require(bool holds) {
  if (!holds) {
    __builtin_trap();
  }
}

/// A file in memory whose content changes from input to input.
class MemoryFile {
 public:
  MemoryFile();
  /// Replaces the content and returns a path under which the file can be opened.
  const std::string& Hold(std::string_view content);

 private:
  int descriptor_;
  std::string path_;
};

}  // namespace quilmrun_fuzz

#endif  // QUILMRUN_TESTS_FUZZ_FUZZ_H_
