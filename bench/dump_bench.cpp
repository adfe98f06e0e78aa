// Measures how one output gets into its two files, and its elements into floats.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "base/descriptor.h"
#include "bench/scratch.h"
#include "output/dump_format.h"
#include "output/output_file.h"
#include "output/output_rows.h"

namespace quilmrun {
namespace {

constexpr size_t kRows = 1000;
constexpr size_t kRowElements = 1000;
constexpr size_t kValues = kRows * kRowElements;

// Measures `work`, which gets the path of a file that does not exist yet.
template <typename Work>
void WithNewFile(benchmark::State& state, const Work& work) {
  const std::string path = ScratchPath("output");
  while (state.KeepRunning()) {
    work(path);
    state.PauseTiming();
    unlink(path.c_str());
    state.ResumeTiming();
  }
}

// ---- The text file --------------------------------------------------------------------------

std::vector<std::string> FormatLines() {
  std::vector<std::string> lines;
  for (const float value : SampleValues(kValues)) {
    ValueLine line;
    lines.emplace_back(line.data(), FormatValueLine(value, line));
  }
  return lines;
}

void WriteReadyLines(benchmark::State& state) {
  const std::vector<std::string> lines = FormatLines();
  WithNewFile(state, [&lines](const std::string& path) {
    const Descriptor file(path, O_WRONLY | O_CREAT, 0666);
    for (const std::string& line : lines) {
      benchmark::DoNotOptimize(write(file.Number(), line.data(), line.size()));
    }
  });
}
BENCHMARK(WriteReadyLines)->Name("text/floor");

void WriteText(benchmark::State& state) {
  const std::vector<float> values = SampleValues(kValues);
  WithNewFile(state, [&values](const std::string& path) { WriteAsText(values, OutputFile(path)); });
}
BENCHMARK(WriteText)->Name("text/write");

// ---- Extraction from padded rows ---------------------------------------------------------------

template <typename T>
struct Output {
  Output() : bytes(kRows * kPitch * sizeof(T), 1) {
    rows = {bytes.data(), bytes.size(), kRows, kRowElements, kPitch};
  }

  static constexpr size_t kPitch = 1024;
  std::vector<unsigned char> bytes;
  OutputRows rows;
};

void CopyFloats(benchmark::State& state) {
  const std::vector<float> source = SampleValues(kValues);
  while (state.KeepRunning()) {
    const std::unique_ptr<float[]> target(new float[kValues]);
    std::memcpy(target.get(), source.data(), kValues * sizeof(float));
    benchmark::DoNotOptimize(target.get());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(CopyFloats)->Name("extract/floor");

template <typename T>
void Extract(benchmark::State& state) {
  const Output<T> output;
  while (state.KeepRunning()) {
    std::vector<float> values;
    AppendRows<T>(output.rows, values);
    benchmark::DoNotOptimize(values.data());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(Extract<float>)->Name("extract/float");
BENCHMARK(Extract<int8_t>)->Name("extract/int8");
BENCHMARK(Extract<uint8_t>)->Name("extract/uint8");
BENCHMARK(Extract<int16_t>)->Name("extract/int16");
BENCHMARK(Extract<uint16_t>)->Name("extract/uint16");

// ---- The binary file, extraction included -----------------------------------------------------

void WriteReadyFloats(benchmark::State& state) {
  const std::vector<float> values = SampleValues(kValues);
  WithNewFile(state, [&values](const std::string& path) {
    const Descriptor file(path, O_WRONLY | O_CREAT, 0666);
    benchmark::DoNotOptimize(write(file.Number(), values.data(), kValues * sizeof(float)));
  });
}
BENCHMARK(WriteReadyFloats)->Name("binary/floor");

template <typename T>
void WriteBinary(benchmark::State& state) {
  const Output<T> output;
  WithNewFile(state, [&output](const std::string& path) {
    std::vector<float> values;
    AppendRows<T>(output.rows, values);
    WriteAsBinary(values, OutputFile(path));
  });
}
BENCHMARK(WriteBinary<float>)->Name("binary/float");
BENCHMARK(WriteBinary<int8_t>)->Name("binary/int8");

}  // namespace
}  // namespace quilmrun
