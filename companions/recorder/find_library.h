#ifndef QUILMRUN_COMPANIONS_RECORDER_FIND_LIBRARY_H_
#define QUILMRUN_COMPANIONS_RECORDER_FIND_LIBRARY_H_

#include <cstddef>

namespace quilmrun_record {

/// Opens the libquilm.so that the executable would have without the recorder: looks where the
/// loader looks, in its order, and passes over the recorder itself. `cached`, which may be null, is
/// what the loader's cache names, and comes last. Writes its path, or what is wrong, to `text`;
/// true when found.
bool FindRealLibrary(const char* cached, char* text, size_t size);

}  // namespace quilmrun_record

#endif  // QUILMRUN_COMPANIONS_RECORDER_FIND_LIBRARY_H_
