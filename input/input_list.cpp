#include "input/input_list.h"

#include <libgen.h>

#include <algorithm>
#include <unordered_map>
#include <utility>

#include "input/utils.h"

namespace quilmrun {
namespace {

// The argument is a copy, since dirname() writes into it.
std::string DirectoryOf(std::string path) {
  return dirname(path.data());
}

std::string WithDirectory(std::string_view line, const std::string& directory) {
  const size_t nameSize = HasInputName(line) ? line.find(':') + 1 : 0;
  std::string entry;
  // Lists may have 100,000 lines: each entry is built with one allocation.
  entry.reserve(line.size() + directory.size() + 1);
  entry.append(line.substr(0, nameSize));
  return entry.append(directory).append("/").append(line.substr(nameSize));
}

// REQUIRES: HasInputName(entry).
std::string_view InputName(std::string_view entry) {
  return entry.substr(0, entry.find(':'));
}

}  // namespace

std::vector<std::string> ReadInputList(const std::string& listPath) {
  const std::string directory = DirectoryOf(listPath);
  std::vector<std::string> entries;
  const bool complete = ReadLines(listPath, [&](std::string_view line) {
    if (!line.empty()) {
      entries.push_back(WithDirectory(line, directory));
    }
  });
  // Half a list would be cut into other groups than the whole one.
  return complete ? std::move(entries) : std::vector<std::string>();
}

std::vector<std::string> SplitString(const std::string& text) {
  std::vector<std::string> items;
  for (size_t start = 0; start < text.size();) {
    const size_t end = std::min(text.find(',', start), text.size());
    items.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return items;
}

bool HasInputName(std::string_view entry) {
  const size_t colon = entry.find(':');
  return colon != std::string_view::npos && colon != 0 && colon != entry.size() - 1;
}

bool AllInputsNamed(const std::vector<std::string>& entries,
                    const std::vector<std::string>& names) {
  return std::all_of(entries.begin(), entries.end(), [&names](const std::string& entry) {
    return HasInputName(entry) &&
           std::find(names.begin(), names.end(), InputName(entry)) != names.end();
  });
}

void GroupInputsByName(std::vector<std::string>& entries, const std::vector<std::string>& names) {
  if (names.empty() || entries.size() % names.size() != 0 || !AllInputsNamed(entries, names)) {
    return;
  }
  std::unordered_map<std::string_view, size_t> positions;
  for (size_t i = 0; i < names.size(); ++i) {
    positions[names[i]] = i;
  }
  // Where a name occurs twice, its later position counts: the loop has overwritten the earlier one.
  const auto byPosition = [&positions](const std::string& a, const std::string& b) {
    return positions[InputName(a)] < positions[InputName(b)];
  };
  const auto blockSize = static_cast<std::ptrdiff_t>(names.size());
  for (auto block = entries.begin(); block != entries.end(); block += blockSize) {
    std::sort(block, block + blockSize, byPosition);
  }
  // The names are stripped last, since the sorting needs them.
  for (std::string& entry : entries) {
    entry.erase(0, entry.find(':') + 1);
  }
}

}  // namespace quilmrun
