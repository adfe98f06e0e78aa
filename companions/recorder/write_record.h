// The record, made of a calls file.
#ifndef QUILMRUN_COMPANIONS_RECORDER_WRITE_RECORD_H_
#define QUILMRUN_COMPANIONS_RECORDER_WRITE_RECORD_H_

#include <cstdio>
#include <string>
#include <vector>

#include "companions/recorder/calls.h"
#include "companions/recorder/json_writer.h"
#include "companions/recorder/statistics.h"
#include "companions/recorder/where.h"

namespace quilmrun_record {

/// How the tool was run, and with what.
struct RunFacts {
  std::vector<std::string> command;
  // As the shell gives it, 128 and the signal's number when one ended it; empty when unknown.
  std::string exitStatus;
  UsedFile runtime;
  UsedFile model;
  UsedFile settings;
  UsedFile tool;
};

/// Which inferences the trace shows: all, or the first, the last, the slowest and some between.
struct TracePlan {
  long inferences = 0;        // of the run
  long atEachEnd = 0;         // so many of the first, and of the last
  long every = 1;             // ... and every so manyth
  std::vector<long> slowest;  // and these, sorted
  bool everyCall = false;     // calls that only ask too, and what each call returned

  bool Keeps(long group) const;
  long Kept() const;
};

/// A plan that keeps every `every`-th inference, and `some` of the first, of the last and of the
/// slowest, or fewer where the run has not twenty times as many.
TracePlan PlanTrace(const Measurements& measured, long every, long some, bool everyCall);

/// True when the run ended by itself and no call is missing.
bool IsComplete(const Calls& calls, const Measurements& measured);

/// Calls that have no entry, for want of space or since the file was cut.
uint64_t MissingCalls(const Calls& calls, const Measurements& measured);

/// Writes everything but the trace: one JSON object that starts with its format and version.
void WriteSummary(JsonWriter& json, const Calls& calls, const RunFacts& facts,
                  const Measurements& measured, const TracePlan& plan);

/// Writes a trace in the Chrome trace event format (times in microseconds, of the run's first
/// moment on), with the summary before the events.
void WriteTrace(std::FILE* file, const Calls& calls, const RunFacts& facts,
                const Measurements& measured, const TracePlan& plan);

/// Writes a table with a line for each call, separated by commas.
void WriteCsv(std::FILE* file, const Calls& calls);

/// Prints the statistics for people.
void PrintTable(std::FILE* file, const Calls& calls, const Measurements& measured);

}  // namespace quilmrun_record

#endif  // QUILMRUN_COMPANIONS_RECORDER_WRITE_RECORD_H_
