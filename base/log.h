// Messages to the user: one line each on standard output, from a printf format.
//
// Every message starts with "[INFO]  ", "[WARN]  " or "[ERROR] ", so that the texts line up, and
// ends with a newline that these calls add. Each text stands once in the sources; a step that
// several callers share prints for all of them.
//
// A line is written when the call returns, with one system call where standard output takes it, so
// that a log is complete up to the last line whatever happens next. These calls never fail; a line
// of more than 2 KB is cut when there is no memory for it.
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

/// Makes what the runtime library prints through stdio line-buffered, even when standard output is
/// a file or a pipe, so that its lines and the tool's keep their order. Where a standard stream is
/// closed, puts /dev/null in its place, which the first file opened would otherwise take, and the
/// messages with it. REQUIRES: nothing has been printed yet.
void PrepareStandardStreams();

}  // namespace quilmrun

#endif  // QUILMRUN_BASE_LOG_H_
