// Reads a calls file, by mapping it, and says what its entries mean.
#include "companions/recorder/calls.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <type_traits>

#include "runtime/interposer/interposer.h"

namespace quilmrun_record {
namespace {

enum class Kind { kCode, kCount, kPointer };

template <typename Result>
constexpr Kind KindOf() {
  return std::is_pointer_v<Result> ? Kind::kPointer
                                   : (std::is_signed_v<Result> ? Kind::kCode : Kind::kCount);
}

#define RECORD_KIND(arity, function) \
  KindOf<quilm_interposer::ResultOf<quilm_interposer::Id::function>>(),
constexpr Kind kKinds[] = {QUILM_CALLS(RECORD_KIND)};
#undef RECORD_KIND

}  // namespace

std::optional<Calls> Calls::Open(const std::string& path) {
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat status {};
  void* memory = MAP_FAILED;
  if (file >= 0 && fstat(file, &status) == 0 &&
      status.st_size >= static_cast<off_t>(sizeof(CallsFile))) {
    memory = mmap(nullptr, static_cast<size_t>(status.st_size), PROT_READ, MAP_PRIVATE, file, 0);
  }
  close(file);
  if (memory == MAP_FAILED || std::memcmp(memory, kMagic, sizeof(kMagic)) != 0) {
    return std::nullopt;
  }
  Calls calls;  // mapped until the process ends
  calls.file_ = static_cast<const CallsFile*>(memory);
  calls.flushed_ = reinterpret_cast<const CallEntry*>(calls.file_ + 1);
  calls.count_ = calls.Header().count;
  const size_t inFile =
      (static_cast<size_t>(status.st_size) - sizeof(CallsFile)) / sizeof(CallEntry);
  return calls.Header().flushed <= inFile ? std::optional(calls) : std::nullopt;
}

const char* NameOf(const CallEntry& call) {
  return quilm_interposer::kNames[call.call - 1];
}

uint64_t EndOf(const CallEntry& call) {
  return call.durationNs == kUnfinished ? call.startNs : call.startNs + call.durationNs;
}

std::string ResultOf(const CallEntry& call) {
  const Kind kind = kKinds[call.call - 1];
  char text[32];
  std::snprintf(text, sizeof(text), kind == Kind::kPointer ? "0x%llx" : "%llu",
                static_cast<unsigned long long>(call.result));
  return kind == Kind::kCode ? std::to_string(call.result) : text;
}

}  // namespace quilmrun_record
