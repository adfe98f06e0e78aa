// Reading and writing of the calls file, and its space on the disk. All of it needs only libc, and
// none of it can end the process.
#ifndef QUILMRUN_COMPANIONS_RECORDER_FILE_SPACE_H_
#define QUILMRUN_COMPANIONS_RECORDER_FILE_SPACE_H_

#include <cstddef>

namespace quilmrun_record {

/// Reads all `size` bytes at `offset`; false at the end of the file or a failure (see errno).
bool ReadAt(int file, void* bytes, size_t size, size_t offset);

/// Writes all `size` bytes at `offset`; false when that fails (see errno).
bool WriteAt(int file, const void* bytes, size_t size, size_t offset);

/// Takes space for `wanted` bytes from `offset` on. A file beyond the process's limit would end the
/// process by a signal, so this takes less where the limit is nearer, but no less than `least`.
/// Returns 0 or an error number.
int TakeSpace(int file, size_t offset, size_t least, size_t wanted);

/// Ends the file at `offset`.
void GiveBackSpace(int file, size_t offset);

}  // namespace quilmrun_record

#endif  // QUILMRUN_COMPANIONS_RECORDER_FILE_SPACE_H_
