// Checks of paths and files, and reading of whole files. None of these ends the program; each says
// on standard output what is wrong.
#ifndef QUILMRUN_INPUT_UTILS_H_
#define QUILMRUN_INPUT_UTILS_H_

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "input/input_file.h"
#include "runtime/handles.h"

namespace quilmrun {

/// kSuccess when `path` names an existing regular file, symbolic links followed.
int CheckFile(const std::string& path);

/// Stores the file's size in bytes into `size`. On failure (cannot be opened, empty, 2 GiB or more)
/// `size` is untouched.
int GetFileSize(const std::string& path, uint32_t& size);

/// Reads a whole file into new device memory and stores its size in bytes into `size`. Bytes that
/// the file turns out not to have are 0. On failure nothing is returned and `size` is untouched.
DeviceMemory ReadBinFile(const std::string& path, uint32_t& size);

/// Makes `inputPath` absolute and resolves its symbolic links, "." and ".." into `resolvedPath`.
/// Fails, with `resolvedPath` untouched, only when the length is not in 1 to 4096 bytes. A path
/// that cannot be resolved is passed on, made absolute as text: the step that opens it reports it
/// by a name that the user knows. Both may be the same string.
int ResolvePath(const std::string& inputPath, std::string& resolvedPath);

/// Calls `use` with every line of a text, without its newline; pipes can be read too. False, after
/// a report, when the file cannot be opened or holds 2 GiB or more. A line longer than 1 MiB is
/// reported too; its beginning is the last line that is used.
bool ReadLines(const std::string& path, const std::function<void(std::string_view)>& use);

/// Prints that `path` cannot be opened.
void ReportOpenFailure(const std::string& path);

/// The size in bytes of a file small enough for 32-bit arithmetic; one of 2 GiB or more, or without
/// a size, is reported and gives nothing. REQUIRES: file.IsOpen().
std::optional<uint32_t> SupportedSize(const InputFile& file, const std::string& path);

}  // namespace quilmrun

#endif  // QUILMRUN_INPUT_UTILS_H_
