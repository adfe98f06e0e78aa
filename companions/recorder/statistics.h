// How long the calls of a run took: all figures of a record, in memory that does not depend on the
// length of the run.
#ifndef QUILMRUN_COMPANIONS_RECORDER_STATISTICS_H_
#define QUILMRUN_COMPANIONS_RECORDER_STATISTICS_H_

#include <array>
#include <utility>
#include <vector>

#include "companions/recorder/distribution.h"
#include "companions/recorder/follow_run.h"

namespace quilmrun_record {

/// The rows of the statistics, in their order.
enum Row {
  kLoad,             // quilm_mdl_load_from_mem
  kWarmUp,           // the first execution of the run, which is in no other row
  kExecute,          // all other executions
  kExecuteFirst,     // of these, with -p 1 only, each inference's first ...
  kExecuteRepeated,  // ... and its repetitions
  kStaging,          // copies of input files into device memory
  kWriteOutputs,     // copies of outputs into files
  kInference,        // whole inferences
  kRows,
};

struct RowName {
  const char* key;    // in the record
  const char* title;  // in the table
};
extern const RowName kRowNames[kRows];

/// The executions of several inferences that follow each other, the warm-up included.
struct CourseBin {
  long inference = 0;    // the first one
  uint64_t startNs = 0;  // when that began
  uint64_t executions = 0;
  uint64_t minNs = 0;
  double medianNs = 0;
  uint64_t maxNs = 0;
};

/// An inference, for those that took longest.
struct SlowInference {
  uint64_t ns = 0;
  long group = -1;
};

struct MemoryPoint {
  uint64_t ns = 0;
  uint64_t bytes = 0;
};

/// What a run's statistics are.
struct Measurements {
  uint64_t calls = 0;                // that have an entry
  const char* unfinished = nullptr;  // the function that the last call is of, if it did not return
  uint64_t spanNs = 0;               // from the start of the first call to the end of the last one
  std::array<Distribution, kRows> rows;
  std::vector<int64_t> outputTypes;  // by their order, as asked before the first inference
  std::array<FunctionTotals, quilm_interposer::kCallCount> functions{};
  std::array<Distribution, 10> tenths;  // executions without the warm-up, by inference
  long inferencesPerBin = 1;
  std::vector<CourseBin> course;
  std::vector<SlowInference> slowest;  // the slowest first
  long inferences = 0;                 // that began
  uint64_t loopStartNs = 0;            // of the first inference
  uint64_t loopEndNs = 0;              // of the last one that got to its end
  uint64_t peakBytes = 0;              // of device memory
  /// Device memory at every change outside of inferences, and at most for each bin of the course.
  std::vector<MemoryPoint> memory;
};

/// Only calls that succeeded and stretches that got to their end count. `bins` is the most that the
/// course may have, and `slowest` the number of slowest inferences to find.
Measurements Measure(const Calls& calls, size_t bins, size_t slowest);

}  // namespace quilmrun_record

#endif  // QUILMRUN_COMPANIONS_RECORDER_STATISTICS_H_
