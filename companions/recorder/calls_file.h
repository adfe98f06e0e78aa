// The file in which the recorder notes calls while the tool runs, and from which the record is made
// afterwards. It has four parts: a page of numbers, the facts of the run, the latest entries, and
// after these all earlier entries. The first three are mapped into the memory of the tool, so that
// what was noted outlives the process, however it ends. The latest entries always have the same
// places, because touching new memory would take longer than all the rest; when the places are
// full, the entries go to the end of the file.
#ifndef QUILMRUN_COMPANIONS_RECORDER_CALLS_FILE_H_
#define QUILMRUN_COMPANIONS_RECORDER_CALLS_FILE_H_

#include <cstddef>
#include <cstdint>

#include "runtime/interposer/interposer.h"

namespace quilmrun_record {

constexpr char kMagic[16] = "quilmrun calls2";
constexpr size_t kLatest = 1024;  // the number of entries that have a place in memory
constexpr uint64_t kUnfinished = UINT64_MAX;
constexpr size_t kPathBytes = 4096;

/// What became of the recording.
enum class RecordingState : uint64_t {
  kPrepared,   // the program has not loaded the recorder
  kRecording,  // the program runs, or it was ended by a signal
  kEnded,      // the program ended by itself
  kRefused,    // the recorder was loaded, but could not record
};

/// What all calls of one function have in common; times in ns.
struct FunctionTotals {
  uint64_t count;
  uint64_t failed;  // calls that returned a code other than 0
  uint64_t totalNs;
  uint64_t minNs;  // 0 while count is 0
  uint64_t maxNs;
};

struct CallsHeader {
  char magic[16];
  RecordingState state;
  uint64_t startNs;    // monotonic clock
  int64_t startUs;     // the same moment, microseconds since 1970
  uint64_t costPs;     // picoseconds that noting one call takes, measured at the start
  uint64_t count;      // entries in all
  uint64_t flushed;    // of these, how many are at the end of the file
  uint64_t dropped;    // calls for which there was no space
  uint64_t everyCall;  // 1 when calls that only ask get entries too
  uint64_t datasets;   // datasets that were asked for, even when their calls were dropped
  uint64_t inputs;     // of the model, task and work buffer included; 0 while unknown
  uint64_t endNs;      // end of the latest call without an entry, since startNs
  FunctionTotals withoutEntry[quilm_interposer::kCallCount];
};

/// What is known of a run beside its calls.
struct CallsFacts {
  char library[kPathBytes];  // the real library
  char program[kPathBytes];  // the executable
  char texts[4 * 4096];      // keys and values by turns, each with its NUL, up to an empty key
};

struct CallEntry {
  uint64_t startNs;     // since CallsHeader::startNs
  uint64_t durationNs;  // kUnfinished as long as the call has not returned
  int64_t result;       // as returned; a pointer as a number
  uint64_t object;      // handle or memory that the call is about: the first one it has
  uint64_t bytes;       // of memory
  uint64_t beforeNs;    // CallsHeader::endNs when the call began
  uint32_t thread;
  uint32_t call;    // position in QUILM_CALLS, counted from 1
  uint64_t unused;  // fills a cache line
};

/// The part that is mapped. Entry i, unless it has been flushed, is latest[i % kLatest].
struct CallsFile {
  union {
    CallsHeader header;
    char page[4096];
  };
  CallsFacts facts;
  CallEntry latest[kLatest];
};

static_assert(sizeof(CallsHeader) <= 4096 && sizeof(CallEntry) == 64);

}  // namespace quilmrun_record

#endif  // QUILMRUN_COMPANIONS_RECORDER_CALLS_FILE_H_
