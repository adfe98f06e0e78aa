// Measures the reading and grouping of a list file for 50,000 inferences, whose files are named and
// not in the order of the model's inputs.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "base/descriptor.h"
#include "bench/scratch.h"
#include "input/input_list.h"

namespace quilmrun {
namespace {

constexpr size_t kGroups = 50000;

std::string MakeList() {
  std::string text;
  for (size_t i = 0; i < kGroups; ++i) {
    const std::string file = "recordings/" + std::to_string(i) + ".bin\n";
    text.append("right:right/").append(file).append("left:left/").append(file);
  }
  return MakeScratchText("list.txt", text);
}

// The lines, as strings of their own.
std::vector<std::string> ReadLines(const std::string& path) {
  const Descriptor file(path, O_RDONLY);
  std::string text(static_cast<size_t>(lseek(file.Number(), 0, SEEK_END)), '\0');
  lseek(file.Number(), 0, SEEK_SET);
  text.resize(file.Read(text.data(), text.size()));
  std::vector<std::string> lines;
  for (size_t start = 0; start < text.size();) {
    const size_t end = text.find('\n', start);
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

void SplitLines(benchmark::State& state) {
  const std::string path = MakeList();
  while (state.KeepRunning()) {
    benchmark::DoNotOptimize(ReadLines(path));
  }
}
BENCHMARK(SplitLines)->Name("list/floor");

void ReadAndGroup(benchmark::State& state) {
  const std::string path = MakeList();
  const std::vector<std::string> names = {"left", "right"};
  while (state.KeepRunning()) {
    std::vector<std::string> entries = ReadInputList(path);
    GroupInputsByName(entries, names);
    benchmark::DoNotOptimize(entries);
  }
}
BENCHMARK(ReadAndGroup)->Name("list/group");

}  // namespace
}  // namespace quilmrun
