// The recorder: a libquilm.so that notes when each call begins, how long it takes, what it returns
// and what it is about, and leaves all else to the real library. quilmrun-record puts it in front
// of that one and tells it by the environment where to note calls.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <type_traits>

#include "companions/recorder/find_library.h"
#include "companions/recorder/recording.h"
#include "runtime/interposer/interposer.h"

namespace {

using namespace quilm_interposer;  // NOLINT: what all of this is about
using quilmrun_record::CallEntry;

quilmrun_record::Recording recording;

template <typename Argument>
void NoteHandle(CallEntry& entry, Argument argument) {
  if constexpr (std::is_pointer_v<Argument>) {
    entry.object = entry.object == 0 ? reinterpret_cast<uintptr_t>(argument) : entry.object;
  }
}

template <Id kId, typename... Arguments>
void NoteArguments(CallEntry& entry, Call<kId>, Arguments... arguments) {
  (NoteHandle(entry, arguments), ...);
}

// What the call hands out is known only afterwards.
void NoteArguments(CallEntry& entry, Call<Id::quilm_rt_malloc>, void**, size_t size, int32_t) {
  entry.bytes = size;
}

void NoteArguments(CallEntry& entry, Call<Id::quilm_mdl_load_from_mem>, const void* model,
                   size_t size, uint32_t*) {
  NoteHandle(entry, model);
  entry.bytes = size;
}

void NoteArguments(CallEntry& entry, Call<Id::quilm_create_data_buffer>, void* memory, size_t size,
                   size_t) {
  NoteHandle(entry, memory);
  entry.bytes = size;
}

template <Id kId, typename... Arguments>
void NoteOutcome(CallEntry&, Call<kId>, Arguments...) {}

void NoteOutcome(CallEntry& entry, Call<Id::quilm_rt_malloc>, void** memory, size_t, int32_t) {
  NoteHandle(entry, *memory);
}

// Exceptions of the library pass through this function on their way to the tool. They may belong to
// another C++ library than this one is built with, so nothing here may notice them. A call that
// throws stays unfinished.
template <Id kId, typename... Arguments>
ResultOf<kId> Handle(Call<kId> call, Arguments... arguments) {
  CallEntry entry{};
  entry.call = static_cast<uint32_t>(kId) + 1;
  NoteArguments(entry, call, arguments...);
  const size_t number = recording.Begin(entry);
  const ResultOf<kId> result = Pass(call, arguments...);
  NoteOutcome(entry, call, arguments...);
  if constexpr (std::is_pointer_v<ResultOf<kId>>) {
    recording.End(number, entry, static_cast<int64_t>(reinterpret_cast<uintptr_t>(result)));
  } else {
    recording.End(number, entry, static_cast<int64_t>(result));
  }
  return result;
}

// This comes before the tool's first line. Without the real library the process ends, as it does
// when the loader misses it; a run that cannot be recorded goes on.
__attribute__((constructor)) void Start() {
  static char library[quilmrun_record::kPathBytes];
  if (!quilmrun_record::FindRealLibrary(std::getenv("QUILMRUN_RECORD_CACHED"), library,
                                        sizeof(library))) {
    std::fprintf(stderr, "quilmrun-record: %s\n", library);
    constexpr int kMisuse = 2;
    _exit(kMisuse);
  }
  const char* path = std::getenv("QUILMRUN_RECORD_CALLS");
  const char* problem = path == nullptr ? nullptr : recording.Open(path, library);
  if (problem != nullptr) {
    std::fprintf(stderr, "quilmrun-record: %s: %s; this run is not recorded\n", path, problem);
  }
}

__attribute__((destructor)) void Stop() {
  recording.Close();
}

}  // namespace

QUILM_CALLS(QUILM_INTERPOSE)
