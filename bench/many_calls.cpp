// many_calls SETTINGS COUNT makes COUNT calls of libquilm.so that do next to nothing. It prints the
// nanoseconds of processor time that one of them takes, in the fastest of several rounds.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "runtime/quilm.h"

namespace {

double ProcessorNs() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

}  // namespace

int main(int argc, char** argv) {
  constexpr int kRounds = 10;
  const long count =
      argc == 3 && quilm_init(argv[1]) == 0 ? std::strtol(argv[2], nullptr, 10) / kRounds : 0;
  if (count < 1) {
    std::fputs("usage: many_calls SETTINGS COUNT\n", stderr);
    return 1;
  }
  double least = 1e18;
  for (int round = 0; round < kRounds; ++round) {
    const double start = ProcessorNs();
    for (long i = 0; i < count; ++i) {
      quilm_data_type_size(0);
    }
    least = std::min(least, (ProcessorNs() - start) / static_cast<double>(count));
  }
  std::printf("%.1f\n", least);
  quilm_finalize();
  return 0;
}
