// A directory of a test's own, so that tests of two users or builds do not meet.
#ifndef QUILMRUN_TESTS_SCRATCH_DIRECTORY_H_
#define QUILMRUN_TESTS_SCRATCH_DIRECTORY_H_

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace quilmrun {

/// Made empty with a new name, and removed with all that is in it.
class ScratchDirectory {
 public:
  ScratchDirectory() { EXPECT_NE(mkdtemp(path_.data()), nullptr) << path_; }
  ~ScratchDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  /// Absolute, without a slash at the end.
  const std::string& Path() const { return path_; }

 private:
  std::string path_ = testing::TempDir() + "quilmrun_XXXXXX";
};

}  // namespace quilmrun

#endif  // QUILMRUN_TESTS_SCRATCH_DIRECTORY_H_
