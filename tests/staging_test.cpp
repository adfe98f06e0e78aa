#include "input/staging.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "tests/scratch_directory.h"

namespace quilmrun {
namespace {

// Every test has a directory of its own with one file in it.
class CopyRowsTest : public testing::Test {
 protected:
  std::string Path() const { return directory_.Path() + "/rows"; }

 private:
  const ScratchDirectory directory_;
};

std::string Content(size_t size) {
  std::string bytes(size, '\0');
  for (size_t i = 0; i < size; ++i) {
    bytes[i] = static_cast<char>(i % 251 + 1);
  }
  return bytes;
}

// Puts the file into memory byte by byte, as the layout says.
std::vector<char> Expected(const RowLayout& layout, const std::string& file) {
  std::vector<char> memory(layout.batches * layout.batchSize);
  size_t next = 0;
  for (size_t b = 0; b < layout.batches; ++b) {
    for (size_t r = 0; r < layout.rows; ++r) {
      for (size_t i = 0; i < layout.rowBytes && next < file.size(); ++i) {
        memory[b * layout.batchSize + r * layout.stride + i] = file[next++];
      }
    }
  }
  return memory;
}

std::vector<char> Actual(const RowLayout& layout, const std::string& path) {
  std::vector<char> memory(layout.batches * layout.batchSize);
  CopyRows(InputFile(path), layout, memory.data());
  return memory;
}

// Rows without padding and with it, fewer and more than one system call takes, with and without a
// gap after a batch.
constexpr RowLayout kLayouts[] = {
    {3, 3, 2, 6, 2},
    {3, 8, 2, 16, 1},
    {3, 8, 2, 16, 3},
    {3, 8, 2, 21, 3},
    {16, 32, 5000, 160000, 2},
    {512, 512, 3, 1536, 2},
    {100, 512, 1030, 527360, 2},
    {700, 1000, 3, 3000, 2},
    {16, 16, 1030, 16487, 3},
    {3, 5, 1024, 5120, 1},
    {0, 32, 4, 128, 1},
    {8, 0, 0, 16, 1},
    {4, 32, 4, 128, 0},
};

TEST_F(CopyRowsTest, PutsEveryByteInItsPlaceWhereverTheFileEnds) {
  for (const RowLayout& layout : kLayouts) {
    const size_t whole = layout.batches * layout.rows * layout.rowBytes;
    const size_t batch = layout.rows * layout.rowBytes;
    for (const size_t size : {size_t{0}, size_t{1}, layout.rowBytes, layout.rowBytes + 1, batch / 2,
                              batch, batch + 1, whole - whole / 7, whole, whole + 5}) {
      const std::string content = Content(size);
      std::ofstream(Path(), std::ios::binary) << content;
      EXPECT_EQ(Actual(layout, Path()), Expected(layout, content))
          << layout.rowBytes << " of " << layout.stride << ", " << size << " bytes";
    }
  }
}

// The read calls that the process has made, by the system's account.
long ReadCalls() {
  std::ifstream account("/proc/self/io");
  std::string word;
  long calls = 0;
  while (account >> word && word != "syscr:") {
  }
  account >> calls;
  return calls;
}

TEST_F(CopyRowsTest, NeedsFewCalls) {
  if (ReadCalls() == 0) {
    GTEST_SKIP() << "the system keeps no account";
  }
  constexpr std::pair<RowLayout, int> kCalls[] = {{{16, 16, 5000, 80000, 1}, 1},
                                                  {{16, 32, 5000, 160000, 1}, 5}};
  for (const auto& [layout, most] : kCalls) {
    std::ofstream(Path(), std::ios::binary) << Content(80000);
    std::vector<char> memory(layout.batchSize);
    const InputFile file(Path());
    const long before = ReadCalls();
    const long account = ReadCalls() - before;
    CopyRows(file, layout, memory.data());
    EXPECT_LE(ReadCalls() - before, 2 * account + most);
  }
}

}  // namespace
}  // namespace quilmrun
