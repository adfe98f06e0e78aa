#include "base/clock.h"

#include <sys/time.h>

namespace quilmrun {

// This reads the wall clock, since people read the stamps in the names of output files. An elapsed
// time is wrong when somebody sets the clock meanwhile.
uint64_t GetTimeStampUs() {
  timeval now{};
  gettimeofday(&now, nullptr);
  return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_usec);
}

double NowMs() {
  return static_cast<double>(GetTimeStampUs()) / 1000.0;
}

}  // namespace quilmrun
