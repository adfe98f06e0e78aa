#include "app/options.h"

#include <unistd.h>

#include <optional>

#include "base/log.h"
#include "base/number.h"
#include "base/status.h"
#include "input/input_list.h"
#include "input/utils.h"

namespace quilmrun {
namespace {

// Words that are no options are ignored wherever they stand. The leading "-" makes getopt() return
// each of them as an option of the letter kWord. Without it, the variable POSIXLY_CORRECT would
// make the first word end the scan.
constexpr char kOptionString[] = "-m:i:j:t:b:r:p:o:";
constexpr int kWord = 1;

// A field of RunOptions, which an option fills.
template <typename Value>
using Field = Value(RunOptions::*);

// The tables below say which option goes into which field. A new option is a new row, and a letter
// in kOptionString.
struct StringOption {
  int letter;
  Field<std::string> field;
};

constexpr StringOption kStringOptions[] = {
    {'m', &RunOptions::modelPath},     {'i', &RunOptions::imagePath},
    {'j', &RunOptions::quilmJsonPath}, {'r', &RunOptions::rpnData},
    {'o', &RunOptions::outputPath},
};

struct NumberOption {
  int letter;
  Field<int32_t> field;
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

}  // namespace

void ParseOptions(RunOptions& options, int argc, char** argv) {
  optind = 0;  // makes getopt() start anew, also when a test has used it before
  int letter = 0;
  while (options.numbersValid && (letter = getopt(argc, argv, kOptionString)) != -1) {
    if (letter != kWord) {
      StoreOption(letter, options);
    }
  }
}

int CheckOptions(const RunOptions& options, ResolvedPaths& paths) {
  if (!options.numbersValid || ResolvePath(options.modelPath, paths.modelPath) != kSuccess) {
    return kFailure;
  }
  // A list that cannot be read has been reported. The run goes on without inputs: it still shows
  // the description of the model.
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
