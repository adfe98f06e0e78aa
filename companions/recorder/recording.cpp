#include "companions/recorder/recording.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "companions/recorder/call_kinds.h"
#include "companions/recorder/file_space.h"

namespace quilmrun_record {
namespace {

using quilm_interposer::Id;

constexpr size_t kDropped = SIZE_MAX;  // in place of a call's number

// The recorder takes this much space beyond what it writes, and gives it back at the end. A disk
// that the calls have filled then has space for the record.
constexpr size_t kReserve = size_t{256} * 1024;

// The first dataset takes the outputs of all inferences, each other one takes the inputs of one.
constexpr uint64_t kFirstOfInputs = 2;

uint32_t ThreadNumber() {
  // The recorder is loaded with the process, so its thread-local variables may use the fast place.
  __attribute__((tls_model("initial-exec"))) static thread_local uint32_t number = 0;
  if (number == 0) {
    number = static_cast<uint32_t>(syscall(SYS_gettid));
  }
  return number;
}

constexpr uint32_t NumberOf(Id id) {
  return static_cast<uint32_t>(id) + 1;
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

const char* Recording::Open(const char* path, const char* library) {
  if (const char* problem = Map(path)) {
    return problem;
  }
  MeasureCost();
  CallsFacts& facts = mapped_->facts;
  std::snprintf(facts.library, sizeof(facts.library), "%s", library);
  const ssize_t size = readlink("/proc/self/exe", facts.program, sizeof(facts.program) - 1);
  facts.program[std::max<ssize_t>(size, 0)] = '\0';
  CallsHeader& header = mapped_->header;
  timeval now;
  gettimeofday(&now, nullptr);
  startNs_ = header.startNs = MonotonicNs();
  header.startUs = int64_t{now.tv_sec} * 1000000 + now.tv_usec;
  return nullptr;
}

// The space on the disk is taken beforehand: writing to mapped memory without it would end the
// process.
const char* Recording::Map(const char* path) {
  file_ = open(path, O_RDWR | O_CLOEXEC);
  CallsHeader header;
  if (file_ < 0 || !ReadAt(file_, &header, sizeof(header), 0)) {
    return std::strerror(errno);
  }
  if (std::memcmp(header.magic, kMagic, sizeof(kMagic)) != 0) {
    return "it is no calls file";
  }
  if (header.state != RecordingState::kPrepared) {
    return "it has the calls of another process";
  }
  const size_t least = sizeof(CallsFile) + sizeof(CallsFile::latest);
  const int problem = TakeSpace(file_, 0, least, least + kReserve);
  void* memory =
      problem != 0 ? MAP_FAILED
                   : mmap(nullptr, sizeof(CallsFile), PROT_READ | PROT_WRITE, MAP_SHARED, file_, 0);
  if (memory == MAP_FAILED) {
    const char* text = std::strerror(problem != 0 ? problem : errno);
    GiveBackSpace(file_, offsetof(CallsFile, latest));
    header.state = RecordingState::kRefused;
    WriteAt(file_, &header, sizeof(header), 0);
    return text;
  }
  mapped_ = static_cast<CallsFile*>(memory);
  mapped_->header.state = RecordingState::kRecording;
  return nullptr;
}

// Notes calls that are none, and moves their entries to the end of the file too. The median of
// several rounds counts, because other programs may disturb some of them.
void Recording::MeasureCost() {
  constexpr size_t kRounds = 9;
  uint64_t rounds[kRounds];
  std::memset(mapped_->latest, 0, sizeof(mapped_->latest));  // the first touch takes longer
  for (uint64_t& round : rounds) {
    const uint64_t start = MonotonicNs();
    for (size_t call = 0; call <= kLatest; ++call) {
      CallEntry entry{};
      entry.call = NumberOf(Id::quilm_mdl_execute);
      End(Begin(entry), entry, 0);
    }
    round = MonotonicNs() - start;
    mapped_->header.count = mapped_->header.flushed = mapped_->header.dropped = 0;
  }
  std::sort(rounds, rounds + kRounds);
  mapped_->header.costPs = rounds[kRounds / 2] * 1000 / (kLatest + 1);
}

size_t Recording::Begin(CallEntry& entry) {
  if (mapped_ == nullptr) {
    return kDropped;
  }
  entry.thread = ThreadNumber();
  entry.durationNs = kUnfinished;
  const Lock lock(busy_);
  CallsHeader& header = mapped_->header;
  header.datasets += entry.call == NumberOf(Id::quilm_mdl_create_dataset) ? 1U : 0U;
  if (header.dropped > 0 || (header.count - header.flushed == kLatest && !Flush())) {
    ++header.dropped;
    return kDropped;
  }
  const size_t number = header.count;
  entry.beforeNs = header.endNs;
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
  CallsHeader& header = mapped_->header;
  if (entry.call == NumberOf(Id::quilm_mdl_get_num_inputs)) {
    header.inputs = static_cast<uint64_t>(result);
  }
  if (number < header.flushed) {  // calls within this one have been moved meanwhile
    WriteAt(file_, &entry, sizeof(entry), OffsetOf(number));
  } else if (header.everyCall == 0 && header.datasets >= kFirstOfInputs &&
             kCallKinds[entry.call - 1].onlyAsks && number + 1 == header.count) {
    TakeBack(entry);
  } else {
    mapped_->latest[number % kLatest] = entry;
  }
}

// From the first inference on, a call that only asks has an entry only while it lasts: the entry
// tells where the process ended, should it end within the call. Afterwards the call is counted.
void Recording::TakeBack(const CallEntry& entry) {
  CallsHeader& header = mapped_->header;
  Add(entry, header.withoutEntry[entry.call - 1]);
  header.endNs = entry.startNs + entry.durationNs;
  --header.count;
}

// Moving the entries takes no time of any call: it is done before the next call begins.
bool Recording::Flush() {
  const int tools = errno;
  CallsHeader& header = mapped_->header;
  const size_t offset = OffsetOf(header.flushed);
  const size_t least = sizeof(mapped_->latest);
  int problem = TakeSpace(file_, offset, least, least + kReserve);
  if (problem == 0 && !WriteAt(file_, mapped_->latest, least, offset)) {
    problem = errno;
  }
  if (problem == 0) {
    header.flushed = header.count;
  } else {
    GiveBackSpace(file_, offset);
    dprintf(STDERR_FILENO,
            "quilmrun-record: %s: the recording ends here, after %llu calls; the run goes on\n",
            std::strerror(problem), static_cast<unsigned long long>(header.count));
  }
  errno = tools;
  return problem == 0;
}

void Recording::Close() {
  if (mapped_ != nullptr) {
    mapped_->header.state = RecordingState::kEnded;
    GiveBackSpace(file_, OffsetOf(mapped_->header.flushed));
  }
}

}  // namespace quilmrun_record
