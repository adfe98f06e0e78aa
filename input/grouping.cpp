#include <algorithm>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "app/sample_process.h"
#include "input/input_list.h"

namespace quilmrun {
namespace {

// REQUIRES: HasInputName(entry).
std::string_view InputName(std::string_view entry) {
  return entry.substr(0, entry.find(':'));
}

}  // namespace

bool SampleProcess::AllInputsNamed(const std::vector<std::string>& entries,
                                   const std::vector<std::string>& names) {
  return std::all_of(entries.begin(), entries.end(), [&names](const std::string& entry) {
    return HasInputName(entry) &&
           std::find(names.begin(), names.end(), InputName(entry)) != names.end();
  });
}

void SampleProcess::GroupInputsByName(std::vector<std::string>& entries,
                                      const std::vector<std::string>& names) {
  if (names.empty() || entries.size() % names.size() != 0 || !AllInputsNamed(entries, names)) {
    return;
  }
  std::unordered_map<std::string_view, size_t> positions;
  for (size_t i = 0; i < names.size(); ++i) {
    positions[names[i]] = i;
  }
  const auto byPosition = [&positions](const std::string& a, const std::string& b) {
    return positions[InputName(a)] < positions[InputName(b)];
  };
  const auto blockSize = static_cast<std::ptrdiff_t>(names.size());
  for (auto block = entries.begin(); block != entries.end(); block += blockSize) {
    std::sort(block, block + blockSize, byPosition);
  }
  for (std::string& entry : entries) {
    entry.erase(0, entry.find(':') + 1);
  }
}

}  // namespace quilmrun
