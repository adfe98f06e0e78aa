#include "profile/media_memory.h"

#include <algorithm>
#include <fstream>
#include <string>
#include <string_view>

#include "base/log.h"
#include "base/number.h"

namespace quilmrun {
namespace {

constexpr char kMediaMemPath[] = "/proc/umap/media-mem";
constexpr std::string_view kUsed = "used=";
constexpr std::string_view kUnit = "KB";

}  // namespace

int32_t GetMediaMemUsed() {
  // The board makes the text when the file is opened, so that every reading opens it anew.
  std::ifstream mediaMem(kMediaMemPath);
  if (!mediaMem.is_open()) {
    LogPlain("/proc/umap/media-mem open failed!");
  }
  return ParseMediaMemUsed(mediaMem);
}

int32_t ParseMediaMemUsed(std::istream& mediaMem) {
  std::string line;
  while (std::getline(mediaMem, line)) {
    const size_t used = line.find(kUsed);
    if (used == std::string::npos) {
      continue;
    }
    const size_t number = used + kUsed.size();
    const size_t end = std::min(line.find(kUnit, number), line.size());
    return ParseInt32(std::string_view(line).substr(number, end - number)).value_or(0);
  }
  return 0;
}

int32_t MediaMemDifference(int32_t later, int32_t earlier) {
  return static_cast<int32_t>(static_cast<uint32_t>(later) - static_cast<uint32_t>(earlier));
}

}  // namespace quilmrun
