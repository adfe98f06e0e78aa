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

// Makes the calls for one input of an inference.
void AddInput(quilm_mdl_dataset* inputs) {
  constexpr size_t kBytes = 64;
  constexpr int32_t kPolicy = 2;
  void* memory = nullptr;
  quilm_rt_malloc(&memory, kBytes, kPolicy);
  quilm_mdl_add_dataset_buffer(inputs, quilm_create_data_buffer(memory, kBytes, kBytes));
}

void Release(quilm_mdl_dataset* dataset) {
  for (size_t i = 0; i < quilm_mdl_get_dataset_num_buffers(dataset); ++i) {
    quilm_data_buffer* buffer = quilm_mdl_get_dataset_buffer(dataset, i);
    quilm_rt_free(quilm_get_data_buffer_addr(buffer));
    quilm_destroy_data_buffer(buffer);
  }
  quilm_mdl_destroy_dataset(dataset);
}

// Returns the number of calls: as many as the tool makes for the digits, with the same share of
// calls that only ask.
long MakeInferences(long count) {
  constexpr int kInputs = 3;
  constexpr int kQuestions = 39;
  quilm_mdl_dataset* outputs = quilm_mdl_create_dataset();
  AddInput(outputs);
  for (long number = 0; number < count; ++number) {
    quilm_mdl_dataset* inputs = quilm_mdl_create_dataset();
    for (int i = 0; i < kInputs; ++i) {
      AddInput(inputs);
    }
    for (int i = 0; i < kQuestions; ++i) {
      quilm_data_type_size(0);
    }
    quilm_mdl_execute(0, inputs, outputs);
    Release(inputs);
  }
  Release(outputs);
  constexpr int kPerInput = 6;
  return count * (kInputs * kPerInput + 1 + kQuestions + 4);
}

}  // namespace

int main(int argc, char** argv) {
  constexpr int kRounds = 10;
  const long count =
      argc >= 3 && quilm_init(argv[1]) == 0 ? std::strtol(argv[2], nullptr, 10) / kRounds : 0;
  if (count < 1) {
    std::fputs("usage: many_calls SETTINGS COUNT [inferences]\n", stderr);
    return 1;
  }
  if (argc > 3) {
    std::printf("%ld\n", MakeInferences(count * kRounds));
    quilm_finalize();
    return 0;
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
