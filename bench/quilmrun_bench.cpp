// Staging and dumping against the least that the same work can cost on the machine at hand.
//
// Each operation has a floor, measured in the same run: for staging, one read() of the whole file
// into cleared memory; for the text file, one write() per line of text that is already formatted,
// since every line has to reach the file on its own; for the binary file, one write() of all. The
// figures that count are the ratios printed at the end, and that of memory to the data moved.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "input/staging.h"
#include "model/model_process.h"
#include "model/tensor_description.h"
#include "output/dump.h"

namespace quilmrun {
namespace {

constexpr size_t kFileBytes = size_t{64} << 20;
constexpr size_t kOutputElements = size_t{1} << 20;

std::string directory;

std::string PathOf(const char* name) {
  return directory + "/" + name;
}

// In small pieces, so as not to raise the peak of memory that is measured later.
void WriteInputFile() {
  const std::string piece(4096, 'x');
  std::ofstream file(PathOf("input.bin"), std::ios::binary);
  for (size_t i = 0; i < kFileBytes / piece.size(); ++i) {
    file << piece;
  }
}

// The same file in three layouts: rows end to end, wide padded rows, tiny padded rows.
struct Layout {
  const char* stage;  // name of the benchmark
  const char* floor;
  const char* label;
  size_t rowBytes;
  size_t stride;
};

constexpr Layout kLayouts[] = {
    {"stage/packed", "read/packed", "staging rows of 4096 bytes, no padding", 4096, 4096},
    {"stage/wide", "read/wide", "staging rows of 2048 bytes, stride 2560", 2048, 2560},
    {"stage/tiny", "read/tiny", "staging rows of 8 bytes, stride 32", 8, 32},
};

size_t BufferBytes(const Layout& layout) {
  return kFileBytes / layout.rowBytes * layout.stride;
}

// Starts the runtime with a model of one uint8 input per layout and one output of floats.
void StartRuntime() {
  std::ofstream script(PathOf("model.cfg"));
  for (const Layout& layout : kLayouts) {
    script << "input x 4 " << BufferBytes(layout) << " " << layout.stride << " "
           << kFileBytes / layout.rowBytes << " " << layout.rowBytes << "\n";
  }
  script << "output y 0 " << kOutputElements * 8 << " 2048 " << kOutputElements / 256 << " 256\n";
  script.close();
  quilm_init(PathOf("model.cfg").c_str());
}

DeviceMemory Stage(size_t input) {
  const Description desc(quilm_mdl_create_desc());
  quilm_mdl_io_dims dims;
  QueryDims(kInputQueries, desc.get(), input, dims);
  uint32_t batchSize = 1;
  int32_t totalT = -1;
  return GetPicDeviceBuffer(PathOf("input.bin"), dims, desc.get(), input, batchSize, 0, totalT);
}

void StageFile(benchmark::State& state) {
  while (state.KeepRunning()) {
    benchmark::DoNotOptimize(Stage(static_cast<size_t>(state.range(0))));
  }
}

void ReadWholeFile(benchmark::State& state) {
  const auto size = static_cast<size_t>(state.range(0));
  while (state.KeepRunning()) {
    const DeviceMemory memory = AllocateDeviceMemory(size);
    const int file = open(PathOf("input.bin").c_str(), O_RDONLY);
    benchmark::DoNotOptimize(read(file, memory.get(), kFileBytes));
    close(file);
  }
}

std::vector<float> SampleValues() {
  std::vector<float> values(kOutputElements);
  for (size_t i = 0; i < values.size(); ++i) {
    values[i] = static_cast<float>(i) * 0.37F - 1000.0F;
  }
  return values;
}

void DumpOutputs(benchmark::State& state) {
  ModelProcess model({}, 1, -1, 0);
  std::vector<std::string> names;
  model.CreateDesc(names);
  model.CreateOutput();
  while (state.KeepRunning()) {
    model.DumpModelOutput(directory);
    state.PauseTiming();
    if (std::system(("rm -rf " + directory + "/42949*").c_str()) != 0) {
      state.SkipWithError("can't remove the files dumped");
    }
    state.ResumeTiming();
  }
}

// The same files with nothing left to compute: the lines one by one, then all floats at once.
void WriteFormatted(benchmark::State& state) {
  std::vector<std::string> lines;
  const std::vector<float> values(kOutputElements);
  for (const float value : values) {
    ValueLine line;
    lines.emplace_back(line.data(), FormatValueLine(value, line));
  }
  while (state.KeepRunning()) {
    const int file = open(PathOf("floor").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    for (const std::string& line : lines) {
      benchmark::DoNotOptimize(write(file, line.data(), line.size()));
    }
    benchmark::DoNotOptimize(write(file, values.data(), values.size() * sizeof(float)));
    close(file);
    state.PauseTiming();
    unlink(PathOf("floor").c_str());
    state.ResumeTiming();
  }
}

void FormatValues(benchmark::State& state) {
  const std::vector<float> values = SampleValues();
  ValueLine line;
  while (state.KeepRunning()) {
    for (const float value : values) {
      benchmark::DoNotOptimize(FormatValueLine(value, line));
    }
  }
}

void FormatWithPrintf(benchmark::State& state) {
  const std::vector<float> values = SampleValues();
  ValueLine line;
  while (state.KeepRunning()) {
    for (const float value : values) {
      benchmark::DoNotOptimize(
          std::snprintf(line.data(), line.size(), "%.16f\n", static_cast<double>(value)));
    }
  }
}

// Keeps the times, so that ratios can be printed when all have run.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      times_[run.run_name.function_name] = run.GetAdjustedRealTime();
    }
  }

