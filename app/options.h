// The command line: what the user typed, and the files that it names.
#ifndef QUILMRUN_APP_OPTIONS_H_
#define QUILMRUN_APP_OPTIONS_H_

#include <cstdint>
#include <string>
#include <vector>

namespace quilmrun {

/// The command line as typed.
struct RunOptions {
  std::string modelPath;      ///< -m, the compiled model
  std::string imagePath;      ///< -i, the list file that names the input files
  std::string quilmJsonPath;  ///< -j, the runtime's configuration
  std::string rpnData;        ///< -r, comma-separated RPN data files
  int32_t batchSize = 1;      ///< -b
  int32_t nlpTotalT = -1;     ///< -t, frames of a recurrent model; -1 means none given
  int32_t profile = 0;        ///< -p, only 1 switches profiling on
  std::string outputPath;     ///< -o, directory for the output files
  /// False when -t, -b or -p had a value that is no number; nothing may run then.
  bool numbersValid = true;
};

/// What the run uses: absolute paths where they could be resolved.
struct ResolvedPaths {
  std::string modelPath;
  std::vector<std::string> inputFiles;  ///< the entries of the list file
  std::string quilmJsonPath;
  std::vector<std::string> rpnFiles;  ///< in command-line order
};

/// Fills `options` from the command line; an option given twice keeps its last value. Echoes -t and
/// -b. Prints the usage line for an option that it does not know or that lacks its value, and goes
/// on. Reports a value of -t, -b or -p that is no signed 32-bit number, clears numbersValid and
/// stops there.
void ParseOptions(RunOptions& options, int argc, char** argv);

/// Resolves the paths in `options` into `paths` and reads the list file. Fails at the first path of
/// bad length, and at once when a number was bad. The step that failed has printed the reason.
int CheckOptions(const RunOptions& options, ResolvedPaths& paths);

}  // namespace quilmrun

#endif  // QUILMRUN_APP_OPTIONS_H_
