#include "input/input_list.h"

#include <libgen.h>

#include <algorithm>
#include <utility>

#include "input/utils.h"

namespace quilmrun {
namespace {

std::string DirectoryOf(std::string path) {
  return dirname(path.data());
}

std::string WithDirectory(std::string_view line, const std::string& directory) {
  const size_t nameSize = HasInputName(line) ? line.find(':') + 1 : 0;
  std::string entry;
  entry.reserve(line.size() + directory.size() + 1);
  entry.append(line.substr(0, nameSize));
  return entry.append(directory).append("/").append(line.substr(nameSize));
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

}  // namespace quilmrun
