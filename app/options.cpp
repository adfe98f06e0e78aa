#include "app/options.h"

#include <unistd.h>

#include <algorithm>
#include <optional>
#include <string_view>

#include "base/log.h"
#include "base/number.h"
#include "base/status.h"
#include "input/input_list.h"
#include "input/utils.h"

namespace quilmrun {
namespace {

constexpr char kOptionString[] = "m:i:j:t:b:r:p:o:";

struct StringOption {
  int letter;
  std::string RunOptions::*field;
};

constexpr StringOption kStringOptions[] = {
    {'m', &RunOptions::modelPath},     {'i', &RunOptions::imagePath},
    {'j', &RunOptions::quilmJsonPath}, {'r', &RunOptions::rpnData},
    {'o', &RunOptions::outputPath},
};

struct NumberOption {
  int letter;
  int32_t RunOptions::*field;
  const char* echoName;  // null: not echoed
};

constexpr NumberOption kNumberOptions[] = {
    {'t', &RunOptions::nlpTotalT, "nlpTotalT"},
    {'b', &RunOptions::batchSize, "batchSize"},
    {'p', &RunOptions::profile, nullptr},
};

template <typename Option, size_t kCount>
const Option* FindOption(const Option (&table)[kCount], int letter) {
  for (const Option& option : table) {
    if (option.letter == letter) {
      return &option;
    }
  }
  return nullptr;
}

void StoreNumber(const NumberOption& option, const char* value, RunOptions& options) {
  const std::optional<int32_t> number = ParseInt32(value);
  if (!number.has_value()) {
    LogError("option -%c: \"%s\" is not a number from -2147483648 to 2147483647", option.letter,
             value);
    options.numbersValid = false;
    return;
  }
  options.*option.field = *number;
  if (option.echoName != nullptr) {
    LogInfo("%s: %d", option.echoName, *number);
  }
}

void StoreOption(int letter, RunOptions& options) {
  if (const StringOption* option = FindOption(kStringOptions, letter)) {
    options.*option->field = optarg;
  } else if (const NumberOption* number = FindOption(kNumberOptions, letter)) {
    StoreNumber(*number, optarg, options);
  } else {
    LogError(
        "example: -m modelPath -i imagePath -j quilmJsonPath [-t nlpTotalT] [-b batchSize] "
        "[-r rpnData] [-p profile] [-o outputPath]");
  }
}

// getopt() has stopped at a word that is no option. Some move such words behind the options, others
// leave what follows to the caller. False when nothing follows, or nothing but words.
bool StepOverWord(int argc, char** argv) {
  if (std::string_view(argv[optind - 1]) == "--") {
    return false;
  }
  const auto isOption = [](const char* word) { return word[0] == '-' && word[1] != '\0'; };
  const auto* const next = std::find_if(argv + std::min(optind, argc), argv + argc, isOption);
  optind = static_cast<int>(next - argv);
  return optind < argc;
}

}  // namespace

void ParseOptions(RunOptions& options, int argc, char** argv) {
  optind = 0;  // makes getopt() forget an earlier command line, and read its environment again
  do {
    int letter = 0;
    while (options.numbersValid && (letter = getopt(argc, argv, kOptionString)) != -1) {
      StoreOption(letter, options);
    }
  } while (options.numbersValid && StepOverWord(argc, argv));
}

int CheckOptions(const RunOptions& options, ResolvedPaths& paths) {
  if (!options.numbersValid || ResolvePath(options.modelPath, paths.modelPath) != kSuccess) {
    return kFailure;
  }
  paths.inputFiles = ReadInputList(options.imagePath);
  if (ResolvePath(options.quilmJsonPath, paths.quilmJsonPath) != kSuccess) {
    return kFailure;
  }
  for (const std::string& item : SplitString(options.rpnData)) {
    std::string resolved;
    if (ResolvePath(item, resolved) != kSuccess) {
      return kFailure;
    }
    paths.rpnFiles.push_back(std::move(resolved));
  }
  return kSuccess;
}

}  // namespace quilmrun
