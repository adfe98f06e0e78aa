// The board's media memory. The accelerator's runtime allocates from it.
#ifndef QUILMRUN_PROFILE_MEDIA_MEMORY_H_
#define QUILMRUN_PROFILE_MEDIA_MEMORY_H_

#include <cstdint>
#include <istream>

namespace quilmrun {

/// Media memory in use, in KB, as the board's "/proc/umap/media-mem" tells it now. 0 when it tells
/// nothing. A file that cannot be opened is reported.
int32_t GetMediaMemUsed();

/// The figure in the text of that file: the first line with "used=" counts, up to a following "KB",
/// as in "total=65536KB, used=512KB, free=65024KB". Reads no further than that line. 0 when no line
/// has it, or when no signed 32-bit number follows.
int32_t ParseMediaMemUsed(std::istream& mediaMem);

/// Later reading minus earlier reading, in KB. The difference wraps, since a file may show any
/// number.
int32_t MediaMemDifference(int32_t later, int32_t earlier);

}  // namespace quilmrun

#endif  // QUILMRUN_PROFILE_MEDIA_MEMORY_H_
