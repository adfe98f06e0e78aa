// Messages to the user: one line each on standard output, from a printf format.
//
// These calls put "[INFO]  ", "[WARN]  " or "[ERROR] " before the text, so that the texts line up,
// and a newline behind it. Each text stands once in the sources: a step that several callers share
// prints the message for all of them.
//
// A line has been written when the call returns. A log is therefore complete up to its last line,
// whatever happens next. These calls never fail. A line of more than 2 KB is cut when there is no
// memory for it.
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
/// a file or a pipe, so that its lines and the tool's keep their order. Opens /dev/null for every
/// standard stream that is closed: otherwise the first opened file would get the number of standard
/// output and receive the messages. REQUIRES: nothing has been printed yet.
void PrepareStandardStreams();

}  // namespace quilmrun

#endif  // QUILMRUN_BASE_LOG_H_
