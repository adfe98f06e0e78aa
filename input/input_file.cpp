#include "input/input_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quilmrun {
namespace {

// A chunk is so large that the calls cost nothing beside the work on the text.
constexpr size_t kChunkSize = 65536;

bool IsDirectory(const Descriptor& descriptor) {
  struct stat status = {};
  return fstat(descriptor.Number(), &status) == 0 && S_ISDIR(status.st_mode);
}

// Passes every complete line to `use` and takes it off `text`. `text` is known to have no newline
// before `searched`.
void UseLines(std::string& text, size_t searched,
              const std::function<void(std::string_view)>& use) {
  size_t start = 0;
  for (size_t end = text.find('\n', searched); end != std::string::npos;
       end = text.find('\n', start)) {
    use(std::string_view(text).substr(start, end - start));
    start = end + 1;
  }
  text.erase(0, start);  // once for all lines, since it moves the rest of the text
}

}  // namespace

InputFile::InputFile(const std::string& path, int flags) : descriptor_(path, O_RDONLY | flags) {
  if (IsOpen() && IsDirectory(descriptor_)) {
    descriptor_.Close();
  }
}

std::optional<int64_t> InputFile::Size() const {
  const off_t size = lseek(descriptor_.Number(), 0, SEEK_END);
  if (size < 0 || lseek(descriptor_.Number(), 0, SEEK_SET) != 0) {
    return std::nullopt;
  }
  return size;
}

bool InputFile::AppendChunk(std::string& text) const {
  const size_t present = text.size();
  text.resize(present + kChunkSize);
  const size_t received = Read(&text[present], kChunkSize);
  text.resize(present + received);
  return received == kChunkSize;
}

InputFile::LinesEnd InputFile::ReadLines(size_t maxBytes, size_t maxLineLength,
                                         const std::function<void(std::string_view)>& use) const {
  std::string text;  // from the start of a line whose end has not been read
  size_t total = 0;
  bool more = true;
  while (more) {
    const size_t searched = text.size();
    more = AppendChunk(text);
    total += text.size() - searched;
    if (total > maxBytes) {
      return LinesEnd::kFileTooLarge;
    }
    UseLines(text, searched, use);
    // What is left is the beginning of a line. A file without newlines, such as a device, would
    // fill the memory.
    if (text.size() > maxLineLength) {
      use(text);
      return LinesEnd::kLineTooLong;
    }
  }
  if (!text.empty()) {
    use(text);
  }
  return LinesEnd::kWhole;
}

}  // namespace quilmrun
