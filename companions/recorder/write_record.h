// The record, made of a calls file.
#ifndef QUILMRUN_COMPANIONS_RECORDER_WRITE_RECORD_H_
#define QUILMRUN_COMPANIONS_RECORDER_WRITE_RECORD_H_

#include <cstdio>
#include <string>
#include <vector>

#include "companions/recorder/calls.h"
#include "companions/recorder/statistics.h"

namespace quilmrun_record {

/// How the tool was run.
struct RunFacts {
  std::vector<std::string> command;
  // As the shell gives it, 128 and the signal's number when one ended it; empty when unknown.
  std::string exitStatus;
};

/// Writes a trace in the Chrome trace event format (times in microseconds, of the run's first
/// moment on), which starts with what identifies it: format, version, facts and statistics.
void WriteTrace(std::FILE* file, const Calls& calls, const RunFacts& facts,
                const std::vector<NamedStatistics>& statistics);

/// Writes a table with a line for each call, separated by commas.
void WriteCsv(std::FILE* file, const Calls& calls);

/// Prints the statistics for people.
void PrintTable(std::FILE* file, const Calls& calls,
                const std::vector<NamedStatistics>& statistics);

}  // namespace quilmrun_record

#endif  // QUILMRUN_COMPANIONS_RECORDER_WRITE_RECORD_H_
