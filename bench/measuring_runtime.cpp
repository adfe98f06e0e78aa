// A libquilm.so that passes every call on to another one and keeps the time, so that what a run
// takes outside the runtime can be told from what the runtime takes. The environment says which one
// it is (QUILM_MEASURED) and where the figures go when the runtime is finalised (QUILM_FIGURES):
//
//   groups N              executions
//   loop_ns N             from the first input dataset to the unloading of the model
//   runtime_ns N          of that, within the runtime's calls
//   peak_rss_bytes N      most memory that the process has had
//   peak_device_bytes N   most of it that the runtime had handed out as device memory
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>

#include "runtime/interposer/interposer.h"

using namespace quilm_interposer;  // NOLINT: what all of this is about

namespace {

using Clock = std::chrono::steady_clock;

struct Figures {
  long groups = 0;
  Clock::time_point loopStart;
  Clock::duration loop{};
  Clock::duration runtime{};  // since loopStart
  Clock::duration loopRuntime{};
  std::map<const void*, size_t> blocks;
  size_t deviceBytes = 0;
  size_t peakDeviceBytes = 0;
  int datasets = 0;
} figures;

__attribute__((constructor)) void Open() {
  if (const char* problem = OpenRealLibrary(std::getenv("QUILM_MEASURED"))) {
    std::fprintf(stderr, "measuring runtime: %s\n", problem);
    std::abort();
  }
}

// Adds its own lifetime to the runtime's share.
class Stopwatch {
 public:
  Stopwatch() : start_(Clock::now()) {}
  ~Stopwatch() { figures.runtime += Clock::now() - start_; }
  Stopwatch(const Stopwatch&) = delete;
  Stopwatch& operator=(const Stopwatch&) = delete;

 private:
  Clock::time_point start_;
};

long PeakResidentBytes() {
  constexpr long kKilobyte = 1024;
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    if (word == "VmHWM:") {
      long kilobytes = 0;
      status >> kilobytes;
      return kilobytes * kKilobyte;
    }
  }
  return 0;
}

long InNs(Clock::duration duration) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(duration).count();
}

void WriteFigures() {
  const long peakResident = PeakResidentBytes();
  std::ofstream(std::getenv("QUILM_FIGURES"))
      << "groups " << figures.groups << "\nloop_ns " << InNs(figures.loop) << "\nruntime_ns "
      << InNs(figures.loopRuntime) << "\npeak_rss_bytes " << peakResident << "\npeak_device_bytes "
      << figures.peakDeviceBytes << "\n";
}

template <Id kId, typename... Arguments>
void NoteBefore(Call<kId>, Arguments...) {}

// The first dataset is for the outputs, the second one for the inputs of the first group.
void NoteBefore(Call<Id::quilm_mdl_create_dataset>) {
  if (++figures.datasets == 2) {
    figures.runtime = {};
    figures.loopStart = Clock::now();
  }
}

void NoteBefore(Call<Id::quilm_rt_free>, void* memory) {
  const auto found = figures.blocks.find(memory);
  if (found != figures.blocks.end()) {
    figures.deviceBytes -= found->second;
    figures.blocks.erase(found);
  }
}

void NoteBefore(Call<Id::quilm_mdl_execute>, uint32_t, const quilm_mdl_dataset*,
                quilm_mdl_dataset*) {
  ++figures.groups;
}

void NoteBefore(Call<Id::quilm_mdl_unload>, uint32_t) {
  figures.loop = Clock::now() - figures.loopStart;
  figures.loopRuntime = figures.runtime;
}

void NoteBefore(Call<Id::quilm_finalize>) {
  WriteFigures();
}

template <Id kId, typename... Arguments>
ResultOf<kId> Handle(Call<kId> call, Arguments... arguments) {
  NoteBefore(call, arguments...);
  const Stopwatch stopwatch;
  return Pass(call, arguments...);
}

quilm_error Handle(Call<Id::quilm_rt_malloc> call, void** memory, size_t size, int32_t policy) {
  quilm_error result = 0;
  {
    const Stopwatch stopwatch;
    result = Pass(call, memory, size, policy);
  }
  if (result == 0) {
    figures.blocks[*memory] = size;
    figures.deviceBytes += size;
    figures.peakDeviceBytes = std::max(figures.peakDeviceBytes, figures.deviceBytes);
  }
  return result;
}

}  // namespace

QUILM_CALLS(QUILM_INTERPOSE)
