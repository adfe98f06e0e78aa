// Measures the reading of a model file into device memory.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstring>

#include "base/descriptor.h"
#include "bench/scratch.h"
#include "input/utils.h"
#include "runtime/handles.h"

namespace quilmrun {
namespace {

constexpr size_t kModelBytes = size_t{32} << 20;

void ClearAndReadModel(benchmark::State& state) {
  const std::string path = MakeScratchFile("model", kModelBytes);
  while (state.KeepRunning()) {
    void* memory = nullptr;
    quilm_rt_malloc(&memory, kModelBytes, 2);
    std::memset(memory, 0, kModelBytes);
    const Descriptor file(path, O_RDONLY);
    benchmark::DoNotOptimize(read(file.Number(), memory, kModelBytes));
    quilm_rt_free(memory);
  }
}
BENCHMARK(ClearAndReadModel)->Name("model/floor");

void ReadModel(benchmark::State& state) {
  const std::string path = MakeScratchFile("model", kModelBytes);
  while (state.KeepRunning()) {
    uint32_t size = 0;
    benchmark::DoNotOptimize(ReadBinFile(path, size));
  }
}
BENCHMARK(ReadModel)->Name("model/read");

}  // namespace
}  // namespace quilmrun
