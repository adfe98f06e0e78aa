#include "input/input_list.h"

#include <libgen.h>

#include <algorithm>
#include <optional>

#include "input/utils.h"

namespace quilmrun {
namespace {

std::string DirectoryOf(std::string path) {
  return dirname(path.data());
}

std::string WithDirectory(std::string_view line, const std::string& directory) {
  const size_t nameSize = HasInputName(line) ? line.find(':') + 1 : 0;
  std::string entry(line.substr(0, nameSize));
  return entry.append(directory).append("/").append(line.substr(nameSize));
}

// The pieces that end at a separator or at the end of the text; none after a final separator.
std::vector<std::string_view> Split(std::string_view text, char separator) {
  std::vector<std::string_view> pieces;
  while (!text.empty()) {
    const size_t end = std::min(text.find(separator), text.size());
    pieces.push_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return pieces;
}

}  // namespace

std::vector<std::string> ReadInputList(const std::string& listPath) {
  const std::optional<std::string> text = ReadTextFile(listPath);
  if (!text.has_value()) {
    return {};
  }
  const std::string directory = DirectoryOf(listPath);
  std::vector<std::string> entries;
  for (const std::string_view line : Split(*text, '\n')) {
    if (!line.empty()) {
      entries.push_back(WithDirectory(line, directory));
    }
  }
  return entries;
}

std::vector<std::string> SplitString(const std::string& text) {
  const std::vector<std::string_view> items = Split(text, ',');
  return {items.begin(), items.end()};
}

bool HasInputName(std::string_view entry) {
  const size_t colon = entry.find(':');
  return colon != std::string_view::npos && colon != 0 && colon != entry.size() - 1;
}

}  // namespace quilmrun
