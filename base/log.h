// The program's voice: one printf-format line per message, on standard output.
//
// Every message starts with "[INFO]  ", "[WARN]  " or "[ERROR] ", so that the texts line up, and
// ends with a newline that these calls add. Each text stands once in the sources; a step that
// several callers share prints for all of them.
#ifndef QUILMRUN_BASE_LOG_H_
#define QUILMRUN_BASE_LOG_H_

namespace quilmrun {

#define QUILMRUN_PRINTF_FORMAT __attribute__((format(printf, 1, 2)))

void LogInfo(const char* format, ...) QUILMRUN_PRINTF_FORMAT;
void LogWarn(const char* format, ...) QUILMRUN_PRINTF_FORMAT;
void LogError(const char* format, ...) QUILMRUN_PRINTF_FORMAT;

/// A line without prefix.
void LogPlain(const char* format, ...) QUILMRUN_PRINTF_FORMAT;

#undef QUILMRUN_PRINTF_FORMAT

/// Makes standard output line-buffered even when it is a file or a pipe, so that a log is complete
/// up to the last line whatever happens next. Where a standard stream is closed, puts /dev/null in
/// its place, which the first file opened would otherwise take, and the messages with it. REQUIRES:
/// nothing has been printed yet.
void PrepareStandardStreams();

}  // namespace quilmrun

#endif  // QUILMRUN_BASE_LOG_H_
