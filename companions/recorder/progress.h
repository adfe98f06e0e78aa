#ifndef QUILMRUN_COMPANIONS_RECORDER_PROGRESS_H_
#define QUILMRUN_COMPANIONS_RECORDER_PROGRESS_H_

#include <string>

namespace quilmrun_record {

/// Shows once a second on standard error how far the run is that is recorded in `calls`, until
/// another process ends this one, or the one that started it is gone. `list` is the tool's list of
/// inputs, which may be empty when there is none.
void ShowProgress(const char* calls, const std::string& list);

}  // namespace quilmrun_record

#endif  // QUILMRUN_COMPANIONS_RECORDER_PROGRESS_H_
