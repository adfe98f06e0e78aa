#include "output/output_file.h"

#include "app/log.h"

namespace quilmrun {

OutputFile::OutputFile(const std::string& path) : stream_(std::fopen(path.c_str(), "wbe")) {
  if (!IsOpen()) {
    LogError("create output file [%s] failed", path.c_str());
  }
}

}  // namespace quilmrun
