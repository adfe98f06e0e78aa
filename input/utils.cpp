#include "input/utils.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <limits>

#include "base/log.h"
#include "base/status.h"

namespace quilmrun {
namespace {

constexpr int kMaxPathLength = 4096;
// realpath() may write PATH_MAX bytes, terminator included, even for a shorter path.
using PathBuffer = std::array<char, kMaxPathLength + 1>;

// The tool counts the bytes of a file in signed 32-bit numbers.
constexpr int64_t kMaxFileSize = std::numeric_limits<int32_t>::max();

// No useful line is longer: a path has at most 4096 bytes, the name of a model input 127. The part
// that is kept of a longer line is then refused as a path.
constexpr size_t kMaxLineLength = size_t{1} << 20;

void ReportTooLarge(const std::string& path) {
  LogError("file %s is too large, 2 GiB or more is not supported", path.c_str());
}

std::string AbsoluteAsText(const std::string& path) {
  PathBuffer directory{};
  if (path[0] == '/' || getcwd(directory.data(), directory.size()) == nullptr) {
    return path;
  }
  return std::string(directory.data()) + "/" + path;
}

// The size of the file. One that could not be opened, has no usable size or is empty is reported.
std::optional<uint32_t> NonEmptySize(const InputFile& file, const std::string& path) {
  if (!file.IsOpen()) {
    ReportOpenFailure(path);
    return std::nullopt;
  }
  const std::optional<uint32_t> size = SupportedSize(file, path);
  if (size == 0U) {
    LogError("binfile is empty, filename is %s", path.c_str());
    return std::nullopt;
  }
  return size;
}

}  // namespace

int CheckFile(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) {
    LogError("failed to get file %s", path.c_str());
    return kFailure;
  }
  if (!S_ISREG(status.st_mode)) {
    LogError("%s is not a file, please enter a file", path.c_str());
    return kFailure;
  }
  return kSuccess;
}

void ReportOpenFailure(const std::string& path) {
  LogError("open file %s failed", path.c_str());
}

std::optional<uint32_t> SupportedSize(const InputFile& file, const std::string& path) {
  const std::optional<int64_t> size = file.Size();
  if (!size.has_value()) {
    LogError("can't get the size of file %s", path.c_str());
    return std::nullopt;
  }
  if (*size > kMaxFileSize) {
    ReportTooLarge(path);
    return std::nullopt;
  }
  return static_cast<uint32_t>(*size);
}

bool ReadLines(const std::string& path, const std::function<void(std::string_view)>& use) {
  const InputFile file(path);
  if (!file.IsOpen()) {
    ReportOpenFailure(path);
    return false;
  }
  const InputFile::LinesEnd end = file.ReadLines(kMaxFileSize, kMaxLineLength, use);
  if (end == InputFile::LinesEnd::kFileTooLarge) {
    ReportTooLarge(path);
  } else if (end == InputFile::LinesEnd::kLineTooLong) {
    LogError("a line of file %s is longer than %zu bytes", path.c_str(), kMaxLineLength);
  }
  return end != InputFile::LinesEnd::kFileTooLarge;
}

int GetFileSize(const std::string& path, uint32_t& size) {
  // The path may name a pipe: opening it would otherwise wait until somebody writes to it.
  const InputFile file(path, O_NONBLOCK);
  const std::optional<uint32_t> fileSize = NonEmptySize(file, path);
  if (!fileSize.has_value()) {
    return kFailure;
  }
  size = *fileSize;
  return kSuccess;
}

DeviceMemory ReadBinFile(const std::string& path, uint32_t& size) {
  if (CheckFile(path) != kSuccess) {
    return nullptr;
  }
  const InputFile file(path);
  const std::optional<uint32_t> fileSize = NonEmptySize(file, path);
  if (!fileSize.has_value()) {
    return nullptr;
  }
  DeviceMemory memory = AllocateOrReport(*fileSize);
  if (memory == nullptr) {
    return nullptr;
  }
  // A file that has become shorter meanwhile leaves zeros; the runtime judges what it gets.
  file.Read(memory.get(), *fileSize);
  size = *fileSize;
  return memory;
}

int ResolvePath(const std::string& inputPath, std::string& resolvedPath) {
  LogInfo("inputPath: %s", inputPath.c_str());
  if (inputPath.empty() || inputPath.size() > kMaxPathLength) {
    LogError("inputPath size = %zu, out of range (%d, %d] error", inputPath.size(), 0,
             kMaxPathLength);
    return kFailure;
  }
  PathBuffer resolved{};
  if (realpath(inputPath.c_str(), resolved.data()) != nullptr) {
    resolvedPath = resolved.data();
    return kSuccess;
  }
  // The step that opens a missing file reports it.
  if (errno != ENOENT) {
    LogError("realpath fail, input: %s", inputPath.c_str());
  }
  resolvedPath = AbsoluteAsText(inputPath);
  return kSuccess;
}

}  // namespace quilmrun
