// Files of the benchmarks, in a directory that exists while they run.
//
// A benchmark "<subject>/floor" measures the least that the work can cost on the machine at hand. A
// benchmark "<subject>/<figure>" measures what the tool's own functions take for it. Floors have
// their data ready, and make only the system calls or the one copy that nobody can do without.
#ifndef QUILMRUN_BENCH_SCRATCH_H_
#define QUILMRUN_BENCH_SCRATCH_H_

#include <cstddef>
#include <string>
#include <vector>

namespace quilmrun {

/// The path for a file called `name`.
std::string ScratchPath(const std::string& name);

/// Writes a file of `size` bytes, none of them 0, and returns its path.
std::string MakeScratchFile(const std::string& name, size_t size);

/// Writes a file with `text` and returns its path.
std::string MakeScratchText(const std::string& name, const std::string& text);

/// Values as a model may give them, of both signs and 1e-6 to 1e3; the same for the same count.
std::vector<float> SampleValues(size_t count);

}  // namespace quilmrun

#endif  // QUILMRUN_BENCH_SCRATCH_H_
