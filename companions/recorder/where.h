// Where a run takes place, and with which files.
#ifndef QUILMRUN_COMPANIONS_RECORDER_WHERE_H_
#define QUILMRUN_COMPANIONS_RECORDER_WHERE_H_

#include <cstdint>
#include <string>
#include <vector>

#include "companions/recorder/calls.h"

namespace quilmrun_record {

/// Writes the start of a calls file to the empty file at `path`: the machine, the date and
/// `command`. Returns null, or a text that says what is wrong.
const char* PrepareCallsFile(const char* path, const std::vector<std::string>& command,
                             bool everyCall);

/// A file that a run used.
struct UsedFile {
  std::string path;    // empty when it is not known
  int64_t bytes = -1;  // -1 where there is no such file any more, or it has changed since
  std::string sha256;  // empty then
};

/// REQUIRES: the machine is the one of the run; elsewhere the files are missing or others.
UsedFile LookAt(const std::string& path, const std::string& directory, int64_t runStartUs);

/// The argument of an option of the tool, such as 'm'; empty when it is not in the command. What
/// stands before the tool's name is another program's.
std::string OptionOf(const std::vector<std::string>& command, char option);

}  // namespace quilmrun_record

#endif  // QUILMRUN_COMPANIONS_RECORDER_WHERE_H_
