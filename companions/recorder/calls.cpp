// Reads a calls file. All that it says is checked, because the machine may have gone down while the
// file was written.
#include "companions/recorder/calls.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "companions/recorder/call_kinds.h"
#include "companions/recorder/file_space.h"

namespace quilmrun_record {
namespace {

constexpr size_t kBlock = 512;  // entries that are read at once

template <size_t kSize>
std::string TextOf(const char (&field)[kSize]) {
  return {field, strnlen(field, kSize)};
}

bool IsSound(const CallEntry& call) {
  return call.call >= 1 && call.call <= quilm_interposer::kCallCount;
}

}  // namespace

std::unique_ptr<Calls> Calls::Open(const std::string& path, std::string& problem) {
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  struct stat status = {};
  if (file < 0 || fstat(file, &status) != 0) {
    problem = std::strerror(errno);
    return nullptr;
  }
  std::unique_ptr<Calls> calls(new Calls(file));
  if (!S_ISREG(status.st_mode) || !calls->ReadStart(static_cast<size_t>(status.st_size))) {
    problem = "no calls were recorded here";
    return nullptr;
  }
  return calls;
}

Calls::~Calls() {
  close(file_);
}

bool Calls::ReadStart(size_t fileSize) {
  if (!ReadAt(file_, &header_, sizeof(header_), 0) ||
      std::memcmp(header_.magic, kMagic, sizeof(kMagic)) != 0 || header_.flushed > header_.count ||
      header_.count - header_.flushed > kLatest ||
      !ReadAt(file_, &facts_, sizeof(facts_), offsetof(CallsFile, facts))) {
    return false;
  }
  // The latest entries come first in the file, so a cut takes the earlier ones.
  const size_t flushed =
      (std::max(fileSize, sizeof(CallsFile)) - sizeof(CallsFile)) / sizeof(CallEntry);
  count_ = flushed < header_.flushed ? flushed : header_.count;
  return true;
}

std::string Calls::Library() const {
  return TextOf(facts_.library);
}

std::string Calls::Program() const {
  return TextOf(facts_.program);
}

std::vector<std::string> Calls::Facts(const std::string& key) const {
  std::vector<std::string> values;
  const char* const end = facts_.texts + sizeof(facts_.texts);
  const char* text = facts_.texts;
  const auto next = [&] {
    std::string word(text, strnlen(text, static_cast<size_t>(end - text)));
    text = std::min(text + word.size() + 1, end);
    return word;
  };
  for (std::string name = next(); !name.empty(); name = next()) {
    std::string value = next();
    if (name == key) {
      values.push_back(std::move(value));
    }
  }
  return values;
}

// Reads entries from `first` on, up to the end of the block or of the part of the file that they
// are in. Returns how many of them are sound.
size_t Calls::ReadBlock(size_t first, std::vector<CallEntry>& block) const {
  const bool isFlushed = first < header_.flushed;
  const size_t place = first % kLatest;
  const size_t count =
      isFlushed ? std::min<size_t>(kBlock, header_.flushed - first)
                : std::min({kBlock, kLatest - place, static_cast<size_t>(count_ - first)});
  const size_t offset = isFlushed ? sizeof(CallsFile) + first * sizeof(CallEntry)
                                  : offsetof(CallsFile, latest) + place * sizeof(CallEntry);
  for (size_t i = 0; i < count; ++i) {
    block[i].call = 0;  // this stays where the file ends
  }
  static_cast<void>(ReadAt(file_, block.data(), count * sizeof(CallEntry), offset));
  const auto end = block.begin() + static_cast<std::ptrdiff_t>(count);
  return static_cast<size_t>(std::find_if_not(block.begin(), end, IsSound) - block.begin());
}

void Calls::ForEach(const std::function<void(const CallEntry&)>& take) const {
  std::vector<CallEntry> block(kBlock);
  for (size_t first = 0; first < count_;) {
    const size_t count = std::min(ReadBlock(first, block), count_ - first);
    if (count == 0) {
      return;
    }
    std::for_each(block.begin(), block.begin() + static_cast<std::ptrdiff_t>(count), take);
    first += count;
  }
}

const char* NameOf(const CallEntry& call) {
  return quilm_interposer::kNames[call.call - 1];
}

uint64_t EndOf(const CallEntry& call) {
  return HasReturned(call) ? call.startNs + call.durationNs : call.startNs;
}

std::string ResultOf(const CallEntry& call) {
  const CallKind& kind = kCallKinds[call.call - 1];
  char text[32];
  std::snprintf(text, sizeof(text), kind.result == ResultKind::kPointer ? "0x%llx" : "%llu",
                static_cast<unsigned long long>(call.result));
  return kind.isSigned ? std::to_string(call.result) : text;
}

}  // namespace quilmrun_record
