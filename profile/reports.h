// The two reports made from the profile record at the end of a run.
#ifndef QUILMRUN_PROFILE_REPORTS_H_
#define QUILMRUN_PROFILE_REPORTS_H_

#include <string>

#include "profile/profile_record.h"

namespace quilmrun {

/// Prints sizes (KB), media memory (KB) and times (ms, per execution) to standard output.
void PrintProfileSummary(const ProfileRecord& record);

/// Writes the memory report to `reportPath`: a header line and a value line, each with nine fields
/// separated by ",", without quotes or padding. Replaces the content of a file that is there. The
/// file holds these two lines also when several runs end at the same time. For example
///
///   Model Load Time(ms),Read Model File Time(ms),Model Execute Time(ms),Input Size(KB),...
///   12.50,3.50,4.20,147.000,0.500,4.883,0.000,2.000,16
///
/// Times are ms with 2 decimals, sizes KB with 3 decimals; the last field is the media memory taken
/// by the runtime's start, in KB, printed unsigned: a drop of 8 KB stands there as 4294967288.
/// A report that cannot be written gets a warning and is no failure of the run. Needs no memory.
void WriteMemoryDataCsv(const ProfileRecord& record, const std::string& reportPath);

}  // namespace quilmrun

#endif  // QUILMRUN_PROFILE_REPORTS_H_
