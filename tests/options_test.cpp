#include "app/options.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/status.h"
#include "input/utils.h"

namespace quilmrun {
namespace {

constexpr char kUsage[] =
    "[ERROR] example: -m modelPath -i imagePath -j quilmJsonPath [-t nlpTotalT] [-b batchSize] "
    "[-r rpnData] [-p profile] [-o outputPath]\n";

struct Parsed {
  RunOptions options;
  std::string printed;
};

Parsed Parse(std::vector<std::string> words) {
  words.insert(words.begin(), "quilmrun");
  std::vector<char*> argv;
  argv.reserve(words.size() + 1);
  for (std::string& word : words) {
    argv.push_back(word.data());
  }
  argv.push_back(nullptr);
  Parsed parsed;
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  ParseOptions(parsed.options, static_cast<int>(words.size()), argv.data());
  testing::internal::GetCapturedStderr();
  parsed.printed = testing::internal::GetCapturedStdout();
  return parsed;
}

TEST(ParseOptions, KeepsTheLastOfTwoAndPassesOverTheUnknown) {
  const Parsed parsed = Parse({"-b", "4", "word", "-x", "-b8", "-p", "2", "-t7x", "-o"});
  EXPECT_EQ(parsed.options.batchSize, 8);
  EXPECT_EQ(parsed.options.profile, 2);
  EXPECT_EQ(parsed.printed, "[INFO]  batchSize: 4\n" + std::string(kUsage) +
                                "[INFO]  batchSize: 8\n[INFO]  nlpTotalT: 7\n" + kUsage);
}

TEST(ResolvePath, ChecksOnlyTheLength) {
  const std::string missing = testing::TempDir() + "no/such/file";
  const std::string longest = "/" + std::string(4095, 'x');
  struct Row {
    std::string path;
    int result;
    std::string resolved;
    std::string printed;  // after the "inputPath" line
  };
  const Row rows[] = {
      {"", kFailure, "old", "[ERROR] inputPath size = 0, out of range (0, 4096] error\n"},
      {longest + "x", kFailure, "old",
       "[ERROR] inputPath size = 4097, out of range (0, 4096] error\n"},
      {longest, kSuccess, longest, "[ERROR] realpath fail, input: " + longest + "\n"},
      {missing, kSuccess, missing, ""},
      {"/usr/../usr/./bin/", kSuccess, "/usr/bin", ""},
      {"/dev/null/x", kSuccess, "/dev/null/x", "[ERROR] realpath fail, input: /dev/null/x\n"},
  };
  for (const Row& row : rows) {
    std::string resolved = "old";
    testing::internal::CaptureStdout();
    EXPECT_EQ(ResolvePath(row.path, resolved), row.result);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[INFO]  inputPath: " + row.path + "\n" + row.printed);
    EXPECT_EQ(resolved, row.resolved);
  }
}

}  // namespace
}  // namespace quilmrun