  void PrintRatio(const char* label, const char* name, const char* floor) {
    std::fprintf(stderr, "%-58s %6.2f\n", label, times_[name] / times_[floor]);
  }

 private:
  std::map<std::string, double> times_;
};

long PeakMemoryBytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss * 1024;
}

// Most memory taken while a file is staged without padding, in units of the file's size.
double StagingMemoryRatio() {
  const long before = PeakMemoryBytes();
  const DeviceMemory memory = Stage(0);
  return static_cast<double>(PeakMemoryBytes() - before) / static_cast<double>(kFileBytes);
}

void Register(const char* name, void (*function)(benchmark::State&), int64_t argument) {
  benchmark::RegisterBenchmark(name, function)->Arg(argument)->Unit(benchmark::kMillisecond);
}

// A scratch directory, in memory where it can be, so that the disk does not drown what is measured.
std::string MakeScratchDirectory() {
  for (std::string path : {"/dev/shm/quilmrun_bench_XXXXXX", "/tmp/quilmrun_bench_XXXXXX"}) {
    if (mkdtemp(path.data()) != nullptr) {
      return path;
    }
  }
  return "";
}

void RegisterAll() {
  for (size_t i = 0; i < std::size(kLayouts); ++i) {
    Register(kLayouts[i].stage, StageFile, static_cast<int64_t>(i));
    Register(kLayouts[i].floor, ReadWholeFile, static_cast<int64_t>(BufferBytes(kLayouts[i])));
  }
  Register("dump", DumpOutputs, 0);
  Register("write", WriteFormatted, 0);
  Register("format", FormatValues, 0);
  Register("printf", FormatWithPrintf, 0);
}

void RunAndPrintRatios(double memoryRatio) {
  RatioReporter reporter;
  reporter.SetOutputStream(&std::cerr);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  std::fprintf(stderr, "\nRatios, 1 being the floor:\n");
  for (const Layout& layout : kLayouts) {
    reporter.PrintRatio(layout.label, layout.stage, layout.floor);
  }
  reporter.PrintRatio("dumping 1048576 floats as text and binary", "dump", "write");
  reporter.PrintRatio("formatting a value, against printf", "format", "printf");
  std::fprintf(stderr, "%-58s %6.2f\n", "memory for staging, against the file's size", memoryRatio);
}

}  // namespace
}  // namespace quilmrun

int main(int argc, char** argv) {
  using namespace quilmrun;  // NOLINT: this is its program
  benchmark::Initialize(&argc, argv);
  directory = MakeScratchDirectory();
  // The tool's own messages would drown the figures, which go to standard error.
  if (directory.empty() || std::freopen("/dev/null", "w", stdout) == nullptr) {
    std::perror("quilmrun_bench");
    return 1;
  }
  WriteInputFile();
  StartRuntime();
  const double memoryRatio = StagingMemoryRatio();
  RegisterAll();
  RunAndPrintRatios(memoryRatio);
  return std::system(("rm -rf " + directory).c_str());
}
