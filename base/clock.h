// Wall-clock readings.
#ifndef QUILMRUN_BASE_CLOCK_H_
#define QUILMRUN_BASE_CLOCK_H_

#include <cstdint>

namespace quilmrun {

/// Microseconds since the epoch.
uint64_t GetTimeStampUs();

/// Milliseconds since the epoch, with fractions down to the microsecond. The difference of two
/// readings is an elapsed time.
double NowMs();

}  // namespace quilmrun

#endif  // QUILMRUN_BASE_CLOCK_H_
