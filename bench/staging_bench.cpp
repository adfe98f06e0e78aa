// Measures how rows of a file get into memory, where they start a stride apart.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "base/descriptor.h"
#include "bench/scratch.h"
#include "input/staging.h"
#include "runtime/handles.h"
#include "runtime/tensor_description.h"

namespace quilmrun {
namespace {

// One batch of `rows` rows, with a file to fill it from and the memory to put it.
struct Subject {
  Subject(size_t rows, size_t rowBytes, size_t stride)
      : layout{rowBytes, stride, rows, rows * stride, 1},
        fileBytes(rows * rowBytes),
        path(MakeScratchFile("rows", fileBytes)),
        memory(rows * stride) {}

  RowLayout layout;
  size_t fileBytes;
  std::string path;
  std::vector<char> memory;
};

Subject MakeSubject(const benchmark::State& state) {
  return {static_cast<size_t>(state.range(0)), static_cast<size_t>(state.range(1)),
          static_cast<size_t>(state.range(2))};
}

// Leaves every byte defined with the fewest calls: the memory is cleared and filled at once,
// packed.
void ClearAndRead(benchmark::State& state) {
  Subject subject = MakeSubject(state);
  const Descriptor file(subject.path, O_RDONLY);
  while (state.KeepRunning()) {
    lseek(file.Number(), 0, SEEK_SET);
    std::memset(subject.memory.data(), 0, subject.memory.size());
    benchmark::DoNotOptimize(read(file.Number(), subject.memory.data(), subject.fileBytes));
  }
}

// Puts every row into its place with the fewest calls, whose lists are ready.
void ClearAndReadLists(benchmark::State& state) {
  constexpr size_t kRowsPerCall = 1024;  // IOV_MAX
  Subject subject = MakeSubject(state);
  const Descriptor file(subject.path, O_RDONLY);
  std::vector<iovec> rows;
  rows.reserve(subject.layout.rows);
  for (size_t r = 0; r < subject.layout.rows; ++r) {
    rows.push_back({subject.memory.data() + r * subject.layout.stride, subject.layout.rowBytes});
  }
  while (state.KeepRunning()) {
    lseek(file.Number(), 0, SEEK_SET);
    std::memset(subject.memory.data(), 0, subject.memory.size());
    for (size_t r = 0; r < rows.size(); r += kRowsPerCall) {
      const size_t count = std::min(kRowsPerCall, rows.size() - r);
      benchmark::DoNotOptimize(readv(file.Number(), &rows[r], static_cast<int>(count)));
    }
  }
}

void ClearAndReadPerRow(benchmark::State& state) {
  Subject subject = MakeSubject(state);
  const Descriptor file(subject.path, O_RDONLY);
  while (state.KeepRunning()) {
    lseek(file.Number(), 0, SEEK_SET);
    std::memset(subject.memory.data(), 0, subject.memory.size());
    for (size_t r = 0; r < subject.layout.rows; ++r) {
      char* row = subject.memory.data() + r * subject.layout.stride;
      benchmark::DoNotOptimize(read(file.Number(), row, subject.layout.rowBytes));
    }
  }
}

void ClearAndCopyRows(benchmark::State& state) {
  Subject subject = MakeSubject(state);
  const InputFile file(subject.path);
  while (state.KeepRunning()) {
    benchmark::DoNotOptimize(file.Size());  // goes back to the first byte
    std::memset(subject.memory.data(), 0, subject.memory.size());
    CopyRows(file, subject.layout, subject.memory.data());
  }
}

void Register(const std::string& subject, const std::vector<int64_t>& rowsBytesStride) {
  const auto add = [&](const char* name, void (*function)(benchmark::State&)) {
    benchmark::RegisterBenchmark((subject + name).c_str(), function)->Args(rowsBytesStride);
  };
  add("/floor", ClearAndRead);
  add("/lists", ClearAndReadLists);
  add("/rows", ClearAndCopyRows);
  add("/call_per_row", ClearAndReadPerRow);
}

const bool kRegistered = [] {
  Register("rows_of_4096", {4096, 4096, 4096});
  Register("rows_of_1920", {3240, 1920, 2048});
  Register("rows_of_1000", {4096, 1000, 1024});
  Register("rows_of_224", {16384, 224, 256});
  Register("rows_of_8", {65536, 8, 32});
  return true;
}();

// Does all that a run does for one input file: checks, messages, new device memory, the rows.
void StageFile(benchmark::State& state) {
  const std::string path = MakeScratchFile("input", size_t{3240} * 1920);
  const Description desc(quilm_mdl_create_desc());
  quilm_mdl_io_dims dims;
  QueryDims(kInputQueries, desc.get(), 0, dims);
  uint32_t batchSize = 1;
  int32_t totalT = -1;
  while (state.KeepRunning()) {
    benchmark::DoNotOptimize(GetPicDeviceBuffer(path, dims, desc.get(), 0, batchSize, 0, totalT));
  }
}
BENCHMARK(StageFile)->Name("stage/file");

void ClearAndReadInput(benchmark::State& state) {
  const std::string path = MakeScratchFile("input", size_t{3240} * 1920);
  while (state.KeepRunning()) {
    const DeviceMemory memory = AllocateDeviceMemory(size_t{3240} * 2048);
    const Descriptor file(path, O_RDONLY);
    benchmark::DoNotOptimize(read(file.Number(), memory.get(), size_t{3240} * 1920));
  }
}
BENCHMARK(ClearAndReadInput)->Name("stage/floor");

}  // namespace
}  // namespace quilmrun
