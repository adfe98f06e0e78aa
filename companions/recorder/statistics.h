// How long the calls of a kind took.
#ifndef QUILMRUN_COMPANIONS_RECORDER_STATISTICS_H_
#define QUILMRUN_COMPANIONS_RECORDER_STATISTICS_H_

#include <string>
#include <vector>

#include "companions/recorder/calls.h"

namespace quilmrun_record {

/// Of a number of durations, in ms. Percentiles between two of them are interpolated.
struct Statistics {
  size_t count = 0;
  double min = 0;
  double mean = 0;
  double p50 = 0;
  double p90 = 0;
  double p95 = 0;
  double p99 = 0;
  double max = 0;
  double perSecond = 0;  // at the mean duration
};

struct NamedStatistics {
  const char* key;    // in the record
  const char* title;  // in the table
  Statistics statistics;
};

/// Always the same rows, in this order; those without durations have count 0:
/// - load: quilm_mdl_load_from_mem
/// - warm_up: the first execution of the run, which is in no other row
/// - execute: all other executions
/// - execute_first, execute_repeated: of these, with -p 1 only, each inference's first, and its
///   repetitions
/// - staging: copies of input files into device memory
/// - write_outputs: copies of outputs into files
/// - inference: whole inferences
std::vector<NamedStatistics> Measure(const Calls& calls);

}  // namespace quilmrun_record

#endif  // QUILMRUN_COMPANIONS_RECORDER_STATISTICS_H_
