// Runs the benchmarks on a runtime that describes a model of their own, in a scratch directory.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "bench/scratch.h"
#include "runtime/quilm.h"

namespace quilmrun {
namespace {

std::string directory;

// Makes a directory below the one that the environment names.
std::string MakeScratchDirectory() {
  const char* chosen = std::getenv("QUILMRUN_BENCH_DIR");
  std::string path = std::string(chosen == nullptr ? "/tmp" : chosen) + "/quilmrun_XXXXXX";
  return mkdtemp(path.data()) == nullptr ? "" : path;
}

// The runtime describes this model to staging_bench.cpp: one input of bytes, with its size, stride
// and dimensions.
constexpr char kModel[] = "input rows 4 6635520 2048 3240 1920\n";

int RunBenchmarks() {
  quilm_init(MakeScratchText("model.cfg", kModel).c_str());
  benchmark::ConsoleReporter reporter;
  reporter.SetOutputStream(&std::cerr);
  const bool ran = benchmark::RunSpecifiedBenchmarks(&reporter) > 0;
  quilm_finalize();
  return ran ? 0 : 1;
}

}  // namespace

std::string ScratchPath(const std::string& name) {
  return directory + "/" + name;
}

std::string MakeScratchFile(const std::string& name, size_t size) {
  return MakeScratchText(name, std::string(size, 'x'));
}

std::string MakeScratchText(const std::string& name, const std::string& text) {
  std::ofstream file(ScratchPath(name), std::ios::binary);
  file << text;
  return ScratchPath(name);
}

std::vector<float> SampleValues(size_t count) {
  std::vector<float> values(count);
  uint32_t random = 1;
  for (float& value : values) {
    random = random * 1664525 + 1013904223;
    const float sign = (random >> 31) == 0 ? 1.0F : -1.0F;
    value = sign * std::exp2(static_cast<float>(random & 0x7FFFFFFF) / 0x1p31F * 30 - 20);
  }
  return values;
}

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
  const int result = RunBenchmarks();
  std::filesystem::remove_all(directory);
  return result;
}
