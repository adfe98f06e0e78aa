#include "companions/recorder/recording.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace quilmrun_record {
namespace {

constexpr size_t kDropped = SIZE_MAX;  // in place of a call's number

uint32_t ThreadNumber() {
  // Loaded with the process, the recorder may have its thread-local variables in the fast place.
  __attribute__((tls_model("initial-exec"))) static thread_local uint32_t number = 0;
  if (number == 0) {
    number = static_cast<uint32_t>(syscall(SYS_gettid));
  }
  return number;
}

bool WriteAt(int file, const void* bytes, size_t size, size_t offset) {
  const auto* rest = static_cast<const char*>(bytes);
  while (size > 0) {
    const ssize_t written = pwrite(file, rest, size, static_cast<off_t>(offset));
    if (written <= 0 && errno != EINTR) {
      return false;
    }
    const size_t done = written > 0 ? static_cast<size_t>(written) : 0;
    rest += done;
    size -= done;
    offset += done;
  }
  return true;
}

size_t OffsetOf(size_t number) {
  return sizeof(CallsFile) + number * sizeof(CallEntry);
}

class Lock {
 public:
  explicit Lock(std::atomic_flag& busy) : busy_(busy) {
    while (busy_.test_and_set(std::memory_order_acquire)) {
    }
  }
  ~Lock() { busy_.clear(std::memory_order_release); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

 private:
  std::atomic_flag& busy_;
};

}  // namespace

// Space on the disk is taken beforehand: where it is missing, writing to mapped memory ends the
// process.
const char* Recording::Open(const char* path, const char* library) {
  file_ = open(path, O_RDWR | O_CLOEXEC);
  const int problem = file_ < 0 ? errno : posix_fallocate(file_, 0, sizeof(CallsFile));
  if (problem != 0) {
    return std::strerror(problem);
  }
  void* memory = mmap(nullptr, sizeof(CallsFile), PROT_READ | PROT_WRITE, MAP_SHARED, file_, 0);
  if (memory == MAP_FAILED) {
    return std::strerror(errno);
  }
  mapped_ = static_cast<CallsFile*>(memory);
  MeasureCost();
  CallsHeader& header = mapped_->header;
  std::strncpy(header.library, library, sizeof(header.library) - 1);
  timeval now;
  gettimeofday(&now, nullptr);
  startNs_ = header.startNs = MonotonicNs();
  header.startUs = int64_t{now.tv_sec} * 1000000 + now.tv_usec;
  std::memcpy(header.magic, kMagic, sizeof(kMagic));
  return nullptr;
}

// Tries it, moving the entries to the end of the file included, and takes the median of several
// rounds, as anything may come between.
void Recording::MeasureCost() {
  constexpr size_t kRounds = 5;
  uint64_t rounds[kRounds];
  std::memset(mapped_->latest, 0, sizeof(mapped_->latest));  // touched for the first time
  for (size_t i = 0; i < kRounds; ++i) {
    const uint64_t start = MonotonicNs();
    for (size_t call = 0; call < kLatest; ++call) {
      CallEntry entry{};
      End(Begin(entry), entry, 0);
    }
    const uint64_t time = MonotonicNs() - start;
    size_t place = i;
    for (; place > 0 && rounds[place - 1] > time; --place) {
      rounds[place] = rounds[place - 1];
    }
    rounds[place] = time;
  }
  mapped_->header = {};
  mapped_->header.costPs = rounds[kRounds / 2] * 1000 / kLatest;
  static_cast<void>(ftruncate(file_, sizeof(CallsFile)) == 0);  // or it is longer than it need be
}

size_t Recording::Begin(CallEntry& entry) {
  if (mapped_ == nullptr) {
    return kDropped;
  }
  entry.thread = ThreadNumber();
  entry.durationNs = kUnfinished;
  const Lock lock(busy_);
  CallsHeader& header = mapped_->header;
  if (header.dropped > 0 || (header.count - header.flushed == kLatest && !Flush())) {
    ++header.dropped;
    return kDropped;
  }
  const size_t number = header.count;
  entry.startNs = MonotonicNs() - startNs_;
  mapped_->latest[number % kLatest] = entry;
  header.count = number + 1;
  return number;
}

void Recording::End(size_t number, CallEntry& entry, int64_t result) {
  if (number == kDropped) {
    return;
  }
  entry.durationNs = MonotonicNs() - startNs_ - entry.startNs;
  entry.result = result;
  const Lock lock(busy_);
  if (number >= mapped_->header.flushed) {
    mapped_->latest[number % kLatest] = entry;
  } else {  // calls within this one have filled the memory since
    WriteAt(file_, &entry, sizeof(entry), OffsetOf(number));
  }
}

// Takes no time of any call, as it comes before the next one begins.
bool Recording::Flush() {
  CallsHeader& header = mapped_->header;
  const bool done =
      WriteAt(file_, mapped_->latest, sizeof(mapped_->latest), OffsetOf(header.flushed));
  header.flushed = done ? header.count : header.flushed;
  return done;
}

void Recording::Close() {
  if (mapped_ != nullptr) {
    mapped_->header.ended = 1;
  }
}

}  // namespace quilmrun_record
