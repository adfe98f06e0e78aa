// The list file and the grouping of its entries: the names of the model's inputs, separated by
// commas, on the first line, the list on the rest.
#include <algorithm>
#include <vector>

#include "input/input_list.h"
#include "tests/fuzz/fuzz.h"

using namespace quilmrun;       // NOLINT: what is tested
using namespace quilmrun_fuzz;  // NOLINT

namespace {

size_t PositionOf(const std::string& entry, const std::vector<std::string>& names) {
  const std::string name = entry.substr(0, entry.find(':'));
  const auto last = std::find(names.rbegin(), names.rend(), name);
  return static_cast<size_t>(names.rend() - last);
}

// What grouping has to come to, by looking through every block for each position in turn.
std::vector<std::string> SortedPositions(const std::vector<std::string>& entries,
                                         const std::vector<std::string>& names) {
  std::vector<std::string> sorted;
  for (size_t block = 0; block < entries.size(); block += names.size()) {
    for (size_t position = 1; position <= names.size(); ++position) {
      for (size_t i = block; i < block + names.size(); ++i) {
        if (PositionOf(entries[i], names) == position) {
          sorted.push_back(entries[i].substr(entries[i].find(':') + 1));
        }
      }
    }
  }
  return sorted;
}

// Entries of one name in one block may come in either order.
bool SameBlocks(std::vector<std::string> a, std::vector<std::string> b, size_t blockSize) {
  for (auto* list : {&a, &b}) {
    for (auto block = list->begin(); block != list->end();
         block += static_cast<std::ptrdiff_t>(blockSize)) {
      std::sort(block, block + static_cast<std::ptrdiff_t>(blockSize));
    }
  }
  return a == b;
}

bool AreUnique(std::vector<std::string> names) {
  std::sort(names.begin(), names.end());
  return std::adjacent_find(names.begin(), names.end()) == names.end();
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static MemoryFile file;
  std::string_view text(reinterpret_cast<const char*>(data), size);
  const std::vector<std::string> names = SplitString(std::string(TakeLine(text)));
  const std::vector<std::string> entries = ReadInputList(file.Hold(text));

  size_t lines = 0;
  while (!text.empty()) {
    lines += TakeLine(text).empty() ? 0 : 1;
  }
  Require(entries.size() == lines);

  std::vector<std::string> grouped = entries;
  GroupInputsByName(grouped, names);
  if (names.empty() || entries.size() % names.size() != 0 || !AllInputsNamed(entries, names)) {
    Require(grouped == entries);
  } else {
    const std::vector<std::string> sorted = SortedPositions(entries, names);
    Require(AreUnique(names) ? SameBlocks(grouped, sorted, names.size())
                             : grouped.size() == sorted.size());
  }
  return 0;
}
