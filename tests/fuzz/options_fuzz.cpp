// The command line, one word a line, and the numbers in it.
#include <cerrno>
#include <cstdlib>
#include <vector>

#include "app/options.h"
#include "base/number.h"
#include "tests/fuzz/fuzz.h"

using namespace quilmrun;       // NOLINT: what is tested
using namespace quilmrun_fuzz;  // NOLINT

namespace {

void CheckNumber(const std::string& text) {
  char* end = nullptr;
  errno = 0;
  const int64_t value = std::strtoll(text.c_str(), &end, 10);
  const bool valid = end != text.c_str() && errno == 0 && value == static_cast<int32_t>(value);
  const std::optional<int32_t> parsed = ParseInt32(text.c_str());
  Require(parsed.has_value() == valid && (!valid || *parsed == value));
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  std::vector<std::string> words = {"quilmrun"};
  while (!text.empty()) {
    words.emplace_back(TakeLine(text));
    CheckNumber(words.back());
  }
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (std::string& word : words) {
    arguments.push_back(word.data());
  }
  arguments.push_back(nullptr);
  RunOptions options;
  ParseOptions(options, static_cast<int>(words.size()), arguments.data());
  // Every value of an option is one of the words or the end of one.
  std::string all;
  for (const std::string& word : words) {
    all.append(word.c_str()).push_back('\n');
  }
  for (const std::string* value : {&options.modelPath, &options.imagePath, &options.quilmJsonPath,
                                   &options.rpnData, &options.outputPath}) {
    Require(all.find(*value + "\n") != std::string::npos);
  }
  return 0;
}
