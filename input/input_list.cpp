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
  std::string entry;
  entry.reserve(line.size() + directory.size() + 1);
  entry.append(line.substr(0, nameSize));
  return entry.append(directory).append("/").append(line.substr(nameSize));
}

// Calls `use` with the pieces that end at a separator or at the end of the text; none after a final
// separator.
template <typename Use>
void ForEachPiece(std::string_view text, char separator, const Use& use) {
  while (!text.empty()) {
    const size_t end = std::min(text.find(separator), text.size());
    use(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
}

}  // namespace

std::vector<std::string> ReadInputList(const std::string& listPath) {
  const std::optional<std::string> text = ReadTextFile(listPath);
  if (!text.has_value()) {
    return {};
  }
  const std::string directory = DirectoryOf(listPath);
  std::vector<std::string> entries;
  ForEachPiece(*text, '\n', [&](std::string_view line) {
    if (!line.empty()) {
      entries.push_back(WithDirectory(line, directory));
    }
  });
  return entries;
}

std::vector<std::string> SplitString(const std::string& text) {
  std::vector<std::string> items;
  ForEachPiece(text, ',', [&](std::string_view item) { items.emplace_back(item); });
  return items;
}

bool HasInputName(std::string_view entry) {
  const size_t colon = entry.find(':');
  return colon != std::string_view::npos && colon != 0 && colon != entry.size() - 1;
}

}  // namespace quilmrun
