// The file in which the recorder notes calls while the tool runs, and from which the record is made
// afterwards: a page with what concerns all of them, the latest entries, and then all earlier ones.
// The first two are mapped into the memory of the tool, so that what was noted outlives the
// process, however it ends. The latest entries have always the same places, since touching new
// memory would take longer than all the rest; when these are full, they go to the end of the file.
#ifndef QUILMRUN_COMPANIONS_RECORDER_CALLS_FILE_H_
#define QUILMRUN_COMPANIONS_RECORDER_CALLS_FILE_H_

#include <cstddef>
#include <cstdint>

namespace quilmrun_record {

constexpr char kMagic[16] = "quilmrun calls1";
constexpr size_t kLatest = 4096;  // entries that have a place in memory
constexpr uint64_t kUnfinished = UINT64_MAX;

struct CallsHeader {
  char magic[16];
  uint64_t startNs;    // monotonic clock
  int64_t startUs;     // the same moment, microseconds since 1970
  uint64_t costPs;     // picoseconds that noting one call takes, measured at the start
  uint64_t count;      // entries in all
  uint64_t flushed;    // of these, how many are at the end of the file
  uint64_t dropped;    // calls for which there was no space
  uint64_t ended;      // 1 when the process ended by itself, and not by a signal
  char library[4024];  // path of the real library
};

struct CallEntry {
  uint64_t startNs;     // since CallsHeader::startNs
  uint64_t durationNs;  // kUnfinished as long as the call has not returned
  int64_t result;       // as returned; a pointer as a number
  uint64_t object;  // handle or memory that the call is about: the first one it takes or hands out
  uint64_t other;   // the second one
  uint64_t bytes;   // of memory
  uint32_t thread;
  uint32_t call;    // position in QUILM_CALLS, counted from 1
  uint64_t unused;  // fills a cache line
};

static_assert(sizeof(CallsHeader) == 4096 && sizeof(CallEntry) == 64);

/// The part that is mapped. Entry i, unless it has been flushed, is latest[i % kLatest].
struct CallsFile {
  CallsHeader header;
  CallEntry latest[kLatest];
};

}  // namespace quilmrun_record

#endif  // QUILMRUN_COMPANIONS_RECORDER_CALLS_FILE_H_
