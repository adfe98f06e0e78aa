// Checks of paths and files, and reading of whole files. These functions report on standard output
// what is wrong; none of them ends the program.
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

/// Stores the file's size in bytes into `size`. Fails, with `size` untouched, when the file cannot
/// be opened, is empty, or has 2 GiB or more.
int GetFileSize(const std::string& path, uint32_t& size);

/// Reads a whole file into new device memory and stores its size in bytes into `size`. Where the
/// file has become shorter meanwhile, the rest is 0. After a failure nothing is returned and `size`
/// is untouched.
DeviceMemory ReadBinFile(const std::string& path, uint32_t& size);

/// Makes `inputPath` absolute and resolves its symbolic links, "." and ".." into `resolvedPath`.
/// Fails, with `resolvedPath` untouched, only when the length is not in 1 to 4096 bytes. A path
/// that cannot be resolved is made absolute as text, so that the step that opens it reports a name
/// that the user knows. Both may be the same string.
int ResolvePath(const std::string& inputPath, std::string& resolvedPath);

/// Calls `use` with every line of a text, without its newline; the text may come from a pipe.
/// False, after a report, when the file cannot be opened or holds 2 GiB or more. Reports a line
/// that is longer than 1 MiB as well, and uses its beginning as the last line.
bool ReadLines(const std::string& path, const std::function<void(std::string_view)>& use);

/// Prints that `path` cannot be opened.
void ReportOpenFailure(const std::string& path);

/// The size of a file in bytes. A file of 2 GiB or more, or without a size, is reported and gives
/// nothing. REQUIRES: file.IsOpen().
std::optional<uint32_t> SupportedSize(const InputFile& file, const std::string& path);

}  // namespace quilmrun

#endif  // QUILMRUN_INPUT_UTILS_H_
