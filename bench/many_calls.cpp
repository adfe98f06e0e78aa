// many_calls SETTINGS COUNT: makes as many calls of libquilm.so that do next to nothing, and prints
// the nanoseconds that one takes, as the least of several rounds.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "runtime/quilm.h"

int main(int argc, char** argv) {
  constexpr int kRounds = 10;
  const long count =
      argc == 3 && quilm_init(argv[1]) == 0 ? std::strtol(argv[2], nullptr, 10) / kRounds : 0;
  double least = 1e9;
  size_t sum = 0;
  for (int round = 0; round < kRounds && count > 0; ++round) {
    const auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < count; ++i) {
      sum += quilm_data_type_size(0);
    }
    const std::chrono::duration<double, std::nano> time = std::chrono::steady_clock::now() - start;
    least = std::min(least, time.count() / static_cast<double>(count));
  }
  std::printf("%.1f\n", least);
  quilm_finalize();
  return sum % 2 == 0 ? 0 : 1;
}
